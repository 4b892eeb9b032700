// Files that were damaged at random: whatever stands in them, the run ends by itself with a status of its own and with
// a last line that says so.
#include "case_run.h"

#include <map>
#include <random>

using namespace tarvex;

namespace {

class spoilt_inputs : public case_run {
protected:
    // One to three bytes, pieces or words of `text` are changed.
    std::string spoilt(std::string text) {
        static const std::string letters(" \n#+(),*\"->019.eDx\t\r\0\xff", 23);
        static const char* const words[] = {"0",     "-1",     "399999", "400000", "5000000000", "99999999999999999999",
                                            "1e308", "1e-300", "-0",     "0.5",    "nan",        "7"};
        for (std::size_t n = draw(3) + 1; n > 0; --n) {
            if (text.empty()) text = "\n";
            const std::size_t at = draw(text.size());
            switch (draw(6)) {
            case 0:
                text[at] = letters[draw(letters.size())];
                break;
            case 1:
                text.insert(at, 1, letters[draw(letters.size())]);
                break;
            case 2:
                text.erase(at, draw(20));
                break;
            case 3:
                text.insert(at, text.substr(draw(text.size()), draw(40)));
                break;
            case 4:
                text[at] = static_cast<char>('0' + draw(10));
                break;
            default: {
                const auto end = text.find_first_of(" \n", at);
                text.replace(at, (end == std::string::npos ? text.size() : end) - at, words[draw(std::size(words))]);
            }
            }
        }
        return text;
    }

    void expect_ends(const std::vector<std::string>& files, const std::vector<std::string>& options, int runs) {
        std::map<std::string, std::string> sound;
        for (const auto& name : files) sound[name] = read_file(name);
        int finished = 0;
        for (int k = 1; k <= runs; ++k) {
            for (const auto& name : files) write_file(name, draw(2) ? spoilt(sound[name]) : sound[name]);
            const std::string& option = options[draw(options.size())];
            // no run may need more than some seconds of processor time
            const auto result =
                run_binary("/bin/sh", {"-c", "ulimit -t 10; exec \"$0\" \"$@\"", program_path(), option, name_});
            SCOPED_TRACE(name_ + " " + option + ", run " + std::to_string(k));
            ASSERT_TRUE(result.status == 0 || result.status == 1) << result.status << "\n"
                                                                  << inputs(files) << result.output;
            EXPECT_TRUE(result.output.ends_with(result.status == 0 ? "\"Tarvex\" done\n" : "exit \"Tarvex\"\n"))
                << inputs(files) << result.output;
            EXPECT_TRUE(result.status == 0 || lines_of(result.output).size() > 1) << "no message\n" << inputs(files);
            finished += result.status == 0;
        }
        EXPECT_GT(finished, 0); // so that later phases are reached as well
        EXPECT_LT(finished, runs);
        for (const auto& name : files) write_file(name, sound[name]);
    }

private:
    std::size_t draw(std::size_t n) { return random_() % n; }
    static std::string inputs(const std::vector<std::string>& files) {
        std::string all;
        for (const auto& name : files) all += "--- " + name + "\n" + read_file(name);
        return all + "--- output\n";
    }
    std::mt19937 random_{20261121};
};

TEST_F(spoilt_inputs, data_and_pedigree) {
    for (const char* name : {"textbook_uni", "textbook_biv", "textbook_rep"}) {
        ASSERT_TRUE(bring(name));
        expect_ends({"data.dat", "ped.dat"}, {"--aireml3", "--pxem2", "--blup", "--simul1"}, 45);
    }
}

TEST_F(spoilt_inputs, parameter_file_and_data) {
    ASSERT_TRUE(bring("textbook_biv"));
    expect_ends({"textbook_biv.par", "data.dat"}, {"--aireml3", "--blup"}, 45);
    ASSERT_TRUE(bring("rr_chick"));
    expect_ends({"rr_chick.par", "data.dat"}, {"--aireml2", "--blup"}, 12);
}

// What an earlier run has left is looked at before it is taken over.
TEST_F(spoilt_inputs, best_point) {
    ASSERT_TRUE(bring("textbook_biv"));
    finish("--aireml3");
    expect_ends({"BestPoint", "data.dat"}, {"-c", "--best"}, 40);
}

} // namespace
