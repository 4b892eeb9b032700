// tvx check: faults, all in one pass, and what the program takes in silence.
#include "tvx/companion.h"

namespace {

using namespace tvx_tests;
using tarvex::write_file;

class checks : public tarvex::tarvex_test {
protected:
    std::string ana = "UNI", data_block = "DAT a.dat\n animal 9\n herd 3\n age\n y\nEND\n", ped = "PED a.ped\n",
                mod = "MOD\n FIX herd\n COV age(1,POL)\n RAN animal NRM\n TRAIT y 1 -999\nEND\n",
                var = "VAR animal 1\n 3\nVAR residual 1\n 7\n";
    std::string data = "3 1 10 5\n4 2 11 6\n5 1 12 7\n6 2 11 8\n", pedigree = "3 1 2\n4 1 2\n5 3 4\n6 3 4\n";

    program_result check() const {
        write_file("a.par", "ANA " + ana + "\n" + data_block + ped + mod + var);
        write_file("a.dat", data);
        write_file("a.ped", pedigree);
        return run_tvx({"check", "a.par"});
    }
    void expect(int status, const std::string& text) const {
        const auto r = check();
        EXPECT_EQ(r.status, status) << r.output;
        EXPECT_TRUE(holds(r.output, text)) << "no \"" << text << "\" in\n" << r.output;
        EXPECT_FALSE(std::filesystem::exists("a.par.check"));
    }
    void two_traits(const std::string& records, const std::string& residual = "7 1 5") {
        ana = "MUV 2";
        data_block = "DAT a.dat\n animal 9\n herd 3\n y\n z\nEND\n";
        mod = "MOD EQ\n FIX herd\n RAN animal NRM\n TRAIT y 1 -999\n TRAIT z 2 -999\nEND\n";
        var = "VAR animal 2\n 3 1 3\nVAR residual 2\n " + residual + "\n";
        data = records;
    }
};

TEST_F(checks, find_nothing_in_a_sound_analysis) {
    const auto r = check();
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.output.starts_with("Nothing found: the analysis can be run.\nForecast : 9 equations, ")) << r.output;
    EXPECT_TRUE(holds(r.output, " GB free")) << r.output;
    EXPECT_EQ(run_tvx({"check", "a.par", "--quick"}).output, "Nothing found: the analysis can be run.\n");
    for (const auto& entry : std::filesystem::directory_iterator(".")) // the set-up has left nothing
        EXPECT_TRUE(entry.path().filename().string().starts_with("a.")) << entry.path();
}

TEST_F(checks, tell_all_faults_of_the_parameter_file) {
    mod = "MOD\n FIX\n COV age\n RAN animal NRX\n FIX herd\n RAN animal NRM\n TRAIT y 1 -999\nEND\n";
    expect(1, "P101 the parameter file cannot be read (3 cases)");
    expect(1, "a.par, line 10:  FIX: ");
    expect(1, "a.par, line 12:  RAN animal NRX: ***** ERROR reading parameter file :  Invalid covariance structure");
    mod = "MOD\n FIX stable\n RAN animal NRM\n TRAIT y 1 -999\nEND\n";
    expect(1, "Variable in model not found : \"stable\"");
}

TEST_F(checks, tell_three_faults_of_a_kind_and_their_number) {
    data = "3 1 10 x\n4 2 11 6\n5 1 1a 7\n6 2 11 8,y\n4 1 2 zz\n3 1\n3 9 4 5\n4 8 4 5\n5 7 4 5\n0 1 4 5\n";
    const auto r = check();
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(holds(r.output, "D203 a value is no number (3 cases)\n     a.dat, line 1, column 4: \"x\"\n"
                                "     a.dat, line 3, column 3: \"1a\"\n"))
        << r.output;
    EXPECT_TRUE(holds(r.output, "D202 a line has too few values\n     a.dat, line 6: 2 of 4\n")) << r.output;
    EXPECT_TRUE(holds(r.output, "D205 a code below the smallest\n     a.dat, line 10, column 1 (animal): \"0\""))
        << r.output;
    EXPECT_TRUE(holds(r.output, "D204 more levels than the parameter file gives\n     a.dat, line 9, column 2 (herd)"))
        << r.output;
}

TEST_F(checks, tell_faults_of_the_pedigree) {
    pedigree = "3 1 2\n4 1 2\n5 3 4\n6 3 4\n3 1 2\n2 5 0\n7 7 0\n8 2 1\n0 1 2\n400000 1 2\nx 1 2\n";
    for (const char* text : {"G304 an animal has two lines", "a.ped, line 5: 3 1 2, and line 1",
                             "G303 a parent has a larger code than its offspring\n     a.ped, line 6", "G306", "G307 a",
                             "G302 a code below 1\n     a.ped, line 9", "G305 a code above 399999", "G308"})
        expect(1, text);
}

TEST_F(checks, tell_what_nobody_wants) {
    mod = "MOD\n COV age(1,POL)\n RAN animal NRM\n TRAIT y 1 -999\nEND\n";
    expect(0, "W401 no mean is fitted");
    mod = "MOD\n FIX herd\n COV age(1,POL)\n RAN animal NRM\n TRAIT y 999\nEND\n";
    expect(1, "The only trait has number 1");
    mod.replace(mod.find(" 999"), 4, " -999");
    data += "5 0 12 7\n";
    expect(0, "W402 code 0 of a fixed effect");
    data = "3 1 -999 5\n4 2 11 6\n5 1 12 7\n6 2 11 8\n3 1 -999 4\n";
    expect(0, "W403 a code for missing values is taken as a value\n     covariable age(1,POL): 2 times -999");
    expect(0, "W406 a subject comes back: its records must stand together\n     a.dat, line 5");
    write_file("RunOptions", "-v\n");
    expect(0, "W415");
}

TEST_F(checks, tell_of_several_traits) {
    two_traits("3 1 4 5\n3 1 6 7\n4 2 5 -999\n5 1 -999 8\n6 2 4 4\n");
    expect(0, "W408 several traits with repeated records");
    mod.insert(mod.find("\n") + 1, " SUBject LINE\n");
    EXPECT_FALSE(holds(check().output, "W408")) << check().output;
    two_traits("3 1 4 -999\n4 2 5 -999\n5 1 -999 8\n6 2 -999 4\n");
    expect(0, "W407 no subject has records of both traits: their residual covariance is not in the data\n     \"y\" "
              "and \"z\"");
    two_traits("3 1 4 5\n4 2 5 4\n5 1 6 8\n6 2 3 4\n", "7 0 5");
    expect(0, "W405 a residual covariance that starts at 0 stays 0\n     residual, rows 1 and 2");
    two_traits("3 1 4 5\n4 2 5 4\n5 1 6 8\n6 2 3 4\n", "4 5.9997 9");
    expect(0, "W410 a starting matrix has a correlation of 1\n     residual, rows 1 and 2");
}

TEST_F(checks, tell_of_confounded_effects) {
    data_block = "DAT a.dat\n animal 9\n herd 3\n owner 3\n y\nEND\n";
    mod = "MOD\n FIX herd\n FIX owner\n RAN animal NRM\n TRAIT y 1 -999\nEND\n";
    data = "3 1 2 5\n4 2 1 6\n5 1 2 7\n6 2 1 8\n";
    expect(0, "W411 the levels of one effect tell those of another: confounded\n     trait \"y\": herd and owner");
    data = "3 1 2 5\n4 2 1 6\n5 1 1 7\n6 2 2 8\n";
    EXPECT_FALSE(holds(check().output, "W411"));
}

// The same animals as related and as independent levels: a repeatability model.
TEST_F(checks, know_that_relationships_tell_effects_apart) {
    data_block = "DAT a.dat\n animal 9\n perm 9\n y\nEND\n";
    mod = "MOD\n RAN animal NRM\n RAN perm\n MEA\n TRAIT y 1 -999\nEND\n";
    var = "VAR animal 1\n 1\nVAR perm 1\n 1\nVAR residual 1\n 4\n";
    data = "3 3 5\n3 3 6\n5 5 7\n5 5 8\n6 6 4\n";
    const auto r = check();
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_FALSE(holds(r.output, "W411")) << r.output;
}

TEST_F(checks, tell_of_animals_without_a_pedigree) {
    pedigree = "3 1 2\n5 3 4\n";
    data = "3 1 10 5\n4 2 11 6\n1 1 12 7\n6 2 11 8\n6 1 10 9\n9 1 11 5\n8 2 10 -999\n";
    expect(0, "W412 animals with records that the pedigree does not have: they count as unrelated founders (2 cases)\n"
              "     a.dat, line 4: animal 6\n     a.dat, line 6: animal 9\n");
    pedigree += "6 0 0\n9 0 0\n";
    EXPECT_FALSE(holds(check().output, "W412"));
}

TEST_F(checks, tell_of_levels_that_are_taken_out) {
    mod += "ZER\n herd 1\nEND\n";
    expect(0, "W409 ZER takes out more levels than there are dependencies among the classes");
    mod.insert(mod.find("\n") + 1, " MEA\n");
    EXPECT_FALSE(holds(check().output, "W409")) << check().output;
}

// What tvx check does not look for, the program's own set-up tells.
TEST_F(checks, tell_where_the_program_stops) {
    var = "VAR animal 1\n -3\nVAR residual 1\n 7\n";
    expect(1, "P102 the program stops at these inputs\n");
    EXPECT_FALSE(holds(check().output, "Forecast"));
}

TEST_F(checks, tell_of_dams_in_a_sire_model) {
    ped = "PED a.ped SIR\n";
    expect(0, "W413");
    pedigree = "3 1 2\n4 2 1\n5 3 2\n6 4 3\n";
    EXPECT_FALSE(holds(check().output, "W413"));
}

TEST_F(checks, tell_of_old_scratch_files) {
    check();
    write_file("eqnsorder.bin", "");
    EXPECT_FALSE(holds(run_tvx({"check", "a"}).output, "W414"));
    namespace fs = std::filesystem;
    fs::last_write_time("eqnsorder.bin", fs::last_write_time("a.dat") - std::chrono::hours(1));
    EXPECT_TRUE(holds(run_tvx({"check", "a"}).output, "W414"));
}

TEST_F(checks, of_what_is_not_there) {
    EXPECT_TRUE(holds(run_tvx({"check", "none"}).output, "there is no parameter file \"none.par\""));
    check();
    std::filesystem::remove("a.dat");
    const auto r = run_tvx({"check", "a"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(holds(r.output, "D201 the data file cannot be read")) << r.output;
}

} // namespace
