// The estimates report line by line. The expected lines were made by a Fortran program with the same edit forms, errors
// of ratios and correlations by differences; the signs of eigenvectors are free.
#include "estimation/covs2parvec.h"
#include "reports/summary.h"

#include "data/recode_fixture.h"

#include "control/maximise.h"
#include "estimation/aireml.h"
#include "estimation/estimates.h"
#include "estimation/searchstate.h"
#include "likelihood/derivatives.h"
#include "parameters/variances.h"
#include "reports/apprxaicovs.h"
#include "support/reports.h"

#include <filesystem>

namespace tarvex {
namespace {

constexpr const char* two_traits = R"( No. of traits          =      2
 No. of records         =     30
 No. of parameters      =      6
   ... not estimated    =      1
 Maximum log L          =          -123.456
 -1/2 AIC & AICC        =          -128.456          -129.706
 -1/2 BIC               =          -131.696    "Penalty factor" =   1.648

 Parameter estimates with approx. sampling erors
   1   COVS Z 1 1              5.00000          0.500000    
   2   COVS Z 1 2              1.00000          0.353553    
   3   COVS Z 2 2              4.00000          0.707107    
   4   COVS A 1 1              2.00000          0.447214    
   5   COVS A 1 2             0.500000          0.200000    
   6   COVS A 2 2              3.00000          0.447214    

 Convergence criteria for last 3 iterates
 Change in log likelihood    =    1.500000    0.250000   -0.000123
 Change in parameter vector  =    0.500000    0.062500    0.000013
 Norm of gradient vector     =  12345.6789      3.2500      0.0013
 Newton decrement            =     -2.0000     -0.5000     -0.0625
*** "Tarvex" : Full convergence has not been achieved 
               Treat results with caution !!!  

***** Estimates of residual covariances   ************************************
******************************************************************************

 Covariance matrix
   1     5.0000    
   2     1.0000       4.0000    

 Eigenvalues of covariance matrix
 Value         5.62         3.38
   (%)        62.42        37.58

 Eigenvectors of covariance matrix
   1    0.85065     -0.52573    
   2    0.52573      0.85065    

 Matrix of correlations and variance ratios
   1      0.7143
   2      0.2236    0.5714

 Covariances & correlations with approximate sampling errors
   1  COVS Z 1 1    5.00000       0.500000       vrat     0.714   0.058
   2  COVS Z 1 2    1.00000       0.353553       corr     0.224   0.082
   3  COVS Z 2 2    4.00000       0.707107       vrat     0.571   0.057

***** Estimates for RE  1   "animal"  ****************************************
******************************************************************************
      No. of levels        =      15
      Covariance structure =    NRM
      Order of fit         =       2

 Covariance matrix
   1     2.0000    
   2    0.50000       3.0000    

 Eigenvalues of covariance matrix
 Value         3.21         1.79
   (%)        64.14        35.86

 Eigenvectors of covariance matrix
   1    0.38268      0.92388    
   2    0.92388     -0.38268    

 Matrix of correlations and variance ratios
   1      0.2857
   2      0.2041    0.4286

 Covariances & correlations with approximate sampling errors
   4  COVS A 1 1    2.00000       0.447214       vrat     0.286   0.058
   5  COVS A 1 2   0.500000       0.200000       corr     0.204   0.086
   6  COVS A 2 2    3.00000       0.447214       vrat     0.429   0.057

***** Estimates of phenotypic covariances  ***********************************
******************************************************************************

 Covariance matrix
   1     7.0000    
   2     1.5000       7.0000    

 Eigenvalues of covariance matrix
 Value         8.50         5.50
   (%)        60.71        39.29

 Eigenvectors of covariance matrix
   1    0.70711      0.70711    
   2    0.70711     -0.70711    

 Correlation matrix
   1      1.0000
   2      0.2143    1.0000

 Covariances & correlations with approximate sampling errors
   9  COVS T 1 1    7.00000       0.500000    
  10  COVS T 1 2    1.50000       0.406202       corr     0.214   0.060
  11  COVS T 2 2    7.00000       0.836660    

***** User defined functions of covariances***********************************
******************************************************************************

 Linear functions of covariances 
   7  phen1    7.00000       0.500000    
   8  minus   -5.00000       0.500000    

***** User defined functions of covariances***********************************
******************************************************************************

 Variance ratios and correlations 
   1  h2   0.285714       0.577230E-01   vrat
   3  rg   0.204124       0.861335E-01   corr
)";

class estimates_report : public recode_test {
protected:
    static std::string report() {
        const std::string text = read_file(options.bestonly ? "BestSoFar.out" : "SumEstimates.out");
        const auto first = text.find(" No. of traits"), last = text.rfind(" end of file ");
        EXPECT_NE(first, std::string::npos);
        EXPECT_NE(last, std::string::npos);
        return text.substr(first, text.rfind('\n', last) + 1 - first);
    }
    static void expect_lines(const std::string& found, const std::string& wanted) {
        const auto have = lines_of(found), want = lines_of(wanted);
        for (std::size_t i = 0; i < std::max(have.size(), want.size()); ++i) {
            const std::string a = i < have.size() ? have[i] : "(no line)", b = i < want.size() ? want[i] : "(no line)";
            EXPECT_EQ(a, b) << "line " << i + 1;
        }
    }
    // 15 animals with both traits; parameters are the covariances themselves.
    void two_trait_model(const std::string& functions = "") {
        std::string data;
        for (int i = 1; i <= 15; ++i)
            data += std::to_string(i) + " " + std::to_string(i % 4) + " " + std::to_string(i % 3) + "\n";
        options.emalgorithm = true;
        prepare(
            "DAT t.dat\n animal 99\n y1\n y2\nEND\nPED p\nANA MUV 2\nMOD EQ\n MEA\n RAN animal NRM\n TRAIT y1 1 -999\n"
            " TRAIT y2 2 -999\nEND\nVAR animal 2\n 2.0 0.5 3.0\nVAR residual 2\n 5.0 1.0 4.0\n" +
                functions,
            data, 15);
        data_scan1st();
        covs2parvec();
        bestpoint.parbest = estimates.parvec;
        bestpoint.xbest = -123.456;
        numbers.nrankx = 3;
        derivs.nparm2 = 6;
    }
    void one_trait_model() {
        std::string data;
        for (int i = 1; i <= 30; ++i) data += std::to_string(i) + " " + std::to_string(i % 5) + "\n";
        options.emalgorithm = true;
        prepare("DAT t.dat\n animal 99\n y\nEND\nPED p\nANA UNI\nMOD\n MEA\n RAN animal NRM\n TRAIT y 1 -999\nEND\n"
                "VAR animal 1\n 1.0\nVAR residual 1\n 3.0\n",
                data, 30);
        data_scan1st();
        covs2parvec();
        bestpoint.parbest = estimates.parvec;
        bestpoint.xbest = -50.0;
        numbers.nrankx = 1;
        derivs.nparm2 = 2;
    }
    // Information with the inverse: variances 0.25, 0.125, 0.5, 0.2, 0.04, 0.2, covariance -0.1 between 1 and 4.
    static void information(const std::string& third = "2", double log_l = -123.456) {
        write_file("AvInfoParms",
                   std::to_string(log_l) + "\n1 1 5\n1 4 2.5\n4 4 6.25\n2 2 8\n3 3 " + third + "\n5 5 25\n6 6 5\n");
        search_state.saverr_ready = true;
    }
    static void last_iterates() {
        aireml_terms.accepted = 3;
        const double c[3][4] = {
            {1.5, 0.5, 12345.67891, -2.0}, {0.25, 0.0625, 3.25, -0.5}, {-0.0001234, 0.0000125, 0.00125, -0.0625}};
        std::copy_n(&c[0][0], 12, &maximise.cchanges[0][0]);
    }
};

TEST_F(estimates_report, two_traits_with_errors_and_functions) {
    two_trait_model("SE+\n SUM phen1 1 4\n SUM minus 1(-1.0)\n VRA h2 4 7\n VRA none 4 8\n COR rg 5 4 6\nEND\n");
    information();
    last_iterates();
    derivs.nparm2 = 5;
    write_estimates();
    expect_lines(report(), two_traits);
    EXPECT_NE(screen_text().find(" Cannot calculate  none   invalid denominator -5"), std::string::npos)
        << screen_text();
    const auto v = read_triangle("AvInfoCovs");
    EXPECT_EQ(v.loglike, -123.456);
    ASSERT_EQ(v.rows.size(), 8u); // six covariances and both sums
    EXPECT_NEAR(v.rows[0][3], -0.1, 1e-12);
    EXPECT_NEAR(v.rows[6][0], 0.15, 1e-12); // phen1 with covariance 1: 0.25 - 0.1
    EXPECT_NEAR(v.rows[7][7], 0.25, 1e-12);
}

TEST_F(estimates_report, one_trait_with_errors) {
    one_trait_model();
    write_file("AvInfoParms", "-50\n1 1 4\n2 2 25\n");
    search_state.saverr_ready = true;
    write_estimates();
    expect_lines(report(), R"( No. of traits          =      1
 No. of records         =     30
 No. of parameters      =      2
 Maximum log L          =           -50.000
 -1/2 AIC & AICC        =           -52.000           -52.222
 -1/2 BIC               =           -53.367    "Penalty factor" =   1.684

 Parameter estimates with approx. sampling erors
   1   COVS Z 1 1              3.00000          0.500000    
   2   COVS A 1 1              1.00000          0.200000    

***** Estimates of residual covariances   ************************************
******************************************************************************

 Variance components
   1     3.0000    

 Variance ratios
   1      0.7500

 Covariance components with approximate sampling errors
   1  COVS Z 1 1    3.00000       0.500000       vrat     0.750   0.049

***** Estimates for RE  1   "animal"  ****************************************
******************************************************************************
      No. of levels        =      30
      Covariance structure =    NRM
      Order of fit         =       1

 Variance components
   1     1.0000    

 Variance ratios
   1      0.2500

 Covariance components with approximate sampling errors
   2  COVS A 1 1    1.00000       0.200000       vrat     0.250   0.049

***** Estimates of phenotypic covariances  ***********************************
******************************************************************************

 Variance components
   1     4.0000    

 Covariance components with approximate sampling errors
   3  COVS T 1 1    4.00000       0.538516    
)");
}

TEST_F(estimates_report, covariances_specified) {
    one_trait_model();
    options.bestonly = true;
    options.sevars = false;
    means.nrec.fill(0);
    write_estimates();
    EXPECT_NE(read_file("BestSoFar.out").find(": Covariance components specified\n"), std::string::npos);
    expect_lines(report(), R"( No. of traits          =      1
 No. of records         =      0
 No. of parameters      =      2
 Maximum log L so far   =           -50.000

 Parameter estimates
   1   COVS Z 1 1              3.00000    
   2   COVS A 1 1              1.00000    

***** Estimates of residual covariances   ************************************
******************************************************************************

 Variance components
   1     3.0000    

 Variance ratios
   1      0.7500

***** Estimates for RE  1   "animal"  ****************************************
******************************************************************************
      Covariance structure =    NRM
      Order of fit         =       1

 Variance components
   1     1.0000    

 Variance ratios
   1      0.2500

***** Estimates of phenotypic covariances  ***********************************
******************************************************************************

 Variance components
   1     4.0000    

 Verdict on the end of the search
 The last point is           = not judged : no gradient without the data
 Eigenvalues, residual       =  0.7500    
 Eigenvalues, animal         =  0.2500    
)");
}

TEST_F(estimates_report, negative_sampling_variances_are_marked) {
    two_trait_model("SE+\n SUM third 3\n VRA ratio 3 1\nEND\n");
    information("-2");
    write_estimates();
    const std::string text = report(), note = "Negative values for s.e. indicate failed approximation !\n";
    EXPECT_NE(text.find("   3   COVS Z 2 2              4.00000         -0.707107    \n"), std::string::npos)
        << text; // minus root
    EXPECT_NE(text.find("   6   COVS A 2 2              3.00000          0.447214    \n" + note), std::string::npos);
    EXPECT_NE(text.find("   3  COVS Z 2 2    4.00000       -1.00000       vrat     0.571  failed\n\n " + note),
              std::string::npos);
    EXPECT_NE(text.find("   7  third    4.00000       -1.00000    \n\n " + note), std::string::npos);
    EXPECT_NE(text.find("   1  ratio   0.800000       -1.00000       vrat\n\n " + note), std::string::npos);
    EXPECT_EQ(text.find("not of full rank"), std::string::npos); // negative, but not singular
}

TEST_F(estimates_report, information_of_short_rank_gives_a_warning) {
    two_trait_model();
    information("0");
    write_estimates();
    EXPECT_NE(report().find("\n\nWARNING : Matrix of sampling variances not of full rank 5 6 6\n"
                            "          -> approximation of sampling errors may be dubious\n\n"
                            " Parameter estimates with approx. sampling erors\n"),
              std::string::npos)
        << report();
}

TEST_F(estimates_report, information_of_another_point_is_not_used) {
    two_trait_model();
    bestpoint.xbest = -123.0;
    information("2", -123.0078125); // near enough
    write_estimates();
    EXPECT_NE(report().find("sampling erors"), std::string::npos);
    information("2", -123.015625);
    write_estimates();
    EXPECT_NE(screen_text().find(
                  "Approximation of sampling covariances failed\n-> discrepancy in log L too big -123.0 -123.015625\n"),
              std::string::npos)
        << screen_text();
    EXPECT_EQ(report().find("sampling er"), std::string::npos);
    EXPECT_NE(report().find("\n Parameter estimates\n   1   COVS Z 1 1              5.00000    \n"), std::string::npos)
        << report();
    std::filesystem::remove("AvInfoParms");
    clear_screen();
    write_estimates();
    EXPECT_EQ(report().find("sampling er"), std::string::npos);
    EXPECT_EQ(screen_text(), "");
}

// A report of estimates in the metric of the variances holds errors that follow a change of units.
TEST_F(estimates_report, errors_follow_the_units) {
    two_trait_model();
    write_file("AvInfoParms",
               "-123.456\n1 1 5e-12\n1 4 2.5e-12\n4 4 6.25e-12\n2 2 8e-12\n3 3 2e-12\n5 5 25e-12\n6 6 5e-12\n");
    search_state.saverr_ready = true;
    write_estimates();
    EXPECT_EQ(report().find("not of full rank"), std::string::npos);
    EXPECT_NE(report().find("   1   COVS Z 1 1              5.00000           500000."), std::string::npos) << report();
}

TEST_F(estimates_report, no_degrees_of_freedom_show_as_asterisks) {
    one_trait_model();
    means.nrec(1) = 3;
    numbers.nrankx = 3;
    write_estimates();
    EXPECT_NE(report().find(" -1/2 AIC & AICC        =           -52.000******************\n"
                            " -1/2 BIC               =******************    \"Penalty factor\" =********\n"),
              std::string::npos)
        << report();
}

TEST_F(estimates_report, sire_models_say_what_is_left_out) {
    one_trait_model();
    means.nrec(1) = 100;
    numbers.nrankx = 3;
    options.siremodel = true;
    write_estimates();
    EXPECT_NE(report().find(" -1/2 AIC & AICC        =           -52.000           -52.062\n"
                            " -1/2 BIC               =           -54.575    \"Penalty factor\" =   2.287\n"
                            "Sire model fitted - log L and information criteria have\n"
                            "                    been calculated omitting log|A| !!!\n"),
              std::string::npos)
        << report();
}

} // namespace
} // namespace tarvex
