// Forms of the input files that must not matter, and faults in them: each is told in its words and ends the run with
// status 1, and reports of an earlier run are not lost.
#include "case_run.h"
#include "population.h"

#include <map>

using namespace tarvex;

namespace {

void replace_in(const std::string& file, const std::string& from, const std::string& to) {
    std::string text = read_file(file);
    const auto at = text.find(from);
    ASSERT_NE(at, std::string::npos) << from << " is not in " << file;
    write_file(file, text.replace(at, from.size(), to));
}

class faults_test : public case_run {
protected:
    void SetUp() override { ASSERT_TRUE(bring("textbook_uni")); }

    // The run must tell `words` and end with status 1.
    void expect_fault(const std::string& words, const std::string& options = "--aireml3") const {
        const auto result = run(options);
        EXPECT_EQ(result.status, 1) << result.output;
        EXPECT_NE(result.output.find(words), std::string::npos) << "\"" << words << "\" is not told:\n"
                                                                << result.output;
        EXPECT_TRUE(result.output.ends_with("exit \"Tarvex\"\n")) << result.output;
    }
};

TEST_F(faults_test, missing_files) {
    const std::string data = read_file("data.dat"), ped = read_file("ped.dat");
    std::filesystem::remove("data.dat");
    expect_fault("***** ERROR : cannot find data file *****");
    std::filesystem::create_directory("data.dat"); // no file either
    expect_fault("***** ERROR : cannot find data file *****");
    std::filesystem::remove("data.dat");
    write_file("data.dat", data);
    std::filesystem::remove("ped.dat");
    expect_fault(" ... file doesn't seem to exist !");
    write_file("ped.dat", ped);
    EXPECT_EQ(run("--blup").status, 0);
    std::filesystem::remove("textbook_uni.par");
    expect_fault("Can not open parameter file !");
}

TEST_F(faults_test, letters_where_numbers_are_expected) {
    replace_in("data.dat", "5 2 2.9", "5 x 2.9");
    expect_fault("***** ERROR : reading data file *****\n      No. of records read successfully =      1");
    replace_in("data.dat", "5 x 2.9", "5 2 two");
    expect_fault("***** ERROR : reading data file *****");
    replace_in("data.dat", "5 2 two", "5 2 nan");
    expect_fault("***** ERROR : reading data file *****");
    replace_in("data.dat", "5 2 nan", "5 2"); // a line too short
    expect_fault("***** ERROR : reading data file *****");
    replace_in("data.dat", "5 2", "5 2 2.9");
    replace_in("ped.dat", "5 3 2", "5 x 2");
    expect_fault("***** ERROR in pedigree file");
    replace_in("ped.dat", "5 x 2", "5 3 2");
    replace_in("textbook_uni.par", " 20.0", " twenty");
    expect_fault("***** ERROR reading parameter file");
}

TEST_F(faults_test, codes_out_of_range) {
    replace_in("data.dat", "5 2 2.9", "5 3 2.9");
    expect_fault("Max.  no. of levels allowed :  2");
    replace_in("data.dat", "5 3 2.9", "5 5000000000 2.9");
    expect_fault("Invalid effect code :");
    replace_in("data.dat", "5 5000000000 2.9", "400000 2 2.9");
    expect_fault("Error reading pedigrees : invalid animal ID");
    replace_in("data.dat", "400000 2 2.9", "5 2 2.9");
    replace_in("ped.dat", "4 1 0", "4 -1 0");
    expect_fault("***** ERROR in pedigree file");
}

TEST_F(faults_test, impossible_parents) {
    replace_in("ped.dat", "4 1 0", "4 7 0");
    expect_fault("Animal ID smaller than parent ID 4 7 0");
    replace_in("ped.dat", "4 7 0", "4 4 0");
    expect_fault("Animal and sire ID identical");
    replace_in("ped.dat", "4 4 0", "4 0 3"); // 3 is sire of 5 and 8
    expect_fault("***** ERROR in pedigree : Parent occurs as both sire & dam");
    replace_in("ped.dat", "4 0 3", "4 1 1");
    expect_fault("Sire and dam ID identical");
}

TEST_F(faults_test, columns_that_the_model_does_not_find) {
    replace_in("textbook_uni.par", "FIX sex", "FIX herd");
    expect_fault("***** ERROR  mapping model to data file *****");
    expect_fault("Variable in model not found : \"herd\"");
}

TEST_F(faults_test, too_many_levels) {
    replace_in("textbook_uni.par", "sex 2", "sex 1");
    expect_fault("Max.  no. of levels allowed :  1");
}

TEST_F(faults_test, no_records) {
    const std::string data = read_file("data.dat");
    for (const char* text : {"", "# animal sex gain\n", "# animal sex gain\n\n\n"}) {
        write_file("data.dat", text);
        expect_fault("No records found for trait \"wwg\"");
    }
    write_file("data.dat", "4 1 -999\n5 2 -999\n");
    replace_in("textbook_uni.par", "TR wwg", "TR wwg 1 -999");
    expect_fault("No records found for trait \"wwg\"");
    write_file("data.dat", data);
    EXPECT_EQ(run("--blup").status, 0);
}

TEST_F(faults_test, indefinite_starting_matrices) {
    replace_in("textbook_uni.par", " 20.0", " -20.0");
    for (const char* options : {"--aireml3", "--pxem3"})
        expect_fault("Matrix of starting values is \"invalid\"", options);
    expect_fault("Invalid random covariance matrix for BLUP", "--blup");
    replace_in("textbook_uni.par", " -20.0", " 0.0");
    expect_fault(" - change, making sure matrix is positive definite !");
    replace_in("textbook_uni.par", " 0.0", " 20.0");
    replace_in("textbook_uni.par", " 40.0", " -40.0");
    expect_fault("Matrix of starting values is \"invalid\"");
    expect_fault("Invalid residual covariance matrix for BLUP", "--blup");

    ASSERT_TRUE(bring("textbook_biv"));
    replace_in("textbook_biv.par", "20.0 18.0 40.0", "20.0 38.0 40.0"); // a correlation above 1
    expect_fault("Matrix of starting values is \"invalid\"");
}

TEST_F(faults_test, incomplete_parameter_files) {
    const std::string text = read_file("textbook_uni.par");
    for (const char* block :
         {"ANA UNI", "VAR animal 1\n  20.0", "VAR residual 1\n  40.0", "TR wwg", "RAN animal NRM", "END"}) {
        const auto at = text.find(block);
        ASSERT_NE(at, std::string::npos) << block;
        std::string rest = text;
        rest.erase(at, std::string(block).size());
        write_file("textbook_uni.par", rest);
        const auto result = run("--aireml3");
        EXPECT_EQ(result.status, 1) << "without " << block << "\n" << result.output;
        EXPECT_GT(lines_of(result.output).size(), 1u) << "no words without " << block;
    }
    for (std::size_t n = 0; n < text.size() - 20; n += 7) { // cut anywhere
        write_file("textbook_uni.par", text.substr(0, n));
        EXPECT_EQ(run("--aireml3").status, 1) << "cut at " << n;
    }
    write_file("textbook_uni.par", std::string("\x00\x01\xff\xfe binary", 11));
    EXPECT_EQ(run("--aireml3").status, 1);
}

// Under their names, or put aside once the parameter file has been understood.
TEST_F(faults_test, reports_of_an_earlier_run_are_not_lost) {
    finish("--aireml5");
    const std::vector<std::string> reports{"BestPoint",         "SumEstimates.out", "FixSolutions.out",
                                           "RnSoln_animal.dat", "Residuals.dat",    "Iterates"};
    std::map<std::string, std::string> before;
    for (const auto& name : reports) before[name] = read_file(name);
    const std::string par = read_file("textbook_uni.par"), data = read_file("data.dat"), ped = read_file("ped.dat");
    const auto check = [&](const char* fault, bool aside = true) {
        EXPECT_EQ(run("--aireml5").status, 1) << fault;
        for (const auto& name : reports) {
            const bool report = name != "BestPoint" && name != "Iterates";
            EXPECT_EQ(std::filesystem::exists(name + ".old"), report && aside) << name << " after: " << fault;
            if (report && aside) {
                EXPECT_FALSE(std::filesystem::exists(name)) << name << " after: " << fault;
                std::filesystem::rename(name + ".old", name);
            }
        }
        for (const auto& name : reports) EXPECT_EQ(read_file(name), before[name]) << name << " after: " << fault;
        write_file("textbook_uni.par", par);
        write_file("data.dat", data);
        write_file("ped.dat", ped);
    };
    replace_in("data.dat", "5 2 2.9", "5 2 x");
    check("letter in the data");
    replace_in("data.dat", "5 2 2.9", "5 3 2.9");
    check("code out of range");
    replace_in("ped.dat", "4 1 0", "4 7 0");
    check("parent younger than its offspring");
    replace_in("textbook_uni.par", " 20.0", " -20.0");
    check("indefinite starting matrix");
    replace_in("textbook_uni.par", "FIX sex", "FIX herd");
    check("unknown column", false);
    write_file("data.dat", "");
    check("no data");
    std::filesystem::remove("ped.dat");
    check("no pedigree");
}

// A founder that only the data know is no fault: it is taken as unrelated.
TEST_F(faults_test, animals_that_the_pedigree_lacks_are_founders) {
    replace_in("data.dat", "5 2 2.9", "88 2 2.9");
    finish("--blup");
    const auto animals = read_random_solutions("animal");
    EXPECT_TRUE(std::any_of(animals.begin(), animals.end(), [](const auto& line) { return line.code == 88; }));
}

// ---- forms that do not matter

class forms_test : public case_run {
protected:
    void SetUp() override {
        name_ = "model";
        p_ = make_population(70, 2, 2, 0.25, 31);
        write_file("ped.dat", p_.pedigree());
        write_file("data.dat", p_.all_traits_lines());
        parameters({1, 2});
    }
    // Trait t of the analysis is y<order[t]>.
    static void parameters(const std::vector<int>& order, const std::string& tail = "") {
        const double g[2] = {4.5, 3.5}, r[2] = {6.0, 5.5};
        const auto at = [&](int t) { return static_cast<std::size_t>(order[static_cast<std::size_t>(t)] - 1); };
        std::string text =
            "PED ped.dat\nANA MUV 2\nDAT data.dat\n animal 999\n perm 999\n dam 999\n herd 99\n parity 3\n age 40\n"
            " y1\n y2\nEND\nMOD EQ\n FIX herd\n FIX parity\n COV age(1,POL)\n RAN animal NRM\n";
        for (int t = 0; t < 2; ++t)
            text +=
                " TR y" + std::to_string(order[static_cast<std::size_t>(t)]) + " " + std::to_string(t + 1) + " -999\n";
        text += "END\nVAR animal 2\n " + std::to_string(g[at(0)]) + " 1.5 " + std::to_string(g[at(1)]) +
                "\nVAR residual 2\n " + std::to_string(r[at(0)]) + " 0.5 " + std::to_string(r[at(1)]) + "\n";
        write_file("model.par", text + tail);
    }
    double start() const { return loglike_at_start(finish("--aireml1").output); }

    population p_;
};

TEST_F(forms_test, order_of_traits) {
    const double before = start();
    parameters({2, 1});
    expect_relative(start(), before, 1e-8, "log L");
}

TEST_F(forms_test, order_of_animals_and_of_their_records) {
    const double before = start();
    std::vector<std::string> blocks; // lines of an animal stay together
    int last = 0;
    for (const auto& line : lines_of(p_.all_traits_lines())) {
        const int code = std::atoi(line.c_str());
        if (code != last) blocks.emplace_back();
        last = code;
        blocks.back() = line + "\n" + blocks.back();
    }
    std::reverse(blocks.begin(), blocks.end());
    std::string text;
    for (const auto& block : blocks) text += block;
    write_file("data.dat", text);
    expect_relative(start(), before, 1e-8, "log L");

    auto lines = lines_of(p_.pedigree());
    std::reverse(lines.begin(), lines.end());
    text.clear();
    for (const auto& line : lines) text += line + "\n";
    write_file("ped.dat", text);
    expect_relative(start(), before, 1e-8, "log L with the pedigree from the end");
}

TEST_F(forms_test, codes_of_levels) {
    // without a second fixed effect: which of its levels is taken out would depend on the codes
    replace_in("model.par", " FIX parity\n", "");
    const double before = start();
    std::string text, ped;
    const int herd[] = {0, 77, 5, 91, 6};
    for (auto r : p_.records) { // herds change their order, animals keep it
        r.herd = herd[r.herd];
        r.code = 3 * r.code + 7;
        r.dam = r.dam > 0 ? 3 * r.dam + 7 : 0;
        text += population::head_of(r);
        for (double y : r.y) text += " " + population::text_of(y);
        text += "\n";
    }
    for (int i = 1; i <= p_.animals(); ++i) {
        const auto code = [](int k) { return k > 0 ? std::to_string(3 * k + 7) : std::string("0"); };
        ped += code(i) + " " + code(p_.sire[static_cast<std::size_t>(i - 1)]) + " " +
               code(p_.dam[static_cast<std::size_t>(i - 1)]) + "\n";
    }
    write_file("data.dat", text);
    write_file("ped.dat", ped);
    expect_relative(start(), before, 1e-8, "log L");
}

TEST_F(forms_test, line_ends_tabs_and_unfinished_lines) {
    finish("--aireml50,1e-8");
    const auto before = read_best_point();
    for (const char* file : {"data.dat", "ped.dat", "model.par"}) {
        std::string text;
        for (char c : read_file(file))
            text += c == '\n' ? std::string("\r\n") : c == ' ' ? std::string("\t") : std::string(1, c);
        text.resize(text.size() - 2); // the last line is not finished
        write_file(file, text);
    }
    std::filesystem::remove("BestPoint");
    finish("--aireml50,1e-8");
    expect_best(before, 1e-8, 1e-8);
}

TEST_F(forms_test, comments_and_wide_numbers) {
    const double before = start();
    write_file("data.dat", "# columns: animal ..\n#\n" + p_.all_traits_lines());
    write_file("ped.dat", "# animal sire dam\n" + p_.pedigree());
    expect_relative(start(), before, 1e-12, "log L with comments");
    std::string text;
    for (const auto& line : lines_of(p_.all_traits_lines())) {
        for (const auto& word : words_of(line))
            text += "     " + word + (word.find('.') != std::string::npos ? "e+00" : "");
        text += "    \n";
    }
    write_file("data.dat", text);
    expect_relative(start(), before, 1e-12, "log L with wide columns");
}

TEST_F(forms_test, starting_values_in_a_file) {
    const double before = start();
    std::string text = read_file("model.par");
    const auto at = text.find("VAR animal");
    write_file("start.dat", "# animal, residual\n 4.5 1.5\n 3.5\n6.0 0.5 5.5\n");
    write_file("model.par", text.substr(0, at) + "STA start.dat\nVAR animal 2\nVAR residual 2\n");
    expect_relative(start(), before, 1e-12, "log L");
}

// Adding a constant to all records of a trait moves no estimate.
TEST_F(forms_test, origin_of_the_traits) {
    finish("--aireml50,1e-9");
    const auto before = read_best_point();
    std::string text;
    for (auto r : p_.records) {
        text += population::head_of(r);
        for (double y : r.y) text += " " + population::text_of(y == population::missing ? y : y + 1000.0);
        text += "\n";
    }
    write_file("data.dat", text);
    std::filesystem::remove("BestPoint");
    finish("--aireml50,1e-9");
    expect_best(before, 1e-4, 1e-4);
}

} // namespace
