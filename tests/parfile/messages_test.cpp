// Every message of the parameter file and of the mapping, each provoked once.
#include "control/filenames.h"
#include "control/numbers.h"
#include "control/options.h"
#include "parfile/examples.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "parfile/mudmap_build.h"
#include "parfile/parlines.h"
#include "parfile/readparfile.h"
#include "support/fixture.h"

#include <cstdio>
#include <filesystem>
#include <functional>

namespace tarvex {
namespace {

using examples::with;

class parfile_messages : public tarvex_test {
protected:
    parfile_messages() { EXPECT_NE(std::freopen("/dev/null", "r", stdin), nullptr); }
    void map(const std::string& text) {
        write_file("tarvex.par", text);
        read_parfile();
        model2mudmap();
    }
    void fails(const std::string& text, const std::string& message) {
        SCOPED_TRACE(text);
        EXPECT_STOP(map(text), message);
    }
    // `from` in the example gives way to `to`.
    void fails(const std::string& example, const std::string& from, const std::string& to, const std::string& message) {
        fails(with(example, from, to), message);
    }
};

std::string repeated(int n, const std::function<std::string(int)>& line) {
    std::string s;
    for (int i = 1; i <= n; ++i) s += line(i);
    return s;
}

const std::string& uni = examples::weaning;
const std::string& rep = examples::repeatability;
const std::string& two = examples::two_traits;
const std::string& multi = examples::renumbered;
const std::string& rr = examples::growth;
const std::string& grp = examples::grouped;

TEST_F(parfile_messages, no_parameter_file) {
    const std::string words = "Can not open parameter file !\n... tried to open \" tarvex.par \" but failed !";
    EXPECT_STOP(read_parfile(), words);
    std::filesystem::create_directory("tarvex.par");
    EXPECT_STOP(read_parfile(), words);
    std::filesystem::remove("tarvex.par");
    fails("", "Type of analysis not given");
    std::filesystem::create_directory("start");
    fails(uni, "ANA UNI", "STA start\nANA UNI", "Can not open file of starting values :\" start \"");
}

TEST_F(parfile_messages, error_shows_the_line) {
    fails(uni, "ANA UNI ", "ANALYSE IT",
          "***** ERROR reading parameter file :  Invalid analysis type specified\nCurrent line : \" ANALYSE IT");
    fails(uni, "ANA UNI", "XYZ UNI", "Invalid descriptor !");
    fails(uni, "ANA UNI", "  # ANA UNI", "Invalid descriptor !");
}

TEST_F(parfile_messages, numbers) {
    fails(uni, "VAR animal 1", "VAR animal", "Missing number !");
    for (const char* bad : {"-3", "+3", "x"})
        fails(uni, "VAR animal 1", std::string("VAR animal ") + bad, "Expect digit !");
    for (const char* bad : {"3x", "3.5", "99999999999"})
        fails(uni, "VAR animal 1", std::string("VAR animal ") + bad, "Something wrong parsing line !");
    EXPECT_NO_THROW(map(with(uni, "VAR animal 1", "VAR animal 1,4")));
    EXPECT_EQ(model.kkfit(1), 1);
    fails(uni, "VAR animal 1", "VAR animal 0", "Invalid order of covariance matrix !");
    fails(uni, "VAR animal 1", "VAR animal 1000", "Max. order of covariance matrix exceeded !");
}

TEST_F(parfile_messages, files) {
    fails(uni, "ANA UNI", "PED other\nANA UNI", "Pedigree file already given");
    fails(uni, "PED wean.ped", "PED", "File name is missing !");
    fails(uni, "DAT wean.dat", "DAT", "File name is missing !");
    fails(uni, "ANA UNI", "STA\nANA UNI", "File name is missing !");
    fails(uni, "ANA UNI", "STA none\nANA UNI", "Can not open file of starting values :\" none \"");
    fails(uni + "STA none\n", "Give file of starting values before covariances !");
}

TEST_F(parfile_messages, analysis) {
    fails(uni, "ANA UNI", "ANA", "Invalid analysis type specified");
    fails(uni, "ANA UNI", "ANA XXX", "Invalid analysis type specified");
    fails(uni, "ANA UNI", "ANA SPE", "Special analysis - not yet implemented");
    fails(two, "ANA MUV 2", "ANA MUV", "Number of traits missing");
    fails(two, "ANA MUV 2", "ANA MUV # 2", "Number of traits missing");
    fails(two, "ANA MUV 2", "ANA MUV PC", "Number of traits missing");
    fails(two, "ANA MUV 2", "ANA MUV 0", "Number of traits missing");
    fails(two, "ANA MUV 2", "ANA MUV two", "Expect digit !");
    fails(two, "ANA MUV 2", "ANA MUV 34", "Max. no. of traits exceeded !");
    fails(two, "ANA MUV 2", "ANA MRR 2", "not yet been fully");
    EXPECT_EQ(model.nfix.upper(), 2);
    EXPECT_TRUE(options.randreg);
}

TEST_F(parfile_messages, data_columns) {
    fails(uni, " herd ", " treatment ", "No trait no. found !");
    fails(uni, " herd ", " TRx\n herd ", "No trait no. found !");
    fails(uni, " herd ", " TR\n herd ", "Missing number !");
    fails(uni, " herd ", " TR x\n herd ", "Expect digit !");
    fails(uni, " herd ", " TR0 herd ", "No trait no. found !");
    fails(uni, " herd ", " TR34 herd ", "Trait no. too big");
    fails(uni, " herd ", " TR 34 herd ", "Trait no. too big");
    fails(uni, " herd ", " TR123 herd ", "Trait no. too big");
    fails(uni, " herd   30", " herd 3o", "Something wrong parsing line !");
    fails(uni, " herd ", repeated(45, [](int i) { return " c" + std::to_string(i) + "\n"; }) + " herd ",
          "Max. no. of data columns exceeded !");
}

std::string names_of(int i) {
    const std::string n = std::to_string(i);
    return " NAM a" + n + " b" + n + " c" + n + "\n";
}

TEST_F(parfile_messages, grouped_data) {
    fails(grp, "ANA MUV 3\n", "", "Give analysis type before grouped data !");
    fails(grp, " TRN 1 2 3\n", "", "Expect line with trait no.s here ");
    fails(grp, " TRN 1 2 3\n", " TRN 1 2\n", "Grouped data : trait(s) omitted");
    fails(grp, " TRN 1 2 3\n", " TRN 1 2 3 1\n", "Invalid no. of traits");
    fails(grp, " TRN 1 2 3\n", " TRN 1 2 4\n", "Invalid trait no. specified");
    fails(grp, " TRN 1 2 3\n", " TRN 0\n", "Invalid trait no. specified");
    fails(grp, " TRN 1 2 3\n", " TRN 1 1\n", "Invalid trait no. specified");
    // a line of all traits may need more columns than one trait has
    std::string text = with(with(grp, "MOD\n", "MOD EQ\n"), " FIX herd 1 2\n", " FIX herd\n");
    text = with(text, " NAM w1", repeated(16, [](int i) { return names_of(i); }) + " NAM w1");
    fails(text, "Max. no. of data columns exceeded !");
}

TEST_F(parfile_messages, model_lines) {
    fails(uni, "ANA UNI         # univariate\n", "", "Specify analysis type before model !");
    fails(uni, " FIX sex", " FOX sex", "Invalid code in model specification");
    fails(uni, " FIX sex", " FIX", "Name of effect is missing !");
    fails(uni, " COV age(1,POL)", " COV age", "Missing \"(\" in covariable");
    fails(uni, " FIX sex", " RRC sex", "Code only valid with RR analysis !");
    fails(rr, " RRC age", " RRC age\n RRC cg\n RRC pe\n RRC animal", "Max. no. of RR control variables exceeded !");
    fails(uni, " FIX sex", " NUM 1 1", "Invalid for \"equal model\" opt.");
    fails(multi, " FIX herd 1 2", " NUM 3 1", "not yet been fully");
    EXPECT_EQ(datafile.trno_pos[1], 3);
    EXPECT_NO_THROW(map(with(multi, " FIX herd 1 2", " NUM 1,2")));
    EXPECT_EQ(datafile.trno_pos[2], 1);
    EXPECT_EQ(datafile.trno_pos[1], -1);
    fails(multi, " FIX herd 1 2", " NUM x 1", "Something wrong parsing line !");
    fails(multi, " FIX herd 1 2", " NUM 1", "Something wrong parsing line !");
    fails(multi, " FIX herd 1 2", " NUM 1 3", "Invalid trait no. specified");
    fails(multi, " FIX herd 1 2", " FIX herd 1 2 1", "Invalid no. of traits");
    fails(multi, " FIX herd 1 2", " FIX herd 3", "Invalid trait no. specified");
    fails(multi, " FIX herd 1 2", " FIX herd # x", "Expect digit !");
    EXPECT_NO_THROW(map(with(two, " FIX herd", " FIX herd # x")));
}

TEST_F(parfile_messages, random_effects) {
    fails(rr, "animal(3,LEG)", "animal", "RR analysis - no \"(\" in name");
    fails(rr, "animal(3,LEG)", "animal(3)", "RR analysis - no \",\" in name");
    for (const char* bad : {"animal(x,LEG)", "animal(,LEG)", "animal(0,LEG)"})
        fails(rr, "animal(3,LEG)", bad, "Failed reading order of RR");
    fails(uni, "RAN animal NRM", "RAN animal(3,LEG) NRM", "\"(\" in name only allowed with RR analyses");
    fails(uni, "RAN animal NRM", "RAN animal NR", "cov. option too short");
    fails(uni, "RAN animal NRM", "RAN animal XYZ", "Invalid covariance structure");
    fails(uni, "RAN animal NRM", repeated(8, [](int i) { return "RAN a" + std::to_string(i) + " NRM\n"; }),
          "Max. no. of random effects exceeded !");
    fails(uni, "VAR residual 1", "VAR other 1\n 1\nVAR residual 1", "Max. no. of random effects exceeded !");
}

TEST_F(parfile_messages, limits_of_effects) {
    const auto lines = [](const char* code, const char* form, int n) {
        return repeated(n, [=](int i) { return std::string(code) + " e" + std::to_string(i) + form + "\n"; }) +
               " FIX sex";
    };
    fails(uni, " FIX sex", lines("FIX", "", 30), "Max. no. of fixed effects exceeded !");
    fails(uni, " FIX sex", lines("COV", "(1,POL)", 20), "Max. no. of covariables exceeded !");
    fails(uni, " FIX sex", lines("EXT", "", 10), "Max. no. of extra effects exceeded !");
}

TEST_F(parfile_messages, trait_lines) {
    fails(two, "TRAIT ywt 2 -9", "TRAIT ywt", "Trait no. missing ?");
    fails(two, "TRAIT ywt 2 -9", "TRAIT ywt two", "Something wrong parsing line !");
    fails(two, "TRAIT ywt 2 -9", "TRAIT ywt 3 -9", "Invalid trait no. specified");
    fails(two, "TRAIT ywt 2 -9", "TRAIT ywt 2 x", "Something wrong parsing line !");
    fails(uni, "weight 1 -999", "weight -999.0", "Decimal point in missing value code ?");
    fails(uni, "weight 1 -999", "w.eight 1 -999", "Decimal point in missing value code ?");
    fails(uni, "weight 1 -999", "w.eight 1", "Variable in model not found : \"w.eight\"");
    for (const char* bad : {"\"2->1", "\"2\"-1", "\"\"->1", "\"123\"->1", "\"x\"->1", "\"2\"->", "\"2\"->x", "\""})
        fails(uni, "weight 1 -999", std::string("weight ") + bad, "Invalid syntax for renumbering of traits  TRAIT");
    fails(uni, "weight 1 -999", "weight \"2\"->2", "Invalid trait no. specified");
}

TEST_F(parfile_messages, covariance_lines) {
    fails("ANA UNI\nVAR animal 1\n 3\n", "Specify model before covariances !");
    fails(uni, "VAR animal 1", "VAR", "Name of effect is missing !");
    fails(rep, "VAR cowpe", "VAR cow", " Random effect name used more than once :  cow");
    fails(uni, "VAR residual", "VAR animal 1\n 30.0\nVAR residual",
          " Random effect name used more than once :  animal");
    fails(examples::four_pc, "VAR animal 4 2", "VAR animal 4 5", "Reduced rank fit too large");
    fails(examples::four_pc, "VAR animal 4 2", "VAR animal 4 0", "Reduced rank fit too small");
    fails(examples::four_pc, "VAR animal 4 2", "VAR animal 4 2 DIA",
          " incompatible options - need full rank for  diagonal matrix");
    fails(uni, " 30.0", " 3o.0", "Reading covariances failed !");
    fails(two, "      12.0", "", "Reading covariances failed !"); // runs on into the next VAR line
    fails(with(uni, "VAR residual 1\n 70.0\n", "VAR residual 1\n"), "Reading covariances failed !");
}

TEST_F(parfile_messages, residual_of_random_regressions) {
    const std::string line = "VAR residual 1 HOM";
    fails(rr, line, "VAR residual", "Premature end of line ?");
    fails(rr, line, "VAR residual 1", "Qualifier for ME variances missing");
    fails(rr, line, "VAR residual 1 XXX", "Error variance structure option not recognised ");
    fails(rr, line, "VAR residual 1 HET", "No. of classes in step function is missing");
    fails(rr, line, "VAR residual 1 HET 0", "No. of classes in step function is missing");
    fails(rr, line, "VAR residual 1 HET x", "Expect digit !");
    fails(rr, line, "VAR residual 1 HET 99999", "Max. no. of classes of ME variances exceeded !");
    fails(rr, line, "VAR residual 1 IND", "No. of different ME variances is missing");
    fails(rr, line, "VAR residual 1 FUN", "not yet been fully");
    fails(rr, line, "VAR residual 1 IND 2", "read error ?");
    fails(rr, line + "\n 12.0", "VAR residual 1 HET 2 age\n 1 10 9.0\n 9 5 8.0",
          "Invalid range for ME variance step function\n Class no.  2  Range     9     5\n");
    fails(rr, line + "\n 12.0", "VAR residual 1 HET 2 age\n 1 10 9.0\n 10 15 8.0",
          "Inconsistent ranges for ME variance step function\n Class no.  1  Range     1    10\n"
          " Class no.  2  Range    10    15\n");
    fails(rr, line, "VAR residual 1 HOM sex", "Control variable for ME var.s not matched \"sex\"");
}

TEST_F(parfile_messages, dependencies) {
    fails("ANA UNI\nZER\n herd 1\nEND\n", "Specify model before additional FE dependencies !");
    for (const char* bad : {"herd", "herd x", "herd 1.5"})
        fails(uni + "ZER\n " + bad + "\nEND\n", "\"Zero out\" code or trait no.");
    fails(two + "ZER\n herd 12\nEND\n", "\"Zero out\" code or trait no.");
    fails(two + "ZER\n herd 12 3\nEND\n", "\"Zero out\" code or trait no.");
    fails(uni + "ZER\n herd 1\n", "\"Zero out\" block incomplete !");
    const auto lines = [](int i) { return "herd " + std::to_string(i) + "\n"; };
    EXPECT_NO_THROW(map(uni + "ZER\n" + repeated(299, lines) + "END\n"));
    fails(uni + "ZER\n" + repeated(300, lines) + "END\n", "Too many effects to be zeroed out");
}

TEST_F(parfile_messages, pseudo_fixed_levels) {
    fails(uni + "PSE\n animal 7\n", "Error reading PSEUDOFIX lines");
    fails(uni + "PSE\n animal\nEND\n", "Error reading pseudo-fix code");
    fails(uni + "PSE\n animal x\nEND\n", "Error reading pseudo-fix code");
    fails(uni + "PSE x\nEND\n", "Something wrong parsing line !");
    const auto lines = [](int i) { return "animal " + std::to_string(i) + "\n"; };
    EXPECT_NO_THROW(map(uni + "PSE\n" + repeated(399, lines) + "END\n"));
    fails(uni + "PSE\n" + repeated(400, lines) + "END\n", " Max. no. of pseudo-fix codes exceeded !");
}

TEST_F(parfile_messages, functions_of_covariances) {
    const auto block = [](const std::string& lines) { return uni + "SE+\n" + lines + "END\n"; };
    fails(uni + "SE+\n SUM a 1\n", "Additional SE block incomplete !");
    fails(block("XXX a 1\n"), "Invalid add. SE code found !");
    fails(block("SUM\n"), "Name of function is missing !");
    fails(block("SUM a\n"), "Missing number !");
    fails(block("VRA a 1\n"), "Missing number !");
    fails(block("COR a 1 2\n"), "Missing number !");
    fails(block("COR a 1 2 x\n"), "Expect digit !");
    for (const char* bad : {"x", "0", "1(", "1(x)", "1)2("})
        fails(block("SUM a 1 " + std::string(bad) + "\n"), "Something wrong parsing line !");
    const auto sums = [](int) { return std::string("SUM a 1\n"); };
    const auto ratios = [](int) { return std::string("VRA a 1 2\n"); };
    EXPECT_NO_THROW(map(block(repeated(40, sums) + repeated(120, ratios))));
    fails(block(repeated(41, sums)), "too many additional covariances\nmaximum allowed is 40\n");
    fails(block(repeated(121, ratios)), "too many additional genetic parameters\nmaximum allowed is 120\n");
    const auto terms = [](int) { return std::string(" 1"); };
    EXPECT_NO_THROW(map(block("SUM a" + repeated(33, terms) + "\n")));
    fails(block("SUM a" + repeated(34, terms) + "\n"), "too many components in add. cov.");
}

TEST_F(parfile_messages, incomplete_files) {
    fails("\n", "Type of analysis not given\nData file not fully specified\nModel of analysis not fully specified\n"
                "Not enough traits specified\nNo effects with NRM covariance matrix specified !\n"
                "***** ERROR reading parameter file :  Missing essential information !!!");
    fails(uni, " TRAIT weight 1 -999\n", "", "Not enough traits specified");
    fails(two, "TRAIT ywt 2", "TRAIT wwt 1", "Not enough traits specified");
    fails(uni.substr(0, uni.find("END")), "Data file not fully specified");
    fails(uni.substr(0, uni.rfind("END")), "Model of analysis not fully specified");
    fails(uni.substr(0, uni.find("VAR")), "No covariance components given !");
    fails(uni, "RAN animal NRM", "RAN animal IDE", "Pedigree file but no NRM");
    EXPECT_NO_THROW(map(examples::rr_chick)); // an analysis without relationships
    EXPECT_NE(screen_text().find("No effects with NRM covariance matrix specified !\n"
                                 "    ... as it should be where no pedigree is used\n"),
              std::string::npos);
}

TEST_F(parfile_messages, mapping_of_names) {
    fails(uni, "FIX sex", "FIX sax",
          "***** ERROR  mapping model to data file *****\n      Variable in model not found : \"sax\"\n");
    fails(uni, "TRAIT weight", "TRAIT wait", "Variable in model not found : \"wait\"");
    fails(with(uni, " age\n", " a/e\n"), "COV age(1,POL)", "COV a/e(1,POL)",
          "Name of an effect cannot be part of the name of a file : \"a/e(1,POL)\"");
    fails(multi, " RAN dam IDE 1\n", " RAN dam IDE 1\n COV wwt(1,POL) 2\n", "Variable in model not found : \"wwt\"");
    fails(uni, " herd   30", " herd", "No max. no. of levels specified for \"herd\" ?");
    fails(with(uni, " FIX sex", " FIX herd*age"), "No max. no. of levels specified for \"herd*age\" ?");
    fails(rep, " cowpe  800", " cowpe", "No max. no. of levels specified for \"cowpe\" ?");
    fails(rr, " pe 500", " pe", "No max. no. of levels specified for \"pe\" ?");
    fails(rr, " age 40", " age", "No max. no. of levels specified for \"age\" ?");
    fails(uni, " FIX sex", " EXT age", "No max. no. of levels specified for \"age\" ?");
    EXPECT_NO_THROW(map(with(uni, " animal 2000 ", " animal "))); // the pedigree gives the limit
    fails(with(with(uni, " RAN animal NRM", " RAN animal*herd NRM"), "VAR animal", "VAR animal*herd"),
          "*** Tarvex is work in progress !"); // a pedigree has no codes of interactions
}

TEST_F(parfile_messages, mapping_of_covariables) {
    fails(with(uni, " FIX sex\n", ""), "age(1,POL)", "age*sex(2,POL)",
          "Error : Cannot find FE for nested covariable \n        Covariable   :  age\n        Fixed effect :  sex\n"
          "        Data column no. - covar. 4\n        Data column no. - f.eff. 3\n");
    fails(uni, "age(1,POL)", "age(1,PO)", "Error : Covariable type too short : \"age(1,PO)\"");
    fails(uni, "age(1,POL)", "age(1)", "Error : Covariable type too short : \"age(1)\"");
    fails(uni, "age(1,POL)", "age(2, POL)", "Error : Covariable type too short : \"age(2,\"");
    fails(with(uni, " age\n", " birthweightx\n"), "age(1,POL)", "birthweightx*sex(2,POL)",
          "Error : Covariable type too short : \"birthweightx*sex(2,P\""); // cut at 20 characters
    fails(uni, "age(1,POL)", "age(x,POL)", "Error reading order of fit in \"age(x,POL)\"");
    fails(uni, "age(1,POL)", "age(0,POL)", "Error reading order of fit in \"age(0,POL)\"");
    fails(uni, "age(1,POL)", "age(1,xyzw)", "Error : Invalid type of covariable  XYZ\n");
    fails(uni, "age(1,POL)", "age(4,BSPX)", "Invalid option for degree of spline \"X\"");
    fails(uni, "age(1,POL)", "age(3,SPL)", "not yet been fully");
    fails(uni, "age(1,POL)", "age(3,USR)", "not yet been fully");
    map(with(uni, "age(1,POL)", "age*sex(4,bspq)"));
    EXPECT_EQ(mudmap.cv_degree(1, 1), 2);
    EXPECT_NE(screen_text().find("WARNING : You have chosen to fit a regression on B-spline function\n"
                                 "for a \"nested\" covariable - there is a chance for dependencies   \n"
                                 "among fixed effects that are not properly accounted for.\n"),
              std::string::npos);
}

TEST_F(parfile_messages, mapping_of_random_regressions) {
    fails(rr, "animal(3,LEG)", "animal(3,XYZ)", "Invalid option for RR basis function \"XYZ\"");
    fails(rr, "animal(3,LEG)", "animal(3,LE)", "RR type option too short \"animal(3,LE)\"");
    fails(rr, "animal(3,LEG)", "animal(3,LEG", "Missing \")\" in RR effect \"animal(3,LEG\"");
    fails(rr, "animal(3,LEG)", "abcdefghijklmnopqrs(3,LEG)", "Missing comma in RR effect \"abcdefghijklmnopqrs(\"");
    fails(rr, "animal(3,LEG)", "animal(100,LEG)", "Error reading order of fit in \"animal(100,LEG)\"");
    fails(rr, "animal(3,LEG)", "animal(3,BSPX)", "Invalid option for degree of spline \"X\"");
    fails(rr, " RRC age\n", "", " No match for RR control variable found");
    fails(rr, " RRC age\n", " RRC age\n RRC cg\n", " No match for RR control variable found");
    fails(rr, "animal(3,LEG)", "animal(3,LEG,cg)", " No match for RR control variable found");
    fails(rr, "animal(3,LEG)", "animal(2,LEG)", "Miss-match RR order of fit \"animal\" 1  2 vs.  3\n");
    fails(rr, "VAR animal 3", "VAR anymal 3", "Miss-specification of RR ? \"anymal\"");
}

TEST_F(parfile_messages, covariances_and_model_disagree) {
    fails(uni, "VAR residual 1\n 70.0\n", "", "No residual covariances given !");
    fails(two, "VAR residual 2\n 20.0 5.0 +\n 25.0", "VAR residual 1\n 20.0",
          "Order of residual covariance matrix is not the no. of traits : 1 2");
    fails(rep, "VAR cowpe 1\n 80\n", "", "No covariances given for random effect :  cowpe");
    fails(uni, "VAR animal 1\n 30.0", "VAR animal 2\n 30 0 30", "not yet been fully");
    fails(uni, "VAR animal 1", "VAR anymal 1", "not yet been fully");
    fails(multi, " RAN animal NRM 1 2\n", " RAN animal NRM 1\n RAN animal IDE 2\n", "invalid cov option  animal");
    std::string text = with(two, " herd 30\n", " herd 30\n dam\n");
    text = with(text, " RAN animal NRM\n", " RAN animal NRM\n RAN dam NRM\n");
    fails(with(text, "VAR residual", "VAR animal+dam 4\n 9 1 1 1 9 1 1 9 1 9\nVAR residual"),
          " Random effect in more than one covariance block :  animal");
}

} // namespace
} // namespace tarvex
