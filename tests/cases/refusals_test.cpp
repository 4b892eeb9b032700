// Input that would give a number in silence, or none for a reason that nobody could tell: refused by line, or remarked
// on.
#include "small_run.h"

#include <algorithm>
#include <set>

using namespace tarvex;

namespace {

class refusals : public small_run {
protected:
    void expect_refused(const std::string& text, const std::string& options = "--aireml2") {
        const auto result = run(options);
        EXPECT_EQ(result.status, 1) << text << "\n" << result.output;
        EXPECT_NE(result.output.find(text), std::string::npos) << text << "\n" << result.output;
        EXPECT_FALSE(std::filesystem::exists("SumEstimates.out")) << text;
        fresh();
    }
    void expect_told(const std::string& text, int times = 1) {
        const auto result = finish("--aireml2");
        int n = 0;
        for (std::size_t at = 0; (at = result.output.find(text, at)) != std::string::npos; ++at) ++n;
        EXPECT_EQ(n, times) << text << "\n" << result.output;
        fresh();
    }
    static std::string wide(const std::string& text, bool mark) { // UTF-16, little end first
        std::string s = mark ? "\xFF\xFE" : "";
        for (char c : text) (s += c) += '\0';
        return s;
    }
};

TEST_F(refusals, comma_between_digits) {
    write_file("data.dat", "# a comment, with 1,5\n" + replaced(p_.all_traits_lines(), " 1 ", " 1,5 "));
    const auto result = run("--aireml2");
    EXPECT_EQ(result.status, 1);
    const auto lines = lines_of(read_file("data.dat"));
    std::size_t at = 1;
    while (lines[at].find(',') == std::string::npos) ++at;
    EXPECT_NE(result.output.find("Comma between two digits : line " + std::to_string(at + 1) + " column " +
                                 std::to_string(lines[at].find(',') + 1) + "\n"),
              std::string::npos)
        << result.output;
    EXPECT_NE(result.output.find("***** ERROR : reading data file *****"), std::string::npos);
    fresh();
    write_file("start", "6,5\n4.0\n");
    write_file("model.par", uni(" FIX herd\n RAN animal NRM\n", "STA start\nPED ped.dat\n"));
    expect_refused("Comma between two digits in \"start\" : line 1 column 2");
}

TEST_F(refusals, animal_twice_in_the_pedigree) {
    const std::string ped = p_.pedigree();
    const int lines = p_.animals();
    write_file("ped.dat", ped + "40 1 2\n");
    ASSERT_TRUE(p_.sire[39] != 1 || p_.dam[39] != 2);
    expect_refused("Animal is in the pedigree twice, with other parents : 40  lines 40 and " +
                   std::to_string(lines + 1));
    write_file("ped.dat", ped + "400 1 2\n400 1 4\n"); // without records: would be cut before the list is made
    expect_refused("Animal is in the pedigree twice, with other parents : 400  lines 41 and 42");
    write_file("data.dat", p_.all_traits_lines() + "400 400 0 1 1 20 25 26\n");
    write_file("ped.dat", ped + "400 1 2\n400 1 2\n");
    expect_told("***** WARNING : animal 400 is in the pedigree twice, lines 41 and 42, with the same parents\n");
}

TEST_F(refusals, empty_pedigree) {
    for (const char* text : {"", "\n\n", "# nothing but a comment\n"}) {
        write_file("ped.dat", text);
        expect_refused("Pedigree file without a record");
    }
}

TEST_F(refusals, files_that_are_no_lines_of_text) {
    for (const char* name : {"ped.dat", "data.dat", "model.par"}) {
        const std::string text = read_file(name);
        for (const bool mark : {true, false}) {
            write_file(name, wide(text, mark));
            expect_refused("***** ERROR : File \"" + std::string(name) + "\" is in UTF-16");
        }
        std::string cr = text;
        std::replace(cr.begin(), cr.end(), '\n', '\r');
        write_file(name, cr);
        expect_refused("***** ERROR : File \"" + std::string(name) +
                       "\" has lines that end with a carriage return alone");
    }
}

TEST_F(refusals, marks_and_line_ends_that_do_no_harm) {
    finish("--aireml3");
    const best_point truth = read_best_point();
    fresh();
    for (const char* name : {"ped.dat", "data.dat", "model.par"}) {
        std::string text;
        for (const char c : read_file(name)) text += c == '\n' ? "\r\n" : std::string(1, c);
        write_file(name, "\xEF\xBB\xBF" + text);
    }
    write_file("RunOptions", "\xEF\xBB\xBF-t\n");
    const auto result = finish("--aireml3");
    EXPECT_EQ(result.output.find("option not recognised"), std::string::npos);
    EXPECT_EQ(read_best_point().loglike, truth.loglike);
}

TEST_F(refusals, columns) {
    write_file("model.par", replaced(uni(), " parity 3\n", " herd 3\n"));
    expect_refused("Column named twice, or names that agree in their first 20 characters : \"herd\"");
    write_file("model.par", replaced(uni(), " parity 3\n", " a_name_of_twenty_one1 3\n a_name_of_twenty_one2 3\n"));
    expect_refused("Column named twice, or names that agree in their first 20 characters : \"a_name_of_twenty_one\"");
}

TEST_F(refusals, codes_above_the_limit) {
    write_file("data.dat", p_.all_traits_lines() + "40 40 0 3000000000 1 20 25 26\n");
    expect_refused("Code is above the largest one allowed : 2147483647\n");
    write_file("data.dat", p_.all_traits_lines() + "40 40 0 5 1 20 25 26\n"); // a fifth herd where there are to be four
    expect_refused("  Max.  no. of levels allowed :  4\n");
    write_file("ped.dat", p_.pedigree() + "400000 1 2\n");
    write_file("data.dat", p_.all_traits_lines() + "400000 40 0 1 1 20 25 26\n");
    expect_refused("Code of an animal is above the largest one allowed : 400000 399999\n");
}

TEST_F(refusals, comma_in_the_point) {
    finish("--aireml3");
    const std::string point = read_file("BestPoint");
    const auto dot = point.find('.');
    write_file("BestPoint", std::string(point).replace(dot, 1, ","));
    for (const char* options : {"-c", "-c --blup", "--best"}) {
        const auto result = run(options);
        EXPECT_EQ(result.status, 1) << options;
        EXPECT_NE(result.output.find("Comma between two digits in \"BestPoint\" : line 1 column " +
                                     std::to_string(dot + 1) + "\n"),
                  std::string::npos)
            << options << "\n"
            << result.output;
    }
    write_file("BestPoint", point); // the point in its place again
    finish("--best");
}

// A random regression on the age, with a table of functions and classes of residual variances.
TEST_F(refusals, tables_of_a_random_regression) {
    std::set<int> ages;
    for (const auto& r : p_.records) ages.insert(static_cast<int>(r.age));
    const auto table = [&](int from, const std::string& behind) {
        std::string text;
        for (const int a : ages) text += std::to_string(a + from) + " 1 " + std::to_string((a - 30) / 10.0) + behind;
        return text;
    };
    const auto classes = [&] {
        std::string text;
        for (const int a : ages) text += std::to_string(a) + (a < 30 ? " 1\n" : " 2\n");
        return text;
    };
    const std::string par = replaced(
        replaced(uni(" RRC age\n FIX herd\n RAN animal(2,USR) NRM\n"), "ANA UNI", "ANA RR"),
        "VAR animal 1\n 4.0\nVAR residual 1\n 6.0\n", "VAR animal 2\n 4.0 0.1 1.0\nVAR residual 1 IND 2\n 6.0\n 5.0\n");
    const auto with = [&](const std::string& functions, const std::string& variances) {
        write_file("model.par", replaced(par, " age 40\n", " age 99\n"));
        write_file("age_USR2.baf", functions);
        if (!variances.empty()) write_file("MEVariances", variances);
    };
    with(table(0, "\n"), classes());
    finish("--aireml2");
    const best_point truth = read_best_point();
    fresh();
    with("\xEF\xBB\xBF" + table(0, "\n"), "\xEF\xBB\xBF" + classes());
    finish("--aireml2");
    EXPECT_EQ(read_best_point().loglike, truth.loglike) << "a byte order mark is no part of the table";
    fresh();
    with(table(0, "\n"), "");
    expect_refused("Cannot open file \"MEVariances\"\n");
    // the first value of each line of IND, as every other
    for (const char* bad : {"nan", "inf", "1e300"}) {
        with(table(0, "\n"), classes());
        write_file("model.par", replaced(read_file("model.par"), " 6.0\n 5.0\n", std::string(" 6.0\n ") + bad + "\n"));
        expect_refused("Starting value is no finite number, or too large : ");
    }
    with(table(1, "\n"), classes()); // values of other ages
    expect_refused("  ... value of the control variable expected : " + std::to_string(*ages.begin()) +
                   "  found : " + std::to_string(*ages.begin() + 1));
    with(table(0, "\n") + "99 1 7\n", classes());
    expect_refused("  ... more lines than the control variable has values : " + std::to_string(ages.size()) + "\n");
}

TEST_F(refusals, residual_block_twice) {
    write_file("model.par", uni() + "VAR residual 1\n 5.0\n");
    expect_refused("Residual covariances given twice");
}

TEST_F(refusals, starting_values) {
    const std::string head = "STA start\nPED ped.dat\n", model = " FIX herd\n RAN animal NRM\n";
    write_file("start", "4.0\n6.0 +\n+ 7.0\n8.0\n");
    write_file("model.par", replaced(replaced(uni(model, head), "VAR animal 1\n 4.0\n", "VAR animal 1\n"),
                                     "VAR residual 1\n 6.0\n", "VAR residual 1\n"));
    expect_refused("Values left over in file \"start\" : 2");
    for (const char* bad : {"inf", "nan", "1e300", "-Infinity"}) {
        write_file("start", std::string(bad) + "\n6.0\n");
        write_file("model.par", replaced(replaced(uni(model, head), "VAR animal 1\n 4.0\n", "VAR animal 1\n"),
                                         "VAR residual 1\n 6.0\n", "VAR residual 1\n"));
        expect_refused("Starting value is no finite number, or too large : ");
    }
}

TEST_F(refusals, levels_treated_as_fixed) {
    write_file("model.par", uni(" FIX herd\n RAN animal NRM\n", "PED ped.dat\n", "PSE 1.0\n sire 3\nEND\n"));
    expect_refused("No random effect with a relationship matrix has levels to be fixed : \"sire\"");
    write_file("model.par", uni(" FIX herd\n RAN animal NRM\n", "PED ped.dat\n", "PSE 1.0\n animal 777\nEND\n"));
    expect_told("***** WARNING : level 777 of \"animal\", to be treated as fixed, is not in the pedigree\n");
    // an animal that pruning would take: no records, one offspring
    write_file("ped.dat", p_.pedigree() + "41 0 0\n42 41 0\n");
    write_file("data.dat", p_.all_traits_lines() + "42 42 0 1 1 20 25 26\n");
    const std::string pse = uni(" FIX herd\n RAN animal NRM\n", "PED ped.dat\n", "PSE 1.0\n animal 41\nEND\n");
    write_file("model.par", pse);
    finish("--aireml2");
    EXPECT_NE(read_file("SumPedigree.out").find("No. of levels to be treated as fixed = 1\n"), std::string::npos);
}

TEST_F(refusals, supplied_inverse) {
    std::string gin = "0.0\n";
    for (int i = 1; i <= 4; ++i) gin += std::to_string(i) + " " + std::to_string(i) + " 1.0\n";
    const std::string par = replaced(replaced(uni(" RAN animal NRM\n RAN herd GIN\n MEA\n", "PED ped.dat\n"),
                                              "VAR residual", "VAR herd 1\n 1.0\nVAR residual"),
                                     " MEA\n", " MEA\n");
    const auto with = [&](const std::string& text) {
        write_file("herd.gin", text);
        write_file("model.par", par);
    };
    with(gin + "2 3 0.1\n2 3 0.1\n");
    expect_refused("Element of the inverse is given twice : column 2 row 3");
    with(gin + "2 3 nan\n");
    expect_refused("Element of the inverse is no finite number : record 5 column 2 row 3");
    with(replaced(gin, "0.0", "nan"));
    expect_refused("Log determinant is no finite number");
    with(replaced(gin, "3 3 1.0\n", "3 2 0.1\n"));
    expect_refused("Column no. > row no. 3 2");
    with(replaced(gin, "3 3 1.0\n", "2 3 0.1\n"));
    expect_refused("Level without a diagonal in the inverse : 3  code 3");
    with(gin + "6 6 1.0\n"); // level 5 is not in the data either
    write_file("model.par", replaced(par, " herd 4\n", " herd 9\n"));
    expect_refused("Level without a diagonal in the inverse : 5  code 5");
    for (const auto& [codes, text] :
         std::vector<std::pair<std::string, std::string>>{{"1 1\n2 2\n3 3\n5 4\n", "level out of range 5 4"},
                                                          {"1 1\n2 2\n3 3\n3 4\n", "a level twice 3 4"},
                                                          {"1 1\n2 2\n3 3\n4 3\n", "one code for two levels 4 3"}}) {
        with(gin);
        write_file("herd.codes", codes);
        expect_refused(text);
    }
}

TEST_F(refusals, inverse_of_one_level) {
    write_file("model.par", replaced(uni(" RAN animal NRM\n RAN herd GIN\n MEA\n"), "VAR residual",
                                     "VAR herd 1\n 1.0\nVAR residual"));
    write_file("herd.gin", "0.0\n2 2 1.0\n");
    const auto result = finish("--aireml2");
    EXPECT_NE(result.output.find("***** WARNING : 1 of 4 levels of \"herd\" with a diagonal in the inverse : its "
                                 "variance cannot be told from so few\n"),
              std::string::npos)
        << result.output;
    for (const int level : {1, 3, 4})
        EXPECT_NE(result.output.find("***** WARNING : level " + std::to_string(level) + " of \"herd\" has no diagonal"),
                  std::string::npos);
}

// A level without elements has no variance: the restricted likelihood is that with a fixed effect for the level.
TEST_F(refusals, levels_without_elements_are_estimated_as_fixed_ones) {
    const std::string par =
        replaced(uni(" RAN animal NRM\n RAN herd GIN\n MEA\n"), "VAR residual", "VAR herd 1\n 1.5\nVAR residual");
    write_file("herd.gin", "0.0\n1 1 1.0\n2 2 1.0\n");
    write_file("model.par", par);
    const auto result = finish("--aireml2");
    for (const int level : {3, 4})
        EXPECT_NE(result.output.find("***** WARNING : level " + std::to_string(level) + " of \"herd\" has no diagonal"),
                  std::string::npos);
    const auto a = tabular(p_.sire, p_.dam);
    std::vector<observation> obs;
    for (const auto& o : observations_of(p_))
        if (o.trait == 1) obs.push_back(o);
    dense x, v;
    for (const auto& i : obs) {
        const auto& r = p_.records[i.record];
        x.push_back({1.0, r.herd == 3 ? 1.0 : 0.0, r.herd == 4 ? 1.0 : 0.0});
        v.emplace_back();
        for (const auto& j : obs) {
            const auto& s = p_.records[j.record];
            v.back().push_back(4.0 * a[static_cast<std::size_t>(r.code - 1)][static_cast<std::size_t>(s.code - 1)] +
                               (r.herd == s.herd && r.herd < 3 ? 1.5 : 0.0) + (i.record == j.record ? 6.0 : 0.0));
        }
    }
    EXPECT_NEAR(loglike_at_start(result.output), dense_reml(obs, x, v), 1e-6);
}

// The order of the levels in the inverse is that of the codes file, also where the data have all of them.
TEST_F(refusals, codes_are_used_where_they_are_given) {
    const std::string par =
        replaced(uni(" RAN animal NRM\n RAN herd GIN\n MEA\n"), "VAR residual", "VAR herd 1\n 1.0\nVAR residual");
    const auto logl = [&](const std::string& gin, const std::string& codes) {
        fresh();
        write_file("herd.gin", gin);
        write_file("model.par", par);
        if (!codes.empty()) write_file("herd.codes", codes);
        return loglike_at_start(finish("--aireml2").output);
    };
    const double straight = logl("0.0\n1 1 1.0\n2 2 2.0\n3 3 3.0\n4 4 4.0\n", "");
    const double turned = logl("0.0\n1 1 4.0\n2 2 3.0\n3 3 2.0\n4 4 1.0\n", "1 4\n2 3\n3 2\n4 1\n");
    const double not_turned = logl("0.0\n1 1 4.0\n2 2 3.0\n3 3 2.0\n4 4 1.0\n", "");
    EXPECT_NEAR(straight, turned, 1e-8);
    EXPECT_GT(std::fabs(straight - not_turned), 1e-4);
}

TEST_F(refusals, numbers_in_options) {
    for (const char* option : {"--aireml-5", "--emalg0", "--pxem-1", "--cycle0", "--aireml5,nan", "--emalg5,inf"})
        expect_refused("invalid number in option " + std::string(option), option);
    std::filesystem::create_directory("RunOptions");
    expect_refused("Cannot read file \"RunOptions\"");
}

TEST_F(refusals, unknown_dam_in_the_data) {
    write_file("model.par", replaced(uni(" FIX herd\n RAN animal NRM\n RAN dam NRM\n"), "VAR residual",
                                     "VAR dam 1\n 1.0\nVAR residual"));
    write_file("data.dat", "40 40 0 1 1 20 25 26\n" + p_.all_traits_lines());
    expect_refused("No animal for a genetic effect : record 1 column 3 code 0\n");
}

TEST_F(refusals, trait_number_of_nobody) {
    const std::string par =
        "PED ped.dat\nANA MUV 2\nDAT data.dat\n TR1 trait 9\n animal 999\n x 999\n dam 999\n herd 4\n"
        " parity 3\n age 40\n y\n TR2 trait 9\n animal 999\n x 999\n dam 999\n herd 4\n parity 3\n age 40\n"
        " y\nEND\nMOD\n FIX herd\n RAN animal NRM\n TR y 1 -999\n TR y 2 -999\nEND\n"
        "VAR animal 2\n 4.0 1.0 4.0\nVAR residual 2\n 6.0 1.0 6.0\n";
    write_file("model.par", par);
    write_file("data.dat", p_.one_trait_lines());
    finish("--aireml2");
    fresh();
    write_file("model.par", par);
    write_file("data.dat", p_.one_trait_lines() + "7 40 40 0 1 1 20 25\n");
    const std::string line = std::to_string(lines_of(read_file("data.dat")).size());
    expect_told("***** WARNING : record passed over, trait number 7 is not described in the parameter file : line " +
                line + "\n");
    write_file("model.par", replaced(par, " FIX herd\n", " FIX trait\n FIX herd\n"));
    write_file("data.dat", p_.one_trait_lines());
    expect_refused("Column of the trait number cannot be in the model : \"trait\"");
    for (const auto& [what, by] :
         std::vector<std::pair<std::string, std::string>>{{" FIX herd\n", " COV trait(1,POL)\n FIX herd\n"},
                                                          {" RAN animal NRM\n", " RAN trait NRM\n"},
                                                          {" TR y 2 -999\n", " TR trait 2 -999\n"}}) {
        std::string text = replaced(par, what, by);
        if (by.find("RAN trait") != std::string::npos) text = replaced(text, "VAR animal", "VAR trait");
        write_file("model.par", text);
        write_file("data.dat", p_.one_trait_lines());
        expect_refused("Column of the trait number cannot be in the model : \"trait\"");
    }
}

TEST_F(refusals, remarks_are_counted_and_not_more_than_three_of_a_kind) {
    std::string twice;
    for (int i = 20; i < 27; ++i)
        twice += std::to_string(i) + " " + std::to_string(p_.sire[static_cast<std::size_t>(i - 1)]) + " " +
                 std::to_string(p_.dam[static_cast<std::size_t>(i - 1)]) + "\n";
    for (const char* options : {"--aireml2", "--aireml2 --allped"}) {
        write_file("ped.dat", p_.pedigree() + twice);
        const auto result = finish(options);
        int told = 0;
        for (std::size_t at = 0;
             (at = result.output.find(" is in the pedigree twice, lines ", at)) != std::string::npos; ++at)
            ++told;
        EXPECT_EQ(told, 3) << result.output;
        EXPECT_NE(result.output.find("***** WARNING : in all 7 of this kind : animal twice in the pedigree\n"),
                  std::string::npos)
            << result.output;
        fresh();
    }
}

TEST_F(refusals, byte_order_marks_in_other_files) {
    const std::string mark = "\xEF\xBB\xBF", head = "STA start\nPED ped.dat\n";
    const std::string par = replaced(replaced(replaced(uni(" RAN animal NRM\n RAN herd GIN\n MEA\n", head),
                                                       "VAR animal 1\n 4.0\n", "VAR animal 1\n"),
                                              "VAR residual 1\n 6.0\n", "VAR residual 1\n"),
                                     "VAR residual", "VAR herd 1\nVAR residual");
    double truth = 0.0;
    for (const std::string& m : {std::string(), mark}) {
        fresh();
        write_file("model.par", par);
        write_file("start", m + "4.0\n1.0\n6.0\n");
        write_file("herd.gin", m + "0.0\n1 1 1.0\n2 2 2.0\n3 3 3.0\n4 4 4.0\n");
        write_file("herd.codes", m + "1 4\n2 3\n3 2\n4 1\n");
        const double xlike = loglike_at_start(finish("--aireml2").output);
        if (m.empty()) truth = xlike;
        EXPECT_EQ(xlike, truth);
    }
}

// What keeps the first evaluation from a value is told as what it is.
TEST_F(refusals, starts_without_a_value) {
    const std::string dependency = "unidentified dependency among the fixed effects";
    write_file("model.par", replaced(uni(), " 6.0\n", " 1000000000000000.0\n"));
    const auto far = run("--aireml2");
    EXPECT_EQ(far.status, 1);
    EXPECT_NE(far.output.find(
                  "      Starting variance far above that of the records : \"residual\", trait 1 : 1e+15 against "),
              std::string::npos)
        << far.output;
    const std::string two = "PED ped.dat\nANA MUV 2\nDAT data.dat\n" + std::string(columns) +
                            "END\nMOD EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n"
                            "VAR animal 2\n 4.0 1.0 4.0\nVAR residual 2\n 6.0 5.0 6.0\n";
    p_ = make_population(40, 2, 3, 0.0, 81); // three records of each trait
    for (const char* options : {"--aireml2", "--emalg2", "--powell", "--blup"}) {
        fresh();
        write_file("model.par", two);
        const auto result = run(options);
        EXPECT_EQ(result.status, 1) << options;
        EXPECT_NE(
            result.output.find("***** ERROR : Residual covariance matrix of the records of a subject is not positive "
                               "definite\n      Combination = "),
            std::string::npos)
            << options << "\n"
            << result.output;
        EXPECT_EQ(result.output.find(dependency), std::string::npos) << result.output;
    }
}

// Equations that cannot be factorised are told alike in a search and at given matrices.
TEST_F(refusals, equations_without_a_pivot) {
    const auto expect_reason = [&](const std::string& text) {
        for (const char* options : {"--aireml2", "--blup"}) {
            const auto result = run(options);
            EXPECT_EQ(result.status, 1);
            EXPECT_NE(result.output.find(text), std::string::npos) << options << "\n" << result.output;
        }
        fresh();
    };
    write_file("ped.dat", p_.pedigree() + "41 0 0\n"); // neither records nor offspring
    write_file("model.par", uni(" FIX herd\n RAN animal NRM\n", "PED ped.dat\n", "PSE 0.0\n animal 41\nEND\n"));
    expect_reason("Levels of this effect are treated as fixed : one of them depends on the fixed effects !\n");
    write_file("ped.dat", p_.pedigree()); // a record for each herd
    write_file("data.dat", "1 1 0 1 1 20 25 26\n2 2 0 2 1 20 27 26\n3 3 0 3 1 20 21 26\n");
    write_file("model.par", uni(" FIX herd\n RAN animal NRM\n"));
    expect_reason("Fixed effects leave nothing of the records : records, rank of the fixed part = 3 3\n");
    std::string dates; // of one herd
    for (int i = 1; i <= 5; ++i) dates += std::to_string(i) + " 1 0 1 1 20 20260101000" + std::to_string(i) + " 26\n";
    write_file("data.dat", dates);
    expect_reason("Records differ by too little for their size - subtract a constant from all of a trait !\n");
}

TEST_F(refusals, things_only_a_person_can_judge) {
    population q = p_;
    for (auto& r : q.records)
        if (r.herd == 1) r.herd = 0;
    write_file("data.dat", q.all_traits_lines());
    expect_told("***** WARNING : code 0 is taken as a class of \"herd\", trait 1\n");
    write_file("model.par", uni(" COV age(1,POL)\n RAN animal NRM\n"));
    expect_told("***** WARNING : neither a mean nor a fixed effect in the model for \"y1\", trait 1\n");
    q = p_;
    q.records[3].age = -999.0;
    write_file("data.dat", q.all_traits_lines());
    expect_told("***** WARNING : -999 is taken as a value of covariable \"age(1,POL)\", trait 1\n");
    const std::string regression =
        replaced(replaced(uni(" FIX herd\n RAN animal(2,LEG) NRM\n RRC age\n"), "ANA UNI", "ANA RR"),
                 "VAR residual 1\n", "VAR residual 1 HOM\n");
    const auto at = regression.find("VAR animal 1\n");
    ASSERT_NE(at, std::string::npos);
    std::string two = regression;
    two.replace(at, regression.find('\n', at + 13) - at, "VAR animal 2\n 4.0 0.5 2.0");
    write_file("data.dat", q.all_traits_lines());
    write_file("model.par", replaced(two, "-999", "-9"));
    expect_told("***** WARNING : -999 is taken as a value of control variable \"age\", trait 1\n");
    write_file("data.dat", q.all_traits_lines());
    write_file("model.par", two); // there it is the code of missing records
    expect_refused("Invalid effect code :  age -999.0 -999\n");
    write_file("model.par", "PED ped.dat\nANA MUV 2\nDAT data.dat\n" + std::string(columns) +
                                "END\nMOD EQ\n FIX herd\n RAN animal NRM\n TR y1 1 -999\n TR y2 2 -999\nEND\n"
                                "VAR animal 2\n 4.0 1.0 4.0\nVAR residual 2\n 6.0 0.0 6.0\n");
    expect_told("***** WARNING : residual covariance of traits 1 and 2 starts at 0 and is kept there, though ");
    expect_told("***** WARNING", 0);
}

} // namespace
