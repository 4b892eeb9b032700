// Every block of the pages of docs/ runs, and what they quote is what the programs give.
#include "tvx/pages.h"
#include "tvx/plain_page.h"

#include <cstdlib>
#include <map>
#include <regex>
#include <set>

namespace {

using namespace tvx_tests;
using tarvex::read_file;
namespace fs = std::filesystem;

// Pages by name: the front page, those of docs/, and those of the examples.
std::map<std::string, fs::path> places() {
    const fs::path top = TVX_SOURCE_DIR;
    std::map<std::string, fs::path> found{{"README", top / "README.md"}};
    for (const auto& entry : fs::directory_iterator(top / "docs"))
        if (entry.path().extension() == ".md") found[entry.path().stem()] = entry.path();
    for (const auto& entry : fs::directory_iterator(top / "examples"))
        if (fs::exists(entry.path() / "README.md"))
            found["example-" + entry.path().filename().string()] = entry.path() / "README.md";
    return found;
}

std::vector<std::string> pages() {
    std::vector<std::string> names;
    for (const auto& [name, path] : places())
        if (!blocks_of(read_file(path)).blocks.empty()) names.push_back(name);
    return names;
}

class page : public tarvex::tarvex_test, public testing::WithParamInterface<std::string> {
protected:
    // The folders of the project and programs where the reader has them; an example begins in a copy of its folder.
    void SetUp() override {
        if (GetParam().starts_with("example-"))
            for (const auto& entry : fs::directory_iterator(places().at(GetParam()).parent_path()))
                fs::copy_file(entry.path(), entry.path().filename());
        for (const char* name : {"examples", "bench", "docs", "tools"})
            fs::create_directory_symlink(fs::path(TVX_SOURCE_DIR) / name, name);
        fs::create_directory("build");
        fs::create_symlink(tarvex::program_path(), "build/tarvex");
        fs::create_symlink(TVX_COMPANION, "build/tvx");
        const char* path = std::getenv("PATH");
        path_ = path ? path : "";
        setenv("PATH", (directory() + "/build:" + path_).c_str(), 1);
    }
    void TearDown() override {
        setenv("PATH", path_.c_str(), 1);
        tarvex_test::TearDown();
    }

private:
    std::string path_;
};

TEST_P(page, holds) {
    for (const auto& fault : faults_of(read_file(places().at(GetParam()))))
        ADD_FAILURE() << GetParam() << ".md, " << fault;
}

std::string name_of(const testing::TestParamInfo<std::string>& info) {
    std::string name = info.param;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}
INSTANTIATE_TEST_SUITE_P(docs, page, testing::ValuesIn(pages()), name_of);

// Marks of the headings of a page, as links name them: small letters, blanks as hyphens, other signs left out.
std::set<std::string> marks_of(const std::string& page) {
    std::set<std::string> marks;
    bool block = false;
    for (const std::string& line : tarvex::lines_of(page)) {
        if (line.starts_with("```")) block = !block;
        if (block || !line.starts_with("#")) continue;
        std::string mark;
        for (const char c : line.substr(line.find(' ') + 1)) {
            const auto u = static_cast<unsigned char>(c);
            if (std::isalnum(u) || c == '-' || c == '_') mark += static_cast<char>(std::tolower(u));
            if (c == ' ') mark += '-';
        }
        marks.insert(mark);
    }
    return marks;
}

// Links of a page to files and headings that are not there.
std::vector<std::string> dead_links(const fs::path& file) {
    static const std::regex link("\\]\\(([^)#]*)(#([^)]*))?\\)");
    std::vector<std::string> dead;
    const std::string text = std::regex_replace(read_file(file), std::regex("`[^`\n]*`"), "");
    for (std::sregex_iterator i(text.begin(), text.end(), link), end; i != end; ++i) {
        const std::string name = (*i)[1], mark = (*i)[3];
        if (name.starts_with("http")) continue;
        const fs::path to = name.empty() ? file : file.parent_path() / name;
        if (!fs::exists(to) || (!mark.empty() && !marks_of(read_file(to)).contains(mark))) dead.push_back((*i)[0]);
    }
    return dead;
}

TEST(links, of_all_pages_lead_somewhere) {
    const fs::path top = TVX_SOURCE_DIR;
    std::vector<fs::path> files{top / "README.md", top / "ARCHITECTURE.md", top / "CONTRIBUTING.md"};
    for (const char* folder : {"docs", "examples"})
        for (const auto& entry : fs::recursive_directory_iterator(top / folder))
            if (entry.path().extension() == ".md") files.push_back(entry.path());
    EXPECT_GT(files.size(), 15u);
    for (const auto& file : files)
        for (const auto& link : dead_links(file)) ADD_FAILURE() << file << " has a dead link " << link;
}

class runner : public tarvex::tarvex_test {};

TEST_F(runner, takes_figures_as_they_are_quoted) {
    EXPECT_TRUE(same_figure("0.29", "0.2912"));
    EXPECT_FALSE(same_figure("0.29", "0.31"));
    EXPECT_FALSE(same_figure("12", "13"));
    EXPECT_TRUE(same_figure("0.974288E-01", "0.974289E-01"));
    EXPECT_FALSE(same_figure("0.974288E-01", "0.974888E-01"));
    EXPECT_FALSE(same_figure("animal", "1.0"));
    EXPECT_EQ(missing_line("a 1.00 ... z\n", "b\na 1.004 x y z\n"), "");
    EXPECT_NE(missing_line("a\nb\n", "b\na\n"), "");
    EXPECT_NE(missing_line("a\n", "a b\n"), "");
    EXPECT_EQ(missing_line("a ...\n", "a b\n"), "");
}

TEST_F(runner, finds_what_does_not_hold) {
    EXPECT_EQ(faults_of("text\n```sh\nmkdir -p x && cd x\n```\n```file f\none 2.0\n```\n<!-- sh\ncat ../x/f\n-->\n"
                        "```output\none 2.0\n```\n```output f\none 2.0\n```\n```sh 3\nexit 3\n```\n")
                  .size(),
              0u);
    EXPECT_EQ(faults_of("```sh\nfalse\n```\n").size(), 1u);
    EXPECT_EQ(faults_of("```sh\necho a\n```\n```output\nb\n```\n").size(), 1u);
    EXPECT_EQ(faults_of("```output nothing\nb\n```\n").size(), 1u);
    EXPECT_EQ(faults_of("```cpp\n```\n").size(), 1u);
    EXPECT_EQ(faults_of("```sh\ntrue\n").size(), 1u);
    EXPECT_EQ(faults_of("text\n\n    tarvex x\n").size(), 1u);
}

TEST_F(runner, finds_dead_links) {
    tarvex::write_file("a.md", "# A b\n## C, d\n[x](a.md) [x](#a-b) [x](a.md#c-d) [x](http://y) `[i](j)`\n");
    EXPECT_EQ(dead_links("a.md").size(), 0u);
    tarvex::write_file("b.md", "# A\n[x](c.md) [x](#b) [x](a.md#c)\n");
    EXPECT_EQ(dead_links("b.md").size(), 3u);
}

TEST_F(runner, sets_tables_as_terms) {
    std::string many; // 24 words of 9 signs with their blanks: 10 in a line of 100
    for (int k = 0; k < 24; ++k) many += "nine-char ";
    std::string line;
    for (int k = 0; k < 10; ++k) line += (k > 0 ? " " : "    ") + std::string("nine-char");
    EXPECT_EQ(tvx::plain_page("| a | b |\n|---|---|\n| `x\\|y` | " + many + "|\n"),
              "a\n    b\n`x|y`\n" + line + "\n" + line + "\n    nine-char nine-char nine-char nine-char\n");
}

TEST_F(runner, leaves_fences_off_the_screen) {
    EXPECT_EQ(tvx::plain_page("a\n<!-- sh\nx\n-->\n```sh\nb\n\nc\n```\nd\n<!-- e -->\nf\n"),
              "a\n    b\n\n    c\nd\nf\n");
}

} // namespace
