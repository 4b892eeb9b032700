// The page of a report as it is seen: on a phone and on a screen, light and dark.
#include "tvx/herd.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

namespace {

using namespace tvx_tests;
using nlohmann::json;

std::string browser() {
    for (const char* name : {"chromium", "chromium-browser", "google-chrome"})
        if (std::system(("command -v " + std::string(name) + " >/dev/null 2>&1").c_str()) == 0) return name;
    return {};
}

// Measures of a page in a window of this width (tests/tvx/measure.js).
json measures(const std::string& report, int width, bool dark) {
    std::string page = read_file(report);
    const auto end = page.rfind("</body>");
    EXPECT_NE(end, std::string::npos);
    page.insert(end, "<script>" + read_file(std::string(TVX_SOURCE_DIR) + "/tests/tvx/measure.js") + "</script>");
    write_file("measured.html", page);
    write_file("window.html", "<!DOCTYPE html><body><pre id=seen></pre><script>addEventListener(\"message\", (e) => {"
                              "document.getElementById(\"seen\").textContent = e.data; });</script>"
                              "<iframe src=measured.html height=700 style=\"border:0\" width=" +
                                  std::to_string(width) + "></iframe></body>");
    const std::string command =
        "timeout 120 " + browser() +
        " --headless --no-sandbox --disable-gpu --hide-scrollbars --user-data-dir=browser --window-size=1300,900 " +
        (dark ? "--blink-settings=preferredColorScheme=0 " : "") + "--virtual-time-budget=4000 --dump-dom 'file://" +
        fs::absolute("window.html").string() + "' > dom.html 2> console.txt";
    EXPECT_EQ(std::system(command.c_str()), 0) << read_file("console.txt");
    const std::string dom = read_file("dom.html");
    const auto at = dom.find("MEASURES "), to = dom.find(" END</pre>");
    if (at == std::string::npos || to == std::string::npos) {
        ADD_FAILURE() << "nothing measured:\n" << dom.substr(0, 2000) << read_file("console.txt");
        return json();
    }
    return json::parse(dom.substr(at + 9, to - at - 9));
}

class report_page : public herd_run {
protected:
    static void expect_legible(const std::string& report, int width, bool dark) {
        SCOPED_TRACE(report + (dark ? ", dark, " : ", light, ") + std::to_string(width) + " wide");
        const json m = measures(report, width, dark);
        ASSERT_TRUE(m.is_object());
        EXPECT_EQ(m["dark"], dark);
        EXPECT_EQ(m["width"], width);
        EXPECT_LE(m["overflow"], 0) << "the page is wider than its window";
        EXPECT_GE(m["contrast"], 4.5) << m["contrast_of"];
        EXPECT_GE(m["font"], 10.0) << m["font_of"];
        EXPECT_EQ(m["clipped"], 0) << m["clipped_of"];
    }
};

TEST_F(report_page, is_legible_on_phones_and_screens) {
    if (browser().empty()) GTEST_SKIP() << "no Chromium here: the page is not looked at";
    ASSERT_NO_FATAL_FAILURE(fit());
    for (const bool dark : {false, true}) expect_legible(run + "/report/report.html", 390, dark);
    expect_legible(run + "/report/report.html", 1100, true);
}

TEST_F(report_page, of_a_random_regression_is_legible_too) {
    if (browser().empty()) GTEST_SKIP() << "no Chromium here: the page is not looked at";
    fs::copy_file(std::string(TVX_SOURCE_DIR) + "/examples/herd/growth.csv", "growth.csv");
    const auto r = run_tvx({"--quiet", "fit", "growth.csv",
                            "weight ~ diet:day + rr(chick,day,3) + res(day: 0-6,7-14,15-21)", "-o", "growth"});
    ASSERT_EQ(r.status, 0) << r.output;
    for (const bool dark : {false, true}) expect_legible("growth/report/report.html", 390, dark);
}

// The measures themselves: faults of each kind are found.
TEST_F(report_page, that_is_not_legible_is_found) {
    if (browser().empty()) GTEST_SKIP() << "no Chromium here: the page is not looked at";
    write_file("bad.html",
               "<!DOCTYPE html><html><body style=\"margin:0;background:#fff\"><p style=\"color:#aaa\">pale</p>"
               "<p style=\"font-size:7px\">small</p><div style=\"width:900px\">wide</div>"
               "<svg viewBox=\"0 0 100 20\" width=100><text x=\"-20\" y=\"10\">cut off</text></svg>"
               "</body></html>");
    const json m = measures("bad.html", 390, false);
    ASSERT_TRUE(m.is_object());
    EXPECT_EQ(m["overflow"], 510);
    EXPECT_NEAR(m["contrast"].get<double>(), 2.32, 0.01);
    EXPECT_EQ(m["contrast_of"], "pale");
    EXPECT_EQ(m["font"], 7.0);
    EXPECT_EQ(m["clipped"], 1);
}

} // namespace
