// The columns of the design are taken in the order mean, classes, covariables; each class without its first level. Then
// a model without confounding has full rank, and an equation that elimination finds dependent on those in front of it
// shows one.
#include "tvx/check_rank.h"

#include "basis/splines.h"
#include "sparse/lsqrank.h"
#include "support/stop.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <unordered_map>

namespace tvx {

namespace {

constexpr double vanishing = 1.0e-10; // pivot of a column of unit length that depends on others

struct term {
    std::string name;
    int first = 0, count = 0; // rows of the equations
    int column = 0;           // of a class, 0: covariable
};

struct design {
    std::vector<term> terms;
    int n = 0;
    std::vector<std::int64_t> start{0}; // (records+1)
    std::vector<int> col;
    std::vector<double> x;
    void add(int c, double value) {
        col.push_back(c);
        x.push_back(value);
    }
};

// Levels by their codes, from 0 as they are met.
int level_of(std::unordered_map<long long, int>& levels, long long code) {
    return levels.emplace(code, static_cast<int>(levels.size())).first->second;
}

// Values of the functions of a covariable, as the program has them.
class covariable_functions {
public:
    explicit covariable_functions(const fixed_covariable& c) : c_(c), row_(c.order + 1) {
        const auto [low, high] = std::minmax_element(c.value.begin(), c.value.end());
        low_ = *low;
        high_ = *high;
        for (const double x : c.value) mean_ += x / static_cast<double>(c.value.size());
        if (spline()) tarvex::knot_vector(low_, high_, c.order - c.degree, c.degree, knots_);
    }
    bool spline() const { return c_.type == tarvex::basis_kind::bsp && high_ > low_; }
    // Function k, from 1, at place k.
    const std::vector<double>& at(double x) {
        if (spline()) {
            tarvex::bspline_row(x, knots_, c_.degree, std::span<double>(row_).subspan(1));
        } else if (c_.type == tarvex::basis_kind::leg && high_ > low_) {
            legendre(-1.0 + 2.0 * (x - low_) / (high_ - low_));
        } else {
            // powers of a centred variable of range 1: columns of like size
            const double scale = high_ > low_ ? high_ - low_ : 1.0;
            row_[0] = 1.0;
            for (std::size_t k = 1; k < row_.size(); ++k) row_[k] = row_[k - 1] * (x - mean_) / scale;
        }
        return row_;
    }

private:
    void legendre(double t) { // up to factors, which change no span
        row_[0] = 1.0;
        if (row_.size() > 1) row_[1] = t;
        for (std::size_t k = 2; k < row_.size(); ++k) {
            const auto n = static_cast<double>(k);
            row_[k] = ((2.0 * n - 1.0) * t * row_[k - 1] - (n - 1.0) * row_[k - 2]) / n;
        }
    }
    const fixed_covariable& c_;
    double low_ = 0.0, high_ = 0.0, mean_ = 0.0;
    tarvex::array<double> knots_;
    std::vector<double> row_;
};

// Columns of the effects, each with its numbers by record: -1, none.
std::vector<std::vector<int>> number_classes(const fixed_part& part, design& d) {
    std::vector<std::vector<int>> columns;
    for (const auto& c : part.classes) {
        std::unordered_map<long long, int> levels;
        std::vector<int> numbers;
        for (const long long code : c.code) {
            // the first level stands in the mean
            const int k = level_of(levels, code);
            numbers.push_back(k > 0 ? d.n + k - 1 : -1);
        }
        d.terms.push_back({c.name, d.n, static_cast<int>(levels.size()) - 1, c.column});
        d.n += d.terms.back().count;
        columns.push_back(std::move(numbers));
    }
    return columns;
}

// A covariable within the design: column of its first function by record.
struct placed_covariable {
    covariable_functions functions;
    std::vector<int> column;
    int skipped = 0; // functions in front of the first column
};

std::vector<placed_covariable> number_covariables(const fixed_part& part, design& d, bool constant) {
    std::vector<placed_covariable> list;
    for (const auto& c : part.covariables) {
        placed_covariable p{covariable_functions(c), std::vector<int>(c.value.size(), d.n), 0};
        // the functions of a spline sum to 1: the first of them stands in the mean
        p.skipped = p.functions.spline() && constant && c.level.empty() ? 1 : 0;
        std::unordered_map<long long, int> levels;
        for (std::size_t k = 0; k < c.level.size(); ++k) p.column[k] = d.n + level_of(levels, c.level[k]) * c.order;
        const int sets = c.level.empty() ? 1 : static_cast<int>(levels.size());
        d.terms.push_back({c.name, d.n, sets * c.order - p.skipped, 0});
        d.n += d.terms.back().count;
        list.push_back(std::move(p));
    }
    return list;
}

design design_of(const fixed_part& part) {
    design d;
    const bool constant = part.mean || !part.classes.empty();
    // column 0 is the mean, or the first levels together
    d.n = constant ? 1 : 0;
    const auto classes = number_classes(part, d);
    auto covariables = number_covariables(part, d, constant);
    const std::size_t records = part.classes.empty() ? part.covariables[0].value.size() : part.classes[0].code.size();
    for (std::size_t r = 0; r < records; ++r) {
        if (constant) d.add(0, 1.0);
        for (const auto& c : classes)
            if (c[r] >= 0) d.add(c[r], 1.0);
        for (std::size_t i = 0; i < covariables.size(); ++i) {
            auto& p = covariables[i];
            const auto& row = p.functions.at(part.covariables[i].value[r]);
            for (int k = 1 + p.skipped; k <= part.covariables[i].order; ++k)
                if (row[k] != 0.0) d.add(p.column[r] + k - 1 - p.skipped, row[k]);
        }
        d.start.push_back(static_cast<std::int64_t>(d.col.size()));
    }
    return d;
}

// Normal equations of columns of unit length; columns of zeros keep their length.
tarvex::normal_equations equations_of(design& d) {
    std::vector<double> length(d.n, 0.0);
    // unit length: one limit for pivots of all columns
    for (std::size_t k = 0; k < d.col.size(); ++k) length[d.col[k]] += d.x[k] * d.x[k];
    for (std::size_t k = 0; k < d.col.size(); ++k) d.x[k] /= std::sqrt(length[d.col[k]]);
    tarvex::normal_equations a(d.n);
    for (std::size_t r = 0; r + 1 < d.start.size(); ++r)
        for (std::int64_t p = d.start[r]; p < d.start[r + 1]; ++p) {
            const auto i = static_cast<std::size_t>(p);
            a.diag[d.col[i]] += d.x[i] * d.x[i];
            for (std::int64_t q = d.start[r]; q < p; ++q) {
                const auto j = static_cast<std::size_t>(q);
                a.add(d.col[i], d.col[j], d.x[i] * d.x[j]);
            }
        }
    a.finish();
    return a;
}

// Dependent columns of a term when the rows marked `out` are not there.
int dependent_in(const term& t, const tarvex::normal_equations& a, const std::vector<int>& out) {
    const auto rank = tarvex::fast_rank(a, out, vanishing);
    return static_cast<int>(std::count_if(rank.dependent.begin(), rank.dependent.end(), [&](const auto& d) {
        return d.row >= t.first && d.row < t.first + t.count;
    }));
}

void mark(std::vector<int>& out, const term& t, int value) { std::fill_n(out.begin() + t.first, t.count, value); }

// The fewest terms in front of term i that hold all of its dependent columns, in the sense that none can be left out.
std::vector<std::size_t> holders(const design& d, const tarvex::normal_equations& a, std::size_t i, int dependent) {
    std::vector<int> out(d.n, 0);
    for (std::size_t k = i + 1; k < d.terms.size(); ++k) mark(out, d.terms[k], 1);
    std::vector<std::size_t> list;
    // from the nearest backwards: a term stays out if the dependency holds without it
    for (std::size_t k = i; k-- > 0;) {
        mark(out, d.terms[k], 1);
        if (dependent_in(d.terms[i], a, out) == dependent) continue;
        mark(out, d.terms[k], 0);
        list.insert(list.begin(), k);
    }
    return list;
}

// One of two classes tells the other.
bool nested_pair(const design& d, std::size_t i, const std::vector<std::size_t>& with, int dependent) {
    if (with.size() != 1) return false;
    const term &a = d.terms[i], &b = d.terms[with[0]];
    // told already by the pairs of classes
    return a.column > 0 && b.column > 0 && a.column != b.column && dependent == std::min(a.count, b.count);
}

std::string in_words(const design& d, std::size_t i, const std::vector<std::size_t>& with, int dependent) {
    std::string others;
    int columns = 0;
    for (std::size_t k = 0; k < with.size(); ++k) {
        others += (k == 0 ? "" : k + 1 < with.size() ? ", " : " and ") + d.terms[with[k]].name;
        columns += d.terms[with[k]].count;
    }
    if (with.empty()) others = "the mean";
    const term& t = d.terms[i];
    const std::string number = std::to_string(dependent);
    if (dependent == t.count) return t.name + " is held by " + others + " (" + number + " of " + number + " columns)";
    if (dependent == columns) return t.name + " holds " + others + " (" + number + " of " + number + " columns)";
    return t.name + " is held in part by " + others + " (" + number + " of " + std::to_string(t.count) + " columns)";
}

void find_dependencies(std::vector<finding>& findings, const fixed_part& part) {
    design d = design_of(part);
    const auto a = equations_of(d);
    const auto all = tarvex::fast_rank(a, std::vector<int>(d.n, 0), vanishing);
    for (std::size_t i = 0; i < d.terms.size(); ++i) {
        const term& t = d.terms[i];
        const auto n = static_cast<int>(std::count_if(all.dependent.begin(), all.dependent.end(), [&](const auto& x) {
            return x.row >= t.first && x.row < t.first + t.count;
        }));
        if (n == 0) continue;
        const auto with = holders(d, a, i, n);
        if (!nested_pair(d, i, with, n))
            add_case(findings, "W418", "fixed effects that hold each other, taken together: confounded jointly",
                     "trait \"" + part.trait + "\": " + in_words(d, i, with, n));
    }
}

} // namespace

void check_rank(std::vector<finding>& findings, const fixed_part& part) {
    const bool records = part.classes.empty() ? !part.covariables.empty() && !part.covariables[0].value.empty()
                                              : !part.classes[0].code.empty();
    if (!records || part.classes.size() + part.covariables.size() == 0) return;
    try {
        find_dependencies(findings, part);
    } catch (const tarvex::program_stop& stopped) {
        add_case(findings, "W419", "fixed effects were not looked at together",
                 "trait \"" + part.trait + "\": " + stopped.text);
    }
}

} // namespace tvx
