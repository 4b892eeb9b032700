// A small generated population with pedigree and records, texts of its input files, and the restricted log likelihood
// of a model on it from dense matrices.
#pragma once
#include "support/fixture.h"
#include "support/pedigree_model.h"

#include <cmath>
#include <random>
#include <string>
#include <vector>

namespace tarvex {

struct animal_record {
    int code, sire, dam;   // 0: unknown
    int herd;              // 1..4
    int parity;            // 1..3
    double age;            // 20..39
    std::vector<double> y; // by trait, the missing value where there is none
};

struct population {
    static constexpr int missing = -999, herds = 4;
    std::vector<int> sire, dam;         // by code - 1
    std::vector<animal_record> records; // of one animal together, animals in the order of their codes
    int ntraits = 0;

    int animals() const { return static_cast<int>(sire.size()); }
    std::string pedigree() const {
        std::string text;
        for (int i = 0; i < animals(); ++i)
            text += std::to_string(i + 1) + " " + std::to_string(sire[i]) + " " + std::to_string(dam[i]) + "\n";
        return text;
    }
    static std::string head_of(const animal_record& r) { // animal animal dam herd parity age
        return std::to_string(r.code) + " " + std::to_string(r.code) + " " + std::to_string(r.dam) + " " +
               std::to_string(r.herd) + " " + std::to_string(r.parity) + " " + std::to_string(static_cast<int>(r.age));
    }
    static std::string text_of(double x) {
        char s[40];
        std::snprintf(s, sizeof s, "%.4f", x);
        return s;
    }
    std::string all_traits_lines() const {
        std::string text;
        for (const auto& r : records) {
            text += head_of(r);
            for (double y : r.y) text += " " + text_of(y);
            text += "\n";
        }
        return text;
    }
    std::string one_trait_lines() const {
        std::string text;
        for (const auto& r : records)
            for (std::size_t t = 0; t < r.y.size(); ++t)
                if (r.y[t] != missing) text += std::to_string(t + 1) + " " + head_of(r) + " " + text_of(r.y[t]) + "\n";
        return text;
    }
};

// Founders without records, then animals with 1 to `repeats` records in 1 to 3 traits; a share of the traits is
// missing. Heritability is about 0.4, the genetic correlation about 0.5.
inline population make_population(int n, int ntraits, int repeats, double missing_share, unsigned seed) {
    population p;
    p.ntraits = ntraits;
    std::mt19937 rng(seed);
    const auto uniform = [&] { return (static_cast<double>(rng()) + 0.5) / 4294967296.0; };
    const auto normal = [&] { return std::sqrt(-2.0 * std::log(uniform())) * std::cos(2.0 * M_PI * uniform()); };
    const auto draw = [&](int from, int to) { return from + static_cast<int>(uniform() * (to - from + 1)); };
    const auto traits = static_cast<std::size_t>(ntraits);
    const auto common = [&](double sd) { // three effects with correlation 1/2
        std::vector<double> x(traits);
        const double shared = normal();
        for (double& v : x) v = sd * std::sqrt(0.5) * (shared + normal());
        return x;
    };
    const int founders = std::max(6, n / 8);
    std::vector<std::vector<double>> breeding;
    for (int i = 1; i <= n; ++i) {
        int s = 0, d = 0;
        if (i > founders) { // sires have odd codes, dams even ones
            const int from = std::max(1, i - n / 2);
            s = draw(from, i - 1) | 1;
            d = draw(from, i - 1) & ~1;
            if (s >= i) s -= 2;
            if (d < 1 || uniform() < 0.05) d = 0;
        }
        p.sire.push_back(s);
        p.dam.push_back(d);
        const double share = 1.0 - 0.25 * ((s > 0) + (d > 0));
        auto a = common(2.0 * std::sqrt(share));
        for (std::size_t t = 0; t < traits; ++t) {
            if (s > 0) a[t] += 0.5 * breeding[static_cast<std::size_t>(s - 1)][t];
            if (d > 0) a[t] += 0.5 * breeding[static_cast<std::size_t>(d - 1)][t];
        }
        breeding.push_back(a);
        if (i <= founders) continue;
        const auto permanent = common(1.0);
        const int count = draw(1, repeats);
        for (int k = 1; k <= count; ++k) {
            animal_record r{i, s, d, draw(1, population::herds), std::min(k, 3), 20.0 + draw(0, 19), {}};
            const auto e = common(2.2);
            bool any = false;
            for (std::size_t t = 0; t < traits; ++t) {
                const double y = 20.0 + r.herd + 0.1 * r.age + 0.5 * r.parity + a[t] + permanent[t] + e[t];
                const bool gone = ntraits > 1 && uniform() < missing_share;
                any = any || !gone;
                r.y.push_back(gone ? population::missing : y);
            }
            if (!any) r.y[0] = 25.0 + a[0] + permanent[0] + e[0];
            for (double& y : r.y) y = std::stod(population::text_of(y));
            p.records.push_back(r);
        }
    }
    return p;
}

// One observation in the dense likelihood: its value, its row of the fixed part and where it comes from.
struct observation {
    std::size_t record;
    int trait; // from 1
    double y;
};

inline std::vector<observation> observations_of(const population& p) {
    std::vector<observation> list;
    for (std::size_t r = 0; r < p.records.size(); ++r)
        for (int t = 1; t <= p.ntraits; ++t)
            if (p.records[r].y[static_cast<std::size_t>(t - 1)] != population::missing)
                list.push_back({r, t, p.records[r].y[static_cast<std::size_t>(t - 1)]});
    return list;
}

// Restricted log likelihood of the observations; X of full column rank.
inline double dense_reml(const std::vector<observation>& obs, const dense& x, const dense& v) {
    oracle::vec y;
    for (const observation& o : obs) y.push_back(o.y);
    return oracle::reml_logl(v, x, y);
}

// Fixed part of herds for each trait, and of age less its mean per trait where wanted.
inline dense herds_and_age(const population& p, const std::vector<observation>& obs, bool with_age = false) {
    const std::size_t nt = static_cast<std::size_t>(p.ntraits), width = population::herds + (with_age ? 1u : 0u);
    std::vector<double> mean(nt, 0.0), count(nt, 0.0);
    for (const auto& o : obs) {
        mean[static_cast<std::size_t>(o.trait - 1)] += p.records[o.record].age;
        count[static_cast<std::size_t>(o.trait - 1)] += 1.0;
    }
    dense x(obs.size(), std::vector<double>(nt * width, 0.0));
    for (std::size_t i = 0; i < obs.size(); ++i) {
        const auto t = static_cast<std::size_t>(obs[i].trait - 1);
        const auto& r = p.records[obs[i].record];
        x[i][t * width + static_cast<std::size_t>(r.herd - 1)] = 1.0;
        if (with_age) x[i][t * width + population::herds] = r.age - mean[t] / count[t];
    }
    return x;
}

} // namespace tarvex
