// Every block of the pages of docs/ runs, and what they quote is what the programs give.
#include "tvx/pages.h"
#include "tvx/plain_page.h"

#include <cstdlib>

namespace {

using namespace tvx_tests;
using tarvex::read_file;
namespace fs = std::filesystem;

std::vector<std::string> pages() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(std::string(TVX_SOURCE_DIR) + "/docs"))
        if (blocks_of(read_file(entry.path())).blocks.size() > 0) names.push_back(entry.path().stem());
    std::sort(names.begin(), names.end());
    return names;
}

class page : public tarvex::tarvex_test, public testing::WithParamInterface<std::string> {
protected:
    // The folders of the project and programs where the reader has them.
    void SetUp() override {
        for (const char* name : {"examples", "bench", "docs"})
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
    for (const auto& fault : faults_of(read_file(directory() + "/docs/" + GetParam() + ".md")))
        ADD_FAILURE() << "docs/" << GetParam() << ".md, " << fault;
}

std::string name_of(const testing::TestParamInfo<std::string>& info) {
    std::string name = info.param;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}
INSTANTIATE_TEST_SUITE_P(docs, page, testing::ValuesIn(pages()), name_of);

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

TEST_F(runner, leaves_fences_off_the_screen) {
    EXPECT_EQ(tvx::plain_page("a\n<!-- sh\nx\n-->\n```sh\nb\n\nc\n```\nd\n<!-- e -->\nf\n"),
              "a\n    b\n\n    c\nd\nf\n");
}

} // namespace
