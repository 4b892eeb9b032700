// Studies are read back as they were written.
#include "tvx/commands.h"
#include "tvx/study.h"
#include "tvx/tables.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class study_files : public ::testing::Test {
protected:
    void SetUp() override {
        folder = fs::temp_directory_path() / ("tvx_study_" + std::to_string(::getpid()));
        fs::remove_all(folder);
        fs::create_directory(folder);
    }
    void TearDown() override { fs::remove_all(folder); }
    fs::path folder;
};

tvx::study example(const fs::path& folder) {
    tvx::study s;
    s.name = "herd";
    s.folder = folder.string();
    s.analysis = "MUV";
    s.data = {"herd.csv", "0123456789abcdef", 3, ';', true};
    s.pedigree.file = "ped.csv";
    tvx::study_trait t;
    t.name = "Milchmenge in kg";
    t.power = -3;
    t.number = 2;
    s.traits = {t};
    tvx::study_effect e;
    e.term = "nrm(animal)";
    e.traits = {1, 2};
    e.place = 1;
    s.effects = {e};
    s.classes = {{"animal", {"animal"}, {"a\tb", "\\n", "", "K\xc3\xbche"}}};
    s.residuals = {{0, 6}, {7, 14.5}};
    s.animals = {{"a\tb", 0, 0, "", 0, 0}, {"\\n", 1, 0, "2001-05-03", 4, 12}};
    s.lines = {{2, 0}, {5000000000, 3}};
    s.dropped = {{"missing herd", 7}};
    return s;
}

TEST_F(study_files, are_read_back_as_written) {
    const auto s = example(folder);
    tvx::write_study(s);
    const auto r = tvx::read_study(folder.string());
    EXPECT_EQ(r.name, "herd");
    EXPECT_EQ(r.data.separator, ';');
    EXPECT_TRUE(r.data.decimal_comma);
    EXPECT_EQ(r.traits.at(0).power, -3);
    EXPECT_EQ(r.effects.at(0).traits, (std::vector<int>{1, 2}));
    EXPECT_EQ(r.classes.at(0).ids, s.classes.at(0).ids);
    EXPECT_EQ(r.residuals.at(1).to, 14.5);
    EXPECT_EQ(r.animals.at(1).id, "\\n");
    EXPECT_EQ(r.animals.at(1).sire, 1);
    EXPECT_EQ(r.animals.at(1).birth, "2001-05-03");
    EXPECT_EQ(r.animals.at(1).line, 12);
    EXPECT_EQ(r.lines.at(1).line, 5000000000);
    EXPECT_EQ(r.lines.at(1).trait, 3);
    EXPECT_EQ(r.dropped.at(0).records, 7);
    EXPECT_EQ(tvx::find_trait(r, 2)->name, "Milchmenge in kg");
    EXPECT_EQ(tvx::find_trait(r, 1), nullptr);
}

// The words of study.json outlive the order of the kinds in the code.
TEST_F(study_files, have_kinds_of_effects_as_words) {
    using k = tvx::term_kind;
    const std::pair<k, const char*> words[] = {
        {k::mean, "mean"},     {k::fixed, "fixed"}, {k::covariable, "covariable"},
        {k::random, "random"}, {k::nrm, "nrm"},     {k::pe, "pe"},
        {k::sire, "sire"},     {k::mgs, "mgs"},     {k::gin, "gin"}};
    for (const auto& [kind, word] : words) {
        auto s = example(folder);
        s.effects[0].kind = kind;
        tvx::write_study(s);
        std::ifstream in(folder / "study.json");
        EXPECT_EQ(nlohmann::json::parse(in).at("effects").at(0).at("kind"), word);
        EXPECT_EQ(tvx::read_study(folder.string()).effects.at(0).kind, kind);
    }
    std::ifstream in(folder / "study.json");
    auto j = nlohmann::json::parse(in);
    j["effects"][0]["kind"] = "other";
    std::ofstream(folder / "study.json") << j;
    try {
        tvx::read_study(folder.string());
        FAIL() << "no fault";
    } catch (const tvx::fault& f) {
        EXPECT_NE(f.text.find("study.json\" is damaged"), std::string::npos) << f.text;
    }
}

TEST_F(study_files, that_are_damaged_are_told) {
    tvx::write_study(example(folder));
    std::ofstream(folder / "lines.tsv") << "line\ttrait\n2\tx\n";
    try {
        tvx::read_study(folder.string());
        FAIL() << "no fault";
    } catch (const tvx::fault& f) {
        EXPECT_NE(f.text.find("lines.tsv\" is damaged"), std::string::npos) << f.text;
        EXPECT_EQ(f.status, tvx::input_fault);
    }
    EXPECT_NO_THROW(tvx::read_study(folder.string(), false));
    std::ofstream(folder / "study.json") << "{";
    EXPECT_THROW(tvx::read_study(folder.string(), false), tvx::fault);
}

TEST_F(study_files, that_are_not_there_are_told) {
    EXPECT_FALSE(tvx::has_study(folder.string()));
    EXPECT_THROW(tvx::read_study(folder.string()), tvx::fault);
}

} // namespace
