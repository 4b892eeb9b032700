// Each example of docs/tvx.md runs to the maximum, and the bundled herd gives what it was generated with.
#include "tvx/companion.h"

namespace {

using namespace tvx_tests;
using tarvex::read_file;
using tarvex::write_file;
namespace fs = std::filesystem;

// Words of a command line, with those in quotes as one.
std::vector<std::string> words_of(const std::string& line) {
    std::vector<std::string> words(1);
    bool quoted = false;
    for (const char c : line) {
        if (c == '"')
            quoted = !quoted;
        else if (c != ' ' || quoted)
            words.back() += c;
        else if (!words.back().empty())
            words.emplace_back();
    }
    return words;
}

std::vector<std::vector<std::string>> documented() {
    std::vector<std::vector<std::string>> commands;
    std::istringstream text(read_file(std::string(TVX_SOURCE_DIR) + "/docs/tvx.md"));
    for (std::string line; std::getline(text, line);)
        if (line.starts_with("    tvx fit ")) commands.push_back(words_of(line.substr(8)));
    return commands;
}

// Relationships of lines by their markers: products of centred counts, and something on the diagonal.
std::string relationships(const std::vector<std::vector<int>>& counts) {
    std::string text = "line", rows;
    for (std::size_t i = 0; i < counts.size(); ++i) text += ",L" + std::to_string(i + 1);
    for (std::size_t i = 0; i < counts.size(); ++i) {
        rows += "\nL" + std::to_string(i + 1);
        for (std::size_t j = 0; j < counts.size(); ++j) {
            double g = i == j ? 0.1 : 0.0;
            for (std::size_t m = 0; m < counts[i].size(); ++m) g += (counts[i][m] - 1) * (counts[j][m] - 1) / 30.0;
            rows += "," + number_text(g);
        }
    }
    return text + rows + "\n";
}

// Forty lines at five places, two plots each, with sixty markers.
void write_trial() {
    population p;
    std::vector<std::vector<int>> counts;
    std::string trial = "line,place,yield\n", markers = "line";
    for (int j = 0; j < 60; ++j) markers += ",m" + std::to_string(j);
    markers += "\n";
    for (int i = 1; i <= 40; ++i) {
        double value = 0.0;
        const std::string name = "L" + std::to_string(i);
        markers += name;
        counts.emplace_back();
        for (int j = 0; j < 60; ++j) {
            const int m = p.below(2) + p.below(2);
            markers += "," + std::to_string(m);
            counts.back().push_back(m);
            value += (m - 1) * (j % 7 - 3) * 0.3;
        }
        markers += "\n";
        for (int place = 1; place <= 5; ++place) {
            const double here = 1.5 * p.normal();
            for (int plot = 1; plot <= 2; ++plot)
                trial += name + ",P" + std::to_string(place) + "," +
                         number_text(50.0 + value + here + 2.0 * p.normal()) + "\n";
        }
    }
    write_file("trial.csv", trial);
    write_file("markers.csv", markers);
    write_file("G.csv", relationships(counts));
}

// Lambs by rams, and cows with three records each.
void write_flocks() {
    auto p = make_population(60, 400, 2);
    std::string lambs = "ram,mgs,farm,age,sex,weight\n", rams = "ram,sire,mgs\n", cows = "cow,herd,year,milk\n";
    const auto grandsire = [&](const population::animal& a) {
        return a.dam > 0 ? p.animals[static_cast<std::size_t>(a.dam - 1)].sire : 0;
    };
    for (std::size_t k = 1; k <= p.animals.size(); ++k) {
        const auto& a = p.animals[k - 1];
        rams += id_of(static_cast<int>(k)) + "," + id_of(a.sire) + "," + id_of(grandsire(a)) + "\n";
        if (k > 460)
            lambs += id_of(a.sire) + "," + id_of(grandsire(a)) + ",F" + std::to_string(a.herd) + "," +
                     number_text(a.age) + (a.sex == 1 ? ",m," : ",f,") +
                     number_text(20.0 + (0.1 + 0.05 * a.sex) * a.age + 2.0 * p.animals[a.sire - 1].genetic +
                                 p.animals[grandsire(a) - 1].genetic + 4.0 * p.normal()) +
                     "\n";
        for (int year = 1; k > 60 && year <= 3; ++year)
            cows += id_of(static_cast<int>(k)) + ",H" + std::to_string(a.herd) + "," + std::to_string(2000 + year) +
                    "," + number_text(50.0 + a.genetic + a.permanent + year * a.herd + 3.0 * p.normal()) + "\n";
    }
    write_file("lambs.csv", lambs);
    write_file("rams.csv", rams);
    write_file("cows.csv", cows);
    write_file("cows_pedigree.csv", pedigree_table(p).text());
}

class examples : public tarvex::tarvex_test {
protected:
    void SetUp() override {
        for (const char* name : {"herd.csv", "pedigree.csv", "growth.csv"})
            fs::copy_file(std::string(TVX_SOURCE_DIR) + "/examples/herd/" + name, name);
        write_trial();
        write_flocks();
    }
};

TEST_F(examples, of_the_guide_page_run) {
    const auto commands = documented();
    ASSERT_GE(commands.size(), 11u);
    for (const auto& args : commands) {
        const auto r = run_tvx(args);
        ASSERT_EQ(r.status, 0) << r.output;
        const auto name = *(std::find(args.begin(), args.end(), "-o") + 1);
        const bool arrived = holds(r.output, "Verdict: arrived") || holds(r.output, "Verdict: boundary");
        EXPECT_TRUE(arrived) << r.output;
        EXPECT_TRUE(holds(r.output, "Page: " + name + "/report/report.html")) << r.output;
        EXPECT_TRUE(holds(read_file(name + "/report/estimates.tsv"), "effect\ttrait_i")) << name;
        EXPECT_EQ(run_tvx({"check", name + "/" + name + ".par"}).status, 0);
    }
}

// Log L is that of the analysis by hand in the units of the table: each record of a trait in units of 10^p adds p
// log 10.
TEST_F(examples, give_the_bundled_analysis) {
    const auto commands = documented();
    auto args = commands.at(1);
    args[0] = "prep";
    ASSERT_EQ(run_tvx(args).status, 0);
    for (const char* name : {"mt3.par", "data.dat", "ped.dat"})
        fs::copy_file(std::string(TVX_SOURCE_DIR) + "/examples/mt3/" + name, name);
    ASSERT_EQ(tarvex::run_program({"--aireml100,1e-8", "mt3"}).status, 0);
    const auto hand = tarvex::read_best_point();
    fs::current_path("herd");
    ASSERT_EQ(tarvex::run_program({"--aireml100,1e-8", "herd"}).status, 0);
    const auto made = tarvex::read_best_point();
    const double scale[] = {10.0, 10.0, 1.0};
    ASSERT_EQ(made.values.size(), 12u);
    for (std::size_t b = 0; b < 2; ++b)
        for (std::size_t i = 0, k = 0; i < 3; ++i)
            for (std::size_t j = i; j < 3; ++j, ++k)
                EXPECT_NEAR(made.values[6 * b + k] * scale[i] * scale[j], hand.values[6 * b + k],
                            2e-4 * std::fabs(hand.values[6 * b + k]));
}

TEST_F(examples, are_explained) {
    const auto r = run_tvx({"explain", "w408"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(holds(r.output, "SUBject LINE")) << r.output;
    EXPECT_TRUE(holds(run_tvx({"explain", "Invalid effect code : herd"}).output, "A code below 1 in a random effect"));
    expect_fault({"explain", "W999"}, "nothing is known of \"W999\"");
    EXPECT_TRUE(holds(run_tvx({"help", "par"}).output, "### VAR: starting values of a covariance matrix"));
    EXPECT_TRUE(holds(run_tvx({"help", "options"}).output, "`--blup`"));
    EXPECT_FALSE(holds(run_tvx({"help", "options"}).output, "## Kinds of run"));
    expect_fault({"help", "me"}, "tvx help TOPIC");
}

} // namespace
