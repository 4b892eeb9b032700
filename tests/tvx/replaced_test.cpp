// A study that is made anew in its folder: runs belong to the study from which they were made.
#include "tvx/commands.h"
#include "tvx/herd.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

namespace {

using namespace tvx_tests;
using nlohmann::json;

class replaced_study : public herd_run {
protected:
    // The study again, from the same records: other identifiers (their order, and so all codes, stay), or other
    // records.
    void replace(const std::string& prefix, double more = 0.0) {
        for (const char* file : {"milk.csv", "ped.csv"}) {
            std::string text = read_file(file), out;
            for (std::size_t i = 0; i < text.size(); ++i) {
                if (text.compare(i, 4, "cow ") == 0) out += prefix;
                out += text[i];
            }
            write_file(file, out);
        }
        if (more > 0.0) {
            for (double& y : herd.y) y += more * (static_cast<double>(&y - herd.y.data()) / 30.0);
            herd.write();
        }
        const auto r = run_tvx({"prep", "milk.csv", "milk ~ herd + nrm(animal)", "-p", "ped.csv", "-o", "milk",
                                "--pedcols", "id,father,mother", "--born", "year", "--force"});
        ASSERT_EQ(r.status, 0) << r.output;
    }
    static std::size_t runs() {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator("milk/runs"), fs::directory_iterator()));
    }
};

TEST_F(replaced_study, leaves_earlier_runs_their_names) {
    ASSERT_NO_FATAL_FAILURE(fit());
    const std::string before = read_file(run + "/report/solutions_animal.tsv");
    const std::string data = read_file("milk/milk.dat");
    ASSERT_TRUE(holds(before, "\ncow b920\t"));
    ASSERT_NO_FATAL_FAILURE(replace("old "));
    ASSERT_EQ(read_file("milk/milk.dat"), data) << "the codes are the same: only names tell the studies apart";
    const auto refused = run_tvx({"report", "milk"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "the runs in \"milk/runs\" are of the study that stood here before: tvx run makes one of "
                              "this study, or name a run\n");
    ASSERT_EQ(run_tvx({"report", run}).status, 0);
    EXPECT_EQ(read_file(run + "/report/solutions_animal.tsv"), before);
    EXPECT_TRUE(holds(run_tvx({"lrt", run, "--drop", "animal"}).output, "the study has been replaced since"));

    const auto again = run_tvx({"run", "milk"});
    EXPECT_EQ(again.status, 0) << again.output;
    EXPECT_FALSE(holds(again.output, "nothing was computed anew"));
    EXPECT_EQ(runs(), 2u);
    ASSERT_EQ(run_tvx({"report", "milk", "-o", "now"}).status, 0);
    std::string renamed = before;
    for (std::size_t at = 0; (at = renamed.find("cow ", at)) != std::string::npos; at += 8) renamed.insert(at, "old ");
    EXPECT_EQ(read_file("now/solutions_animal.tsv"), renamed);
}

TEST_F(replaced_study, of_the_same_contents_keeps_its_runs) {
    ASSERT_NO_FATAL_FAILURE(fit());
    ASSERT_NO_FATAL_FAILURE(replace("")); // the same command
    EXPECT_TRUE(holds(run_tvx({"run", "milk"}).output, "nothing was computed anew"));
    fs::create_directory("elsewhere"); // the same table under another name
    fs::copy_file("milk.csv", "elsewhere/m.csv");
    ASSERT_EQ(run_tvx({"prep", "elsewhere/m.csv", "milk ~ herd + nrm(animal)", "-p", "ped.csv", "-o", "milk",
                       "--pedcols", "id,father,mother", "--born", "year", "--force"})
                  .status,
              0);
    EXPECT_EQ(run_tvx({"report", "milk"}).status, 0);
}

// Runs that have kept no study, and results beside a study, are judged by the sums over their inputs.
TEST_F(replaced_study, refuses_results_of_other_data) {
    ASSERT_NO_FATAL_FAILURE(fit());
    fs::remove_all(run + "/study");
    json told = json::parse(read_file(run + "/run.json"));
    told.erase("study");
    write_file(run + "/run.json", told.dump());
    fs::copy_file(run + "/estimates.json", "milk/Results.json");
    EXPECT_EQ(run_tvx({"report", run}).status, 0);
    EXPECT_EQ(run_tvx({"report", "milk", "-o", "r1"}).status, 0);
    ASSERT_NO_FATAL_FAILURE(replace("", 1.0));
    for (const std::string& place : {run, std::string("milk")}) {
        const auto r = run_tvx({"report", place, "-o", "r2"});
        EXPECT_EQ(r.status, 1) << place;
        EXPECT_TRUE(holds(r.output, "are not of the study that now stands in")) << r.output;
    }
    EXPECT_FALSE(fs::exists("r2"));
}

TEST_F(replaced_study, says_that_its_report_is_an_earlier_one) {
    herd.write();
    const std::vector<std::string> rest{"milk.csv",  "milk ~ herd + nrm(animal)", "-p",     "ped.csv", "-o", "milk",
                                        "--pedcols", "id,father,mother",          "--force"};
    const auto with = [&](const char* command) {
        std::vector<std::string> args{command};
        args.insert(args.end(), rest.begin(), rest.end());
        return run_tvx(args);
    };
    ASSERT_EQ(with("fit").status, 0);
    EXPECT_TRUE(holds(with("prep").output, "Note: milk/report/ is of the study that stood here before"));
    EXPECT_FALSE(holds(with("fit").output, "milk/report/ is of"));
}

// Fits of reduced rank of other records under the same parameter file are made anew.
TEST_F(replaced_study, has_its_ranks_fitted_anew) {
    if (std::system("command -v snakemake >/dev/null 2>&1") != 0) GTEST_SKIP() << "no Snakemake here";
    population p = make_population(20, 60, 2);
    const auto prepare = [&](double more) {
        population noise = p;
        text_table t{{"id", "herd", "pen", "w", "f"}, {}};
        for (std::size_t k = 21; k <= p.animals.size(); ++k) {
            const auto& a = p.animals[k - 1];
            t.rows.push_back({id_of(static_cast<int>(k)), "H" + std::to_string(a.herd), "P" + std::to_string(k % 9),
                              number_text(50.0 + a.genetic + 3.0 * noise.normal() + (k % 7 == 0 ? more : 0.0)),
                              number_text(20.0 + 0.5 * a.genetic + noise.normal())});
        }
        write_file("t.csv", t.text());
        write_file("p.csv", pedigree_table(p).text());
        const auto r = run_tvx({"prep", "t.csv", "w + f ~ herd + nrm(id) + (1|pen)", "-p", "p.csv", "-o", "s",
                                "--force", "--start", "start.txt"});
        ASSERT_EQ(r.status, 0) << r.output;
    };
    write_file("start.txt", "5 1 2  1 0.1 1  8 1 3\n");
    ASSERT_NO_FATAL_FAILURE(prepare(0.0));
    const std::string par = read_file("s/s.par");
    const auto ranks = run_tvx({"rank", "s", "1..1", "-j", "2"});
    ASSERT_NE(ranks.status, tvx::program_stopped) << ranks.output;
    const std::string first = read_file("s/rank/rank.tsv");
    EXPECT_EQ(tarvex::lines_of(first).size(), 2u);
    ASSERT_NO_FATAL_FAILURE(prepare(2.0));
    ASSERT_EQ(read_file("s/s.par"), par) << "only the data are others";
    ASSERT_EQ(run_tvx({"rank", "s", "1..1", "-j", "2"}).status, ranks.status);
    EXPECT_NE(read_file("s/rank/rank.tsv"), first);
}

// A test of an effect leaves the study's own run its last one; a pedigree that no term uses is told and no hindrance.
TEST_F(replaced_study, keeps_its_own_run_the_last) {
    ASSERT_NO_FATAL_FAILURE(fit("milk ~ herd + nrm(animal) + (1|pen)"));
    EXPECT_EQ(run_tvx({"lrt", "milk", "--drop", "pen"}).status, 0);
    EXPECT_EQ(runs(), 2u);
    ASSERT_EQ(run_tvx({"report", "milk", "-o", "last"}).status, 0);
    EXPECT_TRUE(holds(read_file("last/estimates.tsv"), "\npen\t")) << read_file("last/estimates.tsv");
    EXPECT_EQ(run_tvx({"lrt", "milk", "--drop", "(1|pen)"}).status, 0);
    const auto unused = run_tvx(
        {"fit", "milk.csv", "milk ~ herd + (1|pen)", "-p", "ped.csv", "-o", "other", "--pedcols", "id,father,mother"});
    EXPECT_NE(unused.status, 1) << unused.output;
    EXPECT_TRUE(holds(unused.output, "the pedigree is not used")) << unused.output;
    EXPECT_TRUE(holds(run_tvx({"check", "milk"}).output, "Forecast"));
}

// What check finds is told once by fit.
TEST_F(replaced_study, remarks_of_fit_come_once) {
    herd.write();
    std::istringstream in(read_file("milk.csv"));
    std::string text;
    for (std::string line; std::getline(in, line);) {
        const auto at = line.find(",H");
        text += line + (text.empty() ? ",owner" : ",O" + line.substr(at + 2, 1)) + "\n";
    }
    write_file("milk.csv", text);
    const auto r = run_tvx({"fit", "milk.csv", "milk ~ herd + owner + nrm(animal)", "-p", "ped.csv", "-o", "milk",
                            "--pedcols", "id,father,mother"});
    EXPECT_EQ(r.status, 0) << r.output;
    const auto first = r.output.find("W411");
    ASSERT_NE(first, std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("W411", first + 1), std::string::npos) << r.output;
}

} // namespace
