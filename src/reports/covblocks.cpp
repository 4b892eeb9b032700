#include "reports/covblocks.h"

#include "control/numbers.h"
#include "control/options.h"
#include "dense/numroutines.h"
#include "estimation/bestpoint.h"
#include "estimation/estimates.h"
#include "parfile/model.h"
#include "parfile/mudmap.h"
#include "support/edit_form.h"

#include <algorithm>
#include <cmath>

namespace tarvex {

namespace {

std::size_t packed(int i, int j, int n) { return packed_place(i, j, n) - 1; }

// Number in ListofCovs of covariance (i,j) of a step of a block; 0 for an off-diagonal of a diagonal block.
int cov_number(int irand, int step, int i, int j) {
    if (model.diagonal(irand)) return i == j ? cov_start(irand, step) + i - 1 : 0;
    return cov_start(irand, step) + packed_place(i, j, model.kkfit(irand)) - 1;
}

// Number 0 is a covariance that is 0 by definition. Terms of one number are added up: errors need each number once.
void add_term(cov_function& f, int number, double factor) {
    if (number == 0) return;
    for (auto& t : f)
        if (t.number == number) {
            t.factor += factor;
            return;
        }
    f.push_back({number, factor});
}

// Place of trait iq in block irand for its first (1) or second (2) effect, 0 if not fitted.
int place_of(int irand, int iq, int which) {
    for (int r = 1; r <= model.kkfit(irand); ++r)
        if (mudmap.rn_trait(r, irand) == iq && mudmap.rn_which(r, irand) == which) return r;
    return 0;
}

bool tied(int irand) {
    for (int r = 1; r <= model.kkfit(irand); ++r)
        if (mudmap.rn_which(r, irand) == 2) return true;
    return false;
}

// Traits that either effect is fitted for.
std::vector<int> traits_of(int irand) {
    std::vector<int> traits;
    for (int iq = 1; iq <= numbers.nq; ++iq)
        if (place_of(irand, iq, 1) > 0 || place_of(irand, iq, 2) > 0) traits.push_back(iq);
    return traits;
}

// Covariance of the sums of both effects of traits iq and jq; cross: weight of a covariance between different effects.
cov_function tied_covariance(int irand, int iq, int jq, double cross) {
    cov_function f;
    // cov(d_i + m_i, d_j + m_j): the diagonal terms in full, those between direct and maternal by `cross`
    for (int w = 1; w <= 2; ++w)
        for (int v = 1; v <= 2; ++v) {
            const int r = place_of(irand, iq, w), s = place_of(irand, jq, v);
            // a trait may have one of the two effects only
            if (r > 0 && s > 0) add_term(f, cov_number(irand, 1, r, s), w == v ? 1.0 : cross);
        }
    return f;
}

std::string total_name(int i, int j) {
    constexpr edit_form form{"(4hCOVS,2h T,2i2)"};
    std::string s = edit(form, i, j);
    // the end of the line
    s.pop_back();
    return s;
}

void write_rows(text_out& out, const edit_form& form, const array<double, 2>& a, int n, int columns) {
    for (int i = 1; i <= n; ++i) {
        std::vector<double> row;
        for (int j = 1; j <= (columns > 0 ? columns : i); ++j) row.push_back(a(i, j));
        write(out, form, i, row);
    }
}

// --wide: eight values to a line in place of six
constexpr edit_form values6{"(i4,(t7, 6g13.5))"}, values8{"(i4,(t7, 8g13.5))"};
constexpr edit_form ratios6{"(i4,(t7, 6f10.4))"}, ratios8{"(i4,(t7, 8f10.4))"};
constexpr edit_form title{"(/1x,a)"};

const edit_form& values_form() { return options.wide ? values8 : values6; }
const edit_form& ratios_form() { return options.wide ? ratios8 : ratios6; }

struct evaluated {
    array<double, 2> zig; // covariances
    array<double, 2> hh;  // correlations, variance ratios on the diagonal where asked for
};

evaluated evaluate(const report_matrix& m, const std::vector<double>& cov) {
    evaluated e;
    e.zig.allocate(m.n, m.n);
    e.hh.allocate(m.n, m.n);
    for (int i = 1; i <= m.n; ++i)
        for (int j = i; j <= m.n; ++j) e.zig(i, j) = e.zig(j, i) = function_value(m.element[packed(i, j, m.n)], cov);
    for (int i = 1; i <= m.n; ++i)
        for (int j = 1; j <= m.n; ++j) {
            // variances that have gone: no correlation
            const double v = e.zig(i, i) * e.zig(j, j);
            e.hh(i, j) = i == j ? 1.0 : v > 0.0 ? e.zig(i, j) / std::sqrt(v) : 0.0;
        }
    if (m.ratios)
        for (int i = 1; i <= m.n; ++i) {
            const double total = function_value(m.total[i - 1], cov);
            e.hh(i, i) = total > 0.0 ? e.zig(i, i) / total : 0.0;
        }
    return e;
}

void write_eigen(text_out& out, const report_matrix& m, const array<double, 2>& zig) {
    constexpr edit_form value_line{"(1x,5hValue,(t7,6f13.2))"}, share_line{"(1x,5h  (%),(t7,6f13.2))"};
    array<double> eig;
    array<double, 2> vv;
    // per cent are of the eigenvalues in the rank
    eigem_any_size(zig, eig, vv, m.n);
    std::vector<double> values, shares;
    double sum = 0.0;
    for (int k = 1; k <= m.rank; ++k) sum += eig(k);
    for (int k = 1; k <= m.rank; ++k) {
        values.push_back(eig(k));
        shares.push_back(sum > 0.0 ? 100.0 * eig(k) / sum : 0.0);
    }
    write(out, title, "Eigenvalues of covariance matrix");
    write(out, value_line, values);
    write(out, share_line, shares);
    write(out, title, "Eigenvectors of covariance matrix");
    write_rows(out, values_form(), vv, m.n, m.rank);
}

// Error of what stands at (i,j) of the second matrix: a correlation, or a ratio on its diagonal.
double scaled_error(const report_matrix& m, const std::vector<double>& cov, int i, int j) {
    const auto element = [&](int r, int c) -> const cov_function& { return m.element[packed(r, c, m.n)]; };
    if (i == j) return error_of_ratio(element(i, i), m.total[i - 1], cov);
    return error_of_correlation(element(i, j), element(i, i), element(j, j), cov);
}

void write_errors(text_out& out, const report_matrix& m, const evaluated& e, const std::vector<double>& cov) {
    constexpr edit_form line{"(i4,2x,a,2g15.6,3x,a,2x,2f8.3)"}, failed_line{"(i4,2x,a,2g15.6,3x,a,2x,f8.3,a)"},
        plain_line{"(i4,2x,a,2g15.6)"};
    bool warn = false, held = false;
    write(out, title,
          m.n == 1 ? "Covariance components with approximate sampling errors"
                   : "Covariances & correlations with approximate sampling errors");
    for (int i = 1; i <= m.n; ++i)
        for (int j = i; j <= (m.diagonal ? i : m.n); ++j) {
            const std::size_t k = packed(i, j, m.n);
            // -1 where the approximation failed; a covariance held at 0 has no variance either and is told apart below
            const double xx = error_of_sum(m.element[k]);
            warn = warn || xx < 0.0;
            held = held || (i != j && xx < 0.0 && e.zig(i, j) == 0.0);
            if (i == j && !m.ratios) {
                write(out, plain_line, m.ipar[k], m.name[k], e.zig(i, i), xx);
                continue;
            }
            const double yy = scaled_error(m, cov, i, j);
            const char* what = i == j ? "vrat" : "corr";
            if (yy < 0.0)
                write(out, failed_line, m.ipar[k], m.name[k], e.zig(i, j), xx, what, e.hh(i, j), "  failed");
            else
                write(out, line, m.ipar[k], m.name[k], e.zig(i, j), xx, what, e.hh(i, j), yy);
        }
    if (warn) write(out, title, "Negative values for s.e. indicate failed approximation !");
    if (held) write(out, title, "Covariances of 0 with such an s.e. were held at 0, not estimated");
}

} // namespace

std::vector<double> all_covariances() {
    std::vector<double> all;
    for (int irand = 0; irand <= numbers.krand; ++irand) {
        const std::vector<double> block = best_covariances(irand);
        all.insert(all.end(), block.begin(), block.end());
    }
    // the user's sums follow, so that a number of either kind is an index here
    for (const auto& sum : usrdefcovs.addcov) {
        double x = 0.0;
        for (const auto& t : sum) x += t.factor * all[t.isig - 1];
        all.push_back(x);
    }
    return all;
}

cov_function phenotypic_covariance(int iq, int jq) {
    cov_function f;
    add_term(f, cov_number(0, 1, iq, jq), 1.0);
    for (int irand = 1; irand <= numbers.krand; ++irand)
        for (const auto& t : tied_covariance(irand, iq, jq, 0.5))
            add_term(f, t.number, t.factor); // dam and offspring: 1/2
    return f;
}

report_matrix block_matrix(int irand, int step) {
    report_matrix m;
    m.n = model.kkfit(irand);
    m.rank = model.krfit(irand);
    m.diagonal = model.diagonal(irand) != 0;
    // coefficients of a regression have no phenotypic variance of their own
    m.ratios = !options.randreg;
    for (int i = 1; i <= m.n; ++i) {
        if (m.ratios) {
            const int iq = irand == 0 ? i : mudmap.rn_trait(i, irand);
            m.total.push_back(phenotypic_covariance(iq, iq));
        }
        for (int j = i; j <= m.n; ++j) {
            // an element beside the diagonal of a diagonal block is the empty function: 0, and without a name
            cov_function f;
            const int number = cov_number(irand, step, i, j);
            add_term(f, number, 1.0);
            m.element.push_back(f);
            m.ipar.push_back(number);
            m.name.push_back(number > 0 ? estimates.covnames(number) : std::string());
        }
    }
    return m;
}

report_matrix tied_sum_matrix(int irand) {
    report_matrix m;
    if (!tied(irand)) return m;
    const std::vector<int> traits = traits_of(irand);
    m.n = m.rank = static_cast<int>(traits.size());
    m.ratios = true;
    // numbers behind those of ListofCovs: phenotypic covariances first, then sums of tied effects
    int number = estimates.ncovall + triangle(numbers.nq); // after the phenotypic ones and the sums before
    for (int before = 1; before < irand; ++before)
        if (tied(before)) number += triangle(static_cast<int>(traits_of(before).size()));
    for (int i = 1; i <= m.n; ++i) {
        const int iq = traits[i - 1];
        m.total.push_back(phenotypic_covariance(iq, iq));
        for (int j = i; j <= m.n; ++j) {
            m.element.push_back(tied_covariance(irand, iq, traits[j - 1], 1.0));
            m.ipar.push_back(++number);
            m.name.push_back(total_name(i, j));
        }
    }
    return m;
}

report_matrix phenotypic_matrix() {
    report_matrix m;
    m.n = m.rank = numbers.nq;
    int number = estimates.ncovall;
    for (int i = 1; i <= m.n; ++i)
        for (int j = i; j <= m.n; ++j) {
            m.element.push_back(phenotypic_covariance(i, j));
            m.ipar.push_back(++number);
            m.name.push_back(total_name(i, j));
        }
    return m;
}

void write_covmat(text_out& out, const report_matrix& m, const std::vector<double>& cov) {
    const evaluated e = evaluate(m, cov);
    if (m.n == 1) {
        write(out, title, "Variance components");
        write_rows(out, values_form(), e.zig, 1, 1);
        if (m.ratios) {
            write(out, title, "Variance ratios");
            write_rows(out, ratios_form(), e.hh, 1, 1);
        }
    } else {
        write(out, title, "Covariance matrix");
        write_rows(out, values_form(), e.zig, m.n, 0);
        // at rank 1 the one eigenvector is the matrix
        if (m.rank > 1) write_eigen(out, m, e.zig);
        write(out, title, m.ratios ? "Matrix of correlations and variance ratios" : "Correlation matrix");
        write_rows(out, ratios_form(), e.hh, m.n, 0);
    }
    if (sampling.available) write_errors(out, m, e, cov);
}

} // namespace tarvex
