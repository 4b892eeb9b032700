// Estimates and breeding values do not depend on the order of rows and columns, on names, and on units.
#include "tvx/herd.h"

#include <nlohmann/json.hpp>

namespace {

using namespace tvx_tests;
using nlohmann::json;

// Another identifier for each, whose order is another.
std::string other_id(int code) {
    return code == 0 ? "" : "x" + std::to_string(code * 6113 % 9973) + "-" + std::to_string(code % 7);
}

std::string scaled(long long ten_thousandths, int power) { // value times 10^power, in plain digits
    char text[60];
    std::snprintf(text, sizeof text, "%lldE%d", ten_thousandths, power - 4);
    return text;
}

class invariance : public tarvex::tarvex_test {
protected:
    struct figures {
        double log_l = 0.0;
        std::map<std::string, double> estimate, ratio, solution, accuracy;
    };
    population p = make_population(40, 100, 3);

    // Tables of the same records in the words, order and units of one user.
    void write(const std::vector<std::string>& names, bool renamed, int power, std::uint64_t seed) {
        population noise = p; // the same numbers each time
        text_table t{names, {}}, ped{{"animal", "sire", "dam"}, {}};
        const auto id = [&](int k) { return renamed ? other_id(k) : id_of(k); };
        for (std::size_t k = 1; k <= p.animals.size(); ++k) {
            const auto& a = p.animals[k - 1];
            ped.rows.push_back({id(static_cast<int>(k)), id(a.sire), id(a.dam)});
            if (k <= 40) continue;
            const double e = noise.normal();
            const auto y = std::llround(1e4 * (50.0 + 2.0 * a.herd + a.genetic + 4.0 * noise.normal() + e));
            const auto z = std::llround(1e4 * (20.0 + a.sex + 0.5 * a.genetic + 0.5 * a.maternal + noise.normal() + e));
            const std::string herd =
                renamed ? std::string(1, static_cast<char>('z' - a.herd)) : "H" + std::to_string(a.herd);
            t.rows.push_back({id(static_cast<int>(k)), herd,
                              a.sex == 1 ? "m"
                              : renamed  ? "w"
                                         : "a",
                              scaled(y, power), k % 6 == 0 ? "NA" : scaled(z, -power)});
        }
        if (seed > 0) {
            t.shuffle(seed);
            std::mt19937_64 random(seed);
            std::shuffle(ped.rows.begin(), ped.rows.end(), random);
        }
        tarvex::write_file("t.csv", t.text(seed > 0 ? ';' : ','));
        tarvex::write_file("p.csv", ped.text());
    }
    // In the words and units of the first user.
    figures fit(const std::string& formula, const std::string& name, bool renamed, int power) {
        const auto r = run_tvx({"--json", "fit", "t.csv", formula, "-p", "p.csv", "-o", name});
        EXPECT_EQ(r.status, 0) << r.output;
        figures f;
        f.log_l = json::parse(r.output)["log_l"];
        const auto unit = [&](const std::string& trait, double x) {
            return x * std::pow(10.0, trait == "T1" ? -power : power);
        };
        int count = 0;
        for (const auto& e : read_table(name + "/report/estimates.tsv")) { // effects and traits in their order
            const std::string traits[] = {e.at("trait_i"), e.at("trait_j")};
            double x = std::stod(e.at("estimate"));
            for (const auto& t : traits) x = unit(t == "weight" || t == "Gewicht kg" ? "T1" : "T2", x);
            f.estimate[std::to_string(++count)] = x;
            if (!e.at("ratio").empty()) f.ratio[std::to_string(count)] = std::stod(e.at("ratio"));
        }
        std::map<std::string, int> code;
        for (int k = 1; k <= static_cast<int>(p.animals.size()); ++k) code[renamed ? other_id(k) : id_of(k)] = k;
        for (const auto& file : fs::directory_iterator(name + "/report")) {
            if (!file.path().filename().string().starts_with("solutions_")) continue;
            for (const auto& s : read_table(file.path().string())) {
                const bool first = s.at("trait") == "weight" || s.at("trait") == "Gewicht kg";
                const std::string key = std::to_string(code.at(s.at("id"))) + (first ? " 1" : " 2");
                f.solution[key] = unit(first ? "T1" : "T2", std::stod(s.at("solution")));
                f.accuracy[key] = std::stod(s.at("accuracy"));
            }
        }
        return f;
    }
    static void expect_same(const std::map<std::string, double>& a, const std::map<std::string, double>& b,
                            const std::string& what) {
        ASSERT_EQ(a.size(), b.size()) << what;
        double largest = 0.0;
        for (const auto& [key, x] : a) largest = std::max(largest, std::fabs(x));
        for (const auto& [key, x] : a) {
            ASSERT_EQ(b.count(key), 1u) << what << " " << key;
            EXPECT_NEAR(b.at(key), x, 1e-8 * largest) << what << " " << key;
        }
    }
};

TEST_F(invariance, of_estimates_and_breeding_values) {
    write({"id", "herd", "sex", "weight", "fat"}, false, 0, 0);
    const figures a = fit("weight + fat ~ herd + sex + nrm(id)", "one", false, 0);
    ASSERT_EQ(a.estimate.size(), 9u);
    ASSERT_GT(a.solution.size(), 600u);
    write({"Tier", "Stall", "s", "Gewicht kg", "F%"}, true, 5, 8);
    const figures b = fit("`Gewicht kg` + `F%` ~ Stall + s + nrm(Tier)", "two", true, 5);
    EXPECT_NEAR(b.log_l, a.log_l, 1e-8 * std::fabs(a.log_l));
    for (const auto& [key, x] : a.estimate) EXPECT_NEAR(b.estimate.at(key), x, 1e-8 * std::fabs(x)) << key;
    expect_same(a.ratio, b.ratio, "ratio");
    expect_same(a.solution, b.solution, "solution");
    expect_same(a.accuracy, b.accuracy, "accuracy");
}

// ---- the order of the traits in a formula

class order_of_traits : public tarvex::tarvex_test {
protected:
    struct figures {
        double log_l = 0.0;
        std::map<std::string, double> estimate, se, ratio, solution, accuracy;
    };
    // Three correlated traits of unlike size; the second and third have not all records.
    static void write() {
        population p = make_population(40, 110, 3);
        text_table t{{"id", "herd", "sex", "weight", "fat", "score"}, {}};
        for (std::size_t k = 41; k <= p.animals.size(); ++k) {
            const auto& a = p.animals[k - 1];
            const double e = p.normal();
            t.rows.push_back(
                {id_of(static_cast<int>(k)), "H" + std::to_string(a.herd), a.sex == 1 ? "m" : "f",
                 number_text(5000.0 + 200.0 * a.herd + 100.0 * (a.genetic + 4.0 * p.normal() + e)),
                 k % 6 == 0 ? "" : number_text(20.0 + a.sex + 0.4 * a.genetic + 0.5 * a.maternal + p.normal() + e),
                 k % 5 == 0 ? "" : number_text(0.05 * (a.maternal - 0.3 * a.genetic + 2.0 * p.normal() - e))});
        }
        write_file("t.csv", t.text());
        write_file("p.csv", pedigree_table(p).text());
    }
    static figures fit(const std::string& formula, const std::vector<std::string>& more) {
        fs::remove_all("s");
        std::vector<std::string> args{"--json", "fit", "t.csv", formula, "-p", "p.csv", "-o", "s"};
        args.insert(args.end(), more.begin(), more.end());
        const auto r = run_tvx(args);
        EXPECT_EQ(r.status, 0) << r.output;
        figures f;
        f.log_l = json::parse(r.output)["log_l"];
        for (const auto& e : read_table("s/report/estimates.tsv")) {
            const std::string key = e.at("effect") + " " + std::min(e.at("trait_i"), e.at("trait_j")) + " " +
                                    std::max(e.at("trait_i"), e.at("trait_j"));
            EXPECT_TRUE(f.estimate.emplace(key, std::stod(e.at("estimate"))).second) << key;
            if (!e.at("se").empty()) f.se[key] = std::stod(e.at("se"));
            if (!e.at("ratio").empty()) f.ratio[key] = std::stod(e.at("ratio"));
        }
        for (const auto& s : read_table("s/report/solutions_id.tsv")) {
            f.solution[s.at("trait") + " " + s.at("id")] = std::stod(s.at("solution"));
            if (!s.at("accuracy").empty()) f.accuracy[s.at("trait") + " " + s.at("id")] = std::stod(s.at("accuracy"));
        }
        return f;
    }
    // What an estimate or ratio is measured by: itself; where components cancel, a phenotypic covariance by the
    // standard deviations of its traits and the correlation by 1.
    static double size_of(const figures& a, std::map<std::string, double> figures::*list, const std::string& key) {
        std::istringstream words(key);
        std::string effect, i, j;
        words >> effect >> i >> j;
        const bool sum = effect == "phenotype" && i != j;
        if (sum && list == &figures::ratio) return 1.0;
        if (sum && list == &figures::estimate)
            return std::sqrt(a.estimate.at(effect + " " + i + " " + i) * a.estimate.at(effect + " " + j + " " + j));
        return std::fabs((a.*list).at(key));
    }
    // Each to 1e-8 of itself, predictions of the largest of their trait.
    static void expect_same(const figures& a, const figures& b) {
        EXPECT_NEAR(b.log_l, a.log_l, 1e-8 * std::fabs(a.log_l));
        for (const auto list : {&figures::estimate, &figures::se, &figures::ratio, &figures::accuracy}) {
            ASSERT_EQ((a.*list).size(), (b.*list).size());
            for (const auto& [key, x] : a.*list) EXPECT_NEAR((b.*list).at(key), x, 1e-8 * size_of(a, list, key)) << key;
        }
        ASSERT_EQ(a.solution.size(), b.solution.size());
        std::map<std::string, double> largest;
        const auto trait = [](const std::string& key) { return key.substr(0, key.find(' ')); };
        for (const auto& [key, x] : a.solution) largest[trait(key)] = std::max(largest[trait(key)], std::fabs(x));
        for (const auto& [key, x] : a.solution)
            EXPECT_NEAR(b.solution.at(key), x, 1e-8 * largest.at(trait(key))) << key;
    }
    static void permute(std::vector<std::string> parts, const std::string& by, const std::string& behind,
                        const std::vector<std::string>& more = {}) {
        const auto formula = [&] {
            std::string text;
            for (const auto& p : parts) text += (text.empty() ? "" : by) + p;
            return text + behind;
        };
        write();
        const figures first = fit(formula(), more);
        EXPECT_EQ(first.estimate.size(), 18u);
        EXPECT_GT(first.solution.size(), 900u);
        std::sort(parts.begin(), parts.end());
        do { // all orders
            SCOPED_TRACE(formula());
            expect_same(first, fit(formula(), more));
        } while (std::next_permutation(parts.begin(), parts.end()));
    }
};

TEST_F(order_of_traits, of_one_model_changes_nothing) {
    permute({"weight", "fat", "score"}, " + ", " ~ herd + sex + nrm(id)");
}
TEST_F(order_of_traits, with_models_of_their_own_changes_nothing) {
    permute({"weight ~ herd + nrm(id)", "fat ~ sex + nrm(id)", "score ~ herd + sex + nrm(id)"}, "; ", "");
}
TEST_F(order_of_traits, at_reduced_rank_changes_nothing) {
    permute({"weight", "fat", "score"}, " + ", " ~ herd + nrm(id)", {"--rank", "2"});
}

// Variances along the control variable are phi' K phi with normalised Legendre polynomials, and the ratio that part of
// the sum with the residual variance of the class.
TEST_F(invariance, curves_are_quadratic_forms) {
    fs::copy_file(std::string(TVX_SOURCE_DIR) + "/examples/herd/growth.csv", "growth.csv");
    const auto r = run_tvx(
        {"--quiet", "fit", "growth.csv", "weight ~ diet:day + rr(chick,day,3) + res(day: 0-6,7-21)", "-o", "growth"});
    ASSERT_EQ(r.status, 0) << r.output;
    double k[3][3] = {}, residual[2] = {};
    for (const auto& e : read_table("growth/report/estimates.tsv")) {
        const double x = std::stod(e.at("estimate"));
        if (e.at("effect") == "chick")
            k[e.at("trait_i")[7] - '1'][e.at("trait_j")[7] - '1'] =
                k[e.at("trait_j")[7] - '1'][e.at("trait_i")[7] - '1'] = x;
        if (e.at("effect").starts_with("residual")) residual[e.at("effect").ends_with("0-6") ? 0 : 1] = x;
    }
    ASSERT_GT(k[2][2], 0.0);
    ASSERT_GT(residual[1], residual[0]);
    int points = 0;
    for (const auto& c : read_table("growth/report/curves.tsv")) {
        if (c.at("effect") != "chick") continue;
        const double day = std::stod(c.at("value")), x = 2.0 * day / 21.0 - 1.0;
        const double phi[3] = {std::sqrt(0.5), std::sqrt(1.5) * x, std::sqrt(2.5) * 0.5 * (3.0 * x * x - 1.0)};
        double v = 0.0;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) v += phi[i] * k[i][j] * phi[j];
        EXPECT_NEAR(std::stod(c.at("variance")), v, 1e-7 * k[0][0]) << day;
        EXPECT_NEAR(std::stod(c.at("ratio")), v / (v + residual[day > 6 ? 1 : 0]), 1e-6) << day;
        ++points;
    }
    EXPECT_EQ(points, 12);
}

} // namespace
