// Tables along the control variable. The expected lines were made by a Fortran program with the same edit forms; errors
// of correlations by differences.
#include "estimation/covs2parvec.h"
#include "reports/rrvariances.h"

#include "data/recode_fixture.h"

#include "estimation/estimates.h"
#include "estimation/searchstate.h"
#include "parameters/variances.h"
#include "reports/apprxaicovs.h"
#include "support/reports.h"

namespace tarvex {
namespace {

class rrvariances_test : public recode_test {
protected:
    // Intercept and slope with variances 4 and 1, residual variances 2 (up to age 4) and 3.
    void two_coefficients(const std::string& data = "1 2 5\n1 10 6\n2 4 5\n",
                          const std::string& ages = " 1 4 2.0\n 5 10 3.0\n") {
        options.emalgorithm = true;
        prepare("DAT t.dat\n animal 10\n age 40\n y\nEND\nANA RR\nMOD\n RAN animal(2,LEG) IDE\n RRC age\n TRAIT y 1 "
                "-9\nEND\n"
                "VAR animal 2\n 4 0 1\nVAR residual 1 HET 2 age\n" +
                    ages,
                data);
        data_scan1st();
        covs2parvec();
        bestpoint.parbest = estimates.parvec;
        bestpoint.xbest = -10.0;
    }
};

TEST_F(rrvariances_test, with_errors) {
    two_coefficients();
    write_file("AvInfoParms", "-10\n1 1 4\n2 2 25\n3 3 1\n4 4 4\n5 5 16\n");
    search_state.saverr_ready = true;
    approxai_covs();
    rrvariances();
    EXPECT_EQ(read_file("RanRegVariances.dat"), R"(Variance components for trait no.  1
Level  Value animal       Residual       Phenotypic
    1      2    3.50000      1.06800        2.00000     0.500000        5.50000      1.17925    
    2      4    2.37500     0.668049        2.00000     0.500000        4.37500     0.834439    
    3     10    3.50000      1.06800        3.00000     0.200000        6.50000      1.08657    
)");
    EXPECT_EQ(read_file("RanRegVarRatios.dat"), R"(Variance ratios for trait no.  1
Level  Value animal       Residual    
    1      2     0.636   0.091     0.364   0.091
    2      4     0.543   0.093     0.457   0.093
    3     10     0.538   0.078     0.462   0.078
)");
    EXPECT_EQ(read_file("RanRegCorrels.dat"), R"(Selected correlations for trait no.  1
Correlations & approximate sampling errors for level no.   1  value      2
                  animal      
    1      2     1.000   0.000
    2      4     0.954   0.021
    3     10     0.143   0.173
Correlations & approximate sampling errors for level no.   2  value      4
                  animal      
    1      2     0.954   0.021
    2      4     1.000   0.000
    3     10     0.434   0.150
Correlations & approximate sampling errors for level no.   3  value     10
                  animal      
    1      2     0.143   0.173
    2      4     0.434   0.150
    3     10     1.000   0.000
)");
}

TEST_F(rrvariances_test, without_errors) {
    two_coefficients();
    rrvariances();
    EXPECT_EQ(read_file("RanRegVariances.dat"), R"(Variance components for trait no.  1
Level  Value        animal                      Residual                      Phenotypic
    1      2  3.50000      2.00000      5.50000    
    2      4  2.37500      2.00000      4.37500    
    3     10  3.50000      3.00000      6.50000    
)");
    EXPECT_EQ(read_file("RanRegVarRatios.dat"), R"(Variance ratios for trait no.  1
Level  Value      animal            Residual    
    1      2    0.636    0.364
    2      4    0.543    0.457
    3     10    0.538    0.462
)");
    EXPECT_EQ(read_file("RanRegCorrels.dat"), R"(Selected correlations for trait no.  1
Correlations for level no.   1  value      2
                  animal      
    1      2    1.000
    2      4    0.954
    3     10    0.143
Correlations for level no.   2  value      4
                  animal      
    1      2    0.954
    2      4    1.000
    3     10    0.434
Correlations for level no.   3  value     10
                  animal      
    1      2    0.143
    2      4    0.434
    3     10    1.000
)");
}

TEST_F(rrvariances_test, failed_errors) {
    two_coefficients();
    write_file("AvInfoParms", "-10\n1 1 4\n2 2 25\n3 3 -0.25\n4 4 4000\n5 5 -16\n");
    search_state.saverr_ready = true;
    approxai_covs();
    rrvariances();
    EXPECT_EQ(lines_of(read_file("RanRegVariances.dat"))[2],
              "    1      2    3.50000             fail    2.00000     0.500000        5.50000             fail");
    EXPECT_EQ(lines_of(read_file("RanRegVarRatios.dat"))[2], "    1      2     0.636    fail     0.364    fail");
}

TEST_F(rrvariances_test, twenty_blocks_of_a_long_list) {
    for (const int most : {39, 20}) {
        new_analysis();
        std::string used;
        for (int a = 0; a < most; ++a)
            used += std::to_string(a % 9 + 1) + " " + std::to_string(a + 1) + " " + std::to_string(a % 7) + "\n";
        two_coefficients(used, " 1 4 2.0\n 5 39 3.0\n");
        rrvariances();
        std::vector<int> levels;
        for (const auto& line : lines_of(read_file("RanRegCorrels.dat")))
            if (line.starts_with("Correlations for level no. ")) levels.push_back(std::stoi(line.substr(27)));
        ASSERT_EQ(levels.size(), 20u);
        for (int k = 0; k < 20; ++k) EXPECT_EQ(levels[static_cast<std::size_t>(k)], most == 39 ? 1 + 2 * k : 1 + k);
    }
}

} // namespace
} // namespace tarvex
