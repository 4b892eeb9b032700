// Tables at the values of the control variables, residual classes and splines of the model.
#include "data/recode_fixture.h"

#include "randreg/legendre.h"
#include "randreg/phimatrix.h"
#include "randreg/splines.h"

#include <cmath>

namespace tarvex {
namespace {

class phimatrix_test : public recode_test {
protected:
    static std::string par(const std::string& random, const std::string& residual, const std::string& vars) {
        return "DAT t.dat\n animal 10\n pe 10\n age 40\n y\nEND\nANA RR\nMOD\n" + random +
               " RRC age\n TRAIT y 1 -9\nEND\n" + vars + residual;
    }
    const std::string animal3 = "VAR animal 3\n 9 1 1 9 1 9\n", hom = "VAR residual 1 HOM\n 2.0\n";
    const std::string data = "1 1 2 5\n1 1 10 6\n2 2 4 5\n";
};

TEST_F(phimatrix_test, legendre_table_and_its_file) {
    prepare(par(" RAN animal(3,LEG) IDE\n RAN pe(3,LEG) IDE\n", hom, animal3 + "VAR pe 3\n 9 1 1 9 1 9\n"), data);
    data_scan1st();
    ASSERT_EQ(phimat.nphi, 1); // one variable, basis and order: one table
    EXPECT_EQ(phimat.kkphi(2, 1), 1);
    EXPECT_EQ(phimat.phi_name(1), "age_LEG3");
    const auto& phi = phimat.phi(1);
    for (int a = 1; a <= 3; ++a) {
        const double t = a == 1 ? -1.0 : a == 2 ? -0.5 : 1.0;
        EXPECT_NEAR(phi(a, 1), std::sqrt(0.5), 1e-14);
        EXPECT_NEAR(phi(a, 2), std::sqrt(1.5) * t, 1e-14);
        EXPECT_NEAR(phi(a, 3), std::sqrt(2.5) * (1.5 * t * t - 0.5), 1e-14);
    }
    EXPECT_EQ(read_file("age_LEG3.baf"),
              "       2  0.707107 -1.224745  1.581139\n       4  0.707107 -0.612372 -0.197642\n"
              "      10  0.707107  1.224745  1.581139\n");
    EXPECT_EQ(model.me_run(3), 1);
    EXPECT_EQ(phimat.jjmeta(1), 1);
}

TEST_F(phimatrix_test, powers_are_not_centred) {
    prepare(par(" RAN animal(3,POL) IDE\n", hom, animal3), data);
    data_scan1st();
    EXPECT_EQ(phimat.phi(1)(2, 1), 1.0);
    EXPECT_EQ(phimat.phi(1)(2, 2), 4.0);
    EXPECT_EQ(phimat.phi(1)(3, 3), 100.0);
    EXPECT_EQ(read_file("age_POL3.baf").substr(0, 57), "       2        1.000000        2.000000        4.000000\n");
}

TEST_F(phimatrix_test, orders_get_tables_of_their_own_and_larger_legendre_tables_serve_all) {
    prepare(par(" RAN animal(3,LEG) IDE\n RAN pe(2,LEG) IDE\n", hom, animal3 + "VAR pe 2\n 9 1 9\n"), data);
    data_scan1st();
    EXPECT_EQ(phimat.nphi, 2);
    EXPECT_EQ(legpolynomials.nleg, 3);
    EXPECT_EQ(phimat.phi(phimat.kkphi(2, 1)).upper(2), 2);
    setup_legendre(2);
    EXPECT_STOP(phimatrix(), "legendre");
}

TEST_F(phimatrix_test, cubic_spline_of_six_functions_has_three_intervals) {
    prepare(par(" RAN animal(6,BSPC) IDE\n", hom, "VAR animal 6\n 9 0 0 0 0 0 9 0 0 0 0 9 0 0 0 9 0 0 9 0 9\n"), data);
    data_scan1st();
    ASSERT_EQ(splines.nspline, 1);
    EXPECT_EQ(splines.bsp_nknots[0], 3);
    EXPECT_EQ(phimat.phi(1).upper(2), 6);
    for (int a = 1; a <= 3; ++a) {
        double sum = 0;
        for (int k = 1; k <= 6; ++k) sum += phimat.phi(1)(a, k);
        EXPECT_NEAR(sum, 1.0, 1e-12);
    }
    EXPECT_NEAR(phimat.phi(1)(1, 1), 1.0 / 6.0, 1e-14); // a knot: 1/6, 4/6, 1/6
    EXPECT_NEAR(phimat.phi(1)(1, 2), 4.0 / 6.0, 1e-14);
    EXPECT_NEAR(phimat.phi(1)(3, 6), 1.0 / 6.0, 1e-14);
}

TEST_F(phimatrix_test, too_few_functions_for_the_degree) {
    prepare(par(" RAN animal(3,BSPC) IDE\n", hom, animal3), data);
    EXPECT_STOP(data_scan1st(), "Too few functions for a spline of this degree : \"age\"");
}

TEST_F(phimatrix_test, user_defined_functions) {
    prepare(par(" RAN animal(3,USR) IDE\n", hom, animal3), data);
    EXPECT_STOP(data_scan1st(),
                "Error opening file with user-defined basis function\n ... check file :  age_USR3.baf\n");
    write_file("age_USR3.baf", "1 2 3\n4 0.5 6 7\n");
    EXPECT_STOP(data_scan1st(), "Error reading user-defined basis function\n  ... check file :  age_USR3.baf\n"
                                "  ... error occured at line 3\n");
    const std::string file = "1 2 3\n4 0.5 6 7\n7 8 9.5\n";
    write_file("age_USR3.baf", file);
    data_scan1st();
    EXPECT_EQ(phimat.phi(1)(1, 3), 3.0);
    EXPECT_EQ(phimat.phi(1)(2, 1), 0.5); // the value in front
    EXPECT_EQ(phimat.phi(1)(3, 3), 9.5);
    EXPECT_EQ(read_file("age_USR3.baf"), file);
}

TEST_F(phimatrix_test, truncated_power_functions_are_refused) {
    prepare(par(" RAN animal(3,LEG) IDE\n", hom, animal3), data);
    mudmap.irropt(1, 1) = 3;
    EXPECT_STOP(data_scan1st(), "tpf splines not yet");
    mudmap.irropt(1, 1) = 7;
    EXPECT_STOP(data_scan1st(), "error phi");
}

TEST_F(phimatrix_test, classes_of_a_step_function) {
    prepare(par(" RAN animal(3,LEG) IDE\n", "VAR residual 1 HET 2 age\n 1 4 2.0\n 5 10 3.0\n", animal3), data);
    data_scan1st();
    EXPECT_EQ(model.me_run(1), 1);
    EXPECT_EQ(model.me_run(2), 1); // bounds belong to their class
    EXPECT_EQ(model.me_run(3), 2);
    model.me_range(1, 2) = 11;
    EXPECT_STOP(mm2ages(),
                "Definition of ME variance step function incomplete\n  ... no interval found for value  10\n");
}

TEST_F(phimatrix_test, classes_from_a_file) {
    prepare(par(" RAN animal(3,LEG) IDE\n", "VAR residual 1 IND 2\n 2.0\n 3.0\n", animal3), data);
    const std::string head = "Error reading running no.s for ME variances\n";
    EXPECT_STOP(data_scan1st(), head + "   ... current level no. 1 2\n");
    write_file("MEVariances", "2 1\n4 2\n");
    EXPECT_STOP(mm2ages(), head + "   ... current level no. 3 10\n");
    write_file("MEVariances", "2 1\n5 2\n10 1\n");
    EXPECT_STOP(mm2ages(), head + "   ... levels do not match 2 4 5\n");
    write_file("MEVariances", "2 1\n4 3\n10 1\n");
    EXPECT_STOP(mm2ages(), head + "   ... running no. out of range 4 3 2\n");
    write_file("MEVariances", "2 1\n4 2\n10 1\n");
    mm2ages();
    EXPECT_EQ(model.me_run(2), 2);
    EXPECT_EQ(model.me_run(3), 1);
}

TEST_F(phimatrix_test, splines_of_one_covariable_must_agree_over_traits) {
    const std::string form =
        "ANA MUV 2\nDAT t.dat\n TR1 tno\n animal 10\n age\n y1\n TR2 tno\n animal 10\n age\n y2\nEND\nMOD\n"
        " COV age(5,BSPL) 1\n COV age(5,@) 2\n RAN animal IDE\n TRAIT y1 1 -9\n TRAIT y2 2 -9\nEND\n"
        "VAR animal 2\n 9 1 9\nVAR residual 2\n 2.0 0.1 2.0\n";
    const std::string records = "1 1 2 5\n2 1 3 6\n1 2 9 5\n2 2 7 5\n";
    const auto with = [&](const std::string& type) { return std::string(form).replace(form.find('@'), 1, type); };
    prepare(with("BSPC"), records);
    EXPECT_STOP(data_scan1st(), "Error : mismatch in covariable degree across traits");
    reset_modules();
    prepare(with("POL"), records);
    EXPECT_STOP(data_scan1st(), "Error : mismatch in covariable type across traits");
    reset_modules();
    prepare(with("BSPL"), records);
    data_scan1st();
    EXPECT_EQ(splines.nspline, 1);
    EXPECT_EQ(splines.bsp_values[0], (std::vector<double>{2, 3, 7, 9}));
}

} // namespace
} // namespace tarvex
