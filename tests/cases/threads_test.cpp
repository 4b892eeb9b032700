// However many threads take part, each file of a run is the same to the last byte.
#include "app/phases.h"
#include "case_run.h"
#include "equations/mmmatrix.h"
#include "likelihood/subjectchunks.h"
#include "support/screen.h"

#include <map>
#include <regex>

using namespace tarvex;

namespace {

namespace fs = std::filesystem;

// What a run leaves: its screen, and its files by name, with clocks and dates masked.
struct outcome {
    int status = -1;
    std::string screen;
    std::map<std::string, std::string> files;
};

std::string without_clock(const std::string& text) {
    static const std::regex day("[0-9]{2}-[0-9]{2}-[0-9]{4}(=+)[0-9]{2}:[0-9]{2}"), seconds("Time +[0-9]+");
    std::string masked;
    for (std::size_t from = 0, end; from < text.size(); from = end) {
        end = std::min(text.find('\n', from), text.size() - 1) + 1;
        std::string line = text.substr(from, end - from);
        if (line.find("==") != std::string::npos) line = std::regex_replace(line, day, "day$1clock");
        if (line.find("Time") != std::string::npos) line = std::regex_replace(line, seconds, "Time");
        masked += line;
    }
    return masked;
}
std::string content(const fs::path& file) {
    const std::string text = read_file(file.string());
    return file.extension() == ".bin" ? text : without_clock(text);
}

// Options of consecutive runs in one folder, parted by '|'.
struct run_of_case {
    const char *name, *options;
};
std::ostream& operator<<(std::ostream& out, const run_of_case& a) { return out << a.name << ' ' << a.options; }
constexpr run_of_case analyses[] = {
    {"mt3", "--aireml1|-c --aireml1"},
    {"mt3", "--pxai1,1"},
    {"mt3", "--blup"},
    {"rr_chick", "--aireml3"},
    {"rr_chick", "--pxai2,2"},
    {"rr_chick", "--emalg3"},
    {"rr_chick", "--powell1"},
    {"rr_chick", "--blup"},
    {"rr_chick", "--aireml1|-c --aireml2"},
    {"textbook_uni", ""},
    {"textbook_uni", "--emalg4"},
    {"textbook_uni", "--blup"},
    {"textbook_biv", "--pxai2,3"},
    {"textbook_biv", "--aireml1|-c"},
    {"textbook_rep", ""},
    {"textbook_rep", "--powell1"},
};

class threads_run : public case_run {
protected:
    // All runs of the analysis in a new folder that `fill` has filled; each by work(arguments, screen), the exit
    // status.
    template <class Fill, class Work> outcome runs_in_folder(Fill fill, const run_of_case& a, int threads, Work work) {
        fs::create_directory("run");
        const std::string home = fs::current_path();
        fs::current_path("run");
        fill();
        outcome o;
        std::istringstream runs(a.options);
        for (std::string options; std::getline(runs, options, '|') || o.status == -1;) {
            auto list = words_of(options);
            if (threads > 1) list.insert(list.begin(), {"--threads", std::to_string(threads)});
            list.push_back(a.name);
            o.status = work(list, o.screen);
            if (o.status != 0) break;
        }
        o.screen = without_clock(o.screen);
        for (const auto& entry : fs::directory_iterator("."))
            if (entry.path().filename() != ".tarvex.lock") // names the process
                o.files[entry.path().filename().string()] = content(entry.path());
        fs::current_path(home);
        fs::remove_all("run");
        return o;
    }
    static void fill_bundled(const std::string& name) {
        for (const auto& entry : fs::directory_iterator(source_dir() + "/examples/" + name))
            fs::copy(entry.path(), ".");
    }
    outcome by_program(const run_of_case& a, int threads) {
        return runs_in_folder([&] { fill_bundled(a.name); }, a, threads, by_binary);
    }
    static int by_binary(const std::vector<std::string>& list, std::string& lines) {
        const auto r = run_program(list);
        lines += r.output;
        return r.status;
    }
    static void expect_same(const outcome& found, const outcome& one) {
        EXPECT_EQ(found.status, one.status);
        EXPECT_EQ(found.screen, one.screen);
        ASSERT_EQ(found.files.size(), one.files.size());
        for (const auto& [name, text] : one.files) {
            ASSERT_TRUE(found.files.contains(name)) << name;
            EXPECT_TRUE(found.files.at(name) == text) << name << " differs";
        }
    }
};

class threads_of : public threads_run, public testing::WithParamInterface<run_of_case> {};

TEST_P(threads_of, reports_are_the_same_bytes) {
    const outcome one = by_program(GetParam(), 1);
    ASSERT_EQ(one.status, 0) << one.screen;
    EXPECT_GT(one.files.size(), 8u);
    for (int threads : {2, 3, 8}) {
        SCOPED_TRACE(std::to_string(threads) + " threads");
        expect_same(by_program(GetParam(), threads), one);
    }
}
INSTANTIATE_TEST_SUITE_P(bundled, threads_of, testing::ValuesIn(analyses), [](const auto& test) {
    std::string name = std::string(test.param.name) + "_" + std::to_string(test.index);
    return name;
});

// A whole analysis in this process with work cut so small that each of many threads gets its share of it.
class small_pieces : public threads_run, public testing::WithParamInterface<run_of_case> {
protected:
    outcome in_process(const run_of_case& a, int threads, int together = 40) {
        return runs_in_folder([&] { fill_bundled(a.name); }, a, threads,
                              [&](const std::vector<std::string>& list, std::string& lines) {
                                  std::vector<const char*> argv{"tarvex"};
                                  for (const auto& s : list) argv.push_back(s.c_str());
                                  clear_screen();
                                  new_analysis();
                                  kernels.choice = kernel_kind::supernodes;
                                  kernels.work.few_operations = 0.0;
                                  places.together = together;
                                  run_to(run_stage::reports, static_cast<int>(argv.size()), argv.data());
                                  chunks_ = subject_chunks();
                                  shared_ = shared_chunks();
                                  pieces_ = static_cast<int>(kernels.work.tree.steps.size());
                                  threads_ = kernels.work.pool ? kernels.work.pool->threads() : 1;
                                  flush_all();
                                  new_analysis();
                                  lines += screen_text();
                                  return 0;
                              });
    }
    // The best point that a run has left.
    static best_point best_of(const outcome& o) {
        write_file("BestPoint", o.files.at("BestPoint"));
        return read_best_point();
    }
    int pieces_ = 0, chunks_ = 0, shared_ = 0, threads_ = 0;
};

TEST_P(small_pieces, reports_are_the_same_bytes) {
    const outcome one = in_process(GetParam(), 1);
    EXPECT_GT(one.files.size(), 8u);
    EXPECT_GT(pieces_, 2);
    EXPECT_GT(chunks_, 1);
    for (int threads : {3, 8, 8}) {
        SCOPED_TRACE(std::to_string(threads) + " threads");
        expect_same(in_process(GetParam(), threads), one);
        EXPECT_EQ(threads_, threads);
        EXPECT_EQ(shared_, chunks_);
    }
    if (!one.files.contains("BestPoint")) return;
    const best_point whole = best_of(in_process(GetParam(), 1, 1 << 30)); // sums that are not parted
    EXPECT_EQ(chunks_, 1);
    write_file("BestPoint", one.files.at("BestPoint"));
    expect_best(whole, 1e-7, 1e-7);
}
constexpr run_of_case small[] = {{"mt3", "--aireml1"},      {"mt3", "--emalg2"},       {"mt3", "--blup"},
                                 {"rr_chick", "--aireml2"}, {"rr_chick", "--pxai1,2"}, {"rr_chick", "--blup"}};
INSTANTIATE_TEST_SUITE_P(bundled, small_pieces, testing::ValuesIn(small), [](const auto& test) {
    std::string name = std::string(test.param.name) + "_" + std::to_string(test.index);
    return name;
});

} // namespace
