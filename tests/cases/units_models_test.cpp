// Every kind of model in several units of the traits, read from Results.json: log L, solutions with their errors, and
// estimates with their sampling errors where a search ends.
#include "case_run.h"
#include "support/screen.h"
#include "support/small_models.h"

#include <algorithm>
#include <cmath>
#include <random>

using namespace tarvex;

namespace {

struct unit_model {
    const char* name;
    small_model m;
    std::string subject = {}; // line in the model
    std::string given = {};   // supplied inverse of the animals
    int marked = 0;           // levels treated as fixed
};

small_model animals(int nq, std::vector<double> g, std::vector<double> r, int repeats = 1, double missing = 0.0) {
    small_model m;
    m.nq = nq;
    m.make_pedigree(90, 20, 151);
    m.make_rows(8, repeats, 3, missing, 152);
    m.random = {{"animal", "NRM", nq, 0, std::move(g)}};
    m.residual = std::move(r);
    return m;
}

// Records drawn from the model, so that a search ends inside the parameter space. Lines are subjects where that is
// asked for; all effects have levels of their own.
void draw_records(small_model& m, bool lines, unsigned seed) {
    const dense_model d = as_given(m, lines);
    const oracle::dense root = oracle::cholesky(oracle::variance(d.an, d.at));
    std::mt19937 rng(seed);
    std::normal_distribution<double> normal;
    oracle::vec z(root.size());
    for (double& x : z) x = normal(rng);
    std::size_t k = 0;
    for (auto& r : m.rows)
        for (double& y : r.y)
            if (y != -999.0) {
                y = std::round(1000.0 * (20.0 + r.herd + 0.5 * r.x + oracle::dot(root[k], z))) / 1000.0;
                ++k;
            }
}

unit_model one_trait(const char* name, const char* repeat) {
    small_model m = animals(1, {1.3}, {2.1}, 3);
    m.covariable = true;
    m.random.push_back({"pe", "IDE", 1, 0, {0.8}});
    draw_records(m, false, 1);
    m.random[1].kov = repeat;
    return {name, m};
}

unit_model two_traits(const char* name, int repeats = 1) {
    unit_model u{name, animals(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9}, repeats, 0.2)};
    draw_records(u.m, false, 2);
    return u;
}

unit_model maternal() {
    small_model m = animals(1, {1.3}, {2.1}, 2);
    m.random[0] = {"animal+dam", "NRM", 2, 0, {1.3, 0.1, 0.6}};
    draw_records(m, false, 3);
    return {"maternal", m};
}

unit_model sires() {
    unit_model u = two_traits("sires", 2);
    u.m.sires = true;
    draw_records(u.m, false, 4);
    return u;
}

unit_model components() {
    const double f[3][2] = {{1.2, 0.0}, {0.5, 1.1}, {0.3, 0.4}};
    std::vector<double> g;
    for (int i = 0; i < 3; ++i)
        for (int j = i; j < 3; ++j) g.push_back(f[i][0] * f[j][0] + f[i][1] * f[j][1]);
    small_model m = animals(3, g, {2.1, 0.4, 0.1, 1.9, 0.2, 1.5}, 1, 0.1);
    m.principal = true;
    m.random[0].rank = 2;
    draw_records(m, false, 5);
    return {"components", m};
}

unit_model diagonal() {
    unit_model u = two_traits("diagonal");
    u.m.random[0] = {"animal", "NRM", 2, 0, {1.3, 1.8}, true};
    draw_records(u.m, false, 6);
    return u;
}

unit_model regressions(const char* name, std::vector<double> residual, std::vector<int> bounds) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(60, 15, 153);
    m.make_rows(6, 6, 3, 0.0, 154);
    m.random = {{"animal", "NRM", 2, 0, {1.3, 0.2, 0.9}}, {"pe", "IDE", 1, 0, {0.8}}};
    m.class_bounds = std::move(bounds);
    m.residual = std::move(residual);
    draw_records(m, false, 7);
    return {name, m};
}

unit_model supplied() {
    unit_model u = two_traits("supplied");
    u.m.rows.clear();
    u.m.make_rows(1, 1, 3, 0.0, 155); // a record of every animal: codes are levels
    draw_records(u.m, false, 8);
    const oracle::dense a = oracle::tabular(u.m.sire, u.m.dam), inverse = oracle::inverse(a);
    u.given = std::to_string(oracle::log_det(a)) + "\n";
    for (std::size_t i = 0; i < inverse.size(); ++i)
        for (std::size_t j = 0; j <= i; ++j)
            if (std::fabs(inverse[i][j]) > 1.0e-12)
                u.given += std::to_string(j + 1) + " " + std::to_string(i + 1) + " " + list_item(inverse[i][j]) + "\n";
    u.m.random[0].kov = "GIN";
    u.m.sire.clear();
    u.m.dam.clear();
    return u;
}

unit_model marked_levels() {
    unit_model u = two_traits("marked");
    u.marked = 2;
    u.m.extra = "PSE 0.0\n animal 12\n animal 15\nEND\n";
    return u;
}

unit_model subjects(const char* name, const char* line) {
    unit_model u = two_traits(name, 3);
    u.m.random.push_back({"pe", "IDE", 2, 0, {0.9, 0.2, 0.8}});
    draw_records(u.m, true, 9);
    u.subject = line;
    return u;
}

unit_model repeats_by_record() {
    unit_model u = subjects("by_record", "");
    u.m.random[1].kov = "PEQ";
    u.m.random[1].by_record = true;
    return u;
}

std::vector<unit_model> all_models() {
    return {one_trait("repeated", "IDE"),
            one_trait("repeat_effect", "PEQ"),
            two_traits("missing"),
            maternal(),
            sires(),
            components(),
            diagonal(),
            regressions("regression", {2.0}, {}),
            regressions("regression_in_classes", {2.0, 1.2}, {5, 11}),
            supplied(),
            marked_levels(),
            repeats_by_record(),
            subjects("subjects_of_lines", " SUBject LINE\n"),
            subjects("subjects_of_columns", " SUBject animal age\n")};
}

class unit_models : public case_run, public testing::WithParamInterface<std::size_t> {
protected:
    void SetUp() override {
        name_ = "model";
        u_ = all_models()[GetParam()];
    }
    double scale(int iq) const { return c_[at(iq - 1) % c_.size()]; } // of a trait
    double scale(const json& row) const { return scale(static_cast<int>(row["trait"].number)); }

    // The model in other units, written anew.
    void put(const std::vector<double>& c) {
        c_ = c;
        small_model m = u_.m;
        for (auto& r : m.rows)
            for (int q = 1; q <= m.nq; ++q)
                if (r.y[at(q - 1)] != -999.0) r.y[at(q - 1)] *= scale(q);
        const auto matrix = [&](std::vector<double>& g, int n, bool diagonal) {
            std::size_t k = 0;
            for (int i = 0; i < n; ++i)
                for (int j = i; j < (diagonal ? i + 1 : n); ++j)
                    g[k++] *= m.randreg ? c[0] * c[0] : scale(i % m.nq + 1) * scale(j % m.nq + 1);
        };
        for (auto& e : m.random) matrix(e.g, e.order, e.diagonal);
        if (m.class_bounds.empty())
            matrix(m.residual, m.nq, false);
        else
            for (double& v : m.residual) v *= c[0] * c[0];
        m.write_files("model");
        std::string text = m.parameters();
        write_file("model.par", text.insert(text.find(" TRAIT y1"), u_.subject));
        if (!u_.given.empty()) write_file("animal.gin", u_.given);
        for (const char* left : {"BestPoint", "nrminvers1.bin", "cholnrm1.bin", "Results.json"})
            std::filesystem::remove(left);
    }
    json results(const std::string& options) {
        finish(options + " --json");
        return read_json(read_file("Results.json"));
    }
    double expect_fixed(const json& d, const json& plain) const;
    static void effects_of(const json& d, const json& part, const std::vector<double>& c, std::vector<double>& u,
                           std::vector<double>& se);
    void expect_random(const json& d, const json& plain) const;
    void expect_estimates(const json& d, const json& plain, double accuracy = 1.0e-9) const;

    // Products of the loadings on the screen are the matrix of the first effect.
    void expect_loadings(const std::string& output) const {
        const auto from = output.find("Loadings of the components of \"animal\"");
        ASSERT_NE(from, std::string::npos) << output;
        const auto rows = lines_of(output.substr(from));
        const auto loading = [&](int i, int k) { return number_of(words_of(rows.at(at(i))).at(at(k))); };
        std::size_t k = 0;
        for (int i = 1; i <= u_.m.nq; ++i)
            for (int j = i; j <= u_.m.nq; ++j) {
                const double g = loading(i, 1) * loading(j, 1) + loading(i, 2) * loading(j, 2);
                EXPECT_NEAR(g / scale(i) / scale(j), u_.m.random[0].g[k++], 1.0e-3) << i << " " << j;
            }
    }

    static constexpr const char* steps = "--aireml1,1e-13 --nologd --noreord";
    unit_model u_;
    std::vector<double> c_;
};

const std::vector<std::vector<double>> other_units{{1.0e-6}, {1.0e6}, {1.0e-6, 1.0e6}, {3.0e3, 0.02}};

// A value of other units, against the same of the first run and its error.
void expect_same(double value, double want, double error, const std::string& what, double accuracy = 1.0e-9) {
    EXPECT_NEAR(value, want, accuracy * (std::fabs(want) + error)) << what;
}

// Compares solutions and errors of the fixed effects. Returns the shift of log L from these units to those of the first
// run: each record but those that a fixed equation takes counts with its scale.
double unit_models::expect_fixed(const json& d, const json& plain) const {
    const json &parts = d["solutions"]["fixed"], &first = plain["solutions"]["fixed"];
    EXPECT_EQ(parts.size(), first.size());
    double shift = 0.0;
    for (std::size_t p = 0; p < std::min(parts.size(), first.size()); ++p) {
        const double s = scale(first[p]);
        const json &value = parts[p]["solutions"], &error = parts[p]["se"];
        const std::vector<double> want = first[p]["solutions"].numbers(), its_error = first[p]["se"].numbers();
        EXPECT_EQ(value.size(), want.size());
        for (std::size_t k = 0; k < want.size(); ++k) {
            expect_same(value[k].number / s, want[k], its_error[k], first[p]["effect"].text);
            expect_same(error[k].number / s, its_error[k], 0.0, "error of " + first[p]["effect"].text);
            if (its_error[k] > 0.0) shift -= std::log(s); // not taken out
        }
    }
    for (const json& trait : plain["traits"].items)
        shift += (trait["records"].number - u_.marked) * std::log(scale(static_cast<int>(trait["number"].number)));
    return shift;
}

// Effects and their errors by level and row of the matrix, from scores where those are fitted.
void unit_models::effects_of(const json& d, const json& part, const std::vector<double>& c, std::vector<double>& u,
                             std::vector<double>& se) {
    const json& block = d["blocks"][at(static_cast<int>(part["block"].number))];
    const std::size_t n = at(static_cast<int>(block["order"].number)),
                      rank = at(static_cast<int>(part["components"].number));
    const bool scores = d["solutions"]["scale"].text == "components";
    const std::vector<double> w = part["solutions"].numbers(), e = part["se"].numbers();
    for (std::size_t l = 0; l < w.size() / rank; ++l)
        for (std::size_t i = 0; i < n; ++i) {
            const double s = c[at(static_cast<int>(block["rows"][i]["trait"].number) - 1) % c.size()];
            double x = 0.0;
            for (std::size_t k = 0; k < rank && scores; ++k) x += block["factor"][i][k].number * w[l * rank + k];
            u.push_back((scores ? x : w[l * rank + i]) / s);
            // of a component by itself; others by the errors of the scores
            const double q = !scores ? 1.0 : block["diagonal"].number != 0.0 ? block["factor"][i][i].number : 0.0;
            se.push_back(e[l * rank + std::min(i, rank - 1)] * std::fabs(q) / s);
        }
}

void unit_models::expect_random(const json& d, const json& plain) const {
    const json &parts = d["solutions"]["random"], &first = plain["solutions"]["random"];
    ASSERT_EQ(parts.size(), first.size());
    for (std::size_t p = 0; p < first.size(); ++p) {
        std::vector<double> u, se, want, want_se;
        effects_of(d, parts[p], c_, u, se);
        effects_of(plain, first[p], {1.0}, want, want_se);
        ASSERT_EQ(u.size(), want.size());
        double size = 0.0;
        for (double x : want) size = std::max(size, std::fabs(x));
        for (std::size_t k = 0; k < want.size(); ++k) {
            expect_same(u[k], want[k], size, "effect " + std::to_string(k));
            expect_same(se[k], want_se[k], 0.0, "error of effect " + std::to_string(k));
        }
        if (c_.size() > 1) continue; // pivots in another order
        for (std::size_t k = 0; k < first[p]["se"].size() && d["solutions"]["scale"].text == "components"; ++k) {
            expect_same(parts[p]["solutions"][k].number, first[p]["solutions"][k].number, 1.0, "score");
            expect_same(parts[p]["se"][k].number, first[p]["se"][k].number, 0.0, "error of a score");
        }
    }
}

// Covariances, heritabilities and correlations with their sampling errors.
void unit_models::expect_estimates(const json& d, const json& plain, double accuracy) const {
    ASSERT_EQ(d["estimates"].size(), plain["estimates"].size());
    for (std::size_t k = 0; k < plain["estimates"].size(); ++k) {
        const json &e = d["estimates"][k], &first = plain["estimates"][k];
        const json& rows = d["blocks"][at(static_cast<int>(e["block"].number))]["rows"];
        const auto of = [&](const char* which) { return scale(rows[at(static_cast<int>(e[which].number) - 1)]); };
        const double s = of("row") * of("column"), error = first["se"].number;
        EXPECT_GT(error, 0.0) << e["name"].text;
        expect_same(e["estimate"].number / s, first["estimate"].number, error, e["name"].text, accuracy);
        expect_same(e["se"].number / s, error, 0.0, "error of " + e["name"].text, accuracy);
    }
    for (std::size_t k = 0; k < plain["functions"].size(); ++k) {
        const json &f = d["functions"][k], &first = plain["functions"][k];
        EXPECT_EQ(f["ratio_se"].is, first["ratio_se"].is) << k;
        const std::string what = "ratio " + std::to_string(k);
        expect_same(f["ratio"].number, first["ratio"].number, 1.0, what, accuracy);
        expect_same(f["ratio_se"].number, first["ratio_se"].number, 0.0, "error of " + what, accuracy);
    }
}

// Three decimals of the first effect, as the file has them.
std::vector<double> accuracies(const std::string& effect) {
    std::vector<double> column;
    for (const auto& line : read_random_solutions(effect)) column.push_back(line.accuracy);
    return column;
}

TEST_P(unit_models, solutions_with_their_errors) {
    put({1.0});
    const json plain = results("--blup");
    const std::vector<double> accuracy = accuracies(u_.m.random[0].name);
    const json search = results(steps);
    const double start = search["iterates"][0]["log_l"].number;
    for (const auto& c : other_units) {
        SCOPED_TRACE("units of " + std::to_string(c[0]));
        put(c);
        const json d = results("--blup");
        expect_random(d, plain);
        const std::vector<double> here_too = accuracies(u_.m.random[0].name);
        ASSERT_EQ(here_too.size(), accuracy.size());
        const bool same_scores = c.size() == 1 || !u_.m.principal;
        for (std::size_t k = 0; k < accuracy.size() && same_scores; ++k)
            EXPECT_NEAR(here_too[k], accuracy[k], 0.00101) << k;
        const double shift = expect_fixed(d, plain);
        std::filesystem::remove("BestPoint");
        const double here = results(steps)["iterates"][0]["log_l"].number;
        EXPECT_NEAR(here + shift, start, 1.0e-9 * (std::fabs(start) + std::fabs(shift)));
    }
}

// Lines of the files of an effect: solutions or scores, and breeding values where there are scores.
struct effect_lines {
    std::string file;
    bool scores = false;
    std::vector<int> row; // of the matrix
    std::vector<double> value, error, accuracy;
};

std::vector<effect_lines> solution_files() {
    std::vector<effect_lines> all;
    for (const auto& entry : std::filesystem::directory_iterator(".")) {
        const std::string file = entry.path().filename().string();
        if (!file.ends_with(".dat") || !(file.starts_with("RnSoln_") || file.starts_with("EBV_"))) continue;
        effect_lines e;
        e.file = file;
        e.scores = file[0] == 'R' && std::filesystem::exists("EBV_" + file.substr(7));
        for (const auto& line : lines_of(read_file(file))) {
            auto w = words_of(line);
            if (w.size() < 5 || w.size() > 6 || w[0] == "Level") continue;
            w.erase(w.begin(), w.end() - 4); // level and perhaps code in front
            e.row.push_back(std::stoi(w[0]));
            e.value.push_back(number_of(w[1]));
            e.error.push_back(number_of(w[2]));
            e.accuracy.push_back(number_of(w[3]));
        }
        all.push_back(e);
    }
    std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.file < b.file; });
    return all;
}

// The files themselves, to the six figures that they have: effects of a trait go by its scale, scores by none.
TEST_P(unit_models, files_of_solutions) {
    put({1.0});
    finish("--blup");
    const auto plain = solution_files();
    ASSERT_FALSE(plain.empty());
    for (const auto& c : other_units) {
        put(c);
        const auto output = finish("--blup").output;
        if (u_.m.principal) expect_loadings(output);
        const auto files = solution_files();
        ASSERT_EQ(files.size(), plain.size());
        for (std::size_t f = 0; f < plain.size(); ++f) {
            SCOPED_TRACE(plain[f].file + " in units of " + std::to_string(c[0]));
            ASSERT_GE(plain[f].row.size(), 20u);
            ASSERT_EQ(files[f].row, plain[f].row);
            if (plain[f].scores && c.size() > 1) continue; // pivots in another order
            for (std::size_t k = 0; k < plain[f].row.size(); ++k) {
                const double s = plain[f].scores ? 1.0 : scale(u_.m.randreg ? 1 : (plain[f].row[k] - 1) % u_.m.nq + 1);
                expect_same(files[f].value[k] / s, plain[f].value[k], plain[f].error[k], "solution", 1.1e-5);
                expect_same(files[f].error[k] / s, plain[f].error[k], 0.0, "error", 1.1e-5);
                EXPECT_NEAR(files[f].accuracy[k], plain[f].accuracy[k], 0.00101) << k;
            }
        }
    }
}

// Last columns of the lines that a simulation writes.
std::vector<std::vector<double>> simulated_records(int nq) {
    std::vector<std::vector<double>> y;
    for (const auto& line : lines_of(read_file("SimData001.dat"))) {
        const auto w = words_of(line);
        if (w.empty()) continue;
        y.emplace_back();
        for (std::size_t q = w.size() - at(nq); q < w.size(); ++q) y.back().push_back(number_of(w[q]));
    }
    return y;
}

// Matrices in other units, beside records that stay as they are: their values are not looked at.
TEST_P(unit_models, simulated_records_scale) {
    put({1.0});
    const std::string data = read_file("model.dat");
    std::vector<std::vector<double>> plain;
    for (const auto& c : {std::vector<double>{1.0}, other_units[0], other_units[1], other_units[2], other_units[3]}) {
        SCOPED_TRACE("units of " + std::to_string(c[0]));
        put(c);
        write_file("model.dat", data);
        write_file("RandomSeeds", "424242 171717\n");
        const auto output = finish("--simul").output;
        if (u_.m.principal) { // the order of pivots may be another one, and with it the draws
            expect_loadings(output);
            continue;
        }
        const auto y = simulated_records(u_.m.nq);
        if (plain.empty()) plain = y;
        ASSERT_EQ(y.size(), plain.size());
        double sum = 0.0;
        for (std::size_t i = 0; i < y.size(); ++i)
            for (int q = 1; q <= u_.m.nq; ++q) {
                const double first = plain[i][at(q - 1)], here = y[i][at(q - 1)];
                if (first == -999.0) {
                    EXPECT_EQ(here, first) << i << " " << q;
                    continue;
                }
                EXPECT_NEAR(here / scale(q), first, 1.0e-9 * (1.0 + std::fabs(first))) << i << " " << q;
                sum += first * first;
            }
        EXPECT_GT(sum, static_cast<double>(y.size()));
    }
}

// The same steps in all units, from the same start: logarithms and the order of pivots are left to a limit.
TEST_P(unit_models, estimates_with_their_errors) {
    put({1.0});
    const json plain = results(steps);
    EXPECT_EQ(plain["iterates"].size(), 2u);
    for (const auto& c : other_units) {
        SCOPED_TRACE("units of " + std::to_string(c[0]));
        put(c);
        expect_estimates(results(steps), plain);
    }
}

// A search by its own rules, which stops short of the last digits: steps depend on what stands as a logarithm and
// in what order. A border is approached as far as log L shows it.
TEST_P(unit_models, ends_of_searches) {
    put({1.0});
    const json plain_blup = results("--blup"), plain = results("--aireml100,1e-13");
    const bool inside = plain["end"]["verdict"]["kind"].text == "maximum";
    const double top = plain["likelihood"]["log_l"].number;
    for (const auto& c : {other_units[0], other_units[3]}) {
        SCOPED_TRACE("units of " + std::to_string(c[0]));
        put(c);
        const json d = results("--aireml100,1e-13");
        const double shift = expect_fixed(results("--blup"), plain_blup);
        EXPECT_NEAR(d["likelihood"]["log_l"].number + shift, top,
                    inside ? 1.0e-8 * (std::fabs(top) + std::fabs(shift)) : 1.0e-3);
        EXPECT_EQ(d["end"]["verdict"]["kind"].text, plain["end"]["verdict"]["kind"].text);
        if (inside) expect_estimates(d, plain, 1.0e-4);
    }
}

// Models are made once for all names: these are asked for wherever tests are listed, which has to be quick.
std::string name_of(const testing::TestParamInfo<std::size_t>& kind) {
    static const auto all = all_models();
    return std::string(all[kind.param].name);
}
INSTANTIATE_TEST_SUITE_P(kinds, unit_models, testing::Range(std::size_t{0}, std::size_t{14}), name_of);

} // namespace
