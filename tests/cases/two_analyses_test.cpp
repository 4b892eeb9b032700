// Several analyses in one process: each is as in a process of its own, whatever has run before it.
#include "app/phases.h"
#include "case_run.h"

#include <map>
#include <regex>

using namespace tarvex;

namespace {

namespace fs = std::filesystem;

// What a run leaves: its screen, and its files by name, with clocks and dates masked.
struct outcome {
    int status;
    std::string screen;
    std::map<std::string, std::string> files;
};

std::string without_clock(const std::string& text) {
    static const std::regex day("[0-9]{2}-[0-9]{2}-[0-9]{4}(=+)[0-9]{2}:[0-9]{2}"), seconds("Time +[0-9]+");
    return std::regex_replace(std::regex_replace(text, day, "day$1clock"), seconds, "Time");
}

class two_analyses : public case_run {
protected:
    struct analysis {
        const char *name, *options;
    };
    static constexpr analysis analyses[] = {
        {"mt3", "--aireml1"},       {"rr_chick", "--aireml60,1e-7"}, {"simulation", "--simul"},
        {"textbook_uni", "--blup"}, {"textbook_biv", "-v --emalg4"}, {"textbook_rep", "--powell"},
        {"rr_chick", "--pxai2,2"},
    };
    static constexpr std::size_t n = std::size(analyses);

    // A directory with the files of the analysis, and no others.
    std::string place(const analysis& a) {
        const std::string where = "run" + std::to_string(++runs_);
        fs::create_directory(where);
        const bool simulation = std::string(a.name) == "simulation";
        const std::string folder = source_dir() + "/examples/" + (simulation ? "mt3" : a.name);
        for (const auto& entry : fs::directory_iterator(folder)) fs::copy(entry.path(), where);
        if (simulation) { // new data for mt3, from given seeds
            fs::rename(where + "/mt3.par", where + "/simulation.par");
            write_file(where + "/RandomSeeds", "12345 67890\n");
        }
        return where;
    }
    static std::vector<std::string> arguments(const analysis& a) {
        auto list = words_of(a.options);
        list.push_back(a.name);
        return list;
    }
    static outcome left_in(const std::string& where, int status, const std::string& screen) {
        outcome o{status, without_clock(screen), {}};
        for (const auto& entry : fs::directory_iterator(where))
            if (entry.path().filename() != ".tarvex.lock") // names the process
                o.files[entry.path().filename().string()] = without_clock(read_file(entry.path().string()));
        fs::remove_all(where);
        return o;
    }
    outcome alone(const analysis& a) {
        const std::string where = place(a);
        const std::string home = fs::current_path();
        fs::current_path(where);
        const auto result = run_program(arguments(a));
        fs::current_path(home);
        return left_in(where, result.status, result.output);
    }
    outcome in_process(const analysis& a) {
        const std::string where = place(a);
        auto list = arguments(a);
        list.insert(list.begin(), "tarvex");
        std::vector<const char*> argv;
        for (const auto& s : list) argv.push_back(s.c_str());
        std::ostringstream lines;
        const int status = run_phases(static_cast<int>(argv.size()), argv.data(), {where, &lines});
        return left_in(where, status, lines.str());
    }
    static void expect_same(const outcome& found, const outcome& fresh) {
        EXPECT_EQ(found.status, fresh.status);
        EXPECT_EQ(found.screen, fresh.screen);
        for (const auto& [name, text] : fresh.files) {
            ASSERT_TRUE(found.files.contains(name)) << name;
            EXPECT_TRUE(found.files.at(name) == text) << name << " differs";
        }
        EXPECT_EQ(found.files.size(), fresh.files.size());
    }
    int runs_ = 0;
};

// Each analysis after each other one and after itself: the order of runs has every pair as neighbours.
TEST_F(two_analyses, each_is_as_in_a_process_of_its_own) {
    std::vector<outcome> fresh;
    for (const auto& a : analyses) {
        fresh.push_back(alone(a));
        EXPECT_EQ(fresh.back().status, 0) << a.name << " " << a.options << "\n" << fresh.back().screen;
        EXPECT_GT(fresh.back().files.size(), 3u);
    }
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < n; ++i) {
        order.push_back(i);
        for (std::size_t j = i + 1; j < n; ++j) order.insert(order.end(), {i, j});
    }
    order.push_back(0);
    ASSERT_EQ(order.size(), n * n + 1);
    for (std::size_t k = 0; k < order.size(); ++k) {
        const auto& a = analyses[order[k]];
        SCOPED_TRACE(
            std::string(a.name) + " " + a.options + " after " +
            (k > 0 ? std::string(analyses[order[k - 1]].name) + " " + analyses[order[k - 1]].options : "none"));
        expect_same(in_process(a), fresh[order[k]]);
        if (HasFailure()) return; // one pair tells enough
    }
}

// An analysis that ends in a fault leaves nothing to the next one either.
TEST_F(two_analyses, fault_leaves_nothing) {
    const analysis good{"textbook_uni", "--blup"};
    const outcome fresh = alone(good);
    const auto after = [&](const char* name, const char* text) {
        fs::create_directory("bad");
        for (const auto& entry : fs::directory_iterator(source_dir() + "/examples/mt3")) fs::copy(entry.path(), "bad");
        fs::remove(std::string("bad/") + name);
        write_file(std::string("bad/") + name, text);
        const char* argv[] = {"tarvex", "--wide", "mt3"};
        std::ostringstream lines;
        EXPECT_EQ(run_phases(3, argv, {"bad", &lines}), 1) << name;
        fs::remove_all("bad");
        expect_same(in_process(good), fresh);
    };
    after("mt3.par", "DAT data.dat\n");
    after("data.dat", "1 2 x\n");
    after("ped.dat", "1 1 1\n");
}

} // namespace
