// A herd with inbred animals and one scaled trait, taken from its table through prep, run and report.
#pragma once
#include "support/dense_oracle.h"
#include "tvx/companion.h"

#include <map>

namespace tvx_tests {

using tarvex::read_file;
using tarvex::write_file;
namespace fs = std::filesystem;

using table = std::vector<std::map<std::string, std::string>>;

inline table read_table(const std::string& file) {
    std::istringstream in(read_file(file));
    const auto split = [](const std::string& line) {
        std::vector<std::string> f{""};
        for (const char c : line)
            if (c == '\t')
                f.emplace_back();
            else
                f.back() += c;
        return f;
    };
    table t;
    std::string line;
    std::getline(in, line);
    const auto heads = split(line);
    while (std::getline(in, line)) {
        const auto f = split(line);
        EXPECT_EQ(f.size(), heads.size()) << file << ": " << line;
        t.emplace_back();
        for (std::size_t i = 0; i < heads.size(); ++i) t.back()[heads[i]] = f.at(i);
    }
    return t;
}

// Animals 1.. with parents of smaller numbers, full sibs mated among them; a record each from animal 5 on.
struct herd_of_sibs {
    std::vector<int> sire, dam, herd;
    std::vector<double> y; // NaN: no record
    herd_of_sibs() {
        std::mt19937 random(5);
        const auto uniform = [&] { return (static_cast<double>(random()) + 0.5) / 4294967296.0; };
        for (int i = 1; i <= 90; ++i) {
            const int from = std::max(1, i - 14);
            int s = 0, d = 0;
            if (i > 6) {
                s = (from + static_cast<int>(uniform() * (i - from))) | 1;
                d = (from + static_cast<int>(uniform() * (i - from))) & ~1;
                if (s >= i) s -= 2;
                if (d < 1) d = 2;
            }
            sire.push_back(s);
            dam.push_back(d);
            herd.push_back(1 + static_cast<int>(3 * uniform()));
            const auto of = [&](int p) { return p > 0 ? a[static_cast<std::size_t>(p - 1)] : 0.0; };
            const double z = std::sqrt(-2.0 * std::log(uniform())) * std::cos(6.283185307 * uniform());
            const double e = std::sqrt(-2.0 * std::log(uniform())) * std::cos(6.283185307 * uniform());
            a.push_back(0.5 * (of(s) + of(d)) + 1500.0 * (i > 6 ? 0.7 : 1.0) * z);
            y.push_back(i < 5 ? NAN : std::round(9000.0 + 300.0 * herd.back() + a.back() + 1700.0 * e));
        }
    }
    static std::string id(int i) {
        return i > 0 ? "cow " + std::string(i % 2 ? "A" : "b") + std::to_string(1000 - i) : "";
    }
    static int pen(std::size_t k) { return 1 + static_cast<int>((k * 7) % 12); }
    // Lines turned about; the pedigree youngest first.
    void write() const {
        std::string data = "milk,herd,animal,pen\n", pedigree = "id,father,mother,year\n";
        for (std::size_t k = y.size(); k-- > 0;)
            pedigree += id(static_cast<int>(k + 1)) + "," + id(sire[k]) + "," + id(dam[k]) + "," +
                        std::to_string(2000 + k / 15) + "\n";
        for (std::size_t j = 0; j < y.size(); ++j) {
            const std::size_t k = (j * 37 + 11) % y.size();
            if (!std::isnan(y[k]))
                data += std::to_string(static_cast<long>(y[k])) + ",H" + std::to_string(herd[k]) + "," +
                        id(static_cast<int>(k + 1)) + ",P" + std::to_string(pen(k)) + "\n";
        }
        write_file("milk.csv", data);
        write_file("ped.csv", pedigree);
    }
    std::vector<double> a;
};

class herd_run : public tarvex::tarvex_test {
protected:
    void fit(const std::string& formula = "milk ~ herd + nrm(animal)", const std::vector<std::string>& more = {}) {
        herd.write();
        std::vector<std::string> args{"prep",      "milk.csv",         formula,  "-p",  "ped.csv", "-o", "milk",
                                      "--pedcols", "id,father,mother", "--born", "year"};
        args.insert(args.end(), more.begin(), more.end());
        const auto prepared = run_tvx(args);
        ASSERT_EQ(prepared.status, 0) << prepared.output;
        const auto ran = run_tvx({"run", "milk/milk.par"});
        ASSERT_EQ(ran.status, 0) << ran.output;
        const auto told = run_tvx({"report", "milk"});
        ASSERT_EQ(told.status, 0) << told.output;
        for (const auto& entry : fs::directory_iterator("milk/runs")) run = entry.path().string();
    }
    herd_of_sibs herd;
    std::string run;
};

// REML of the records with herds fixed: covariance va A + ve I.
struct dense_herd {
    oracle::dense rel;
    std::vector<std::size_t> who; // animal of each record
    oracle::analysis m;
    explicit dense_herd(const herd_of_sibs& herd) : rel(oracle::tabular(herd.sire, herd.dam)) {
        m.a = {rel};
        for (std::size_t k = 0; k < herd.y.size(); ++k) {
            if (std::isnan(herd.y[k])) continue;
            oracle::observation o;
            o.y = herd.y[k];
            o.subject = static_cast<int>(who.size()) + 1;
            o.x = {0.0, 0.0, 0.0};
            o.x[static_cast<std::size_t>(herd.herd[k] - 1)] = 1.0;
            o.terms = {{{static_cast<int>(k + 1), {1.0}}}};
            m.obs.push_back(o);
            who.push_back(k);
        }
    }
    oracle::reml at(double va, double ve, double vpen = 0.0) const {
        oracle::dense v = oracle::zeros(who.size(), who.size());
        for (std::size_t i = 0; i < who.size(); ++i)
            for (std::size_t j = 0; j < who.size(); ++j)
                v[i][j] = va * rel[who[i]][who[j]] + (i == j ? ve : 0.0) +
                          (herd_of_sibs::pen(who[i]) == herd_of_sibs::pen(who[j]) ? vpen : 0.0);
        return oracle::evaluate(m, v);
    }
};

} // namespace tvx_tests
