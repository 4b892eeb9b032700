// Runs in a directory that earlier runs have used: what still holds is taken over and told, what is stale, torn or
// foreign is made anew, and the figures are those of a fresh directory.
#include "case_run.h"
#include "population.h"

#include "support/record_file.h"

using namespace tarvex;

namespace {

class reuse : public case_run {
protected:
    static constexpr const char* scratch[] = {"nrminvers1.bin", "adjacency.bin", "eqnsorder.bin", "symbfact.bin",
                                              "recoded1.bin",   "recoded2.bin",  "recoded3.bin"};
    void SetUp() override {
        name_ = "model";
        put(make_population(120, 2, 2, 0.2, 51));
        parameters("MUV 2", "VAR animal 2\n 4.5 1.5 3.5\n");
        fresh_ = loglike_at_start(finish("--aireml50,1e-8").output);
        best_ = read_best_point();
        ASSERT_FALSE(std::isnan(fresh_));
    }
    static void put(const population& p) {
        write_file("ped.dat", p.pedigree());
        write_file("data.dat", p.all_traits_lines());
    }
    static void parameters(const std::string& analysis, const std::string& animal) {
        write_file("model.par",
                   "PED ped.dat\nANA " + analysis +
                       "\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\n y2\nEND\n"
                       "MOD EQ\n FIX herd\n COV age(1,POL)\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n" +
                       animal + "VAR residual 2\n 6.0 0.5 5.5\n");
    }
    void expect_same(const char* what) const {
        std::filesystem::remove("BestPoint");
        const auto result = finish("--aireml50,1e-8");
        expect_relative(loglike_at_start(result.output), fresh_, 1e-8, what);
        expect_best(best_, 1e-6, 1e-4);
    }
    double fresh_ = 0.0;
    best_point best_;
};

TEST_F(reuse, second_run_takes_over_what_still_holds) {
    std::filesystem::remove("BestPoint");
    const auto result = finish("--aireml50,1e-8");
    EXPECT_NE(result.output.find("NRM inverse found"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("Previous equation ordering found"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("***AI iterate     0"), std::string::npos)
        << "a best point that is not asked for is not used";
    expect_best(best_, 1e-6, 1e-4);
}

TEST_F(reuse, torn_files) {
    for (const char* name : scratch) {
        const auto size = std::filesystem::file_size(name);
        for (const double share : {0.0, 0.03, 0.5, 0.98}) {
            std::filesystem::resize_file(name, static_cast<std::uintmax_t>(share * static_cast<double>(size)));
            SCOPED_TRACE(std::string(name) + " cut to " + std::to_string(share));
            expect_same(name);
        }
    }
}

TEST_F(reuse, foreign_files) {
    for (const char* name : scratch) {
        write_file(name, std::string(5000, 'x'));
        SCOPED_TRACE(name);
        expect_same(name);
        write_file(name, std::string(5000, '\0'));
        expect_same(name);
    }
}

TEST_F(reuse, files_of_another_analysis) {
    // another pedigree of the same size, then another number of animals, then another model
    put(make_population(120, 2, 2, 0.2, 52));
    const auto other = finish("--aireml2");
    EXPECT_GT(std::fabs(loglike_at_start(other.output) - fresh_), 0.1);
    put(make_population(120, 2, 2, 0.2, 51));
    expect_same("after another pedigree");
    put(make_population(90, 2, 1, 0.0, 53));
    finish("--aireml2");
    put(make_population(120, 2, 2, 0.2, 51));
    expect_same("after a smaller population");
    parameters("MUV PC 2", "VAR animal 2 1\n 4.5 1.5 3.5\n");
    std::filesystem::remove("nrminvers1.bin");
    finish("--aireml2");
    parameters("MUV 2", "VAR animal 2\n 4.5 1.5 3.5\n");
    expect_same("after a reduced-rank fit");
    finish("--blup");
    expect_same("after a BLUP run");
    finish("--nopru --aireml2");
    expect_same("after a run without pruning");
}

TEST_F(reuse, reduced_rank_twice_in_one_directory) {
    parameters("MUV PC 2", "VAR animal 2 1\n 4.5 1.5 3.5\n");
    std::filesystem::remove("nrminvers1.bin");
    std::filesystem::remove("BestPoint");
    finish("--aireml50,1e-8");
    const auto first = read_best_point();
    std::filesystem::remove("BestPoint");
    finish("--aireml50,1e-8");
    expect_best(first, 1e-8, 1e-6);
    EXPECT_FALSE(file_exists("cholnrm1.bin")) << "nobody reads the factor";
    // the inverse of an earlier run has no inbreeding coefficients with it, which the factor needs: they are computed
    for (const char* file : {"BestPoint", "inbreed.bin"}) std::filesystem::remove(file);
    const auto result = finish("--super --aireml50,1e-8");
    EXPECT_NE(result.output.find("NRM inverse found"), std::string::npos);
    EXPECT_TRUE(file_exists("cholnrm1.bin"));
    expect_best(first, 1e-8, 1e-6);
}

TEST_F(reuse, continuation_starts_at_the_best_point) {
    std::filesystem::remove("BestPoint");
    finish("--aireml1");
    const auto first = read_best_point();
    const auto list = iterates_of(finish("-c --aireml50,1e-8").output);
    ASSERT_FALSE(list.empty());
    expect_relative(list[0].loglike, first.loglike, 1e-8, "log L of round 0");
    expect_best(best_, 1e-6, 1e-4);
    // without a named algorithm AI-REML goes on
    std::filesystem::remove("BestPoint");
    finish("--pxem1");
    for (const auto& i : iterates_of(finish("-c").output)) EXPECT_EQ(i.kind, "AI");
    EXPECT_NEAR(read_best_point().loglike, best_.loglike, 1e-3);
    // and PX-EM where it is named
    finish("--pxem1");
    EXPECT_EQ(iterates_of(finish("-c --pxem2").output).back().kind, "PX");
}

TEST_F(reuse, best_point_that_is_torn_or_foreign_is_passed_over) {
    const std::string whole = read_file("BestPoint");
    for (const std::string& text : {std::string(), whole.substr(0, whole.size() / 2),
                                    std::string("-1.0 5\n1 2 3\n4 5\n"), std::string("no numbers at all\n")}) {
        write_file("BestPoint", text);
        const auto list = iterates_of(finish("-c --aireml50,1e-8").output);
        ASSERT_FALSE(list.empty());
        expect_relative(list[0].loglike, fresh_, 1e-8, text);
        expect_best(best_, 1e-6, 1e-4);
    }
}

TEST_F(reuse, report_of_the_best_point) {
    std::filesystem::remove("data.dat");
    std::filesystem::remove("ped.dat");
    finish("--best");
    EXPECT_NEAR(labelled("BestSoFar.out", "Maximum log L so far"), best_.loglike, 6e-4);
    expect_best(best_, 0.0, 0.0); // is left as it is
    EXPECT_NE(read_file("BestSoFar.out").find("Covariance matrix"), std::string::npos);
    std::filesystem::remove("BestPoint");
    const auto result = run("--best");
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("***** ERROR : No usable \"BestPoint\" found - nothing to report !\n"),
              std::string::npos);
}

TEST_F(reuse, setup_for_later_runs) {
    for (const auto& name : scratch) std::filesystem::remove(name);
    std::filesystem::remove("SumEstimates.out");
    std::filesystem::remove("BestPoint");
    for (const char* options : {"--setup", "--setuplrg"}) {
        const auto result = finish(options);
        EXPECT_NE(result.output.find("Set-up complete"), std::string::npos);
        EXPECT_FALSE(std::filesystem::exists("SumEstimates.out"));
        EXPECT_TRUE(std::filesystem::exists("eqnsorder.bin"));
    }
    const auto result = finish("--aireml50,1e-8");
    EXPECT_NE(result.output.find("Previous equation ordering found"), std::string::npos) << result.output;
    expect_best(best_, 1e-6, 1e-4);
}

} // namespace
