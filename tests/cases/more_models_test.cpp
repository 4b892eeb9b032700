// Further models and ways to write them: sires, several relationship effects, interactions, renumbered and grouped
// traits, supplied inverses with faults.
#include "case_run.h"
#include "population.h"

#include <algorithm>
#include <map>
#include <set>

using namespace tarvex;

namespace {

class more_models : public case_run {
protected:
    void SetUp() override {
        name_ = "model";
        p_ = make_population(80, 2, 1, 0.25, 91);
        write_file("ped.dat", p_.pedigree());
    }
    static std::string columns(int ntraits) {
        std::string text = " animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n";
        for (int t = 1; t <= ntraits; ++t) text += " y" + std::to_string(t) + "\n";
        return text;
    }
    double start() const { return loglike_at_start(finish("--aireml1").output); }
    population p_;
};

const std::string two_traits = "VAR animal 2\n 4.5 1.5 3.5\nVAR residual 2\n 6.0 2.0 5.5\n";

// Slopes by the classes of the second fixed effect.
TEST_F(more_models, covariable_nested_in_the_second_fixed_effect) {
    const auto p = make_population(60, 1, 3, 0.0, 93);
    write_file("ped.dat", p.pedigree());
    write_file("data.dat", p.all_traits_lines());
    write_file("model.par", "PED ped.dat\nANA UNI\nDAT data.dat\n" + columns(1) +
                                "END\nMOD\n FIX herd\n FIX parity\n COV age*parity(1,POL)\n RAN animal NRM\n TR y1 1 "
                                "-999\nEND\nVAR animal 1\n 4.5\nVAR residual 1\n 6.0\n");
    const auto obs = observations_of(p);
    const dense a = tabular(p.sire, p.dam);
    dense v(obs.size(), std::vector<double>(obs.size())), x(obs.size(), std::vector<double>(9, 0.0));
    for (std::size_t i = 0; i < obs.size(); ++i) {
        const auto& r = p.records[obs[i].record];
        x[i][static_cast<std::size_t>(r.herd - 1)] = 1.0;
        if (r.parity > 1) x[i][static_cast<std::size_t>(r.parity + 2)] = 1.0; // of the first the herds tell
        x[i][static_cast<std::size_t>(r.parity + 5)] = r.age;
        for (std::size_t j = 0; j < obs.size(); ++j)
            v[i][j] = (i == j ? 6.0 : 0.0) + 4.5 * a[static_cast<std::size_t>(r.code - 1)]
                                                    [static_cast<std::size_t>(p.records[obs[j].record].code - 1)];
    }
    expect_relative(start(), dense_reml(obs, x, v), 1e-8, "log L");
    // slopes by generalised least squares, and the curves of the classes with the records at each age
    finish("--blup");
    const dense w = oracle::product(oracle::transpose(x), oracle::inverse(v));
    oracle::vec y;
    double mean = 0.0;
    for (const auto& o : obs) {
        y.push_back(o.y);
        mean += p.records[o.record].age / static_cast<double>(obs.size());
    }
    const oracle::vec b = oracle::solve(oracle::product(w, x), oracle::times(w, y));
    const auto slopes = read_fixed_solutions().covariables;
    ASSERT_EQ(slopes.size(), 3u);
    for (std::size_t k = 0; k < 3; ++k) EXPECT_NEAR(slopes[k].solution, b[k + 6], 1e-5) << k;
    int parity = 0, records = 0;
    for (const auto& line : lines_of(read_file("Curve_age_parity.dat"))) {
        const auto at = words_of(line);
        if (at[0] == "Nested") {
            const std::string number = std::to_string(++parity);
            EXPECT_EQ(line, "Nested curve no. =    " + number + "  Code         " + number);
            continue;
        }
        double sum = 0.0;
        int n = 0;
        for (const auto& o : obs)
            if (p.records[o.record].parity == parity && p.records[o.record].age == number_of(at.at(0))) ++n, sum += o.y;
        EXPECT_EQ(number_of(at.at(2)), n) << line;
        EXPECT_NEAR(number_of(at.at(3)), sum / n, 1e-4) << line;
        EXPECT_NEAR(number_of(at.at(1)), b[static_cast<std::size_t>(parity + 5)] * (number_of(at[0]) - mean), 1e-4);
        records += n;
    }
    EXPECT_EQ(parity, 3);
    EXPECT_EQ(records, static_cast<int>(obs.size()));
    // in other units log L is shifted by the records that the nine fixed equations leave
    auto other = p;
    for (auto& r : other.records) r.y[0] *= 1.0e6;
    write_file("data.dat", other.all_traits_lines());
    std::string text = read_file("model.par");
    for (const char* variance : {" 4.5\n", " 6.0\n"}) text.insert(text.find(variance) + 4, "e12");
    write_file("model.par", text);
    std::filesystem::remove("BestPoint");
    const double shift = static_cast<double>(obs.size() - 9) * std::log(1.0e6);
    expect_relative(start(), dense_reml(obs, x, v) - shift, 1e-8, "log L in other units");
}

TEST_F(more_models, sires_with_their_sires_and_grandsires) {
    const auto p = make_population(120, 1, 1, 0.0, 92);
    const auto n = p.sire.size();
    std::vector<int> grandsire(n);
    std::string ped, lines;
    dense t(n, std::vector<double>(n, 0.0)), a(n, std::vector<double>(n, 0.0));
    double log_a = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        const int s = p.sire[i], m = p.dam[i] > 0 ? p.sire[static_cast<std::size_t>(p.dam[i] - 1)] : 0;
        ped += std::to_string(i + 1) + " " + std::to_string(s) + " " + std::to_string(m) + "\n";
        double d = 1.0;
        const double fs = s > 0 ? 0.5 : 0.0, fm = m > 0 ? 0.25 : 0.0;
        d -= s == m ? (fs + fm) * (fs + fm) : fs * fs + fm * fm;
        for (std::size_t j = 0; j < i; ++j)
            t[i][j] = (s > 0 ? fs * t[static_cast<std::size_t>(s - 1)][j] : 0.0) +
                      (m > 0 ? fm * t[static_cast<std::size_t>(m - 1)][j] : 0.0);
        t[i][i] = std::sqrt(d);
        log_a += std::log(d);
    }
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j)
            for (std::size_t k = 0; k <= std::min(i, j); ++k) a[i][j] += t[i][k] * t[j][k];
    population q = p;
    std::erase_if(q.records, [](const auto& r) { return r.sire == 0; });
    std::stable_sort(q.records.begin(), q.records.end(), [](const auto& x, const auto& y) { return x.sire < y.sire; });
    for (auto& r : q.records) r.code = r.sire;
    write_file("ped.dat", ped);
    write_file("data.dat", q.all_traits_lines());
    write_file(
        "model.par",
        "PED ped.dat SIR\nANA UNI\nDAT data.dat\n" + columns(1) +
            "END\nMOD\n FIX herd\n RAN animal NRM\n TR y1 1 -999\nEND\nVAR animal 1\n 1.1\nVAR residual 1\n 9.0\n");
    const auto obs = observations_of(q);
    dense v(obs.size(), std::vector<double>(obs.size()));
    for (std::size_t i = 0; i < obs.size(); ++i)
        for (std::size_t j = 0; j < obs.size(); ++j)
            v[i][j] = (i == j ? 9.0 : 0.0) + 1.1 * a[static_cast<std::size_t>(q.records[obs[i].record].code - 1)]
                                                    [static_cast<std::size_t>(q.records[obs[j].record].code - 1)];
    // log|A| of the sires is left out of log L; with a small pedigree all of them stay in the equations
    const double with_all = dense_reml(obs, herds_and_age(q, obs), v);
    const auto result = finish("--aireml1 --nopru");
    const double nlev = labelled("SumPedigree.out", "No. of animals after pruning");
    const double detl = labelled("SumPedigree.out", "log determinant   =");
    EXPECT_GT(nlev, 10.0);
    if (nlev == static_cast<double>(n)) {
        EXPECT_NEAR(detl, log_a, 1e-8);
    }
    expect_relative(loglike_at_start(result.output), with_all + 0.5 * detl, 1e-7, "log L");
}

TEST_F(more_models, two_effects_on_the_pedigree) {
    population q = p_;
    std::erase_if(q.records, [](const auto& r) { return r.dam == 0 || r.y[0] == population::missing; });
    for (auto& r : q.records) r.y.pop_back();
    q.ntraits = 1;
    write_file("data.dat", q.all_traits_lines());
    write_file("model.par", "PED ped.dat\nANA UNI\nDAT data.dat\n" + columns(1) +
                                "END\nMOD\n FIX herd\n RAN animal NRM\n RAN dam NRM\n TR y1 1 -999\nEND\n"
                                "VAR animal 1\n 4.5\nVAR dam 1\n 1.5\nVAR residual 1\n 5.0\n");
    const auto a = tabular(p_.sire, p_.dam);
    const auto obs = observations_of(q);
    dense v(obs.size(), std::vector<double>(obs.size()));
    for (std::size_t i = 0; i < obs.size(); ++i)
        for (std::size_t j = 0; j < obs.size(); ++j) {
            const auto &r = q.records[obs[i].record], &s = q.records[obs[j].record];
            const auto at = [&](int k, int l) {
                return a[static_cast<std::size_t>(k - 1)][static_cast<std::size_t>(l - 1)];
            };
            v[i][j] = 4.5 * at(r.code, s.code) + 1.5 * at(r.dam, s.dam) + (i == j ? 5.0 : 0.0);
        }
    const double truth = dense_reml(obs, herds_and_age(q, obs), v);
    expect_relative(start(), truth, 1e-8, "log L");
    EXPECT_TRUE(std::filesystem::exists("nrminvers2.bin"));
    // the order of the blocks does not matter
    write_file("model.par", "PED ped.dat\nANA UNI\nDAT data.dat\n" + columns(1) +
                                "END\nMOD\n FIX herd\n RAN animal NRM\n RAN dam NRM\n TR y1 1 -999\nEND\n"
                                "VAR residual 1\n 5.0\nVAR dam 1\n 1.5\nVAR animal 1\n 4.5\n");
    expect_relative(start(), truth, 1e-8, "log L with the blocks in another order");
}

TEST_F(more_models, interactions_and_no_fixed_effect) {
    write_file("data.dat", p_.all_traits_lines());
    const std::string head = "PED ped.dat\nANA UNI\nDAT data.dat\n" + columns(2) + "END\nMOD\n";
    const std::string tail = " RAN animal NRM\n TR y1 1 -999\nEND\nVAR animal 1\n 4.5\nVAR residual 1\n 6.0\n";
    population q = p_;
    std::erase_if(q.records, [](const auto& r) { return r.y[0] == population::missing; });
    for (auto& r : q.records) r.y.pop_back();
    q.ntraits = 1;
    const auto a = tabular(p_.sire, p_.dam);
    const auto obs = observations_of(q);
    dense v(obs.size(), std::vector<double>(obs.size()));
    for (std::size_t i = 0; i < obs.size(); ++i)
        for (std::size_t j = 0; j < obs.size(); ++j)
            v[i][j] = 4.5 * a[static_cast<std::size_t>(q.records[obs[i].record].code - 1)]
                             [static_cast<std::size_t>(q.records[obs[j].record].code - 1)] +
                      (i == j ? 6.0 : 0.0);
    write_file("model.par", head + tail);
    expect_relative(start(), dense_reml(obs, {}, v), 1e-8, "no fixed effect");

    const auto level = [&](std::size_t i) { return static_cast<std::size_t>(q.records[obs[i].record].age) % 3; };
    std::string lines; // parity takes the role of a second factor
    for (auto& r : q.records) {
        r.parity = static_cast<int>(r.age) % 3 + 1;
        lines += population::head_of(r) + " " + population::text_of(r.y[0]) + " -999\n";
    }
    write_file("data.dat", lines);
    write_file("model.par", head + " FIX herd*parity\n" + tail);
    dense x(obs.size(), std::vector<double>(12, 0.0));
    for (std::size_t i = 0; i < obs.size(); ++i)
        x[i][3 * static_cast<std::size_t>(q.records[obs[i].record].herd - 1) + level(i)] = 1.0;
    expect_relative(start(), dense_reml(obs, x, v), 1e-8, "interaction");
}

TEST_F(more_models, ways_to_write_two_traits) {
    write_file("data.dat", p_.all_traits_lines());
    write_file("model.par", "PED ped.dat\nANA MUV 2\nDAT data.dat\n" + columns(2) +
                                "END\nMOD EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n" +
                                two_traits);
    const double truth = start();
    const std::string model = "MOD\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n";

    write_file("data.dat", p_.one_trait_lines());
    write_file("model.par",
               "PED ped.dat\nANA MUV 2\nDAT data.dat GRP\n TRN 1 2\n qno\n animal 999\n perm 999\n dam 999\n herd 4\n"
               " parity 3\n age 40\n NAM y1 y2\nEND\n" +
                   model + two_traits);
    expect_relative(start(), truth, 1e-8, "grouped columns");
    write_file("model.par",
               "PED ped.dat\nANA MUV 2\nDAT data.dat GRP\n TRN 1 2\n qno\n animal 999\n perm 999\n dam 999\n herd 4\n"
               " parity 3\n age 40\n NAM y1 y2\nEND\n"
               "MOD\n FIX herd 1 2\n RAN animal NRM 1 2\n TR y1 1 -999\n TR y2 2 -999\nEND\n" +
                   two_traits);
    expect_relative(start(), truth, 1e-8, "lists of traits");

    std::string text; // traits 3 and 7 of a file that holds others, too
    for (const auto& line : lines_of(p_.one_trait_lines())) {
        text += (line[0] == '1' ? "3" : "7") + line.substr(1) + "\n";
        if (text.size() % 3 == 0) text += "5" + line.substr(1) + "\n";
    }
    write_file("data.dat", text);
    std::string by_trait;
    for (int t = 1; t <= 2; ++t)
        by_trait += " TR" + std::to_string(t) +
                    " qno\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y" + std::to_string(t) +
                    "\n";
    write_file("model.par",
               "PED ped.dat\nANA MUV 2\nDAT data.dat\n" + by_trait +
                   "END\nMOD\n FIX herd\n RAN animal NRM\n TR y1 \"3\"->1 -999\n TR y2 \"7\"->2 -999\nEND\n" +
                   two_traits);
    expect_relative(start(), truth, 1e-8, "renumbered traits");
    write_file("model.par", "PED ped.dat\nANA MUV 2\nDAT data.dat\n qno\n" + columns(0) +
                                " y\nEND\nMOD EQ\n FIX herd\n RAN animal NRM\n TR y \"3\"->1 -999\n"
                                " TR y \"7\"->2 -999\nEND\n" +
                                two_traits);
    expect_relative(start(), truth, 1e-8, "renumbered traits of one list of columns");
}

// Codes of the animals that are left when one after the other of those that add nothing has been taken out.
std::set<long> pruned_codes(const population& p) {
    const std::size_t n = p.sire.size();
    std::vector<int> sire = p.sire, dam = p.dam, left(n, 1), recorded(n, 0);
    for (const auto& r : p.records) recorded[static_cast<std::size_t>(r.code - 1)] = 1;
    for (bool found = true; found;) {
        found = false;
        for (std::size_t i = 0; i < n && !found; ++i) {
            if (left[i] == 0 || recorded[i] != 0) continue;
            const int code = static_cast<int>(i) + 1;
            int offspring = 0;
            for (std::size_t j = 0; j < n; ++j) offspring += left[j] * ((sire[j] == code) + (dam[j] == code));
            const bool founder = sire[i] == 0 && dam[i] == 0;
            if (offspring > 1 || (offspring == 1 && !founder)) continue;
            found = true;
            left[i] = 0;
            std::replace(sire.begin(), sire.end(), code, 0);
            std::replace(dam.begin(), dam.end(), code, 0);
        }
    }
    std::set<long> codes;
    for (std::size_t i = 0; i < n; ++i)
        if (left[i] != 0) codes.insert(static_cast<long>(i) + 1);
    return codes;
}

// Solutions stand under the codes of the pedigree; parents without records have them, too, and pruning changes none.
TEST_F(more_models, solutions_of_a_pruned_pedigree) {
    std::erase_if(p_.records, [](const auto& r) { return r.code % 3 != 0; });
    write_file("data.dat", p_.all_traits_lines());
    write_file("model.par", "PED ped.dat\nANA MUV 2\nDAT data.dat\n" + columns(2) +
                                "END\nMOD EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n" +
                                two_traits);
    finish("--aireml1");
    const auto pruned = read_random_solutions("animal");
    std::filesystem::remove("BestPoint");
    finish("--aireml1 --nopru");
    const auto whole = read_random_solutions("animal");
    std::map<std::pair<long, int>, double> solutions;
    for (const auto& line : whole) solutions[{line.code, line.iq}] = line.solution;
    std::set<long> codes;
    for (const auto& line : pruned) {
        codes.insert(line.code);
        ASSERT_TRUE(solutions.count({line.code, line.iq}) > 0) << line.code;
        EXPECT_NEAR(line.solution, solutions.at({line.code, line.iq}), 1e-5) << line.code;
    }
    EXPECT_EQ(codes, pruned_codes(p_));
    EXPECT_EQ(pruned.size(), 2 * codes.size());
    EXPECT_LT(pruned.size(), whole.size());
    EXPECT_TRUE(std::any_of(codes.begin(), codes.end(), [](long code) { return code % 3 != 0; }));
}

TEST_F(more_models, faults_of_supplied_inverses) {
    population q = p_;
    std::erase_if(q.records, [](const auto& r) { return r.y[0] == population::missing; });
    write_file("data.dat", q.all_traits_lines());
    write_file(
        "model.par",
        "ANA UNI\nDAT data.dat\n" + columns(2) +
            "END\nMOD\n FIX herd\n RAN herd2 GIN\n TR y1 1 -999\nEND\nVAR herd2 1\n 4.5\nVAR residual 1\n 6.0\n");
    std::string par = read_file("model.par");
    par.replace(par.find(" parity 3"), 9, " herd2 3"); // parity plays the effect
    par.replace(par.find(" FIX herd\n"), 10, " FIX herd\n");
    write_file("model.par", par);
    const auto fault = [&](const std::string& words) {
        const auto result = run("--aireml1");
        EXPECT_EQ(result.status, 1) << words;
        EXPECT_NE(result.output.find(words), std::string::npos) << "\"" << words << "\" is not told:\n"
                                                                << result.output;
    };
    fault("**** ERROR : cannot locate generalised inverse");
    write_file("herd2.gin", "0.0\n1 1 1.0\n2 1 0.5\n");
    fault("*** Generalised inverse should be given as lower ");
    write_file("herd2.gin", "0.0\n1 1 1.0\n1 2 x\n");
    fault("***** ERROR : Reading file \"herd2.gin\"");
    write_file("herd2.gin", "0.0\n0 1 1.0\n");
    fault("Invalid row no.");
    write_file("herd2.gin", "0.0\n1 1 1.0\n4 4 1.0\n");
    fault("***** Max. no. of random effects levels is too small");
    write_file("herd2.gin", "0.0\n1 1 1.0\n3 3 1.0\n");
    write_file("herd2.codes", "1 1\n");
    fault("***** Error : No. of levels/codes disagree ");
    write_file("herd2.gin", "no number\n1 1 1.0\n");
    EXPECT_EQ(run("--aireml1").status, 1);
    write_file("herd2.gin", "");
    EXPECT_EQ(run("--aireml1").status, 1);
}

// A repeat effect of one of two traits is an identity effect of that trait, in each kind of search.
TEST_F(more_models, repeat_effect_of_one_trait_of_two) {
    const auto p = make_population(50, 2, 3, 0.25, 93);
    write_file("ped.dat", p.pedigree());
    write_file("data.dat", p.one_trait_lines());
    const auto parameters = [&](const std::string& effect) {
        std::string names =
            "END\nMOD\n FIX herd\n RAN animal NRM\n RAN perm " + effect + "\n TR y1 1 -999\n TR y2 2 -999\nEND\n";
        write_file("model.par",
                   "PED ped.dat\nANA MUV 2\nDAT data.dat GRP\n TRN 1 2\n traitno 2\n animal 999\n perm 999\n dam 999\n"
                   " herd 4\n parity 3\n age 40\n NAM y1 y2\n" +
                       names + "VAR animal 2\n 4.5 1.5 3.5\nVAR perm 1\n 1.0\nVAR residual 2\n 6.0 0.5 5.5\n");
    };
    for (const std::string trait : {"1", "2"}) {
        SCOPED_TRACE("trait " + trait);
        std::filesystem::remove("BestPoint");
        parameters("IDE " + trait);
        const double at_start = start();
        std::filesystem::remove("BestPoint");
        finish("--aireml100,1e-8");
        const auto best = read_best_point();
        ASSERT_EQ(best.nparm, 7);
        parameters("PEQ " + trait);
        expect_relative(start(), at_start, 1e-8, "log L");
        for (const char* options : {"--aireml100,1e-8", "--pxai3,100,1e-8", "--pxem400"}) {
            SCOPED_TRACE(options);
            std::filesystem::remove("BestPoint");
            finish(options);
            EXPECT_NEAR(read_best_point().loglike, best.loglike, 5e-3);
        }
    }
}

} // namespace
