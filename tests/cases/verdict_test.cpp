// Ends of searches from poor starting values: the program goes on to a maximum, and says where it ended.
#include "cases/poor_starts.h"

#include <regex>
#include <sstream>

namespace tarvex {
namespace {

class verdict_runs : public poor_starts {};

TEST_F(verdict_runs, good_start_ends_at_a_maximum_and_the_report_says_so) {
    ASSERT_TRUE(bring("textbook_rep"));
    const auto r = finish("");
    EXPECT_NE(last_verdict(r.output).find("at a maximum of log L"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("the search goes on"), std::string::npos);
    const std::string report = read_file("SumEstimates.out");
    EXPECT_NE(report.find(" Verdict on the end of the search"), std::string::npos);
    EXPECT_NE(report.find("The last point is           = at a maximum of log L"), std::string::npos);
    EXPECT_NE(report.find(" The search ended by         = "), std::string::npos) << report;
    EXPECT_NE(report.find(" Eigenvalues, cow            ="), std::string::npos) << report;
}

// The genetic matrix a hundred times too small: AI-REML alone stops short.
TEST_F(verdict_runs, search_goes_on_from_an_end_short_of_the_maximum) {
    ASSERT_TRUE(bring("rr_chick"));
    scale_block("chick", 0.01);
    const auto plain = finish("--nosure");
    EXPECT_NE(last_verdict(plain.output).find("NOT at a maximum"), std::string::npos) << plain.output;
    EXPECT_EQ(plain.output.find("the search goes on"), std::string::npos);
    std::filesystem::remove("BestPoint");
    const auto sure = finish("");
    EXPECT_NE(sure.output.find("the search goes on"), std::string::npos);
    EXPECT_NE(last_verdict(sure.output).find("Verdict: at a maximum"), std::string::npos) << sure.output;
    EXPECT_NEAR(read_best_point().loglike, -216.3352, 0.001); // an independent program's maximum
}

TEST_F(verdict_runs, variance_that_starts_too_near_to_zero_is_lifted_off_the_border) {
    ASSERT_TRUE(bring("textbook_rep"));
    const auto r = finish("");
    const double maximum = read_best_point().loglike;
    EXPECT_NE(last_verdict(r.output).find("Verdict: at a maximum"), std::string::npos) << r.output;
    std::filesystem::remove("BestPoint");
    scale_block("cow", 0.01);
    const auto poor = finish("");
    EXPECT_NE(last_verdict(poor.output).find("Verdict: at a maximum"), std::string::npos) << poor.output;
    EXPECT_NEAR(read_best_point().loglike, maximum, 0.001);
}

TEST_F(verdict_runs, limit_of_iterates_that_the_user_sets_is_kept) {
    ASSERT_TRUE(bring("rr_chick"));
    const auto r = finish("--aireml1");
    EXPECT_EQ(r.output.find("the search goes on"), std::string::npos);
    EXPECT_NE(last_verdict(r.output).find("NOT at a maximum"), std::string::npos);
    EXPECT_NE(read_file("SumEstimates.out").find("Go on with \"-c\""), std::string::npos);
    EXPECT_NE(read_file("SumEstimates.out").find(" Not tried: to go on by itself"), std::string::npos);
}

TEST_F(verdict_runs, every_algorithm_bears_a_verdict) {
    ASSERT_TRUE(bring("rr_chick"));
    for (const char* option : {"--aireml", "--pxai", "--emai", "--emalg5", "--pxem5", "--powell"}) {
        std::filesystem::remove("BestPoint");
        const auto r = run(option);
        EXPECT_EQ(r.status, 0) << option;
        EXPECT_NE(last_verdict(r.output), "") << option << r.output;
        const bool caution = read_file("SumEstimates.out").find("Treat results with caution") != std::string::npos;
        EXPECT_EQ(caution, r.output.find("has converged") == std::string::npos &&
                               r.output.find("CONVERGENCE :") == std::string::npos)
            << option;
    }
}

// Genetic matrix of a residual kind: the border is named.
TEST_F(verdict_runs, border_is_named_with_its_effect) {
    ASSERT_TRUE(bring("textbook_uni"));
    const auto r = finish("");
    EXPECT_NE(last_verdict(r.output).find("at the border"), std::string::npos) << r.output;
    EXPECT_NE(read_file("SumEstimates.out").find(" At the border: variance of "), std::string::npos);
    EXPECT_NE(read_file("SumEstimates.out").find(" Sampling error is void: "), std::string::npos);
    finish("--best"); // no gradient is at hand, but the matrices are
    const std::string report = read_file("BestSoFar.out");
    EXPECT_NE(report.find(" The last point is           = not judged"), std::string::npos) << report;
    EXPECT_NE(report.find(" Eigenvalues, residual       ="), std::string::npos);
    const auto again = finish("-c");
    EXPECT_NE(last_verdict(again.output).find("at the border"), std::string::npos) << again.output;
}

} // namespace
} // namespace tarvex
