// Cells of the table: numbers, missing values, the records that each trait can use, and the codes of classes.
#include "control/limits.h"
#include "tvx/commands.h"
#include "tvx/draft.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <numeric>

namespace tvx {

namespace {

constexpr double none = std::numeric_limits<double>::quiet_NaN();

std::string place(const draft& d, std::size_t row, std::size_t col) {
    return "line " + std::to_string(d.table.lines[row]) + ", column \"" + d.table.names[col] +
           "\": " + shown(d.table.at(row, col));
}

struct column_reader {
    draft& d;
    std::vector<double> na;         // numbers among the texts of missing values
    std::vector<std::string> zero;  // columns whose zeros are missing
    std::vector<std::string> bad;   // cells that are no numbers
    std::vector<std::string> codes; // what looks like a code for missing
};

column_reader make_reader(draft& d) {
    column_reader r{d, {}, {}, {}, {}};
    // -999 given as missing covers -999.0 in the table
    for (const auto& text : d.na.more) {
        double x = 0.0;
        if (csv_number(d.table, text, x)) r.na.push_back(x);
    }
    if (!d.request.zero_missing.empty()) r.zero = word_list(d.request.zero_missing);
    for (const auto& name : r.zero) csv_column(d.table, name, "--zero-is-missing");
    return r;
}

bool zero_missing(const column_reader& r, std::size_t col) {
    return std::count(r.zero.begin(), r.zero.end(), r.d.table.names[col]) > 0;
}

std::vector<double> read_numbers(column_reader& r, std::size_t col) {
    const draft& d = r.d;
    const bool zero = zero_missing(r, col);
    // `none` where the cell is missing; every bad cell is noted, so that the user hears of all at once
    std::vector<double> x(d.table.rows, none);
    for (std::size_t row = 0; row < d.table.rows; ++row) {
        const auto cell = d.table.at(row, col);
        double v = 0.0;
        if (d.na.missing(cell)) continue;
        if (!csv_number(d.table, cell, v)) {
            r.bad.push_back(place(d, row, col) + " is no number");
            continue;
        }
        if ((zero && v == 0.0) || std::count(r.na.begin(), r.na.end(), v) > 0) continue;
        x[row] = v;
    }
    return x;
}

// -9, -99, -999 .. and 999, 9999 .. stand for missing values where all other values lie far from them.
void look_for_codes(column_reader& r, const std::vector<double>& x, std::size_t col) {
    // codes are set apart first: they must not count among the values they are compared with
    std::map<double, int> extreme;
    double low = INFINITY, high = -INFINITY;
    static constexpr double codes[] = {-9, -99, -999, -9999, -99999, 999, 9999, 99999, 999999};
    for (const double v : x) {
        if (std::isnan(v)) continue;
        if (std::find(std::begin(codes), std::end(codes), v) != std::end(codes))
            ++extreme[v];
        else {
            low = std::min(low, v);
            high = std::max(high, v);
        }
    }
    for (const auto& [code, n] : extreme) {
        // a negative code among values that are not, or a large one far beyond them
        const bool below = code < 0 && low >= 0, above = code > 0 && n > 2 && high < code / 5;
        if (!(below || above)) continue;
        const std::string text = std::to_string(static_cast<long long>(code));
        r.codes.push_back("column \"" + r.d.table.names[col] + "\": " + std::to_string(n) + " cells are " + text +
                          ", all others lie from " + std::to_string(low) + " to " + std::to_string(high));
    }
}

void throw_bad_cells(const column_reader& r) {
    const std::string file = "\"" + r.d.table.file + "\"";
    if (!r.bad.empty())
        throw fault{file + ": " + std::to_string(r.bad.size()) +
                    (r.bad.size() == 1 ? " cell is no number" : " cells are no numbers") +
                    " (missing values: --na):\n" + few_lines(r.bad, 20)};
    if (!r.codes.empty() && !r.d.request.keep_codes)
        throw fault{file + ": codes for missing values? --na -999 takes them so, --keep-codes as values:\n" +
                    few_lines(r.codes, 20)};
}

bool class_missing(const draft& d, const draft_class& c, const std::vector<char>& zero, std::size_t row) {
    for (std::size_t k = 0; k < c.cols.size(); ++k) {
        const auto cell = d.table.at(row, c.cols[k]);
        // an animal "0" is the unknown one
        if (d.na.missing(cell) || ((zero[k] != 0 || c.animals) && cell == "0")) return true;
    }
    // class of a parent: the pedigree tells which
    if (c.parent == 0) return false;
    const auto at = d.ped.place.find(d.table.at(row, c.cols[0]));
    if (at == d.ped.place.end()) return true;
    return (c.parent == 1 ? d.ped.sire : d.ped.dam)[at->second] < 0;
}

// Rows in which a class has a cell.
std::vector<char> present_classes(const column_reader& r, const draft_class& c) {
    std::vector<char> zero, there(r.d.table.rows);
    for (const auto col : c.cols) zero.push_back(zero_missing(r, col) ? 1 : 0);
    for (std::size_t row = 0; row < there.size(); ++row) there[row] = class_missing(r.d, c, zero, row) ? 0 : 1;
    return there;
}

std::string class_name(const draft_class& c) {
    std::string text;
    for (const auto& f : c.from) text += (text.empty() ? "" : ":") + f;
    return text;
}

// What a trait's model needs of a record.
struct needs {
    std::vector<int> classes, numbers;
};

needs needs_of(const draft& d, int number) {
    needs n;
    const auto add = [](std::vector<int>& list, int i) {
        if (i >= 0 && std::count(list.begin(), list.end(), i) == 0) list.push_back(i);
    };
    for (const auto& f : d.effects) {
        if (std::count(f.e.traits.begin(), f.e.traits.end(), number) == 0) continue;
        add(n.classes, f.cls);
        add(n.numbers, f.number);
    }
    return n;
}

// Leaves out records of a trait that lack a class or covariable; with all traits in a line the models are the same.
void drop_incomplete(draft& d, const std::vector<std::vector<char>>& there) {
    std::map<std::string, std::int64_t> dropped;
    std::vector<std::string> reason(d.table.rows);
    for (std::size_t iq = 0; iq < d.y.size(); ++iq) {
        const needs n = needs_of(d, d.s.traits[iq].number);
        for (std::size_t row = 0; row < d.table.rows; ++row) {
            if (std::isnan(d.y[iq][row])) continue;
            std::string why;
            // the first thing that is missing is told
            for (const int c : n.classes)
                if (why.empty() && there[c][row] == 0) why = "missing " + class_name(d.classes[c]);
            for (const int k : n.numbers)
                if (why.empty() && std::isnan(d.numbers[k].value[row])) why = "missing " + d.numbers[k].from;
            if (why.empty()) continue;
            d.y[iq][row] = none;
            reason[row] = why;
        }
    }
    for (std::size_t row = 0; row < d.table.rows; ++row) {
        const bool used = std::any_of(d.y.begin(), d.y.end(), [&](const auto& y) { return !std::isnan(y[row]); });
        if (!reason[row].empty())
            ++dropped[reason[row]];
        else if (!used)
            ++dropped["no trait recorded"];
    }
    for (const auto& [why, n] : dropped) d.s.dropped.push_back({why, n});
}

// Mean and standard deviation of the records used, summed in ascending order so that the order of lines is no matter.
void set_moments(study_trait& t, const std::vector<double>& y) {
    std::vector<double> x;
    for (const double v : y)
        if (!std::isnan(v)) x.push_back(v);
    std::sort(x.begin(), x.end());
    t.records = static_cast<std::int64_t>(x.size());
    if (x.empty()) throw fault{"trait \"" + t.name + "\" has no complete record"};
    t.mean = std::accumulate(x.begin(), x.end(), 0.0) / static_cast<double>(x.size());
    double squares = 0.0;
    for (const double v : x) squares += (v - t.mean) * (v - t.mean);
    t.sd = x.size() > 1 ? std::sqrt(squares / static_cast<double>(x.size() - 1)) : 0.0;
    if (!(t.sd > 0.0)) throw fault{"trait \"" + t.name + "\" is the same in all its records"};
}

// Brings a trait to a standard deviation from 1 to 10, by a power of ten, in one rounding of the cell's digits.
void scale_trait(draft& d, study_trait& t, std::vector<double>& y) {
    set_moments(t, y);
    if (d.request.keep_units) return;
    // 1e-9: a deviation of exactly 10^k is not brought below 1
    t.power = static_cast<int>(std::floor(std::log10(t.sd) + 1e-9));
    if (t.power == 0) return;
    const std::size_t col = csv_column(d.table, t.name, "formula");
    for (std::size_t row = 0; row < y.size(); ++row)
        // from the cell once more: multiplying would round twice
        if (!std::isnan(y[row])) csv_number(d.table, d.table.at(row, col), t.power, y[row]);
}

// A code for missing records that no record has.
void choose_missing(draft& d) {
    int code = -999;
    const auto taken = [&] {
        for (const auto& y : d.y)
            if (std::find(y.begin(), y.end(), static_cast<double>(code)) != y.end()) return true;
        return false;
    };
    // -999, -9999, -99999, ..
    while (taken()) code = code * 10 - 9;
    for (auto& t : d.s.traits) t.missing = code;
}

bool row_used(const draft& d, std::size_t row) {
    return std::any_of(d.y.begin(), d.y.end(), [&](const auto& y) { return !std::isnan(y[row]); });
}

// Control values become whole numbers from 0 on: moved by a power of ten and shifted.
void scale_control(draft& d, draft_number& n) {
    int power = 0;
    double low = INFINITY;
    const auto whole = [&](double x) {
        const double v = x * std::pow(10.0, power);
        return std::fabs(v - std::round(v)) < 1e-6;
    };
    for (std::size_t row = 0; row < d.table.rows; ++row) {
        if (!row_used(d, row)) continue;
        // as many decimals as the value with most of them
        while (power < 7 && !whole(n.value[row])) ++power;
        low = std::min(low, n.value[row]);
    }
    if (power == 7) throw fault{"\"" + n.from + "\": values of a control variable have at most six decimals"};
    const double factor = std::pow(10.0, power);
    d.s.control_power = power;
    // to 0 only if there are values below it
    d.s.control_shift = low < 0 ? std::round(low * factor) : 0.0;
    std::vector<double> values;
    for (std::size_t row = 0; row < d.table.rows; ++row) {
        n.value[row] = std::round(n.value[row] * factor) - d.s.control_shift;
        if (row_used(d, row)) values.push_back(n.value[row]);
    }
    std::sort(values.begin(), values.end());
    values.erase(std::unique(values.begin(), values.end()), values.end());
    n.levels = static_cast<int>(values.size());
    if (n.levels > tarvex::maxage)
        throw fault{"\"" + n.from + "\" has " + std::to_string(n.levels) +
                    " different values; a control variable has at most " + std::to_string(tarvex::maxage) +
                    ": round it"};
    if (values.back() > 2e9) throw fault{"\"" + n.from + "\": values of a control variable are too large"};
}

void check_residual_classes(const draft& d, const draft_number& n) {
    if (d.s.residuals.empty()) return;
    std::vector<std::string> outside;
    const auto inside = [&](double x) {
        return std::any_of(d.s.residuals.begin(), d.s.residuals.end(),
                           [&](const auto& r) { return x >= r.from && x <= r.to; });
    };
    const double factor = std::pow(10.0, d.s.control_power);
    for (std::size_t row = 0; row < d.table.rows; ++row)
        if (row_used(d, row) && !inside((n.value[row] + d.s.control_shift) / factor))
            outside.push_back(place(d, row, n.col));
    if (!outside.empty())
        throw fault{"values outside the classes of res(" + n.from + ": ..):\n" + few_lines(outside, 10)};
}

} // namespace

void read_cells(draft& d) {
    column_reader r = make_reader(d);
    for (auto& t : d.s.traits) {
        const std::size_t col = csv_column(d.table, t.name, "formula");
        d.y.push_back(read_numbers(r, col));
        look_for_codes(r, d.y.back(), col);
    }
    for (auto& n : d.numbers) {
        n.value = read_numbers(r, n.col);
        look_for_codes(r, n.value, n.col);
    }
    // in this order: cells, then incomplete records, then units and codes, which depend on the records that are left
    throw_bad_cells(r);
    std::vector<std::vector<char>> there;
    for (const auto& c : d.classes) there.push_back(present_classes(r, c));
    drop_incomplete(d, there);
    // units are chosen from the records that are used
    for (std::size_t i = 0; i < d.y.size(); ++i) scale_trait(d, d.s.traits[i], d.y[i]);
    choose_missing(d);
    for (auto& n : d.numbers)
        if (n.control) {
            scale_control(d, n);
            check_residual_classes(d, n);
        }
}

namespace {

// Text of a class in a row; the parts of a combination are joined.
std::string_view class_text(const draft& d, const draft_class& c, std::size_t row, std::string& buffer) {
    // a column of sires or dams that the table need not have: the animal leads to it
    if (c.parent != 0) {
        const int i = d.ped.place.at(d.table.at(row, c.cols[0]));
        return d.ped.ids[(c.parent == 1 ? d.ped.sire : d.ped.dam)[i]];
    }
    if (c.cols.size() == 1) return d.table.at(row, c.cols[0]);
    buffer.clear();
    for (const auto col : c.cols) {
        if (!buffer.empty()) buffer += ':';
        buffer += d.table.at(row, col);
    }
    return buffer;
}

// Codes in the order of identifiers.
void number_own(draft& d, draft_class& c, const std::vector<char>& used) {
    std::unordered_map<std::string, int> place;
    std::vector<std::string_view> ids;
    std::vector<int> at(d.table.rows, -1);
    std::string buffer;
    for (std::size_t row = 0; row < d.table.rows; ++row) {
        if (used[row] == 0) continue;
        // numbered as they are met, then by their order
        const auto [entry, fresh] = place.emplace(class_text(d, c, row, buffer), static_cast<int>(ids.size()));
        if (fresh) ids.push_back(entry->first);
        at[row] = entry->second;
    }
    std::vector<int> order(ids.size()), code(ids.size());
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(), [&](int a, int b) { return before(ids[a], ids[b]); });
    for (std::size_t k = 0; k < order.size(); ++k) code[order[k]] = static_cast<int>(k) + 1;
    for (const int i : order) c.ids.emplace_back(ids[i]);
    for (std::size_t row = 0; row < d.table.rows; ++row)
        if (at[row] >= 0) c.code[row] = code[at[row]];
    c.levels = static_cast<int>(ids.size());
    // combinations are not looked at: their parts are
    if (const auto twins = near_twins(ids); !twins.empty() && c.cols.size() == 1)
        d.s.remarks.push_back("\"" + class_name(c) +
                              "\": identifiers that differ in case, blanks or leading zeros only:\n" +
                              few_lines(twins, 3));
}

// Codes in the order of a relationship matrix, which may have more levels than the records.
void number_by_matrix(draft& d, draft_class& c, const std::vector<char>& used) {
    c.matrix = std::make_shared<relationship>(read_relationship(c.file));
    // before the levels are sorted with their rows
    if (d.request.blend > 0) blend(*c.matrix, d.request.blend);
    sort_levels(*c.matrix);
    c.ids = c.matrix->ids;
    c.levels = static_cast<int>(c.ids.size());
    std::unordered_map<std::string_view, int> code;
    for (int i = 0; i < c.levels; ++i)
        if (!code.emplace(c.ids[i], i + 1).second)
            throw fault{"\"" + c.file + "\": " + shown(c.ids[i]) + " stands twice"};
    std::vector<std::string> unknown;
    // levels without records keep their codes: the matrix is whole
    std::string buffer;
    for (std::size_t row = 0; row < d.table.rows; ++row) {
        if (used[row] == 0) continue;
        const auto at = code.find(class_text(d, c, row, buffer));
        if (at != code.end())
            c.code[row] = at->second;
        else
            unknown.push_back(place(d, row, c.cols[0]));
    }
    if (!unknown.empty()) throw fault{"levels that \"" + c.file + "\" does not have:\n" + few_lines(unknown, 10)};
}

// Rows whose class is needed by a trait that is recorded there.
std::vector<char> rows_of_class(const draft& d, std::size_t which) {
    // a level that only unused rows have gets no code
    std::vector<char> used(d.table.rows, 0);
    for (std::size_t iq = 0; iq < d.y.size(); ++iq) {
        const needs n = needs_of(d, d.s.traits[iq].number);
        if (std::count(n.classes.begin(), n.classes.end(), static_cast<int>(which)) == 0) continue;
        for (std::size_t row = 0; row < used.size(); ++row)
            if (!std::isnan(d.y[iq][row])) used[row] = 1;
    }
    return used;
}

// Animals to be kept without records: all of the pedigree, or those that a file lists.
void mark_candidates(draft& d, std::vector<char>& keep) {
    const std::string& which = d.request.candidates;
    if (which.empty()) return;
    // or the program would leave them out again
    d.s.run_options.push_back("--allped");
    if (which == "all") {
        std::fill(keep.begin(), keep.end(), char{1});
        return;
    }
    const csv_table list = read_csv(which, csv_heading::found, {d.ped.animal_name});
    std::vector<std::string> unknown;
    for (std::size_t row = 0; row < list.rows; ++row) {
        const auto at = d.ped.place.find(list.at(row, 0));
        if (at == d.ped.place.end())
            unknown.push_back("line " + std::to_string(list.lines[row]) + ": " + shown(list.at(row, 0)));
        else
            keep[at->second] = 1;
    }
    if (!unknown.empty())
        throw fault{"\"" + which + "\": candidates that are not in the pedigree:\n" + few_lines(unknown, 10)};
}

void tell_strangers(draft& d, const std::vector<std::string_view>& strangers) {
    if (strangers.empty()) return;
    std::vector<std::string> list;
    for (const auto id : strangers) list.push_back(shown(id));
    d.s.remarks.push_back(std::to_string(list.size()) + " animals of the table have no line in the pedigree:\n" +
                          few_lines(list, 5));
}

void fill_animals(draft& d) {
    const auto number = [&](int parent) { return parent < 0 ? 0 : d.animal_code[parent]; };
    std::size_t n = 0;
    for (const int c : d.animal_code) n = std::max(n, static_cast<std::size_t>(c));
    if (n > static_cast<std::size_t>(tarvex::maxan))
        throw fault{std::to_string(n) + " animals are needed; the program takes " + std::to_string(tarvex::maxan)};
    d.s.animals.resize(n);
    for (std::size_t i = 0; i < d.ped.ids.size(); ++i) {
        // an animal that neither records nor candidates lead to
        if (d.animal_code[i] == 0) continue;
        d.s.animals[d.animal_code[i] - 1] = {std::string(d.ped.ids[i]),
                                             number(d.ped.sire[i]),
                                             number(d.ped.dam[i]),
                                             std::string(d.ped.birth[i]),
                                             0,
                                             d.ped.line[i]};
    }
}

// All columns with animals share the codes of the pedigree, reduced to what the records and candidates need.
void number_animals(draft& d) {
    std::vector<std::vector<int>> at;
    std::vector<std::string_view> strangers;
    std::string buffer;
    for (std::size_t k = 0; k < d.classes.size(); ++k) {
        at.emplace_back();
        if (!d.classes[k].animals) continue;
        at.back().assign(d.table.rows, -1);
        const auto used = rows_of_class(d, k);
        for (std::size_t row = 0; row < d.table.rows; ++row) {
            if (used[row] == 0) continue;
            const std::size_t before_it = d.ped.ids.size();
            const int i = pedigree_place(d.ped, class_text(d, d.classes[k], row, buffer));
            // it was not there, and has been added
            if (d.ped.ids.size() > before_it) strangers.push_back(d.ped.ids.back());
            at[k][row] = i;
        }
    }
    if (d.s.sire_model) d.ped = sire_pedigree(d.ped);
    std::vector<char> keep(d.ped.ids.size(), 0);
    for (const auto& list : at)
        for (const int i : list)
            if (i >= 0) keep[i] = 1;
    mark_candidates(d, keep);
    mark_ancestors(d.ped, keep);
    d.animal_code = pedigree_codes(d.ped, keep);
    tell_strangers(d, strangers);
    fill_animals(d);
    for (std::size_t k = 0; k < d.classes.size(); ++k)
        for (std::size_t row = 0; row < at[k].size(); ++row)
            if (at[k][row] >= 0) d.classes[k].code[row] = d.animal_code[at[k][row]];
    if (const auto twins = near_twins(d.ped.ids); !twins.empty())
        d.s.remarks.push_back("pedigree: identifiers that differ in case, blanks or leading zeros only:\n" +
                              few_lines(twins, 3));
}

} // namespace

void number_classes(draft& d) {
    for (auto& c : d.classes) c.code.assign(d.table.rows, 0);
    for (std::size_t k = 0; k < d.classes.size(); ++k)
        if (!d.classes[k].file.empty())
            number_by_matrix(d, d.classes[k], rows_of_class(d, k));
        else if (!d.classes[k].animals)
            number_own(d, d.classes[k], rows_of_class(d, k));
    const bool animals = std::any_of(d.classes.begin(), d.classes.end(), [](const auto& c) { return c.animals; });
    if (animals) number_animals(d);
    std::string key;
    // one key for all columns with animals
    for (auto& c : d.classes)
        if (c.animals) {
            if (key.empty()) key = c.name;
            c.key = key;
            c.levels = static_cast<int>(d.s.animals.size());
        }
}

} // namespace tvx
