// Faults of tables, pedigrees and formulas: told with place and remedy, all at once, and nothing is written.
#include "tvx/commands.h"
#include "tvx/companion.h"
#include "tvx/formula.h"

#include <nlohmann/json.hpp>

namespace {

using namespace tvx_tests;
using tarvex::write_file;
namespace fs = std::filesystem;

class prep_faults : public tarvex::tarvex_test {
protected:
    void SetUp() override {
        write_file("t.csv", "id,herd,age,weight\na,1,2,10\nb,1,3,12\nc,2,4,15\nd,2,5,11\n");
        write_file("p.csv", "animal,sire,dam\nc,a,b\nd,a,b\n");
    }
    void TearDown() override {
        EXPECT_FALSE(fs::exists("t/study.json")) << "a study was left behind";
        tarvex_test::TearDown();
    }
    void expect(const std::string& text, const std::string& formula = "weight ~ herd + (1|id)",
                std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"prep", "t.csv", formula});
        expect_fault(more, text);
    }
    void expect_table(const std::string& table, const std::string& text) {
        write_file("t.csv", table);
        expect(text);
    }
    void expect_pedigree(const std::string& pedigree, const std::string& text, std::vector<std::string> more = {}) {
        write_file("p.csv", pedigree);
        more.insert(more.end(), {"-p", "p.csv"});
        expect(text, "weight ~ herd + nrm(id)", more);
    }
};

TEST_F(prep_faults, of_tables_that_are_none) {
    expect_table("", "\"t.csv\" is empty");
    expect_table("\n \n", "\"t.csv\" is empty");
    expect_table("id,herd,weight\n", "has a heading and no records");
    expect_table("id,herd,id\na,1,2\n", "columns 1 and 3 are both called \"id\"");
    expect_table("1,2,3\n4,5,6\n", "line 1 holds numbers where the names of the columns should be");
    expect_table("id,herd,weight\na,1,2\nb,1\nc;2;5\n", "line 3 has 2 cells, the heading 3\n  line 4 has 1 cells");
    fs::remove("t.csv");
    expect("cannot read file \"t.csv\"");
    fs::create_directory("t.csv");
    expect("cannot read file \"t.csv\": it is a folder");
}

TEST_F(prep_faults, of_broken_quotes_show_the_record) {
    expect_table("id,herd,weight\na,1,2\n\"b,1,3\nc,2,4\n",
                 "the quotes of the record that begins in line 3 are broken");
    expect_table("id,herd,weight\na,1,2\nb,\"x\"y,3\n", "the record that begins in line 3");
}

TEST_F(prep_faults, of_bytes_show_their_place) {
    expect_table("id,herd,weight\na,K\xfche,2\n", "line 2, byte 4: no UTF-8 text");
    expect_table("\xff\xfei\0d\0", "written in UTF-16");
    expect_table(std::string("id,herd,weight\na,1\0,2\n", 23), "line 2, byte 4");
    expect_table("id,herd,weight\na,\xed\xa0\x80,2\n", "line 2, byte 3"); // half of a surrogate pair
}

TEST_F(prep_faults, of_cells_show_line_column_and_text) {
    write_file("t.csv", "id,herd,weight\na,1,12x\nb,1,3\nc,2,\"4,5\"\nd,2,1e999\ne,2,--3\n");
    const auto r = run_tvx({"prep", "t.csv", "weight ~ herd + (1|id)"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(holds(r.output, "4 cells are no numbers")) << r.output;
    EXPECT_TRUE(holds(r.output, "line 2, column \"weight\": \"12x\"")) << r.output;
    EXPECT_TRUE(holds(r.output, "line 4, column \"weight\": \"4,5\"")) << r.output;
    EXPECT_TRUE(holds(r.output, "line 5, column \"weight\": \"1e999\"")) << r.output;
}

TEST_F(prep_faults, of_codes_for_missing_values_are_not_taken_as_values) {
    write_file("t.csv", "id,herd,age,weight\na,1,-999,10\nb,1,3,12\nc,2,-999,15\nd,2,5,11\na,1,4,13\n");
    const std::string formula = "weight ~ lin(age) + (1|herd)";
    expect("column \"age\": 2 cells are -999, all others lie from 3", formula);
    const auto taken = run_tvx({"prep", "t.csv", formula, "--na", "-999", "-o", "u"});
    EXPECT_EQ(taken.status, 0) << taken.output;
    EXPECT_TRUE(holds(taken.output, "2 left out: missing age")) << taken.output;
    EXPECT_EQ(run_tvx({"prep", "t.csv", formula, "--keep-codes", "-o", "v"}).status, 0);
}

TEST_F(prep_faults, of_pedigrees_are_told_all_at_once) {
    write_file("p.csv", "animal,sire,dam\n12,40,x\n40,7,y\n7,12,z\nq,q,x\nr,x,b\ns,a,b\ns,a,z\n,a,b\n");
    const auto r = run_tvx({"prep", "t.csv", "weight ~ nrm(id)", "-p", "p.csv"});
    EXPECT_EQ(r.status, 1);
    for (const char* text :
         {"7 -> 12 -> 40 -> 7", "own parent:\n  line 5: \"q\"", "two parentages:\n  \"s\": lines 7 and 8",
          "\"x\": sire of \"r\" (line 6), dam of \"12\" (line 2)", "without an identifier:\n  line 9"})
        EXPECT_TRUE(holds(r.output, text)) << "no " << text << " in\n" << r.output;
}

TEST_F(prep_faults, of_births) {
    expect_pedigree("animal,sire,dam,born\na,,,2005\nb,,,1999\nc,a,b,2003\n",
                    "parent \"a\" (line 2), 2005, of \"c\" (line 4), 2003", {"--born", "born"});
    expect_pedigree("animal,sire,dam,born\na,,,1.2.2005\nb,,,3.1.2005\nc,a,b,31.1.2005\n",
                    "parent \"a\" (line 2), 1.2.2005", {"--born", "born"});
    expect_pedigree("animal,sire,dam,born\na,,,soon\nc,a,b,2003\n", "line 2: \"soon\"", {"--born", "born"});
}

TEST_F(prep_faults, of_long_loops_show_a_short_chain) {
    std::string text = "animal,sire,dam\n";
    const int n = 1000000;
    for (int i = 1; i <= n; ++i) text += "s" + std::to_string(i) + ",s" + std::to_string(i % n + 1) + ",\n";
    expect_pedigree(text, "s1 -> s2 -> s3 -> s4 -> s5 -> s6 -> ... (999989 more) -> s999996");
}

TEST_F(prep_faults, of_names_show_the_nearest) {
    expect("formula: \"t.csv\" has no column \"wieght\"; did you mean \"weight\"?", "wieght ~ herd + (1|id)");
    expect("has no column \"Herd\"; did you mean \"herd\"?", "weight ~ Herd + (1|id)");
    expect("--pedcols: \"p.csv\" has no column \"father\"", "weight ~ nrm(id)",
           {"-p", "p.csv", "--pedcols", "animal,father,dam"});
}

TEST_F(prep_faults, of_names_unlike_all_others_show_the_columns) {
    expect("has no column \"stable\"; its columns are \"id\", \"herd\", \"age\", \"weight\"\n",
           "weight ~ stable + (1|id)");
    write_file("t.csv", "id,herd;age;weight\na,1;2;10\nb,1;3;12\n"); // another separator behind the first
    expect("has no column \"herd\"; its columns are ");
}

TEST_F(prep_faults, of_a_table_that_is_no_pedigree) {
    expect("\"t.csv\" has no columns with usual names for parents, and its second and third, \"herd\" and \"age\", are "
           "columns of the records: say which are meant by --pedcols animal,sire,dam",
           "weight ~ nrm(id)", {"-p", "t.csv"});
}

TEST_F(prep_faults, of_one_cell_are_told_as_one) {
    expect_table("id,herd,weight\na,1,12\nb,1,x\nc,2,5\n", "1 cell is no number (missing values: --na):\n  line 3");
}

TEST_F(prep_faults, for_machines_are_one_object) {
    const auto r = run_tvx({"--json", "prep", "t.csv", "wieght ~ herd + (1|id)"});
    EXPECT_EQ(r.status, 1);
    const auto told = nlohmann::json::parse(r.output);
    EXPECT_EQ(told["status"], 1);
    EXPECT_EQ(told["fault"], "formula: \"t.csv\" has no column \"wieght\"; did you mean \"weight\"?");
}

TEST_F(prep_faults, of_commands) {
    expect_fault({"fitt"},
                 "there is no command \"fitt\"; did you mean \"fit\"?\nCommands: fit, prep, check, run, report, ");
    expect_fault({"frobnicate", "x"}, "there is no command \"frobnicate\"\nCommands: fit");
    expect_fault({}, "a command is needed\nCommands: fit");
    expect_fault({"fit"}, "DATA is required");
    expect_fault({"fit", "t.csv", "weight ~ herd", "--frob"}, "not expected: --frob");
}

TEST_F(prep_faults, leave_names_that_can_be_copied) {
    const auto r = run_tvx({"prep", "t.csv", "weight ~ (1|herd)", "-o", "my study"});
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(holds(r.output, "tvx run 'my study/my_study.par'\n")) << r.output;
}

TEST_F(prep_faults, of_models_that_cannot_be) {
    expect("needs a pedigree: give it with -p", "weight ~ nrm(id)");
    expect("no random effect", "weight ~ herd");
    expect("a level for each record", "weight ~ herd + (1|id)");
    expect("do not go together", "weight ~ nrm(id) + sire(herd)", {"-p", "p.csv"});
    expect("random regression, rr(), is for one trait", "weight + age ~ rr(id,herd,2)");
    expect("res() goes with random regressions", "weight ~ (1|herd) + res(age: 1-3,4-9)");
    expect("stands twice in a model", "weight ~ herd + herd + (1|id)");
    expect("values outside the classes", "weight ~ rr(herd,age,1) + res(age: 2-3,5-9)");
    write_file("t.csv", "id,day,weight\na,1,10\na,1,12\nb,2,15\nb,1,11\n");
    expect("two records of a subject at one value of \"day\", which this model cannot have:\n  lines 2 and 3",
           "weight ~ rr(id,day,1)");
}

TEST_F(prep_faults, of_folders_leave_them_alone) {
    fs::create_directory("t");
    write_file("t/note.txt", "mine");
    expect("folder \"t\" is there already", "weight ~ (1|herd)");
    EXPECT_EQ(tarvex::read_file("t/note.txt"), "mine");
    EXPECT_EQ(run_tvx({"prep", "t.csv", "weight ~ (1|herd)", "--force"}).status, 0);
    EXPECT_EQ(tarvex::read_file("t/note.txt"), "mine");
    fs::remove_all("t");
}

// A file-size limit stands for a full disk: the file that does not fit is told, and no folder is left.
TEST_F(prep_faults, of_a_full_disk_leave_nothing) {
    std::string table = "id,herd,weight\n";
    for (int i = 0; i < 4000; ++i)
        table +=
            "a" + std::to_string(i % 900) + ",h" + std::to_string(i % 7) + "," + std::to_string(i * 7919 % 1000) + "\n";
    write_file("t.csv", table);
    const auto r = tarvex::run_binary("/bin/sh", {"-c", std::string("trap '' XFSZ; ulimit -f 8; exec ") +
                                                            TVX_COMPANION + " prep t.csv 'weight ~ herd + (1|id)'"});
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(holds(r.output, "cannot write file")) << r.output;
    EXPECT_FALSE(fs::exists("t"));
    EXPECT_FALSE(fs::exists("t.part"));
}

TEST_F(prep_faults, tell_near_twins) {
    write_file("t.csv", "id,herd,weight\nA 1,1,2\na1,1,3\nA01,2,5\nb,2,7\nA 1,1,4\n");
    const auto r = run_tvx({"prep", "t.csv", "weight ~ herd + (1|id)", "-o", "u"});
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(holds(r.output, "differ in case, blanks or leading zeros only")) << r.output;
}

TEST_F(prep_faults, are_none_in_a_table_of_ten_thousand_columns) {
    std::string names = "id,herd,weight", row1 = "a,1,5", row2 = "b,1,7", row3 = "b,2,9";
    for (int i = 1; i <= 9997; ++i) {
        names += ",c" + std::to_string(i);
        for (auto* row : {&row1, &row2, &row3}) *row += ",x";
    }
    write_file("t.csv", names + "\n" + row1 + "\n" + row2 + "\n" + row3 + "\n");
    const auto r = run_tvx({"prep", "t.csv", "weight ~ herd + (1|id)", "-o", "u"});
    EXPECT_EQ(r.status, 0) << r.output;
}

std::string fault_of(const std::string& formula) {
    try {
        tvx::read_formula(formula);
    } catch (const tvx::fault& f) {
        return f.text;
    }
    return "";
}

TEST(formulas, are_taken_apart) {
    const auto m =
        tvx::read_formula("y1 + `milk kg` ~ 1 + herd + herd:year + lin(age|sex) + bsp(age,5) + (1|gen:loc) + "
                          "nrm(a)&nrm(dam) + pe(a) + gin(gen,G.csv) + gin(b,\"a b/c.csv\") + "
                          "rr(pe(a), day, 3, bspq) + rr(a,day,2) + res(day: 0-6, 7-14.5); z~sire(r)+mgs(m)");
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(m[0].traits, (std::vector<std::string>{"y1", "milk kg"}));
    const auto& t = m[0].terms;
    ASSERT_EQ(t.size(), 14u);
    using k = tvx::term_kind;
    const k kinds[] = {k::mean, k::fixed, k::fixed, k::covariable, k::covariable, k::random, k::nrm,
                       k::nrm,  k::pe,    k::gin,   k::gin,        k::pe,         k::nrm,    k::residual};
    for (std::size_t i = 0; i < t.size(); ++i) EXPECT_EQ(t[i].kind, kinds[i]) << t[i].text;
    EXPECT_EQ(t[2].columns, (std::vector<std::string>{"herd", "year"}));
    EXPECT_EQ(t[3].covariable, "age");
    EXPECT_EQ(t[3].columns, std::vector<std::string>{"sex"});
    EXPECT_EQ(t[4].order, 5);
    EXPECT_EQ(t[4].basis, "BSP");
    EXPECT_EQ(t[5].columns, (std::vector<std::string>{"gen", "loc"}));
    EXPECT_GT(t[6].tied, 0);
    EXPECT_EQ(t[6].tied, t[7].tied);
    EXPECT_EQ(t[8].tied, 0);
    EXPECT_EQ(t[9].file, "G.csv");
    EXPECT_EQ(t[10].file, "a b/c.csv");
    EXPECT_EQ(t[11].basis, "BSPQ");
    EXPECT_EQ(t[11].order, 3);
    EXPECT_TRUE(t[12].plain_regression);
    EXPECT_EQ(t[12].covariable, "day");
    ASSERT_EQ(t[13].ranges.size(), 2u);
    EXPECT_EQ(t[13].ranges[1].to, 14.5);
    EXPECT_EQ(m[1].terms.at(1).kind, k::mgs);
}

TEST(formulas, show_where_they_cannot_be_read) {
    EXPECT_TRUE(holds(fault_of("y ~ herd + + age"),
                      "column 12: the name of a column is expected here\n  y ~ herd + + age\n             ^"))
        << fault_of("y ~ herd + + age");
    EXPECT_TRUE(holds(fault_of("y"), "\"~\" or \"+\" is expected"));
    EXPECT_TRUE(holds(fault_of(""), "the name of a trait is expected"));
    EXPECT_TRUE(holds(fault_of("y ~ herd*year"), "column 9:"));
    EXPECT_TRUE(holds(fault_of("y ~ (1|x"), "\")\" is expected"));
    EXPECT_TRUE(holds(fault_of("y ~ `x"), "backquote is not closed"));
    EXPECT_TRUE(holds(fault_of("y ~ lag(x)"), "there is no function \"lag\""));
    EXPECT_TRUE(holds(fault_of("y ~ pol(x)"), "pol() is used as in pol(age,2)"));
    EXPECT_TRUE(holds(fault_of("y ~ pol(x,0)"), "is used as in"));
    EXPECT_TRUE(holds(fault_of("y ~ nrm(a)&pe(a)"), "ties effects with a pedigree"));
    EXPECT_TRUE(holds(fault_of("y ~ rr(a,d,2) + res(d: 0-6,5-9)"), "must ascend"));
    EXPECT_TRUE(holds(fault_of("y ~ x; y ~ z"), "has two models"));
    EXPECT_EQ(fault_of("y~x"), "");
}

} // namespace
