// Every file that some kind of run leaves in the folder is tried as an input of that run: by its name, and by a hard
// and a symbolic link to a file of the user's. The run stops with both names before it writes anything.
#include "small_run.h"

#include <set>
#include <sstream>

using namespace tarvex;

namespace {

namespace fs = std::filesystem;

struct kind_of_run {
    std::string parameters, options;
    std::vector<std::string> writes; // some of what it leaves
};

class outputs_run : public small_run {
protected:
    void begin(const kind_of_run& k) {
        fresh();
        write_file("model.par", k.parameters);
        write_file("start", "4.0\n6.0\n");
        write_file("herd.gin", "0.0\n1 1 1.0\n2 2 1.0\n3 3 1.0\n4 4 1.0\n");
        write_file("classes", classes());
    }
    std::string classes() const {
        std::set<int> ages;
        for (const auto& r : p_.records) ages.insert(static_cast<int>(r.age));
        std::string text;
        for (const int a : ages) text += std::to_string(a) + " " + std::to_string(1 + (a > 30)) + "\n";
        return text;
    }
    static std::set<std::string> files() {
        std::set<std::string> list;
        for (const auto& entry : fs::directory_iterator(".")) list.insert(entry.path().filename().string());
        return list;
    }
    // What two runs leave, the second over the reports of the first, and the temporary names behind it.
    std::set<std::string> outputs_of(const kind_of_run& k) {
        begin(k);
        const auto before = files();
        for (int i = 0; i < 2; ++i) EXPECT_EQ(run(k.options).status, 0) << k.options << "\n" << run(k.options).output;
        std::set<std::string> list;
        for (const auto& name : files()) {
            if (before.contains(name)) continue;
            list.insert(name);
            if (name.ends_with(".bin") && !name.starts_with("recoded")) list.insert(name + ".tmp");
            if (name == "BestPoint" || name == "Results.json") list.insert(name + ".tmp");
        }
        for (const auto& name : k.writes) EXPECT_TRUE(list.contains(name)) << name << " of " << k.options;
        return list;
    }
    void refused(const kind_of_run& k, const std::string& input, const std::string& output, const std::string& text) {
        const auto result = run(k.options);
        EXPECT_EQ(result.status, 1) << k.options << " " << output;
        EXPECT_NE(
            result.output.find("***** ERROR : Input file \"" + input + "\" is the output file \"" + output + "\""),
            std::string::npos)
            << k.options << "\n"
            << result.output;
        EXPECT_EQ(read_file(input), text) << k.options << " " << output;
    }
    std::string regression(const std::string& basis, const std::string& residual = "VAR residual 1 HOM\n 5.0\n") const {
        return std::string("PED ped.dat\nANA RR\nDAT data.dat\n") + columns + "END\nMOD\n FIX herd\n RAN animal(2," +
               basis + ") NRM\n RRC age\n TR y1 1 -999\nEND\nVAR animal 2\n 4.0 0.5 2.0\n" + residual;
    }
    std::vector<kind_of_run> kinds() const {
        std::string two = replaced(uni(), "ANA UNI", "ANA MUV 2");
        two = replaced(two, "END\nVAR animal 1\n 4.0\nVAR residual 1\n 6.0\n",
                       " TR y2 2 -999\nEND\nVAR animal 2\n 4.0 1.0 3.0\nVAR residual 2\n 6.0 2.0 5.0\n");
        two = replaced(two, "MOD\n", "MOD EQ\n");
        std::string reduced = replaced(two, "ANA MUV 2", "ANA MUV PC 2");
        reduced = replaced(reduced, "VAR animal 2\n", "VAR animal 2 1\n");
        return {
            {uni(), "--aireml2 --json", {"Curve_age.dat", "Curve_age.dat.old", "Results.json", "RnSoln_animal.dat"}},
            {uni(), "-zq --emalg2", {"fort.1", "EMrounds", "Estimates", "BestPoint001"}},
            {uni(" FIX herd\n COV age*herd(1,POL)\n RAN animal NRM\n"), "--powell3", {"Curve_age_herd.dat"}},
            {uni(), "--blup", {"FixSolutions.out"}},
            {uni(), "--setup", {"SumModel.out", "eqnsorder.bin"}},
            {uni(), "--simul2", {"SimData001.dat", "SimData002.dat", "RandomSeeds"}},
            {two, "--super --aireml2", {"cholnrm1.bin", "inbreed.bin", "AvInfoCovs"}},
            {reduced, "--aireml2", {"EBV_animal.dat"}},
            {regression("LEG"), "--aireml2", {"age_LEG2.baf", "RanRegCorrels.dat"}},
            {regression("POL"), "--setup", {"age_POL2.baf"}}};
    }
};

TEST_F(outputs_run, of_every_kind_are_no_inputs) {
    for (const auto& k : kinds()) {
        const std::string data = p_.all_traits_lines();
        for (const auto& output : outputs_of(k)) {
            begin(k);
            if (output != ".tarvex.lock") { // the run that holds the lock has signed it before it knows its inputs
                write_file(output, data);
                write_file("model.par", replaced(k.parameters, "DAT data.dat", "DAT " + output));
                refused(k, output, output, data);
            }
            for (const bool symbolic : {false, true}) {
                begin(k);
                if (symbolic)
                    fs::create_symlink("data.dat", output);
                else
                    fs::create_hard_link("data.dat", output);
                refused(k, "data.dat", output, data);
            }
        }
    }
}

// Each file that a run reads, under a link that has the name of an output.
TEST_F(outputs_run, do_not_replace_any_input) {
    const auto tried = [&](const kind_of_run& k, const std::string& input, const std::string& output) {
        begin(k);
        if (input == "age_USR2.baf") {
            std::istringstream list(classes());
            std::string age, number, table;
            while (list >> age >> number) table += age + " 1.0 0." + number + "\n";
            write_file(input, table);
        }
        if (input == "RunOptions") write_file(input, "--aireml2\n");
        if (input == "herd.codes") write_file(input, "1 1\n2 2\n3 3\n4 4\n");
        const auto unlinked = run(k.options);
        EXPECT_EQ(unlinked.status, 0) << input << "\n" << unlinked.output;
        fs::remove(output);
        fs::create_hard_link(input, output);
        refused(k, input, output, read_file(input));
    };
    const std::string start = replaced(
        replaced(uni("MEA\n RAN animal NRM\n", "STA start\nPED ped.dat\n"), "VAR animal 1\n 4.0\n", "VAR animal 1\n"),
        "VAR residual 1\n 6.0\n", "VAR residual 1\n");
    const std::string own = replaced(uni(" RAN herd GIN\n MEA\n", ""), "VAR animal 1", "VAR herd 1");
    for (const char* output :
         {"SumModel.out", "Residuals.dat", "BestPoint", "nrminvers1.bin.tmp", "Residuals.dat.old"}) {
        for (const char* input : {"model.par", "data.dat", "ped.dat", "RunOptions"})
            tried({uni(), "--aireml2", {}}, input, output);
        tried({start, "--aireml2", {}}, "start", output);
        for (const char* input : {"herd.gin", "herd.codes"}) tried({own, "--aireml2", {}}, input, output);
        tried({regression("USR"), "--aireml2", {}}, "age_USR2.baf", output);
        const std::string classes = "VAR residual 1 IND 2 classes\n 5.0\n 5.5\n";
        tried({regression("LEG", classes), "--aireml2", {}}, "classes", output);
    }
}

} // namespace
