// Edit forms against a table of forms, values and exact records, and the descriptors one by one.
#include "support/edit_form.h"
#include "support/paths.h"

#include "support/array.h"
#include "support/stop.h"
#include "support/text.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <sstream>

using namespace tarvex;

namespace {

std::vector<std::string> parted(const std::string& text, const std::string& by) {
    std::vector<std::string> parts;
    std::size_t from = 0;
    for (std::size_t at = text.find(by); at != std::string::npos; at = text.find(by, from)) {
        parts.push_back(text.substr(from, at - from));
        from = at + by.size();
    }
    parts.push_back(text.substr(from));
    return parts;
}

std::vector<std::vector<std::string>> table_rows() {
    std::ifstream in(source_dir() + "/tests/support/data/editforms.tsv");
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("#") || line.starts_with("form\t")) continue;
        rows.push_back(parted(line, "\t"));
        rows.back().resize(4);
    }
    return rows;
}

std::string with_line_ends(std::string text) {
    for (std::size_t at = text.find("\\n"); at != std::string::npos; at = text.find("\\n", at))
        text.replace(at, 2, "\n");
    return text;
}

edit_value value_of(const std::string& item) {
    const std::string text = item.substr(2);
    if (item[0] == 'a') return {edit_value::kind::text, std::string_view(item).substr(2)};
    if (item[0] == 'i') return {edit_value::kind::integer, {}, std::atoll(text.c_str())};
    return {edit_value::kind::real, {}, 0, std::strtod(text.c_str(), nullptr)};
}

// What a READ row gives, in the words of the table.
std::string read_items(const std::string& form, const std::string& text) {
    const bool two = form.find("integer, real") != std::string::npos;
    const bool real = form.find("real") != std::string::npos;
    int i = -77;
    double r = -77.0;
    list_reader reader(text);
    list_read state = list_read::value;
    if (two || !real) state = reader.next(i);
    if (real && (state == list_read::value || state == list_read::null)) state = reader.next(r);
    std::string s = state == list_read::error ? "error" : state == list_read::end ? "end" : "ok";
    if (two || !real) s += " | i:" + (i == -77 ? "unchanged" : std::to_string(i));
    if (real) s += " | r:" + (r == -77.0 ? "unchanged" : std::isnan(r) ? "nan" : list_item(r));
    return s;
}

template <class... V> std::string edited(std::string_view form, const V&... values) {
    return edit(edit_form::edited(form), values...);
}

} // namespace

TEST(edit_form, gives_every_record_of_the_table) {
    int count = 0;
    for (const auto& row : table_rows()) {
        if (row[0].starts_with("READ")) continue;
        const auto items = parted(row[1], " | ");
        std::vector<edit_value> values;
        for (const auto& item : items)
            if (item.size() > 1) values.push_back(value_of(item));
        EXPECT_EQ(edit_form::fault(row[0]), nullptr) << row[0];
        EXPECT_EQ(edit(row[0], values), with_line_ends(row[2])) << row[0] << "  " << row[1];
        ++count;
    }
    EXPECT_EQ(count, 336);
}

TEST(edit_form, reads_every_text_of_the_table) {
    int count = 0;
    for (const auto& row : table_rows()) {
        if (!row[0].starts_with("READ") || row[0].starts_with("READ (i")) continue; // list-directed input alone
        ++count;
        const std::string text = row[1].substr(5);
        if (text == ".") {
            EXPECT_TRUE(read_items(row[0], text).starts_with("error"));
        } else {
            EXPECT_EQ(read_items(row[0], text), row[2]) << row[0] << "  " << text;
        }
    }
    EXPECT_EQ(count, 29);
}

TEST(edit_form, takes_texts_numbers_and_ranges) {
    array<double> x;
    x.allocate(3);
    x(1) = 1.5, x(2) = 2.5, x(3) = -0.25;
    const std::string name = "wean";
    const std::vector<int> codes{4, 5};
    EXPECT_EQ(edit("(a,1x,a,2i3,3f6.2)", name, "of", codes, x.prefix(3)), "wean of  4  5  1.50  2.50 -0.25\n");
    EXPECT_EQ(edit("(a,i2,f5.1)", 'A', 7, 3), "A 7  3.0\n");
    EXPECT_EQ(edit("(3f6.2)", x), "  1.50  2.50 -0.25\n");
}

TEST(edit_form, writes_to_an_output) {
    std::ostringstream sink;
    text_out out(sink);
    write(out, "(1x,a,t25,1h=,i7)", "No. of traits", 2);
    EXPECT_EQ(sink.str(), " No. of traits          =      2\n");
}

TEST(edit_form, ill_formed_texts_are_found) {
    for (const char* form :
         {"",     "a",     "(a",  "(a))",   "(a) b", "(,a)", "(a,,a)", "(a,)",   "(q)",   "(i)",
          "(f6)", "(g12)", "(t)", "(5hab)", "('ab)", "(h)",  "(0x)",   "(a i3)", "(2)a)", "((((((((((a))))))))))"})
        EXPECT_NE(edit_form::fault(form), nullptr) << form;
    for (const char* form : {"(A,I3,F6.2,G13.6)", "(/)", "()", "(x,a)", "( i 3 , f 10 . 4 )  ", "(3a,t30)", "(i2/i2)"})
        EXPECT_EQ(edit_form::fault(form), nullptr) << form;
    EXPECT_THROW(edit_form::edited("(a,q3)"), program_stop);
}

TEST(edit_form, blanks_and_case_do_not_count) {
    EXPECT_EQ(edit("( I 4 , F 1 0 . 4 )  ", 7, 0.5), "   7    0.5000\n");
    EXPECT_EQ(edit("(x,A)", "b"), " b\n");
}

TEST(edit_form, values_of_the_wrong_kind_stop) {
    EXPECT_THROW(edit("(i3)", "text"), program_stop);
    EXPECT_THROW(edit("(a)", 1.0), program_stop);
    EXPECT_THROW(edit("(i3)", 1.0), program_stop);
    EXPECT_THROW(edit("(1hx)", 1), program_stop); // no descriptor would ever take the value
}

TEST(edit_form, changed_digits_of_a_form) {
    std::string form = "(a2,i5,f14.3,f10.6)";
    form[17] = '2';
    EXPECT_EQ(edited(form, "AI iterate", 1, -1234.5678, 12.3456), "AI    1     -1234.568     12.35\n");
    form[16] = '3'; // the point is gone
    EXPECT_THROW(edited(form, "AI"), program_stop);
}

TEST(edit_form, quotes_and_counts_of_literals) {
    EXPECT_EQ(edited("(2'it''s ',a)", "x"), "it's it's x\n");
    EXPECT_EQ(edit("(78(1h*))"), std::string(78, '*') + "\n");
}

TEST(edit_form, extreme_reals) {
    EXPECT_EQ(edit_f(1e308, 20, 3), std::string(20, '*'));
    EXPECT_EQ(edit_f(-1e300, 310, 2).substr(0, 12), "     -100000");
    EXPECT_EQ(edit_g(5e-324, 13, 6), " 0.494066-323");
    EXPECT_EQ(edit_g(-1.7976931348623157e308, 13, 6), "-0.179769+309");
    EXPECT_EQ(edit_i(-9223372036854775807LL - 1, 20), "-9223372036854775808");
}
