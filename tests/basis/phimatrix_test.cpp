// Tables at the values of the control variables, residual classes and splines of the model.
#include "data/recode_fixture.h"

#include "basis/legendre.h"
#include "basis/phimatrix.h"
#include "basis/splines.h"

#include <cmath>
#include <filesystem>

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
    EXPECT_EQ(splines.bsp_nknots(1), 3);
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

// Lines as a Fortran program writes them.
TEST_F(phimatrix_test, long_tables_go_on_below) {
    const auto many = [](int n) {
        std::string text = "VAR animal " + std::to_string(n) + "\n";
        for (int i = 1; i <= n; ++i)
            for (int j = i; j <= n; ++j) text += i == j ? " 9\n" : " 0\n";
        return text;
    };
    prepare(par(" RAN animal(12,LEG) IDE\n", hom, many(12)), data);
    data_scan1st();
    EXPECT_EQ(phimat.phi_name(1), "age_LEG12");
    EXPECT_EQ(
        read_file("age_LEG12.baf"),
        R"(       2  0.707107 -1.224745  1.581139 -1.870829  2.121320 -2.345208  2.549510 -2.738613  2.915476 -3.082207
          3.240370 -3.391165
       4  0.707107 -0.612372 -0.197642  0.818488 -0.613194 -0.210702  0.824109 -0.611106 -0.214692  0.825719
         -0.609930 -0.216598
      10  0.707107  1.224745  1.581139  1.870829  2.121320  2.345208  2.549510  2.738613  2.915476  3.082207
          3.240370  3.391165
)");
    new_analysis();
    prepare(par(" RAN animal(11,POL) IDE\n", hom, many(11)), data);
    data_scan1st();
    EXPECT_EQ(
        read_file("age_POL11.baf"),
        R"(       2        1.000000        2.000000        4.000000        8.000000       16.000000       32.000000       64.000000      128.000000      256.000000      512.000000
             1024.000000
       4        1.000000        4.000000       16.000000       64.000000      256.000000     1024.000000     4096.000000    16384.000000    65536.000000   262144.000000
          1048576.000000
      10        1.000000       10.000000      100.000000     1000.000000    10000.000000   100000.000000  1000000.000000 10000000.000000100000000.000000****************
        ****************
)");
}

TEST_F(phimatrix_test, letters_of_degree) {
    const struct {
        const char* basis;
        int degree;
    } bases[] = {{"BSP", 1}, {"BSPL", 1}, {"bspl", 1}, {"BSPQ", 2}, {"bspq", 2}, {"BSPC", 3}, {"BspC", 3}};
    for (const auto& b : bases) {
        new_analysis();
        prepare(par(std::string(" RAN animal(4,") + b.basis + ") IDE\n", hom, "VAR animal 4\n 9 0 0 0 9 0 0 9 0 9\n"),
                data);
        data_scan1st();
        ASSERT_EQ(splines.nspline, 1) << b.basis;
        EXPECT_EQ(splines.bsp_degree(1), b.degree) << b.basis;
        EXPECT_EQ(splines.bsp_nknots(1), 4 - b.degree) << b.basis;
        EXPECT_EQ(phimat.phi_name(1), "age_BSP4");
        double sum = 0.0;
        for (int k = 1; k <= 4; ++k) sum += phimat.phi(1)(3, k); // the highest value
        EXPECT_NEAR(sum, 1.0, 1e-14) << b.basis;
    }
    // one spline, two tables: degree is not part of the file name, but of the table
    new_analysis();
    prepare(par(" RAN animal(4,BSPL) IDE\n RAN pe(4,BSPC) IDE\n", hom,
                "VAR animal 4\n 9 0 0 0 9 0 0 9 0 9\nVAR pe 4\n 9 0 0 0 9 0 0 9 0 9\n"),
            data);
    data_scan1st();
    EXPECT_EQ(phimat.nphi, 2);
    EXPECT_NEAR(phimat.phi(1)(1, 1), 1.0, 1e-14);       // linear at its first knot
    EXPECT_NEAR(phimat.phi(2)(1, 1), 1.0 / 6.0, 1e-14); // cubic
}

TEST_F(phimatrix_test, a_value_that_the_spline_does_not_have) {
    prepare(par(" RAN animal(4,BSPQ) IDE\n", hom, "VAR animal 4\n 9 0 0 0 9 0 0 9 0 9\n"), data);
    data_scan1st();
    EXPECT_EQ(bspline_place(1, 4.0), 2);
    for (const double x : {1.0, 5.0, 11.0}) EXPECT_STOP(bspline_place(1, x), "bspl code not found");
}

TEST_F(phimatrix_test, details_of_the_tables) {
    prepare(par(" RAN animal(2,BSPL) IDE\n RAN pe(2,LEG) IDE\n", hom, "VAR animal 2\n 9 0 9\nVAR pe 2\n 9 0 9\n"),
            data);
    options.details = true;
    data_scan1st();
    EXPECT_NE(screen_text().find("END setup_legendre\n"), std::string::npos);
    EXPECT_NE(screen_text().find("bspknots :  -6.0 2.0 10.0 18.0\n"), std::string::npos) << screen_text();
    EXPECT_NE(screen_text().find("bsp coeffs 1  -6.0 2.0 10.0 18.0 1 4 3\n"), std::string::npos);
}

TEST_F(phimatrix_test, table_that_cannot_be_written) {
    prepare(par(" RAN animal(2,LEG) IDE\n", hom, "VAR animal 2\n 9 0 9\n"), data);
    std::filesystem::create_directory("age_LEG2.baf");
    EXPECT_STOP(data_scan1st(), "Error open file for output of basis function ");
}

TEST_F(phimatrix_test, functions_of_the_user_of_order_ten_and_more) {
    std::string cov = "VAR animal 10\n", line1, line2;
    for (int i = 1; i <= 10; ++i)
        for (int j = i; j <= 10; ++j) cov += i == j ? " 9\n" : " 0\n";
    for (int k = 1; k <= 10; ++k) line1 += " " + std::to_string(k), line2 += " -" + std::to_string(k);
    prepare(par(" RAN animal(10,USR) IDE\n", hom, cov), data);
    write_file("age_USR10.baf", line1 + "\n" + line2 + "\n1 2 3\n");
    EXPECT_STOP(data_scan1st(), "Error reading user-defined basis function\n  ... check file :  age_USR10.baf\n"
                                "  ... error occured at line 3\n  values read for line 3  : 1.0 2.0 3.0\n");
    write_file("age_USR10.baf", line1 + "\n" + line2 + "\n" + line1 + "\n");
    data_scan1st();
    EXPECT_EQ(phimat.phi(1)(1, 1), 1.0);
    EXPECT_EQ(phimat.phi(1)(2, 10), -10.0);
}

TEST_F(phimatrix_test, truncated_power_functions_are_refused) {
    prepare(par(" RAN animal(3,LEG) IDE\n", hom, animal3), data);
    mudmap.irropt(1, 1) = basis_kind::spl;
    EXPECT_STOP(data_scan1st(), "tpf splines not yet");
    mudmap.irropt(1, 1) = static_cast<basis_kind>(7); // no kind
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
    new_analysis();
    prepare(with("POL"), records);
    EXPECT_STOP(data_scan1st(), "Error : mismatch in covariable type across traits");
    new_analysis();
    prepare(with("BSPL"), records);
    data_scan1st();
    EXPECT_EQ(splines.nspline, 1);
    EXPECT_EQ(splines.bsp_values(1), (std::vector<double>{2, 3, 7, 9}));
}

} // namespace
} // namespace tarvex
