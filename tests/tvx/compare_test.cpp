// Likelihood ratio tests: reference distributions and what is refused. Parameter files taken apart.
#include "tvx/commands.h"
#include "tvx/companion.h"
#include "tvx/compare.h"
#include "tvx/parfile_edit.h"

namespace {

using namespace tvx_tests;

// Tails of chi-square in closed form.
double tail1(double x) { return std::erfc(std::sqrt(0.5 * x)); }
double tail2(double x) { return std::exp(-0.5 * x); }

TEST(tvx_compare, mixtures_have_their_closed_form) {
    for (const double x : {0.1, 1.0, 2.7055, 5.138, 12.0}) {
        EXPECT_NEAR(tvx::mixture_tail({{0, 0.5}, {1, 0.5}}, x), 0.5 * tail1(x), 1e-12);
        EXPECT_NEAR(tvx::mixture_tail({{1, 0.5}, {2, 0.5}}, x), 0.5 * tail1(x) + 0.5 * tail2(x), 1e-12);
        EXPECT_NEAR(tvx::mixture_tail({{2, 1.0}}, x), tail2(x), 1e-12);
    }
    EXPECT_EQ(tvx::mixture_tail({{0, 0.5}, {1, 0.5}}, 0.0), 1.0);
    EXPECT_NEAR(tvx::mixture_tail({{0, 0.5}, {1, 0.5}}, 2.705543), 0.05, 1e-6);
    EXPECT_NEAR(tvx::mixture_tail({{1, 0.5}, {2, 0.5}}, 5.138), 0.05, 1e-4);
}

tvx::json block(int number, const std::string& name, int order, const std::string& structure = "IDE") {
    tvx::json rows = tvx::json::array();
    for (int i = 1; i <= order; ++i) rows.push_back({{"trait", i}, {"effect", name}, {"coefficient", 0}});
    return {{"number", number}, {"name", name}, {"structure", structure}, {"order", order},
            {"rank", order},    {"steps", 1},   {"diagonal", false},      {"rows", rows}};
}

tvx::run_results run_with(std::vector<tvx::json> blocks, int parameters, double log_l) {
    tvx::run_results r;
    r.folder = "run";
    r.estimates =
        tvx::json::parse(R"({"traits":[{"number":1,"name":"y","records":10,"mean":1.5,"standard_deviation":1.0,
      "smallest":0.0,"largest":3.0}],"inputs":[{"role":"data","xxh3_128":"ab"}],"effects":[{"kind":"fixed","name":"herd","trait":1}],
      "run":{"sire_model":false},"end":{"derivatives":true,"half_decrement":0.0,"rank_of_information":1,"informed":1,
      "border":[],"flat":[]}})");
    r.estimates["likelihood"] = {{"log_l", log_l}, {"parameters", parameters}, {"rank_of_fixed_part", 3}};
    r.estimates["blocks"] = blocks;
    return r;
}

TEST(tvx_compare, one_variance_is_half_a_chi_square) {
    const auto small = run_with({block(0, "residual", 1)}, 1, -100.0);
    const auto large = run_with({block(0, "residual", 1), block(1, "litter", 1)}, 2, -98.0);
    const auto t = tvx::compare_runs(small, large);
    EXPECT_EQ(t.statistic, 4.0);
    EXPECT_EQ(t.df, 1);
    EXPECT_FALSE(t.bound);
    EXPECT_NEAR(t.p, 0.5 * tail1(4.0), 1e-12);
}

TEST(tvx_compare, one_more_row_is_a_mixture_of_two) {
    const auto small = run_with({block(0, "residual", 1), block(1, "animal", 1)}, 2, -100.0);
    const auto large = run_with({block(0, "residual", 1), block(1, "animal", 2)}, 4, -97.0);
    const auto t = tvx::compare_runs(small, large);
    EXPECT_FALSE(t.bound);
    EXPECT_NEAR(t.p, 0.5 * tail1(6.0) + 0.5 * tail2(6.0), 1e-12);
}

TEST(tvx_compare, matrices_have_an_upper_bound) {
    const auto small = run_with({block(0, "residual", 2)}, 3, -100.0);
    const auto large = run_with({block(0, "residual", 2), block(1, "litter", 2)}, 6, -97.0);
    const auto t = tvx::compare_runs(small, large);
    EXPECT_TRUE(t.bound);
    const double tail3 = tail1(6.0) + std::sqrt(2.0 * 6.0 / M_PI) * std::exp(-3.0);
    EXPECT_NEAR(t.p, 0.5 * tail2(6.0) + 0.5 * tail3, 1e-12);
}

TEST(tvx_compare, covariances_lie_inside) {
    auto a = block(1, "animal", 2);
    a["diagonal"] = true;
    const auto t = tvx::compare_runs(run_with({block(0, "residual", 2), a}, 5, -100.0),
                                     run_with({block(0, "residual", 2), block(1, "animal", 2)}, 6, -98.0));
    EXPECT_NEAR(t.p, tail1(4.0), 1e-12);
}

TEST(tvx_compare, what_cannot_be_compared_is_refused_with_the_reason) {
    const auto small = run_with({block(0, "residual", 1)}, 1, -100.0);
    const auto large = [] { return run_with({block(0, "residual", 1), block(1, "litter", 1)}, 2, -98.0); };
    const auto refused = [](const tvx::run_results& a, const tvx::run_results& b, const std::string& why) {
        try {
            tvx::compare_runs(a, b);
            ADD_FAILURE() << "compared, though " << why;
        } catch (const tvx::fault& f) {
            EXPECT_NE(f.text.find(why), std::string::npos) << f.text;
        }
    };
    auto x = large();
    x.estimates["traits"][0]["records"] = 11;
    refused(small, x, "other records");
    x = large();
    x.estimates["inputs"][0]["xxh3_128"] = "cd";
    refused(small, x, "other data files");
    x = large();
    x.estimates["effects"].push_back({{"kind", "covariable"}, {"name", "age(1,POL)"}, {"trait", 1}});
    refused(small, x, "other fixed effects");
    x = large();
    x.estimates["end"]["half_decrement"] = 0.5;
    refused(small, x, "not at a maximum");
    x = large();
    x.estimates["likelihood"]["log_l"] = -101.0;
    refused(small, x, "lower log L");
    refused(large(), small, "no effect \"litter\"");
    refused(small, small, "no more parameters");
    x = run_with({block(0, "residual", 1), block(1, "sire", 1, "NRM")}, 2, -98.0);
    x.estimates["run"]["sire_model"] = true;
    refused(small, x, "leaves out the relationships");
}

constexpr const char* par =
    "PED a.ped\nANA MUV 2\nDAT a.dat\n animal 9\n dam 9\n y\n z\nEND\nMOD EQ\n RAN animal NRM\n"
    " RAN dam NRM\n RAN pe\n TR y 1\n TR z 2\nEND\nVAR animal+dam 4\n 1 2 3 4\n 5 6 7\n 8 9\n 10\n"
    "VAR pe 2\n 1.5 0.5\n 2\nVAR residual 2\n 3 1 +\n 4\nSE+\n SUM a 1 2\nEND\n";

TEST(tvx_parfile, effect_is_left_out_of_all_its_places) {
    tvx::parfile_text p(par);
    p.drop_effect("pe");
    EXPECT_EQ(p.text().find("RAN pe"), std::string::npos);
    EXPECT_EQ(p.text().find("VAR pe"), std::string::npos);
    EXPECT_EQ(p.text().find("1.5"), std::string::npos);
    EXPECT_EQ(p.text().find("SUM"), std::string::npos);
    EXPECT_NE(p.text().find("VAR residual 2\n 3 1 +\n 4\n"), std::string::npos);
    EXPECT_THROW(p.drop_effect("pe"), tvx::fault);
}

TEST(tvx_parfile, functions_go_with_an_effect_wherever_they_stand) {
    tvx::parfile_text p(std::string("SE+\n SUM first 1 3\nEND\n") + par);
    p.drop_effect("pe");
    EXPECT_EQ(p.text().find("SUM"), std::string::npos) << p.text();
    EXPECT_EQ(p.text().find("SE+"), std::string::npos) << p.text();
    EXPECT_NE(p.text().find("PED a.ped\n"), std::string::npos) << "what stands between the blocks stays";
}

TEST(tvx_parfile, part_of_a_tied_block_leaves_the_other) {
    tvx::parfile_text first(par), second(par);
    first.drop_effect("animal");
    EXPECT_NE(first.text().find("VAR dam 2\n 8 9\n 10\n"), std::string::npos) << first.text();
    second.drop_effect("dam");
    EXPECT_NE(second.text().find("VAR animal 2\n 1 2\n 5\n"), std::string::npos) << second.text();
    EXPECT_NE(second.text().find("PED"), std::string::npos);
    second.drop_effect("animal");
    EXPECT_EQ(second.text().find("PED"), std::string::npos);
}

TEST(tvx_parfile, rank_and_starting_values) {
    tvx::parfile_text p(par);
    p.set_rank("pe", 1);
    EXPECT_NE(p.text().find("VAR pe 2 1\n"), std::string::npos);
    EXPECT_NE(p.text().find("VAR animal+dam 4 4\n"), std::string::npos)
        << "all random blocks of such an analysis have one";
    EXPECT_NE(p.text().find("VAR residual 2\n"), std::string::npos);
    EXPECT_NE(p.text().find("ANA MUV PC 2\n"), std::string::npos);
    p.set_values("residual", {0.1, 0.25, 7.0});
    EXPECT_NE(p.text().find("VAR residual 2\n 0.10000000000000001 0.25\n 7\n"), std::string::npos) << p.text();
    EXPECT_THROW(p.set_rank("pe", 3), tvx::fault);
    EXPECT_THROW(p.set_values("pe", {1.0}), tvx::fault);
    tvx::parfile_text classes("VAR residual 1 HET 2 age\n 1 5 2.0\n 6 9 3.0\nEND\n");
    classes.set_values("residual", {4.5, 5.5});
    EXPECT_EQ(classes.text(), "VAR residual 1 HET 2 age\n 1 5 4.5\n 6 9 5.5\nEND\n");
}

} // namespace
