// Information criteria count the parameters that are estimated.
#include "case_run.h"
#include "population.h"

using namespace tarvex;

namespace {

class criteria : public case_run {
protected:
    void SetUp() override {
        name_ = "model";
        population p = make_population(60, 2, 1, 0.0, 71);
        for (std::size_t i = 0; i < p.records.size(); ++i)
            p.records[i].y[i % 2] = population::missing; // never together
        write_file("ped.dat", p.pedigree());
        write_file("data.dat", p.all_traits_lines());
    }
    static void put(const std::string& analysis, const std::string& animal) {
        write_file(
            "model.par",
            "PED ped.dat\nANA " + analysis +
                "\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 4\n parity 3\n age 40\n y1\n y2\nEND\nMOD "
                "EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n" +
                animal + "VAR residual 2\n 6.0 1.0 5.0\n");
    }
};

TEST_F(criteria, fixed_covariances_do_not_count_whatever_the_algorithm) {
    for (const bool principal : {false, true}) {
        put(principal ? "MUV PC 2" : "MUV 2",
            principal ? "VAR animal 2 2\n 4.0 2.0 5.0\n" : "VAR animal 2\n 4.0 2.0 5.0\n");
        for (const char* options : {"--aireml3", "--emalg2", "--pxem2", "--powell1", "--emai2,2", ""}) {
            SCOPED_TRACE(options);
            std::filesystem::remove("BestPoint");
            finish(options);
            EXPECT_EQ(labelled("SumEstimates.out", "No. of parameters"), 6.0);
            EXPECT_EQ(labelled("SumEstimates.out", "... not estimated"), 1.0);
            const double logl = labelled("SumEstimates.out", "Maximum log L");
            EXPECT_NEAR(labelled("SumEstimates.out", "-1/2 AIC & AICC"), logl - 5.0, 0.0011);
            const double penalty = labelled("SumEstimates.out", "\"Penalty factor\"");
            EXPECT_NEAR(labelled("SumEstimates.out", "-1/2 BIC"), logl - 5.0 * penalty, 0.004);
        }
    }
}

} // namespace
