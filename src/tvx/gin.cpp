#include "tvx/gin.h"

#include "tvx/commands.h"
#include "tvx/csv.h"
#include "tvx/pedigree.h"
#include "tvx/progress.h"
#include "tvx/tables.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>
#include <unordered_map>

namespace tvx {

namespace {

using Eigen::Index;

// ---- a matrix in a table -------------------------------------------------------------------------------------------

double cell_number(const csv_table& t, std::size_t row, std::size_t col) {
    double x = 0.0;
    if (!csv_number(t, t.at(row, col), x))
        throw fault{"\"" + t.file + "\", line " + std::to_string(t.lines[row]) + ", column " + std::to_string(col + 1) +
                    ": " + shown(t.at(row, col)) + " is no number"};
    return x;
}

relationship square_matrix(const csv_table& t) {
    relationship r;
    const auto n = static_cast<Index>(t.rows);
    std::unordered_map<std::string_view, Index> place;
    for (std::size_t row = 0; row < t.rows; ++row) {
        if (!place.emplace(t.at(row, 0), static_cast<Index>(row)).second)
            throw fault{"\"" + t.file + "\", line " + std::to_string(t.lines[row]) + ": " + shown(t.at(row, 0)) +
                        " stands twice"};
        r.ids.emplace_back(t.at(row, 0));
    }
    r.g.resize(n, n);
    for (std::size_t col = 1; col < t.names.size(); ++col) {
        const auto at = place.find(t.names[col]);
        if (at == place.end())
            throw fault{"\"" + t.file + "\": column \"" + t.names[col] + "\" has no row: rows and columns must agree"};
        for (std::size_t row = 0; row < t.rows; ++row)
            r.g(static_cast<Index>(row), at->second) = cell_number(t, row, col);
    }
    for (Index i = 0; i < n; ++i)
        for (Index j = 0; j < i; ++j)
            // rounding of printed values is no asymmetry
            if (std::fabs(r.g(i, j) - r.g(j, i)) > 1e-6 * (std::fabs(r.g(i, i)) + std::fabs(r.g(j, j))))
                throw fault{"\"" + t.file + "\" is not symmetric: rows " + shown(r.ids[i]) + " and " + shown(r.ids[j])};
    r.g = (0.5 * (r.g + r.g.transpose())).eval();
    return r;
}

relationship triplets(const csv_table& t) {
    relationship r;
    std::unordered_map<std::string_view, Index> place;
    const auto number = [&](std::string_view id) {
        const auto [at, fresh] = place.emplace(id, static_cast<Index>(r.ids.size()));
        if (fresh) r.ids.emplace_back(id);
        return at->second;
    };
    for (std::size_t row = 0; row < t.rows; ++row) {
        number(t.at(row, 0));
        number(t.at(row, 1));
    }
    r.g = Eigen::MatrixXd::Zero(static_cast<Index>(r.ids.size()), static_cast<Index>(r.ids.size()));
    for (std::size_t row = 0; row < t.rows; ++row) {
        const Index i = number(t.at(row, 0)), j = number(t.at(row, 1));
        // elements that are not given are 0
        r.g(i, j) = r.g(j, i) = cell_number(t, row, 2);
    }
    return r;
}

bool is_square(const csv_table& t) { return t.names.size() == t.rows + 1; }

// ---- markers -------------------------------------------------------------------------------------------------------

// Genotypes less 1 are -1, 0 or 1. A block of them is held in two bits each: one tells that it is not 0, one that it is
// -1. The sum of products of two animals is then a count of bits, exact.
constexpr Index block_words = 64, block_width = 64 * block_words;

struct bit_rows { // (words) of an animal follow each other
    std::vector<std::uint64_t> other, minus;
    Index words = block_words;
};

using count_matrix = Eigen::Matrix<std::int32_t, Eigen::Dynamic, Eigen::Dynamic>;

// Adds the sums of products of the animals from..to of both ranges; lower triangle.
[[gnu::always_inline]] inline void add_tile(const bit_rows& x, Index i0, Index i1, Index j0, Index j1,
                                            count_matrix& k) {
    for (Index j = j0; j < j1; ++j)
        // products of -1, 0, 1: +1 for each pair that is not 0, -2 where the signs differ
        for (Index i = std::max(i0, j); i < i1; ++i) {
            const std::uint64_t *oi = &x.other[i * x.words], *oj = &x.other[j * x.words];
            const std::uint64_t *mi = &x.minus[i * x.words], *mj = &x.minus[j * x.words];
            int both = 0, unlike = 0;
            for (Index w = 0; w < x.words; ++w) {
                const std::uint64_t b = oi[w] & oj[w];
                both += __builtin_popcountll(b);
                unlike += __builtin_popcountll(b & (mi[w] ^ mj[w]));
            }
            k(i, j) += both - 2 * unlike;
        }
}

[[gnu::always_inline]] inline void add_tiles(const bit_rows& x, Index n, count_matrix& k) {
    // so many animals' words stay in the cache
    constexpr Index tile = 16;
    for (Index j = 0; j < n; j += tile)
        for (Index i = j; i < n; i += tile) add_tile(x, i, std::min(i + tile, n), j, std::min(j + tile, n), k);
}

void add_products_plain(const bit_rows& x, Index n, count_matrix& k) { add_tiles(x, n, k); }

#if defined(__x86_64__)
[[gnu::target("popcnt")]] void add_products_popcnt(const bit_rows& x, Index n, count_matrix& k) { add_tiles(x, n, k); }
#endif

void add_products(const bit_rows& x, Index n, count_matrix& k) {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("popcnt")) return add_products_popcnt(x, n, k);
#endif
    add_products_plain(x, n, k);
}

// Sums over markers, in blocks.
class marker_sums {
public:
    explicit marker_sums(Index n)
        : n_(n), k_(count_matrix::Zero(n, n)), g_(Eigen::MatrixXd::Zero(n, n)), xq_(Eigen::VectorXd::Zero(n)),
          other_(static_cast<std::size_t>(n * block_words)), minus_(other_.size()) {}
    // Genotypes 0, 1, 2 of all animals; -1 is missing.
    void add(const std::vector<signed char>& genotype) {
        double sum = 0.0;
        Index known = 0;
        for (const auto v : genotype)
            if (v >= 0) sum += v, ++known;
        // of the animals whose genotype is known
        const double p2 = known > 0 ? sum / static_cast<double>(known) : 0.0; // twice the frequency
        const bool varies = known > 0 && sum > 0 && sum < 2.0 * static_cast<double>(known);
        if (!varies) {
            ++fixed;
            return;
        }
        ++used;
        const double q = p2 - 1.0;
        for (Index i = 0; i < n_; ++i) {
            const auto v = genotype[i];
            const std::size_t word = static_cast<std::size_t>(filled_ / 64 * n_ + i);
            // a missing genotype is entered as 1, which is 0 here
            other_[word] |= static_cast<std::uint64_t>(v == 0 || v == 2) << (filled_ % 64);
            minus_[word] |= static_cast<std::uint64_t>(v == 0) << (filled_ % 64);
            xq_(i) += q * (v < 0 ? 0.0 : v - 1.0);
        }
        qq_ += q * q;
        // sum of 2 p (1 - p)
        scale_ += p2 * (1.0 - 0.5 * p2);
        add_missing(genotype, q);
        if (++filled_ == block_width) flush();
    }
    Eigen::MatrixXd result() {
        flush();
        for (Index j = 0; j < n_; ++j)
            for (Index i = j; i < n_; ++i) {
                // sum over markers of (x_i - q)(x_j - q), x = genotype - 1, q = 2p - 1 (VanRaden 2008, method 1)
                const double sum = static_cast<double>(k_(i, j)) - xq_(i) - xq_(j) + qq_ + g_(i, j);
                g_(i, j) = sum / scale_;
            }
        g_.triangularView<Eigen::StrictlyUpper>() = g_.transpose();
        return std::move(g_);
    }
    std::size_t used = 0, fixed = 0;

private:
    void flush() {
        bit_rows rows;
        rows.words = (filled_ + 63) / 64;
        rows.other.resize(n_ * rows.words);
        rows.minus.resize(rows.other.size());
        for (Index i = 0; i < n_; ++i)
            for (Index w = 0; w < rows.words; ++w) {
                // from words of all animals together to those of an animal together
                rows.other[i * rows.words + w] = other_[w * n_ + i];
                rows.minus[i * rows.words + w] = minus_[w * n_ + i];
            }
        if (filled_ > 0) add_products(rows, n_, k_);
        std::fill(other_.begin(), other_.end(), 0);
        std::fill(minus_.begin(), minus_.end(), 0);
        filled_ = 0;
    }
    // A missing genotype was entered as 1, that is -q about the mean, and should be 0 there: q is added to it.
    void add_missing(const std::vector<signed char>& genotype, double q) {
        for (Index a = 0; a < n_; ++a) {
            if (genotype[a] >= 0) continue;
            for (Index b = 0; b < n_; ++b) {
                const auto v = genotype[b];
                const double z = v < 0 ? 0.0 : v - 1.0 - q; // about the mean, as it should be
                const double before = v < 0 ? -q : z;       // as entered
                if (b == a)
                    g_(a, a) += q * (2.0 * before + q);
                else if (v >= 0)
                    g_(std::max(a, b), std::min(a, b)) += q * before;
                else if (b < a)
                    g_(a, b) += q * (before + before + q);
            }
        }
    }
    Index n_;
    count_matrix k_;
    Eigen::MatrixXd g_;
    Eigen::VectorXd xq_;
    std::vector<std::uint64_t> other_, minus_; // words of all animals follow each other
    Index filled_ = 0;
    double qq_ = 0.0, scale_ = 0.0;
};

void tell_memory(std::size_t n) {
    // a matrix of reals, one of counts, and what the inverse takes
    const double mb = static_cast<double>(n) * static_cast<double>(n) * 20.0 / 1e6;
    if (!display.quiet && !display.json && mb > 200)
        std::cout << "The matrix needs " << std::lround(mb) << " MB of memory\n" << std::flush;
}

relationship finish(marker_sums& sums, std::vector<std::string> ids, const std::string& file) {
    if (sums.used == 0) throw fault{"\"" + file + "\": no marker varies"};
    relationship r;
    r.ids = std::move(ids);
    r.markers = sums.used;
    r.fixed = sums.fixed;
    r.g = sums.result();
    return r;
}

relationship marker_table(const csv_table& t) {
    const na_texts na;
    std::vector<std::string> ids;
    for (std::size_t row = 0; row < t.rows; ++row) ids.emplace_back(t.at(row, 0));
    tell_memory(t.rows);
    marker_sums sums(static_cast<Index>(t.rows));
    std::vector<signed char> genotype(t.rows);
    progress told("markers", t.names.size());
    // marker by marker, as .bed files have them: one column of genotypes is held at a time
    for (std::size_t col = 1; col < t.names.size(); ++col) {
        told.at(col);
        for (std::size_t row = 0; row < t.rows; ++row) {
            const auto cell = t.at(row, col);
            // -9, 9 and 5 are what programs of the field write for a missing genotype
            const bool one = cell.size() == 1 && cell[0] >= '0' && cell[0] <= '2';
            if (!one && !na.missing(cell) && cell != "-9" && cell != "9" && cell != "5")
                throw fault{"\"" + t.file + "\", line " + std::to_string(t.lines[row]) + ", column \"" + t.names[col] +
                            "\": " + shown(cell) + " is no genotype 0, 1 or 2"};
            genotype[row] = one ? static_cast<signed char>(cell[0] - '0') : static_cast<signed char>(-1);
        }
        sums.add(genotype);
    }
    return finish(sums, std::move(ids), t.file);
}

// Second words of the lines of a .fam file; lines of a .bim file are only counted.
std::vector<std::string> second_words(const std::string& file) {
    std::vector<std::string> words;
    std::istringstream in(read_text(file));
    for (std::string line, first, second; std::getline(in, line);) {
        std::istringstream parts(line);
        if (parts >> first >> second) words.push_back(second);
    }
    return words;
}

relationship plink(const std::string& file) {
    const std::string stem = file.substr(0, file.size() - 4);
    auto ids = second_words(stem + ".fam");
    const std::size_t n = ids.size(), m = second_words(stem + ".bim").size(), bytes = (n + 3) / 4;
    const std::string bed = read_text(file);
    if (bed.size() < 3 || bed[0] != '\x6c' || bed[1] != '\x1b') throw fault{"\"" + file + "\" is no PLINK .bed file"};
    if (bed[2] != '\x01') throw fault{"\"" + file + "\": markers must come one after the other (SNP-major)"};
    if (n == 0 || bed.size() != 3 + m * bytes)
        throw fault{"\"" + file + "\" has " + std::to_string(bed.size()) + " bytes; " + std::to_string(n) +
                    " animals and " + std::to_string(m) + " markers need " + std::to_string(3 + m * bytes)};
    tell_memory(n);
    marker_sums sums(static_cast<Index>(n));
    std::vector<signed char> genotype(n);
    // codes 00 homozygous first, 01 missing, 10 heterozygous, 11 homozygous second (PLINK 1 .bed)
    static constexpr signed char count[] = {2, -1, 1, 0}; // of the first allele
    progress told("markers", m);
    for (std::size_t j = 0; j < m; ++j) {
        told.at(j);
        // two bits an animal, four to a byte, the first in the lowest bits
        for (std::size_t i = 0; i < n; ++i)
            genotype[i] = count[(static_cast<unsigned char>(bed[3 + j * bytes + i / 4]) >> (2 * (i % 4))) & 3];
        sums.add(genotype);
    }
    return finish(sums, std::move(ids), file);
}

// ---- the inverse ---------------------------------------------------------------------------------------------------

Index rank_of(const Eigen::MatrixXd& g) {
    const Eigen::VectorXd l = Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd>(g, Eigen::EigenvaluesOnly).eigenvalues();
    return (l.array() > 1e-8 * l.maxCoeff()).count();
}

// Smallest eigenvalue by inverse iteration through the factor.
double smallest_eigenvalue(const Eigen::LLT<Eigen::MatrixXd>& factor, Index n) {
    Eigen::VectorXd v(n);
    // any vector that is not orthogonal to the one looked for; the same each time
    for (Index i = 0; i < n; ++i) v(i) = std::cos(static_cast<double>(i * i % 1009)) + 0.1;
    v.normalize();
    double value = 0.0;
    for (int round = 0; round < 200; ++round) {
        const Eigen::VectorXd w = factor.solve(v);
        const double next = 1.0 / w.norm();
        v = w * next;
        const bool settled = std::fabs(next - value) < 1e-10 * next;
        value = next;
        if (settled) break;
    }
    return value;
}

void put_element(std::string& out, Index col, Index row, double x) {
    char buffer[96];
    char* p = std::to_chars(buffer, buffer + 24, col + 1).ptr;
    *p++ = ' ';
    p = std::to_chars(p, p + 24, row + 1).ptr;
    *p++ = ' ';
    p = std::to_chars(p, p + 32, x).ptr;
    *p++ = '\n';
    out.append(buffer, p);
}

} // namespace

relationship read_matrix(const std::string& file) {
    const csv_table t = read_csv(file, csv_heading::needed);
    if (is_square(t)) return square_matrix(t);
    if (t.names.size() == 3) return triplets(t);
    throw fault{"\"" + file + "\" has " + std::to_string(t.rows) + " rows and " + std::to_string(t.names.size() - 1) +
                " columns behind the identifiers: no relationship matrix (markers: --markers)"};
}

relationship read_markers(const std::string& file) {
    if (file.ends_with(".bed")) return plink(file);
    return marker_table(read_csv(file, csv_heading::needed));
}

relationship read_relationship(const std::string& file) {
    if (file.ends_with(".bed")) return plink(file);
    const csv_table t = read_csv(file, csv_heading::needed);
    if (is_square(t)) return square_matrix(t);
    return t.names.size() == 3 ? triplets(t) : marker_table(t);
}

void blend(relationship& r, double share) {
    if (!(share >= 0.0 && share <= 1.0)) throw fault{"--blend takes a share from 0 to 1"};
    r.g *= 1.0 - share;
    r.g.diagonal().array() += share;
}

void sort_levels(relationship& r) {
    std::vector<Index> order(r.ids.size());
    std::iota(order.begin(), order.end(), Index{0});
    std::sort(order.begin(), order.end(), [&](Index a, Index b) { return before(r.ids[a], r.ids[b]); });
    std::vector<std::string> ids;
    for (const Index i : order) ids.push_back(r.ids[i]);
    r.ids = std::move(ids);
    r.g = Eigen::MatrixXd(r.g(order, order));
}

inverse_facts write_inverse(const relationship& r, const std::string& stem) {
    const Index n = r.g.rows();
    const Eigen::LLT<Eigen::MatrixXd> factor(r.g);
    const Eigen::VectorXd pivots = factor.matrixLLT().diagonal();
    const bool definite =
        factor.info() == Eigen::Success && pivots.minCoeff() > 1e-6 * std::sqrt(r.g.diagonal().maxCoeff());
    if (!definite)
        throw fault{"the matrix is not positive definite: " + std::to_string(n) + " levels, rank " +
                    std::to_string(rank_of(r.g)) + ". --blend 0.05 adds a little to its diagonal"};
    inverse_facts f{2.0 * pivots.array().log().sum(), smallest_eigenvalue(factor, n), n};
    const Eigen::MatrixXd inverse = factor.solve(Eigen::MatrixXd::Identity(n, n));
    std::string text;
    char head[40];
    text.append(head, std::to_chars(head, head + sizeof head, f.log_det).ptr);
    text += '\n';
    for (Index row = 0; row < n; ++row)
        for (Index col = 0; col <= row; ++col)
            // the inverse is symmetric but for rounding
            put_element(text, col, row, 0.5 * (inverse(row, col) + inverse(col, row)));
    write_text(stem + ".gin", text);
    std::string codes;
    // codes are the levels themselves
    for (Index i = 1; i <= n; ++i) codes += std::to_string(i) + " " + std::to_string(i) + "\n";
    write_text(stem + ".codes", codes);
    return f;
}

namespace {

struct gin_request {
    std::string matrix, effect, markers;
    double share = 0.0;
};

int gin_command(const gin_request& q) {
    const bool markers = !q.markers.empty();
    const std::string effect = markers ? q.matrix : q.effect; // with --markers the only word is the effect
    if (effect.empty() || effect.find('/') != std::string::npos || effect.size() > 20)
        throw fault{
            "tvx gin MATRIX.csv NAME: NAME is that of the effect, up to 20 letters; it names NAME.gin and NAME.codes"};
    if (markers && !q.effect.empty()) throw fault{"tvx gin takes a matrix or --markers, not both"};
    relationship r = markers ? read_markers(q.markers) : read_matrix(q.matrix);
    if (q.share > 0) blend(r, q.share);
    sort_levels(r);
    const inverse_facts f = write_inverse(r, effect);
    std::string key = "code\tidentifier\n";
    for (std::size_t i = 0; i < r.ids.size(); ++i) {
        key += std::to_string(i + 1) + '\t';
        put_field(key, r.ids[i]);
        key += '\n';
    }
    write_text("key_" + effect + ".tsv", key);
    if (display.json) {
        std::cout << nlohmann::json{{"levels", r.ids.size()},   {"markers", r.markers},
                                    {"fixed_markers", r.fixed}, {"log_det", f.log_det},
                                    {"rank", f.rank},           {"smallest_eigenvalue", f.smallest}}
                         .dump()
                  << "\n";
    } else if (!display.quiet) {
        if (r.markers > 0) std::printf("%zu markers used, %zu do not vary\n", r.markers, r.fixed);
        std::printf("%zu levels, rank %td, log determinant %.10g, smallest eigenvalue %.6g\nFiles: %s.gin, %s.codes, "
                    "key_%s.tsv\n",
                    r.ids.size(), f.rank, f.log_det, f.smallest, effect.c_str(), effect.c_str(), effect.c_str());
    }
    return fine;
}

} // namespace

void register_gin(CLI::App& app, action& chosen) {
    auto q = std::make_shared<gin_request>();
    CLI::App* command = app.add_subcommand("gin", "inverse of a relationship matrix, from a table or from markers");
    command->add_option("MATRIX", q->matrix, "table of the matrix (with --markers: left out)");
    command->add_option("NAME", q->effect, "name of the effect: NAME.gin, NAME.codes");
    command->add_option("--markers", q->markers, "genotypes 0, 1, 2: a table, or PLINK .bed");
    command->add_option("--blend", q->share, "share of the identity matrix");
    command->callback([&chosen, q] { chosen = [q] { return gin_command(*q); }; });
}

} // namespace tvx
