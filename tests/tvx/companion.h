// Runs of tvx and tables to run it on.
#pragma once
#include "support/fixture.h"
#include "support/reports.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace tvx_tests {

using tarvex::program_result;

inline program_result run_tvx(const std::vector<std::string>& args) { return tarvex::run_binary(TVX_COMPANION, args); }

inline bool holds(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Expects exit status 1, the text, and no study left behind.
inline void expect_fault(const std::vector<std::string>& args, const std::string& text) {
    const auto r = run_tvx(args);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_TRUE(holds(r.output, text)) << "no \"" << text << "\" in\n" << r.output;
}

// A generated population: 3 generations, animals 1.. with smaller codes for parents.
struct population {
    struct animal {
        int sire, dam, herd, sex, litter;
        double age, genetic, maternal, permanent;
    };
    std::vector<animal> animals; // code k is animals[k-1]
    std::mt19937_64 random{4711};
    double normal() {
        const auto uniform = [&] { return (static_cast<double>(random() >> 11) + 0.5) * 0x1p-53; };
        const double r = std::sqrt(-2.0 * std::log(uniform()));
        return r * std::cos(2.0 * 3.141592653589793 * uniform());
    }
    int below(int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); }
};

inline population make_population(int founders, int each, int generations) {
    population p;
    int first = 1, n = founders;
    for (int g = 0; g <= generations; ++g) {
        const int last = static_cast<int>(p.animals.size());
        for (int k = 0; k < (g == 0 ? founders : each); ++k) {
            population::animal a{0, 0, 1 + p.below(6), 1 + k % 2, 1 + p.below(30), 100.0 + p.below(60), 0, 0, 0};
            if (g > 0) { // males have odd places
                a.sire = first + 2 * p.below(n / 6);
                a.dam = first + 1 + 2 * p.below(n / 2);
            }
            const auto mean = [&](double population::animal::*value) {
                return g == 0 ? 0.0 : 0.5 * (p.animals[a.sire - 1].*value + p.animals[a.dam - 1].*value);
            };
            const double s = g == 0 ? 1.0 : std::sqrt(0.5);
            a.genetic = mean(&population::animal::genetic) + 3.0 * s * p.normal();
            a.maternal = mean(&population::animal::maternal) + 2.0 * s * p.normal();
            a.permanent = 2.0 * p.normal();
            p.animals.push_back(a);
        }
        if (g > 0) {
            first = last + 1;
            n = each;
        }
    }
    return p;
}

// Identifier of a code: text whose order is not that of the codes.
inline std::string id_of(int code) {
    return code == 0 ? "" : "AU " + std::to_string(10000 + code * 7919 % 89989) + (code % 3 == 0 ? "x" : "");
}

// Lines of a table, which can be shuffled.
struct text_table {
    std::vector<std::string> names;
    std::vector<std::vector<std::string>> rows;
    std::string text(char sep = ',') const {
        std::string out;
        const auto line = [&](const std::vector<std::string>& cells) {
            for (std::size_t i = 0; i < cells.size(); ++i) out += (i > 0 ? std::string(1, sep) : "") + cells[i];
            out += '\n';
        };
        line(names);
        for (const auto& r : rows) line(r);
        return out;
    }
    void shuffle(std::uint64_t seed) {
        std::mt19937_64 random(seed);
        std::shuffle(rows.begin(), rows.end(), random);
        std::vector<std::size_t> order(names.size());
        for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
        std::shuffle(order.begin(), order.end(), random);
        const auto arrange = [&](const std::vector<std::string>& cells) {
            std::vector<std::string> moved;
            for (const auto i : order) moved.push_back(cells[i]);
            return moved;
        };
        names = arrange(names);
        for (auto& r : rows) r = arrange(r);
    }
};

inline std::string number_text(double x) {
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%.4f", x);
    return buffer;
}

inline text_table pedigree_table(const population& p) {
    text_table t{{"animal", "sire", "dam"}, {}};
    for (std::size_t k = 1; k <= p.animals.size(); ++k)
        t.rows.push_back({id_of(static_cast<int>(k)), id_of(p.animals[k - 1].sire), id_of(p.animals[k - 1].dam)});
    return t;
}

inline std::string hand_pedigree(const population& p) {
    std::string out;
    for (std::size_t k = 1; k <= p.animals.size(); ++k)
        out += std::to_string(k) + " " + std::to_string(p.animals[k - 1].sire) + " " +
               std::to_string(p.animals[k - 1].dam) + "\n";
    return out;
}

} // namespace tvx_tests
