#include "reports/modelsum.h"

#include "data/recode_fixture.h"

#include "control/tvxroutines.h"

namespace tarvex {
namespace {

class modelsum_test : public recode_test {
protected:
    // The report from the line of traits up to the footer.
    static std::string body() {
        const std::string text = read_file("SumModel.out");
        const auto first = text.find(" No. of traits");
        const auto last = text.rfind(" end of file ");
        EXPECT_NE(first, std::string::npos);
        EXPECT_NE(last, std::string::npos);
        return text.substr(first, text.rfind('\n', last) + 1 - first);
    }
};

TEST_F(modelsum_test, one_trait) {
    prepare("DAT t.dat\n animal 10\n herd 5\n age\n y\nEND\nPED p\nANA UNI\nMOD\n FIX herd\n COV age(1,POL)\n"
            " RAN animal NRM\n EXT herd\n TRAIT y 1 -9\nEND\nVAR animal 1\n 1.0\nVAR residual 1\n 2.0\n",
            "1 5 2 5\n2 6 4 8\n3 6 9 5\n", 4);
    data_scan1st();
    write_modelsum();
    EXPECT_EQ(body(), " No. of traits          =   1\n"
                      "                      nrec       mean         sdev         min.         max.\n"
                      "   1  \"y\"                3    6.00000      1.73205      5.00000      8.00000    \n"
                      "\n"
                      " Covariables\n"
                      "   1  \"age(1,POL)\"       3    5.00000      3.60555      2.00000      9.00000    \n"
                      "\n"
                      " Fixed effects\n"
                      " 1 \"y\"                nlev\n"
                      "   1  \"herd\"             2\n"
                      "\n"
                      " Random effects       nlev\n"
                      "   1  \"animal\"           4    NRM\n"
                      "\n"
                      " Extra effects\n"
                      " 1 \"y\"                nlev\n"
                      "   1  \"herd\"             2\n");
}

// The lines of a Fortran program; names longer than their place run into the numbers.
TEST_F(modelsum_test, two_traits) {
    prepare(
        "DAT t.dat\n animal 10\n herd 5\n age\n y1\n weight_at_weaning_12\nEND\nPED p\nANA MUV 2\nMOD EQ\n FIX herd\n "
        "COV age(1,POL)\n"
        " RAN animal NRM\n EXT herd\n TRAIT y1 1 -9\n TRAIT weight_at_weaning_12 2 -9\nEND\nVAR animal 2\n 1.0 0 1.0\n"
        "VAR residual 2\n 2.0 0 2.0\n",
        "1 5 2 5 -9\n2 6 4 8 -1\n3 6 9 5 0.5\n", 4);
    data_scan1st();
    write_modelsum();
    EXPECT_EQ(body(), R"-( No. of traits          =   2
                      nrec       mean         sdev         min.         max.
   1  "y1"               3    6.00000      1.73205      5.00000      8.00000    
   2  "weight_at_we      22"-0.250000      1.06066     -1.00000     0.500000    
 Same model for all traits

 Numbers of records for pairs of traits 
                         1      2
   1  "y1"               3
   2  "weight_at_we      2      2

 Covariables
 1"y1"                nrec       mean         sdev         min.         max.
   1  "age(1,POL)"       3    5.00000      3.60555      2.00000      9.00000    
 2"weight_at_weaning_1nrec       mean         sdev         min.         max.
   1  "age(1,POL)"       2    6.50000      3.53553      4.00000      9.00000    

 Fixed effects
 1 "y1"               nlev
   1  "herd"             2
 2 "weight_at_weaning_nlev
   1  "herd"             1

 Random effects       nlev
   1  "animal"           4    NRM

 Extra effects
 1 "y1"               nlev
   1  "herd"             2
 2 "weight_at_weaning_nlev
   1  "herd"             1

 Names in full
      "weight_at_weaning_12"
)-");
}

TEST_F(modelsum_test, pairs_of_more_than_ten_traits_wrap) {
    std::string par = "DAT t.dat\n animal 10\n", traits, line = "1", cov;
    for (int iq = 1; iq <= 11; ++iq) {
        const std::string n = std::to_string(iq);
        par += " y" + n + "\n";
        traits += " TRAIT y" + n + " " + n + " -9\n";
        line += " " + n;
    }
    for (int i = 1; i <= 11; ++i)
        for (int j = i; j <= 11; ++j) cov += i == j ? " 2" : " 0.1";
    for (std::size_t at = 60; at < cov.size(); at += 60) {
        at = cov.find(' ', at);
        if (at == std::string::npos) break;
        cov.replace(at, 1, "\n ");
    }
    par += "END\nPED p\nANA MUV 11\nMOD EQ\n RAN animal NRM\n" + traits + "END\nVAR animal 11\n" + cov +
           "\nVAR residual 11\n" + cov + "\n";
    prepare(par, line + "\n" + line + "\n", 2);
    data_scan1st();
    write_modelsum();
    const std::string text = body();
    EXPECT_NE(text.find(" Same model for all traits\n\n Numbers of records for pairs of traits \n"
                        "                         1      2      3      4      5      6      7      8      9     10\n"
                        "                        11\n"
                        "   1  \"y1\"               2\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("  11  \"y11\"              2      2      2      2      2      2      2      2      2      2\n"
                        "                         2\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.find("Covariables"), std::string::npos);
}

TEST_F(modelsum_test, pairs_stand_with_their_traits) {
    prepare("DAT t.dat\n animal 10\n y1\n y2\n y3\nEND\nPED p\nANA MUV 3\nMOD EQ\n RAN animal NRM\n TRAIT y1 1 -9\n"
            " TRAIT y2 2 -9\n TRAIT y3 3 -9\nEND\nVAR animal 3\n 2 .1 .1 2 .1 2\nVAR residual 3\n 2 .1 .1 2 .1 2\n",
            "1 5 6 -9\n2 4 -9 7\n3 3 6 5\n4 -9 5 4\n5 -9 -9 7\n6 2 -9 1\n7 2 -9 3\n8 -9 4 1\n", 8);
    data_scan1st();
    write_modelsum();
    EXPECT_NE(body().find("                         1      2      3\n"
                          "   1  \"y1\"               5\n"
                          "   2  \"y2\"               2      4\n"
                          "   3  \"y3\"               4      3      7\n"),
              std::string::npos)
        << body();
}

TEST_F(modelsum_test, control_variables) {
    prepare(
        "DAT t.dat\n animal 10\n age 40\n y\nEND\nANA RR\nMOD\n RAN animal(2,LEG) IDE\n RRC age\n TRAIT y 1 -9\nEND\n"
        "VAR animal 2\n 9 1 9\nVAR residual 1 HOM\n 2.0\n",
        "1 2 5\n1 4 6\n");
    data_scan1st();
    write_modelsum();
    EXPECT_NE(body().find("\n Control variables in RR analysis\n"
                          "                      nrec      mean         sdev         min.         max.\n"
                          "   1  \"age\"              2    3.00000      1.41421      2.00000      4.00000    \n"),
              std::string::npos)
        << body();
}

} // namespace
} // namespace tarvex
