// Matrices of the estimates report: wrapped rows, wide output, residual classes, reduced rank and sums of correlated
// effects. The expected lines were made by a Fortran program with the same edit forms.
#include "estimation/covs2parvec.h"
#include "reports/covblocks.h"
#include "reports/summary.h"

#include "data/recode_fixture.h"

#include "estimation/estimates.h"
#include "estimation/searchstate.h"
#include "likelihood/derivatives.h"
#include "parameters/variances.h"
#include "support/reports.h"

namespace tarvex {
namespace {

class covmat_test : public recode_test {
protected:
    static std::string printed(const report_matrix& m, const std::vector<double>& cov) {
        {
            text_out out;
            EXPECT_TRUE(out.open("matrix"));
            write_covmat(out, m, cov);
        }
        return read_file("matrix");
    }
    // A matrix whose elements are the covariances themselves.
    static report_matrix plain_matrix(int n, int rank) {
        report_matrix m;
        m.n = n;
        m.rank = rank;
        for (int k = 1; k <= n * (n + 1) / 2; ++k) m.element.push_back({{k, 1.0}});
        return m;
    }
    static std::vector<double> packed(int n, double off, double first, double step) {
        std::vector<double> cov;
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= n; ++j) cov.push_back(i == j ? first + step * i : off);
        return cov;
    }
    void estimate_at_start() {
        data_scan1st();
        covs2parvec();
        bestpoint.parbest = estimates.parvec;
        bestpoint.xbest = -10.0;
        derivs.nparm2 = estimates.nparm;
        numbers.nrankx = 1;
    }
    static std::string report_from(const std::string& words) {
        const std::string text = read_file("SumEstimates.out");
        const auto at = text.find(words);
        EXPECT_NE(at, std::string::npos) << text;
        return at == std::string::npos ? "" : text.substr(at);
    }
};

TEST_F(covmat_test, seven_traits_wrap) {
    EXPECT_EQ(printed(plain_matrix(7, 1), packed(7, 0.5, 2.25, 1.0)), R"(
 Covariance matrix
   1     3.2500    
   2    0.50000       4.2500    
   3    0.50000      0.50000       5.2500    
   4    0.50000      0.50000      0.50000       6.2500    
   5    0.50000      0.50000      0.50000      0.50000       7.2500    
   6    0.50000      0.50000      0.50000      0.50000      0.50000       8.2500    
   7    0.50000      0.50000      0.50000      0.50000      0.50000      0.50000    
         9.2500    

 Correlation matrix
   1      1.0000
   2      0.1345    1.0000
   3      0.1210    0.1059    1.0000
   4      0.1109    0.0970    0.0873    1.0000
   5      0.1030    0.0901    0.0810    0.0743    1.0000
   6      0.0966    0.0844    0.0760    0.0696    0.0647    1.0000
   7      0.0912    0.0797    0.0717    0.0658    0.0611    0.0572
          1.0000
)"); // rank 1: no eigenvalues
}

TEST_F(covmat_test, wide_output_has_eight_a_line) {
    options.wide = true;
    EXPECT_EQ(printed(plain_matrix(9, 1), packed(9, 0.5, 2.25, 1.0)), R"(
 Covariance matrix
   1     3.2500    
   2    0.50000       4.2500    
   3    0.50000      0.50000       5.2500    
   4    0.50000      0.50000      0.50000       6.2500    
   5    0.50000      0.50000      0.50000      0.50000       7.2500    
   6    0.50000      0.50000      0.50000      0.50000      0.50000       8.2500    
   7    0.50000      0.50000      0.50000      0.50000      0.50000      0.50000       9.2500    
   8    0.50000      0.50000      0.50000      0.50000      0.50000      0.50000      0.50000       10.250    
   9    0.50000      0.50000      0.50000      0.50000      0.50000      0.50000      0.50000      0.50000    
         11.250    

 Correlation matrix
   1      1.0000
   2      0.1345    1.0000
   3      0.1210    0.1059    1.0000
   4      0.1109    0.0970    0.0873    1.0000
   5      0.1030    0.0901    0.0810    0.0743    1.0000
   6      0.0966    0.0844    0.0760    0.0696    0.0647    1.0000
   7      0.0912    0.0797    0.0717    0.0658    0.0611    0.0572    1.0000
   8      0.0866    0.0758    0.0682    0.0625    0.0580    0.0544    0.0513    1.0000
   9      0.0827    0.0723    0.0651    0.0596    0.0554    0.0519    0.0490    0.0466
          1.0000
)");
}

TEST_F(covmat_test, eigenvalues_stay_six_a_line) {
    EXPECT_EQ(printed(plain_matrix(7, 7), packed(7, 0.0, 10.0, -1.0)), R"(
 Covariance matrix
   1     9.0000    
   2     0.0000       8.0000    
   3     0.0000       0.0000       7.0000    
   4     0.0000       0.0000       0.0000       6.0000    
   5     0.0000       0.0000       0.0000       0.0000       5.0000    
   6     0.0000       0.0000       0.0000       0.0000       0.0000       4.0000    
   7     0.0000       0.0000       0.0000       0.0000       0.0000       0.0000    
         3.0000    

 Eigenvalues of covariance matrix
 Value         9.00         8.00         7.00         6.00         5.00         4.00
               3.00
   (%)        21.43        19.05        16.67        14.29        11.90         9.52
               7.14

 Eigenvectors of covariance matrix
   1     1.0000       0.0000       0.0000       0.0000       0.0000       0.0000    
         0.0000    
   2     0.0000       1.0000       0.0000       0.0000       0.0000       0.0000    
         0.0000    
   3     0.0000       0.0000       1.0000       0.0000       0.0000       0.0000    
         0.0000    
   4     0.0000       0.0000       0.0000       1.0000       0.0000       0.0000    
         0.0000    
   5     0.0000       0.0000       0.0000       0.0000       1.0000       0.0000    
         0.0000    
   6     0.0000       0.0000       0.0000       0.0000       0.0000       1.0000    
         0.0000    
   7     0.0000       0.0000       0.0000       0.0000       0.0000       0.0000    
         1.0000    

 Correlation matrix
   1      1.0000
   2      0.0000    1.0000
   3      0.0000    0.0000    1.0000
   4      0.0000    0.0000    0.0000    1.0000
   5      0.0000    0.0000    0.0000    0.0000    1.0000
   6      0.0000    0.0000    0.0000    0.0000    0.0000    1.0000
   7      0.0000    0.0000    0.0000    0.0000    0.0000    0.0000
          1.0000
)");
    options.wide = true;
    const std::string wide = printed(plain_matrix(7, 7), packed(7, 0.0, 10.0, -1.0));
    EXPECT_NE(wide.find("\n Value         9.00         8.00         7.00         6.00         5.00         4.00\n      "
                        "         3.00\n"),
              std::string::npos)
        << wide;
    EXPECT_NE(
        wide.find(
            "\n   1     1.0000       0.0000       0.0000       0.0000       0.0000       0.0000       0.0000    \n"),
        std::string::npos)
        << wide;
}

TEST_F(covmat_test, a_variance_of_zero_has_correlations_of_zero) {
    const std::string text = printed(plain_matrix(2, 1), {0.0, 0.0, 4.0});
    EXPECT_NE(text.find(" Correlation matrix\n   1      1.0000\n   2      0.0000    1.0000\n"), std::string::npos)
        << text;
}

TEST_F(covmat_test, residual_classes) {
    options.emalgorithm = true;
    prepare(
        "DAT t.dat\n animal 10\n age 40\n y\nEND\nANA RR\nMOD\n RAN animal(2,LEG) IDE\n RRC age\n TRAIT y 1 -9\nEND\n"
        "VAR animal 2\n 4 0 1\nVAR residual 1 HET 2 age\n 1 4 2.0\n 5 10 3.0\n",
        "1 2 5\n1 10 6\n2 4 5\n");
    estimate_at_start();
    write_file("AvInfoParms", "-10\n1 1 4\n2 2 25\n3 3 1\n4 4 4\n5 5 16\n");
    search_state.saverr_ready = true;
    write_estimates();
    const std::string text = report_from("\n***** Estimates of residual"), wanted = R"(
***** Estimates of residual covariances   ************************************
******************************************************************************
No. of measurement error variance classes = 2
 Class no.   1   Range       1       4
(Co)Variance components
   1     2.0000    
 Class no.   2   Range       5      10
(Co)Variance components
   1     3.0000    

 Covariance components with approximate sampling errors
   1  COVS Z 1 1 1    2.00000       0.500000    
   2  COVS Z 1 1 2    3.00000       0.200000    

***** Estimates for RE  1   "animal"  ****************************************
******************************************************************************
      No. of levels        =       2
      Covariance structure =    IDE
      Order of fit         =       2

 Covariance matrix
   1     4.0000    
   2     0.0000       1.0000    

 Eigenvalues of covariance matrix
 Value         4.00         1.00
   (%)        80.00        20.00

 Eigenvectors of covariance matrix
   1     1.0000       0.0000    
   2     0.0000       1.0000    

 Correlation matrix
   1      1.0000
   2      0.0000    1.0000

 Covariances & correlations with approximate sampling errors
   3  COVS A 1 1    4.00000        1.00000    
   4  COVS A 1 2    0.00000       0.500000       corr     0.000   0.250
   5  COVS A 2 2    1.00000       0.250000    
)";
    EXPECT_EQ(text.substr(0, wanted.size()), wanted);
    EXPECT_EQ(text.find("phenotypic"), std::string::npos);
}

TEST_F(covmat_test, classes_from_a_file_have_no_range) {
    options.emalgorithm = true;
    prepare(
        "DAT t.dat\n animal 10\n age 40\n y\nEND\nANA RR\nMOD\n RAN animal(2,LEG) IDE\n RRC age\n TRAIT y 1 -9\nEND\n"
        "VAR animal 2\n 4 0 1\nVAR residual 1 IND 2\n 2.0\n 3.0\n",
        "1 2 5\n1 10 6\n2 4 5\n");
    write_file("MEVariances", "2 1\n4 2\n10 1\n");
    estimate_at_start();
    write_estimates();
    EXPECT_NE(report_from("\n***** Estimates of residual")
                  .find("No. of measurement error variance classes = 2\n Class no.   1\n"
                        "(Co)Variance components\n   1     2.0000    \n Class no.   2\n"),
              std::string::npos);
}

TEST_F(covmat_test, order_and_rank) {
    prepare("DAT t.dat\n animal 10\n y1\n y2\n y3\nEND\nANA MUV PC 3\nMOD EQ\n MEA\n RAN animal IDE\n TRAIT y1 1 -9\n "
            "TRAIT y2 2 -9\n"
            " TRAIT y3 3 -9\nEND\nVAR animal 3 2\n 9 3 1 5 1 1\nVAR residual 3\n 5 0 0 5 0 5\n",
            "1 2 5 4\n2 4 6 5\n3 6 1 2\n");
    estimate_at_start();
    write_estimates();
    const std::string text = report_from("\n***** Estimates for RE  1   \"animal\"");
    EXPECT_NE(text.find("      Order & rank of fit  =       3       2\n"), std::string::npos) << text;
    const auto at = text.find(" Value");
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(words_of(text.substr(at, text.find('\n', at) - at)).size(), 3u); // two eigenvalues
}

// Phenotypic covariances sum the effects that both traits have.
TEST_F(covmat_test, phenotypic_sums) {
    options.emalgorithm = true;
    prepare("PED p\nANA MUV 2\nDAT t.dat\n TR1 tno\n animal 10\n litter 5\n y1\n TR2 tno\n animal 10\n litter 5\n "
            "y2\nEND\nMOD\n MEA\n RAN animal NRM\n RAN litter IDE 2\n"
            " TRAIT y1 1 -9\n TRAIT y2 2 -9\nEND\nVAR animal 2\n 2.0 0.5 3.0\nVAR litter 1\n 1.5\nVAR residual 2\n 5.0 "
            "1.0 4.0\n",
            "1 1 1 2\n2 1 1 5\n1 2 2 4\n2 2 2 6\n", 3);
    estimate_at_start();
    write_estimates();
    const std::string text = report_from("***** Estimates of residual");
    EXPECT_NE(text.find(" Matrix of correlations and variance ratios\n   1      0.7143\n   2      0.2236    0.4706\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(" Variance ratios\n   1      0.1765\n"), std::string::npos) << text; // 1.5 of 8.5
    EXPECT_NE(report_from("***** Estimates of phenotypic")
                  .find(" Covariance matrix\n   1     7.0000    \n   2     1.5000       8.5000    \n"),
              std::string::npos)
        << text;
}

TEST_F(covmat_test, permanent_effects_count_in_the_total) {
    options.emalgorithm = true;
    prepare("DAT t.dat\n animal 10\n perm 10\n y\nEND\nPED p\nANA UNI\nMOD\n MEA\n RAN animal NRM\n RAN perm PEQ\n "
            "TRAIT y 1 -9\nEND\n"
            "VAR animal 1\n 3.0\nVAR perm 1\n 2.0\nVAR residual 1\n 5.0\n",
            "1 1 2\n1 1 4\n2 2 6\n3 3 5\n", 3);
    estimate_at_start();
    write_estimates();
    const std::string text = report_from("***** Estimates of residual");
    EXPECT_NE(text.find(" Variance components\n   1     5.0000    \n\n Variance ratios\n   1      0.5000\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(" Variance components\n   1     2.0000    \n\n Variance ratios\n   1      0.2000\n"),
              std::string::npos)
        << text;
    EXPECT_NE(report_from("***** Estimates of phenotypic").find(" Variance components\n   1     10.000    \n"),
              std::string::npos)
        << text;
}

TEST_F(covmat_test, sum_of_correlated_effects) {
    options.emalgorithm = true;
    prepare("DAT t.dat\n animal 10\n dam 10\n y\nEND\nANA UNI\nPED p\nMOD\n MEA\n RAN animal NRM\n RAN dam NRM\n TRAIT "
            "y 1 -9\nEND\n"
            "VAR animal+dam 2\n 4.0 -0.5 2.0\nVAR residual 1\n 5.0\n",
            "1 2 5\n3 2 6\n4 1 7\n", 4);
    estimate_at_start();
    write_estimates();
    const std::string text = report_from("***** Estimates for RE  1   \"animal+dam\"");
    // 4 + 2 - 2 times 0.5, and 10.5 = 5 + 4 + 2 - 0.5 in total: dam and offspring share half their genes
    const std::string wanted = "\n***** Estimates for RE      \"a+dam\"  *****************************************\n" +
                               std::string(78, '*') +
                               "\n\n Variance components\n   1     5.0000    \n\n Variance ratios\n   1      0.4762\n";
    EXPECT_NE(text.find(wanted), std::string::npos) << text;
    EXPECT_NE(text.find("covariances  ***********************************\n" + std::string(78, '*') +
                        "\n\n Variance components\n   1     10.500    \n"),
              std::string::npos)
        << text;
    // running numbers: residual 1, matrix of the effects 2 to 4, phenotype, sum
    EXPECT_EQ(phenotypic_matrix().ipar, std::vector<int>{5});
    EXPECT_EQ(tied_sum_matrix(1).ipar, std::vector<int>{6});
}

} // namespace
} // namespace tarvex
