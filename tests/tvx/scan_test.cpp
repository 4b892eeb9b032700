// Pairs of traits, parts of studies, and starting values from runs and files.
#include "tvx/companion.h"
#include "tvx/startfrom.h"

#include <Eigen/Dense>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace {

using namespace tvx_tests;
using nlohmann::json;
using tarvex::read_file;
using tarvex::write_file;
namespace fs = std::filesystem;

Eigen::MatrixXd full(const std::vector<double>& v, int n) {
    Eigen::MatrixXd a(n, n);
    for (int i = 0, k = 0; i < n; ++i)
        for (int j = i; j < n; ++j) a(i, j) = a(j, i) = v.at(static_cast<std::size_t>(k++));
    return a;
}

TEST(tvx_bending, leaves_good_matrices_and_variances_alone) {
    const std::vector<double> good{4.0, 1.0, 0.5, 9.0, -1.0, 1.0};
    EXPECT_EQ(tvx::bent(good, 3), good);
    // r12 = r13 = 0.9, r23 = -0.9: eigenvalue 1 - 1.8 < 0
    const std::vector<double> bad{4.0, 0.9 * 6.0, 0.9 * 2.0, 9.0, -0.9 * 3.0, 1.0};
    const Eigen::MatrixXd b = full(tvx::bent(bad, 3), 3);
    EXPECT_EQ(b(0, 0), 4.0);
    EXPECT_EQ(b(1, 1), 9.0);
    EXPECT_EQ(b(2, 2), 1.0);
    EXPECT_GT(Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd>(b).eigenvalues()(0), 1e-3);
    // by symmetry the three correlations keep one size and their signs
    EXPECT_NEAR(b(0, 1) / 6.0, b(0, 2) / 2.0, 1e-12);
    EXPECT_NEAR(b(0, 1) / 6.0, -b(1, 2) / 3.0, 1e-12);
    EXPECT_GT(b(0, 1), 0.4 * 6.0);
    EXPECT_LT(b(0, 1), 0.5 * 6.0); // at 0.5 the smallest eigenvalue is 0
}

class tvx_scan : public tarvex::tarvex_test {
protected:
    static constexpr const char* formula = "a + b + c ~ herd + nrm(id)";
    static constexpr const char* own_models = "a ~ herd + nrm(id); b ~ herd + (1|litter) + nrm(id); c ~ sex + nrm(id)";
    void write_tables() {
        auto p = make_population(40, 120, 3);
        text_table t{{"id", "herd", "sex", "litter", "a", "b", "c"}, {}};
        for (std::size_t k = 41; k <= p.animals.size(); ++k) {
            const auto& x = p.animals[k - 1];
            const double e = p.normal();
            const double a = 500.0 + 20.0 * x.herd + 10.0 * x.genetic + 30.0 * p.normal() + 10.0 * e;
            const double b = 4.0 + 0.1 * x.genetic + 0.2 * x.maternal + 0.3 * p.normal() + 0.1 * e;
            const double c = 20.0 + x.sex + x.maternal + 3.0 * p.normal() - e;
            t.rows.push_back({id_of(static_cast<int>(k)), "H" + std::to_string(x.herd), x.sex == 1 ? "m" : "f",
                              "L" + std::to_string(x.litter), k % 7 == 0 ? "" : number_text(a), number_text(b),
                              k % 4 == 1 ? "" : number_text(c)});
        }
        t.shuffle(5);
        write_file("table.csv", t.text());
        write_file("ped.csv", pedigree_table(p).text());
    }
    static double log_l(const std::string& place) {
        std::string found;
        for (const auto& e : fs::directory_iterator(place + "/runs")) found = std::max(found, e.path().string());
        return json::parse(read_file(found + "/estimates.json"))["likelihood"]["log_l"];
    }
    static void expect_same(double a, double b) { EXPECT_NEAR(a, b, 1e-6 * std::fabs(b)); }
    static bool snakemake() { return std::system("command -v snakemake >/dev/null 2>&1") == 0; }
    // The pairs have the log L of studies made of the pairs alone, and the start is near the maximum.
    void expect_pairs(const std::string& all, const std::string& of_a, const std::string& of_b,
                      const std::string& of_c) {
        ASSERT_EQ(run_tvx({"prep", "table.csv", all, "-p", "ped.csv", "-o", "all"}).status, 0);
        const auto r = run_tvx({"--json", "scan", "all", "--pairs", "-j", "2"});
        ASSERT_EQ(r.status, 0) << r.output << read_file("all/scan/snakemake.log");
        const std::pair<std::string, std::string> pairs[] = {
            {"a-b", of_a + of_b}, {"a-c", of_a + of_c}, {"b-c", of_b + of_c}};
        for (const auto& [name, text] : pairs) {
            const std::string alone = text.substr(0, text.rfind(';'));
            ASSERT_EQ(run_tvx({"--quiet", "fit", "table.csv", alone, "-p", "ped.csv", "-o", name}).status, 0) << alone;
            expect_same(log_l("all/scan/" + name), log_l(name));
        }
        const auto joint = run_tvx({"--json", "run", "all/all_joint.par"});
        ASSERT_EQ(joint.status, 0) << joint.output;
        const double from_pairs = json::parse(joint.output)["log_l"];
        const auto own = run_tvx({"--json", "run", "all/all.par"});
        ASSERT_EQ(own.status, 0) << own.output;
        expect_same(from_pairs, json::parse(own.output)["log_l"].get<double>());
        const auto first_log_l = [](const std::string& folder) -> double {
            return json::parse(read_file(folder + "/estimates.json"))["iterates"][0]["log_l"];
        };
        EXPECT_GT(first_log_l(json::parse(joint.output)["folder"]), first_log_l(json::parse(own.output)["folder"]));
        EXPECT_LT(from_pairs - first_log_l(json::parse(joint.output)["folder"]), 2.0);
    }
};

TEST_F(tvx_scan, pairs_of_traits_with_models_of_their_own) {
    if (!snakemake()) GTEST_SKIP() << "no Snakemake here";
    write_tables();
    expect_pairs(own_models, "a ~ herd + nrm(id);", "b ~ herd + (1|litter) + nrm(id);", "c ~ sex + nrm(id);");
    const std::string table = read_file("all/scan/pairs.tsv");
    EXPECT_TRUE(holds(table, "\nid\ta\tc\t")) << table;
    EXPECT_TRUE(holds(table, "\nresidual\tb\tc\t")) << table;
    EXPECT_EQ(run_tvx({"report", "all/scan/b-c"}).status, 0);
    expect_fault({"scan", "all"}, "--pairs");
    expect_fault({"scan", "a-b/a-b.dat/x", "--pairs"}, "no study");
}

TEST_F(tvx_scan, pairs_of_traits_with_one_model) {
    if (!snakemake()) GTEST_SKIP() << "no Snakemake here";
    write_tables();
    ASSERT_EQ(run_tvx({"prep", "table.csv", formula, "-p", "ped.csv", "-o", "all"}).status, 0);
    ASSERT_EQ(run_tvx({"--quiet", "scan", "all", "--pairs"}).status, 0);
    for (const auto& [name, alone] : {std::pair{"a-c", "a + c ~ herd + nrm(id)"}, {"b-c", "b + c ~ herd + nrm(id)"}}) {
        ASSERT_EQ(run_tvx({"--quiet", "fit", "table.csv", alone, "-p", "ped.csv", "-o", name}).status, 0);
        expect_same(log_l(std::string("all/scan/") + name), log_l(name));
    }
    const auto before = fs::last_write_time("all/scan/a-b/done"); // what is done is not done again
    ASSERT_EQ(run_tvx({"--quiet", "scan", "all", "--pairs"}).status, 0);
    EXPECT_EQ(fs::last_write_time("all/scan/a-b/done"), before);
}

class tvx_start : public tvx_scan {};

// From the estimates of a run the search begins at its maximum, in other units and another order of traits.
TEST_F(tvx_start, from_a_run_begins_at_its_maximum) {
    write_tables();
    ASSERT_EQ(run_tvx({"--quiet", "fit", "table.csv", "a + b ~ herd + nrm(id)", "-p", "ped.csv", "-o", "one"}).status,
              0);
    const auto r =
        run_tvx({"prep", "table.csv", "b + a ~ herd + nrm(id)", "-p", "ped.csv", "-o", "two", "--start", "one"});
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(holds(r.output, "6 of 6 covariances from the run in one/runs/001-")) << r.output;
    const auto ran = run_tvx({"--json", "run", "two"});
    ASSERT_EQ(ran.status, 0) << ran.output;
    const json d = json::parse(ran.output);
    const json e = json::parse(read_file(d["folder"].get<std::string>() + "/estimates.json"));
    EXPECT_NEAR(e["iterates"][0]["log_l"].get<double>(), log_l("one"), 1e-6 * std::fabs(log_l("one")));
    // effects and traits that the run lacks keep the values from the data
    const auto more = run_tvx({"prep", "table.csv", own_models, "-p", "ped.csv", "-o", "three", "--start", "one"});
    ASSERT_EQ(more.status, 0) << more.output;
    EXPECT_TRUE(holds(more.output, "6 of 13 covariances")) << more.output;
    EXPECT_EQ(run_tvx({"check", "three/three.par"}).status, 0);
    expect_fault({"prep", "table.csv", "c ~ sex + (1|litter)", "-o", "four", "--start", "one"}, "no effect and trait");
    expect_fault({"prep", "table.csv", "c ~ sex + (1|litter)", "-o", "four", "--start", "nowhere"}, "neither a file");
    EXPECT_FALSE(fs::exists("four"));
}

TEST_F(tvx_start, from_a_file_is_taken_digit_for_digit) {
    write_tables();
    const std::vector<std::string> args{"prep",    "table.csv", "a + b ~ herd + nrm(id)", "-p", "ped.csv", "-o", "made",
                                        "--start", "start.txt"};
    write_file("start.txt", "1.2345678901234567 0.25\n 2 # genetic\n3 0.125 4\n");
    ASSERT_EQ(run_tvx(args).status, 0);
    EXPECT_TRUE(holds(read_file("made/made.par"),
                      "VAR id 2\n   1.2345678901234567 0.25\n   2\nVAR residual 2\n   3 0.125\n   4\n"))
        << read_file("made/made.par");
    write_file("start.txt", "1 2 3 4 5");
    fs::remove_all("made");
    expect_fault(
        args, "\"start.txt\" has 5 values; the upper triangles of the blocks, in this order, have: id 3, residual 3");
    write_file("start.txt", "1 2\nx 4 5 6");
    expect_fault(args, "\"start.txt\", line 2: \"x\" is no number");
}

} // namespace
