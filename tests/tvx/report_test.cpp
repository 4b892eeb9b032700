// tvx run and tvx report against dense algebra, with text identifiers and a scaled trait, and the page in a browser.
#include "support/dense_oracle.h"
#include "tvx/herd.h"
#include "tvx/report.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

namespace {

using namespace tvx_tests;
using tarvex::read_file;
using tarvex::write_file;
namespace fs = std::filesystem;

class tvx_report : public herd_run {
protected:
    // Solutions, errors and accuracies of the report are those of dense algebra at these variances; returns how many.
    std::size_t expect_dense_solutions(const oracle::reml& e, const dense_herd& dense, double va) const {
        bool inbred = false;
        std::map<std::string, std::size_t> place;
        for (std::size_t k = 0; k < herd.y.size(); ++k) place[herd_of_sibs::id(static_cast<int>(k + 1))] = k;
        const auto solutions = read_table(run + "/report/solutions_animal.tsv");
        const auto& who = dense.who;
        for (const auto& row : solutions) {
            const std::size_t k = place.at(row.at("id"));
            double u = 0.0;
            std::vector<double> c(who.size());
            for (std::size_t i = 0; i < who.size(); ++i) {
                c[i] = va * dense.rel[k][who[i]];
                u += c[i] * e.py[i];
            }
            double reliability = 0.0;
            for (std::size_t i = 0; i < who.size(); ++i)
                for (std::size_t j = 0; j < who.size(); ++j) reliability += c[i] * e.p[i][j] * c[j];
            const double f = dense.rel[k][k] - 1.0;
            inbred = inbred || f > 0.01;
            EXPECT_NEAR(std::stod(row.at("solution")), u, 1e-6 * std::sqrt(va)) << row.at("id");
            EXPECT_NEAR(std::stod(row.at("inbreeding")), f, 1e-12);
            EXPECT_NEAR(std::stod(row.at("se")), std::sqrt((1.0 + f) * va - reliability), 1e-6 * std::sqrt(va));
            EXPECT_NEAR(std::stod(row.at("accuracy")), std::sqrt(std::max(0.0, reliability) / ((1.0 + f) * va)), 1e-6);
            EXPECT_EQ(row.at("sire"), herd_of_sibs::id(herd.sire[k]));
            EXPECT_EQ(row.at("records"), std::isnan(herd.y[k]) ? "0" : "1");
        }
        EXPECT_TRUE(inbred);
        return solutions.size();
    }
};

TEST_F(tvx_report, figures_of_the_tables_are_those_of_dense_algebra) {
    ASSERT_NO_FATAL_FAILURE(fit());
    const auto estimates = read_table(run + "/report/estimates.tsv");
    std::map<std::string, double> variance;
    for (const auto& e : estimates) variance[e.at("effect")] = std::stod(e.at("estimate"));
    const double va = variance.at("animal"), ve = variance.at("residual");
    EXPECT_NEAR(variance.at("phenotype"), va + ve, 1e-9 * (va + ve));
    EXPECT_GT(va, 1e5); // the user's units: the analysis was scaled

    const dense_herd dense(herd); // REML of the records in the user's units
    const auto& rel = dense.rel;
    const auto& who = dense.who;
    const oracle::reml e = dense.at(va, ve);
    oracle::dense dva = e.p; // at the maximum the gradient is small beside the information
    for (std::size_t i = 0; i < who.size(); ++i)
        for (std::size_t j = 0; j < who.size(); ++j) dva[i][j] = rel[who[i]][who[j]];
    const double g = oracle::gradient(e, dva), information = oracle::information(e, dva, dva);
    EXPECT_LT(g * g / information, 1e-3);

    EXPECT_GT(expect_dense_solutions(e, dense, va), 80u);
}

TEST_F(tvx_report, candidates_without_records_have_solutions_and_accuracies) {
    for (std::size_t k = 78; k < herd.y.size(); ++k) herd.y[k] = NAN; // the youngest: they tie nobody together
    const dense_herd dense(herd);
    double log_l = 0.0;
    for (const std::string which : {"", "all", "list.txt"}) {
        fs::remove_all("milk");
        write_file("list.txt", "animal\n" + herd_of_sibs::id(90) + "\n" + herd_of_sibs::id(84) + "\n");
        std::vector<std::string> more;
        if (!which.empty()) more = {"--candidates", which};
        ASSERT_NO_FATAL_FAILURE(fit("milk ~ herd + nrm(animal)", more));
        std::map<std::string, double> variance;
        for (const auto& e : read_table(run + "/report/estimates.tsv"))
            variance[e.at("effect")] = std::stod(e.at("estimate"));
        const double va = variance.at("animal"), ve = variance.at("residual");
        const std::size_t n = expect_dense_solutions(dense.at(va, ve), dense, va);
        const double found = nlohmann::json::parse(read_file(run + "/estimates.json"))["likelihood"]["log_l"];
        if (which.empty()) {
            log_l = found;
            EXPECT_LT(n, 79u);
        } else {
            EXPECT_NEAR(found, log_l, 1e-8 * std::fabs(log_l));
        }
        EXPECT_EQ(n == 90u, which == "all");
        const auto solutions = read_file(run + "/report/solutions_animal.tsv");
        EXPECT_EQ(holds(solutions, herd_of_sibs::id(84) + "\t"), !which.empty());
        EXPECT_EQ(holds(solutions, herd_of_sibs::id(85) + "\t"), which == "all");
    }
}

TEST_F(tvx_report, residuals_name_the_lines_of_the_table) {
    ASSERT_NO_FATAL_FAILURE(fit());
    const auto lines = tarvex::lines_of(read_file("milk.csv"));
    const auto residuals = read_table(run + "/report/residuals.tsv");
    ASSERT_EQ(residuals.size() + 1, lines.size());
    double sum = 0.0;
    for (const auto& row : residuals) {
        const std::string& line = lines.at(static_cast<std::size_t>(std::stoi(row.at("line")) - 1));
        EXPECT_NEAR(std::stod(row.at("observed")), std::stod(line.substr(0, line.find(','))), 1e-6) << line;
        EXPECT_NEAR(std::stod(row.at("fitted")) + std::stod(row.at("residual")), std::stod(row.at("observed")), 1e-6);
        sum += std::stod(row.at("residual"));
    }
    EXPECT_NEAR(sum, 0.0, 1e-4); // herds are fixed
    EXPECT_FALSE(read_table(run + "/report/fixed.tsv").empty());
}

TEST_F(tvx_report, same_inputs_are_not_run_again_and_others_are) {
    ASSERT_NO_FATAL_FAILURE(fit());
    const auto again = run_tvx({"run", "milk"});
    EXPECT_EQ(again.status, 0);
    EXPECT_TRUE(holds(again.output, "nothing was computed anew")) << again.output;
    const auto count = [] { return std::distance(fs::directory_iterator("milk/runs"), fs::directory_iterator()); };
    EXPECT_EQ(count(), 1);
    std::string par = read_file("milk/milk.par");
    write_file("milk/milk.par", par + "# a remark\n");
    EXPECT_EQ(run_tvx({"run", "milk"}).status, 0);
    EXPECT_EQ(count(), 2);
}

TEST_F(tvx_report, run_that_was_stopped_goes_on_in_its_folder) {
    ASSERT_NO_FATAL_FAILURE(fit());
    fs::remove(run + "/estimates.json"); // as Ctrl-C leaves it: a best point and no end
    std::string state = read_file(run + "/run.json");
    state.replace(state.find("\"finished\": true"), 16, "\"finished\": false");
    write_file(run + "/run.json", state);
    const auto on = run_tvx({"run", "milk"});
    EXPECT_EQ(on.status, 0) << on.output;
    EXPECT_TRUE(holds(on.output, "Going on in " + run)) << on.output;
    EXPECT_TRUE(holds(read_file(run + "/run.json"), "\"-c\""));
}

TEST_F(tvx_report, program_that_stops_is_told_with_its_words) {
    ASSERT_NO_FATAL_FAILURE(fit());
    const auto stopped = run_tvx({"run", "milk", "--option=--aireml3.0"});
    EXPECT_EQ(stopped.status, 4) << stopped.output;
    EXPECT_TRUE(holds(stopped.output, "invalid number in option --aireml3.0")) << stopped.output;
}

// A limit on the size of files stands for a full disk: what does not fit is told, and the next command goes on.
TEST_F(tvx_report, full_disks_are_told_and_the_same_command_goes_on) {
    ASSERT_NO_FATAL_FAILURE(fit());
    const std::string estimates = read_file(run + "/report/estimates.tsv");
    const auto limited = [](int blocks, const std::string& command) {
        return tarvex::run_binary("/bin/sh", {"-c", "trap '' XFSZ; ulimit -f " + std::to_string(blocks) + "; exec " +
                                                        std::string(TVX_COMPANION) + " " + command});
    };
    fs::remove_all("milk/runs");
    const auto copied = limited(4, "run milk"); // the inputs
    EXPECT_EQ(copied.status, 1) << copied.output;
    EXPECT_TRUE(holds(copied.output, "cannot copy ")) << copied.output;
    const auto written = limited(16, "run milk"); // files of the program
    EXPECT_EQ(written.status, 4) << written.output;
    EXPECT_TRUE(holds(written.output, "Cannot write file")) << written.output;
    EXPECT_EQ(run_tvx({"report", "milk"}).status, 1) << "no run is finished";
    const auto told = run_tvx({"run", "milk"});
    ASSERT_EQ(told.status, 0) << told.output;
    const auto page = limited(4, "report milk");
    EXPECT_EQ(page.status, 1) << page.output;
    EXPECT_TRUE(holds(page.output, "cannot write file")) << page.output;
    EXPECT_EQ(run_tvx({"report", "milk"}).status, 0);
    EXPECT_EQ(read_file(run + "/report/estimates.tsv"), estimates);
}

TEST_F(tvx_report, faults_of_the_inputs_are_told_before_a_run) {
    write_file("bad.par", "ANA UNI\nDAT none.dat\n a 3\n y\nEND\nMOD\n FIX a\n TR y 1\nEND\nVAR residual 1\n 1.0\n");
    const auto r = run_tvx({"run", "bad.par"});
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(holds(r.output, "nothing was run")) << r.output;
    EXPECT_FALSE(fs::exists("runs"));
    EXPECT_EQ(run_tvx({"run", "nothing.par"}).status, 1);
    EXPECT_EQ(run_tvx({"report", "."}).status, 1);
}

// ---- the page

std::string browser() {
    for (const char* name : {"chromium", "chromium-browser", "google-chrome"})
        if (std::system(("command -v " + std::string(name) + " >/dev/null 2>&1").c_str()) == 0) return name;
    return {};
}

int attribute(const std::string& page, const std::string& name) {
    const auto at = page.rfind(name + "=\"");
    return at == std::string::npos ? -1 : std::atoi(page.c_str() + at + name.size() + 2);
}

TEST_F(tvx_report, page_draws_its_pictures_without_errors) {
    ASSERT_NO_FATAL_FAILURE(fit());
    const std::string page = read_file(run + "/report/report.html");
    EXPECT_EQ(page.find("src=\"http"), std::string::npos);
    EXPECT_EQ(page.find("@import"), std::string::npos);
    if (browser().empty()) GTEST_SKIP() << "no Chromium here: the page is not looked at";
    const std::string command =
        "timeout 120 " + browser() +
        " --headless --no-sandbox --disable-gpu --enable-logging=stderr --user-data-dir=browser "
        "--dump-dom 'file://" +
        fs::absolute(run).string() + "/report/report.html' > dom.html 2> console.txt";
    ASSERT_EQ(std::system(command.c_str()), 0) << read_file("console.txt");
    const std::string dom = read_file("dom.html"), console = read_file("console.txt");
    EXPECT_EQ(attribute(dom, "data-errors"), 0);
    EXPECT_EQ(console.find("CONSOLE"), std::string::npos) << console;
    // ratios, two histograms, trend, residuals, way to the maximum
    EXPECT_EQ(attribute(dom, "data-pictures"), 6);
    EXPECT_NE(dom.find("Arrived"), std::string::npos);
    std::size_t bars = 0;
    for (auto at = dom.find("<rect"); at != std::string::npos; at = dom.find("<rect", at + 1)) ++bars;
    EXPECT_GT(bars, 10u);
}

TEST(tvx_page, texts_of_the_user_cannot_end_the_script) {
    tvx::json d = {{"title", "</script><b>&"}};
    const std::string page = tvx::page_of(d);
    EXPECT_EQ(page.find("</script><b>"), std::string::npos);
    EXPECT_NE(page.find("<title>&lt;/script>&lt;b>&amp;</title>"), std::string::npos);
}

// ---- the verdict

tvx::run_results with_end(const std::string& end) {
    tvx::run_results r;
    r.estimates =
        tvx::json::parse(R"({"blocks":[{"name":"residual","rows":[{"trait":1,"effect":"residual","coefficient":0}]},
      {"name":"animal","rows":[{"trait":1,"effect":"animal","coefficient":0}]}],
      "traits":[{"number":1,"name":"y"}],"estimates":[{"name":"COVS Z 1 1","block":0,"row":1,"column":1},
      {"name":"COVS A 1 1","block":1,"row":1,"column":1}],"end":)" +
                         end + "}");
    return r;
}

TEST(tvx_verdict, follows_decrement_rank_and_border) {
    const auto verdict = [](const std::string& end) { return tvx::judge(with_end(end)).verdict; };
    const std::string start = R"({"reason":"x","derivatives":true,"informed":2,"flat":[],"border":[],)";
    EXPECT_EQ(verdict(start + R"("half_decrement":0.0009,"rank_of_information":2})"), "arrived");
    EXPECT_EQ(verdict(start + R"("half_decrement":0.0011,"rank_of_information":2})"), "not arrived");
    EXPECT_EQ(verdict(R"({"reason":"x","derivatives":true,"informed":2,"half_decrement":0.0,"rank_of_information":2,
      "flat":[],"border":[{"block":1,"step":1,"kind":"variance","row":1,"column":1,"value":0.0}]})"),
              "boundary");
    const auto flat = tvx::judge(with_end(R"({"reason":"x","derivatives":true,"informed":2,"half_decrement":0.0,
      "rank_of_information":1,"border":[],"flat":[[{"name":"COVS Z 1 1","weight":1.0},{"name":"COVS A 1 1","weight":-1.0}]]})"));
    EXPECT_EQ(flat.verdict, "unidentified");
    EXPECT_EQ(flat.status, 3);
    ASSERT_EQ(flat.details.size(), 1u);
    EXPECT_EQ(flat.details[0], "no information on 1 (residual, y) - 1 (animal, y)");
    EXPECT_EQ(verdict(R"({"reason":"limit","derivatives":false,"converged":false,"border":[]})"), "not arrived");
    EXPECT_EQ(verdict("null"), "given");
}

} // namespace
