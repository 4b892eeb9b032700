// Reports of solutions line by line. The expected lines were made by a Fortran program with the same edit forms.
#include "reports/writesolns.h"

#include "data/recode_fixture.h"

#include "equations/orders.h"
#include "likelihood/solutions.h"
#include "support/reports.h"

#include <cmath>

namespace tarvex {
namespace {

// What stands below the covariables.
const std::string effects_with_errors = R"( Fixed effects for trait no.     1   "weight"
     Effect             Orig.code  Level    Solution         S.Error        SolSum=0       No.recs   Eff.Mean
  1  herd                       5      1     1.00000        0.500000       -0.166667             2     11.250    
  1  herd                       7      2     2.50000        0.707107         1.33333             2     19.000    
  1  herd                       9      3     0.00000         0.00000        -1.16667             1     30.000    
     No. of subclasses with only 1 record  =       1
     No. of subclasses with only 2 records =       2

 Extra effects for trait no.     1   "weight"
     Effect             Orig.code  Level   No.recs   Eff.Mean
  1  sex                        1      1         3     16.000    
  1  sex                        2      2         2     21.250    
)";
const std::string effects_without_errors = R"( Fixed effects for trait no.     1   "weight"
     Effect             Orig.code  Level    Solution        SolSum=0       No.recs   Eff.Mean
  1  herd                       5      1     1.00000       -0.166667             2     11.250    
  1  herd                       7      2     2.50000         1.33333             2     19.000    
  1  herd                       9      3     0.00000        -1.16667             1     30.000    
     No. of subclasses with only 1 record  =       1
     No. of subclasses with only 2 records =       2

 Extra effects for trait no.     1   "weight"
     Effect             Orig.code  Level   No.recs   Eff.Mean
  1  sex                        1      1         3     16.000    
  1  sex                        2      2         2     21.250    
)";

class solutions_test : public recode_test {
protected:
    // Five records in three herds; animals 10 to 50. The last herd is taken out of the equations.
    void records(const std::string& covariable, bool errors) {
        prepare("COM A small herd\nDAT t.dat\n animal 99\n herd 9\n age\n sex 2\n y\nEND\nANA UNI\nMOD\n COV " +
                    covariable +
                    "\n FIX herd\n EXT sex\n RAN animal IDE\n TRAIT y 1 -9\nEND\nVAR animal 1\n 1.0\nVAR residual 1\n "
                    "2.0\n",
                "10 5 2 1 10\n20 5 4 2 12.5\n30 7 4 1 20\n40 7 6 1 18\n50 9 8 2 30\n");
        model.trait(1) = "weight";
        data_scan1st();
        number_equations();
        const int ncv = mmequations.fx_start(1, 1);
        std::vector<double> values{0.5, -0.25, 0.125}, variances{0.04, 0.09, -0.5};
        values.resize(static_cast<std::size_t>(ncv));
        variances.resize(static_cast<std::size_t>(ncv));
        for (double x : {1.0, 2.5, 0.0, 0.1, 0.2, 0.3, 0.4, -0.5}) values.push_back(x);
        for (double x : {0.25, 0.5, 0.0, 0.19, 0.36, -0.01, 1.5, 0.75}) variances.push_back(x);
        solve(values, variances, ncv + 3, errors);
    }
    // Solutions and prediction error variances by equation; `out` is taken out, the new numbers run backwards.
    static void solve(const std::vector<double>& values, const std::vector<double>& variances, int out, bool errors) {
        const int n = mmequations.neqns;
        ASSERT_EQ(static_cast<int>(values.size()), n);
        solutions.solsave.allocate(n);
        solutions.solerrs.allocate(n);
        orders.ieqnew.allocate(n + 1);
        solutions.nsolerrs = errors ? 1 : 0;
        int next = out > 0 ? n - 1 : n;
        for (int k = 1; k <= n; ++k) {
            solutions.solsave(k) = values[static_cast<std::size_t>(k - 1)];
            if (k == out) continue;
            orders.ieqnew(k) = next;
            solutions.solerrs(next--) = variances[static_cast<std::size_t>(k - 1)];
        }
    }
    static std::string fixed_report() {
        const std::string text = read_file("FixSolutions.out");
        const auto first = text.find("\n Covariables for"), last = text.rfind(" end of file ");
        EXPECT_NE(first, std::string::npos);
        EXPECT_NE(last, std::string::npos);
        return text.substr(first, text.rfind('\n', last) + 1 - first);
    }
};

TEST_F(solutions_test, covariable_with_errors) {
    records("age(1,POL)", true);
    options.wide = true; // not for this report
    write_fixsolns();
    EXPECT_TRUE(options.wide);
    const std::string text = read_file("FixSolutions.out");
    EXPECT_NE(text.find(" GLS solutions for fixed effects\n" + std::string(78, '=') + "\n\n A small herd\n\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(fixed_report(), R"(
 Covariables for trait no.       1   "weight"
     Covariable                     Reg.coeff    Solution        S.Error
  1  age(1,POL)                             1    0.500000        0.200000    

)" + effects_with_errors);
    EXPECT_EQ(read_file("Curve_age.dat"), R"(     2      -1.4000000           1  10.0000    
     4     -0.40000000           2  16.2500    
     6      0.60000000           1  18.0000    
     8       1.6000000           1  30.0000    
)");
}

TEST_F(solutions_test, covariable_without_errors) {
    records("age(1,POL)", false);
    write_fixsolns();
    EXPECT_EQ(fixed_report(), R"(
 Covariables for trait no.       1   "weight"
     Covariable                     Reg.coeff    Solution
  1  age(1,POL)                             1    0.500000    

)" + effects_without_errors);
}

TEST_F(solutions_test, nested_covariable_with_errors) {
    records("age*herd(1,POL)", true);
    write_fixsolns();
    EXPECT_EQ(fixed_report(), R"(
 Covariables for trait no.       1   "weight"
     Covariable              Nested Reg.coeff    Solution        S.Error
  1  age*herd(1,POL)              1         1    0.500000        0.200000    
  1  age*herd(1,POL)              2         1   -0.250000        0.300000    
  1  age*herd(1,POL)              3         1    0.125000       -0.500000    

)" + effects_with_errors);
    EXPECT_EQ(read_file("Curve_age_herd.dat"), R"(Nested curve no. =    1  Code         5
     2      -1.4000000           1  10.0000    
     4     -0.40000000           1  12.5000    
Nested curve no. =    2  Code         7
     4      0.20000000           1  20.0000    
     6     -0.30000000           1  18.0000    
Nested curve no. =    3  Code         9
     8      0.40000000           1  30.0000    
)");
}

TEST_F(solutions_test, nested_covariable_without_errors) {
    records("age*herd(1,POL)", false);
    write_fixsolns();
    EXPECT_EQ(fixed_report(), R"(
 Covariables for trait no.       1   "weight"
     Covariable              Nested Reg.coeff    Solution
  1  age*herd(1,POL)              1         1    0.500000    
  1  age*herd(1,POL)              2         1   -0.250000    
  1  age*herd(1,POL)              3         1    0.125000    

)" + effects_without_errors);
}

TEST_F(solutions_test, random_effect) {
    records("age(1,POL)", true);
    write_randsolns();
    EXPECT_EQ(read_file("RnSoln_animal.dat"), R"(     1            10  1    0.100000        0.435890       0.900
     2            20  1    0.200000        0.600000       0.800
     3            30  1    0.300000       -0.100000E-01   1.005
     4            40  1    0.400000         1.22474      -0.500
     5            50  1   -0.500000        0.866025       0.500
)"); // negative values stand as they are
    solutions.nsolerrs = 0;
    write_randsolns();
    EXPECT_EQ(read_file("RnSoln_animal.dat"), R"(     1            10  1    0.100000    
     2            20  1    0.200000    
     3            30  1    0.300000    
     4            40  1    0.400000    
     5            50  1   -0.500000    
)");
}

TEST_F(solutions_test, second_traits_leave_the_code_blank) {
    prepare("DAT t.dat\n animal 9\n y1\n y2\nEND\nPED p\nANA MUV 2\nMOD EQ\n MEA\n RAN animal NRM\n TRAIT y1 1 -9\n "
            "TRAIT y2 2 -9\nEND\n"
            "VAR animal 2\n 4.0 0.5 9.0\nVAR residual 2\n 5.0 1.0 4.0\n",
            "1 2 5\n2 4 6\n", 2);
    data_scan1st();
    number_equations();
    solve({0.1, 1.0, 0.2, 2.0, 3.5, 5.5}, {0.25, 0.25, 0.25, 0.25, 0.5, 0.5}, 0, true);
    write_randsolns();
    EXPECT_EQ(read_file("RnSoln_animal.dat"), R"(     1             1  1    0.100000        0.500000       0.968
     1                2     1.00000        0.500000       0.986
     2             2  1    0.200000        0.500000       0.968
     2                2     2.00000        0.500000       0.986
)");
    solutions.nsolerrs = 0;
    write_randsolns();
    EXPECT_EQ(read_file("RnSoln_animal.dat"), R"(     1             1  1    0.100000    
     1                2     1.00000    
     2             2  1    0.200000    
     2                2     2.00000    
)");
}

TEST_F(solutions_test, torn_data_stop_the_report) {
    records("age(1,POL)", false);
    write_file("t.dat", "10 5 2 1 10\n20 5 4 2 12.5\n30 seven 4 1 20\n");
    EXPECT_STOP(write_fixsolns(),
                "***** ERROR : reading data file *****\n      No. of records read successfully =      2\n");
}

TEST_F(solutions_test, curves_of_splines_and_polynomials) {
    records("age(1,LEG)", false);
    write_fixsolns(); // 0.5 times the polynomial of degree 1 on ages 2 to 8
    auto lines = lines_of(read_file("Curve_age.dat"));
    ASSERT_EQ(lines.size(), 4u);
    for (std::size_t k = 0; k < 4; ++k)
        EXPECT_NEAR(number_of(words_of(lines[k])[1]),
                    0.5 * std::sqrt(1.5) * (-1.0 + 2.0 * static_cast<double>(k) / 3.0), 1e-7);
    new_analysis();
    records("age(2,BSPL)", false);
    write_fixsolns(); // a straight line from 0.5 to -0.25
    lines = lines_of(read_file("Curve_age.dat"));
    ASSERT_EQ(lines.size(), 4u);
    for (std::size_t k = 0; k < 4; ++k)
        EXPECT_NEAR(number_of(words_of(lines[k])[1]), 0.5 - 0.25 * static_cast<double>(k), 1e-7);
}

} // namespace
} // namespace tarvex
