// Small analyses for the tests of the maximisers.
#pragma once
#include "control/numbers.h"
#include "estimation/emsteps.h"
#include "estimation/estimates.h"
#include "likelihood/likelihood.h"
#include "support/fixture.h"
#include "support/screen.h"
#include "support/small_models.h"

#include <cmath>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace tarvex {

inline small_model animal_model(int nq, std::vector<double> g, std::vector<double> r, double missing = 0.2,
                                int repeats = 1, int animals = 30) {
    small_model m;
    m.nq = nq;
    m.make_pedigree(animals, 8, 5);
    m.make_rows(4, repeats, 3, nq > 1 ? missing : 0.0, 6);
    m.random = {{"animal", "NRM", nq, 0, std::move(g)}};
    m.residual = std::move(r);
    return m;
}

inline small_model two_traits() { return animal_model(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9}); }

inline small_model with_dams() {
    small_model m = two_traits();
    m.random.push_back({"dam", "IDE", 2, 0, {0.9, 0.1, 0.8}});
    return m;
}

inline small_model repeats_with_peq(int nq = 1) {
    small_model m = nq == 1 ? animal_model(1, {1.3}, {2.1}, 0.0, 3, 20)
                            : animal_model(2, {1.3, 0.5, 1.8}, {2.1, 0.4, 1.9}, 0.2, 2, 24);
    m.random.push_back({"pe", "PEQ", nq, 0, nq == 1 ? std::vector<double>{0.7} : std::vector<double>{0.7, 0.1, 0.6}});
    return m;
}

inline small_model growth(bool classes, bool principal = false) {
    small_model m;
    m.randreg = true;
    m.principal = principal;
    m.make_pedigree(16, 5, 7);
    m.make_rows(3, 4, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 2, principal ? 1 : 0, {2.0, 0.3, 1.0}},
                {"pe", "IDE", 2, principal ? 2 : 0, {1.0, 0.1, 0.6}}};
    m.residual = {1.2};
    if (classes) {
        m.residual = {1.2, 0.9, 2.0};
        m.class_bounds = {3, 7, 11};
    }
    return m;
}

inline small_model components(int rank, int nq = 3) {
    small_model m =
        nq == 3 ? animal_model(3, {1.3, 0.5, 0.2, 1.8, 0.3, 1.1}, {2.1, 0.4, 0.1, 1.9, 0.2, 1.5}) : two_traits();
    m.principal = true;
    m.random[0].rank = rank;
    return m;
}

// Families large enough for a maximum inside the parameter space: every trait with a genetic value of its own.
inline small_model families(int nq, int animals = 150, double missing = 0.1, int repeats = 1) {
    small_model m;
    m.nq = nq;
    std::mt19937 rng(17);
    std::normal_distribution<double> normal;
    std::uniform_real_distribution<double> uniform;
    const int parents = 16;
    std::vector<std::vector<double>> a;
    for (int i = 0; i < animals; ++i) {
        const bool founder = i < parents;
        m.sire.push_back(founder ? 0 : 1 + 2 * static_cast<int>(rng() % (parents / 2)));
        m.dam.push_back(founder ? 0 : 2 + 2 * static_cast<int>(rng() % (parents / 2)));
        const double shared = normal(rng);
        a.emplace_back();
        for (int q = 0; q < nq; ++q) {
            const auto k = static_cast<std::size_t>(q);
            const double own = 0.5 * shared + 0.9 * normal(rng);
            a.back().push_back(founder ? own
                                       : 0.5 * (a[static_cast<std::size_t>(m.sire.back() - 1)][k] +
                                                a[static_cast<std::size_t>(m.dam.back() - 1)][k]) +
                                             0.7 * own);
        }
        const double pe = 0.6 * normal(rng);
        for (int k = 1; k <= repeats && !founder; ++k) {
            small_row r;
            r.animal = i + 1;
            r.pe = i + 1 - parents;
            r.dam = 1 + i % 7;
            r.herd = 1 + static_cast<int>(rng() % 4);
            r.age = k;
            const double common = 0.5 * normal(rng);
            for (int q = 0; q < nq; ++q) {
                const double y = 10.0 + r.herd + a.back()[static_cast<std::size_t>(q)] + pe + common + normal(rng);
                r.y.push_back(nq > 1 && uniform(rng) < missing ? -999.0 : std::round(y * 1000.0) / 1000.0);
            }
            m.rows.push_back(r);
        }
    }
    std::vector<double> g, r;
    for (int i = 0; i < nq; ++i)
        for (int j = i; j < nq; ++j) {
            g.push_back(i == j ? 0.8 : 0.2);
            r.push_back(i == j ? 1.5 : 0.3);
        }
    m.random = {{"animal", "NRM", nq, 0, g}};
    m.residual = r;
    return m;
}

// Relationships of the model's pedigree as the supplied inverse of "animal"; `missing` leaves out the last levels.
inline void write_supplied(const small_model& m, std::size_t missing = 0) {
    const oracle::dense a = oracle::tabular(m.sire, m.dam), inv = oracle::inverse(a);
    std::string text = list_item(oracle::log_det(a)) + "\n";
    for (std::size_t i = 0; i + missing < inv.size(); ++i)
        for (std::size_t j = 0; j <= i; ++j)
            if (std::fabs(inv[i][j]) > 1.0e-12)
                text += std::to_string(j + 1) + " " + std::to_string(i + 1) + " " + list_item(inv[i][j]) + "\n";
    write_file("animal.gin", text);
}

// Three traits with a supplied inverse; all animals have records, so that their codes are the levels. rank 0: no
// components.
inline small_model supplied(int rank) {
    small_model m = animal_model(3, {1.3, 0.5, 0.2, 1.8, 0.3, 1.1}, {2.1, 0.4, 0.1, 1.9, 0.2, 1.5});
    m.rows.clear();
    m.make_rows(1, 1, 3, 0.2, 6);
    m.random[0].kov = "GIN";
    m.random[0].rank = rank;
    m.principal = rank > 0;
    return m;
}

inline void set_up_supplied(const small_model& m, const std::vector<std::string>& list, std::size_t missing = 0) {
    write_supplied(m, missing);
    small_model given = m;
    given.sire.clear();
    set_up(given, list);
}

// Runs EM rounds from the starting values; returns log L at the end.
inline double em_rounds(int nits) {
    int iround = 0;
    double xlike = program_logl(estimates.parvec, 1);
    em_algorithm(nits, iround, xlike, 0.0);
    return xlike;
}

// First lines' log L values of Iterates, by label.
struct listed_iterate {
    std::string label;
    int round;
    double logl;
};
inline std::vector<listed_iterate> iterates() {
    std::vector<listed_iterate> list;
    if (!std::filesystem::exists("Iterates")) return list;
    std::istringstream in(read_file("Iterates"));
    std::string line;
    while (std::getline(in, line)) {
        const std::string label = line.substr(0, 2);
        if (label != "AI" && label != "EM" && label != "PX") continue;
        list.push_back({label, std::stoi(line.substr(2, 5)), std::stod(line.substr(7, 14))});
    }
    return list;
}

} // namespace tarvex
