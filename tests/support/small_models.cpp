#include "support/small_models.h"

#include "app/phases.h"
#include "estimation/estimates.h"
#include "estimation/evaluate.h"
#include "likelihood/likelihood.h"
#include "parameters/parunits.h"
#include "parameters/residualvars.h"
#include "parameters/variances.h"
#include "parfile/model.h"
#include "support/fixture.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <sstream>

namespace tarvex {

namespace {

std::string number_list(const std::vector<double>& v) {
    std::ostringstream s;
    s.precision(17);
    int k = 0;
    for (double x : v) s << (k++ % 3 == 0 ? "\n " : " ") << x;
    return s.str();
}

oracle::dense unpacked(const double* p, int n) {
    oracle::dense a = oracle::zeros(at(n), at(n));
    for (int i = 0; i < n; ++i)
        for (int j = i; j < n; ++j) a[at(i)][at(j)] = a[at(j)][at(i)] = *p++;
    return a;
}

// Names of an effect: two where it is a pair of correlated ones.
std::vector<std::string> names(const small_effect& e) {
    const auto plus = e.name.find('+');
    if (plus == std::string::npos) return {e.name};
    return {e.name.substr(0, plus), e.name.substr(plus + 1)};
}

// Orthonormal Legendre functions at t within [low, high], by the recurrence of the polynomials.
oracle::vec legendre(double t, double low, double high, int n) {
    const double x = -1.0 + 2.0 * (t - low) / (high - low);
    oracle::vec p(at(n), 1.0);
    if (n > 1) p[1] = x;
    for (int k = 2; k < n; ++k) p[at(k)] = ((2.0 * k - 1.0) * x * p[at(k - 1)] - (k - 1.0) * p[at(k - 2)]) / k;
    for (int k = 0; k < n; ++k) p[at(k)] *= std::sqrt((2.0 * k + 1.0) / 2.0);
    return p;
}

} // namespace

void small_model::make_pedigree(int n, int founders, unsigned seed) {
    std::mt19937 rng(seed);
    sire.assign(at(n), 0);
    dam.assign(at(n), 0);
    for (int i = founders; i < n; ++i) {
        const int s = static_cast<int>(rng() % static_cast<unsigned>(i));
        const int d = static_cast<int>(rng() % static_cast<unsigned>(i));
        if (s % 2 == 0) sire[at(i)] = s + 1; // sires are odd, dams even codes
        if (d % 2 == 1) dam[at(i)] = d + 1;
    }
}

void small_model::make_rows(int from, int repeats, int nherd, double missing, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> normal;
    std::uniform_real_distribution<double> uniform;
    const int n = static_cast<int>(sire.size());
    std::vector<double> a(at(n));
    for (int i = 0; i < n; ++i) {
        const double s = sire[at(i)] ? a[at(sire[at(i)] - 1)] : 0.0, d = dam[at(i)] ? a[at(dam[at(i)] - 1)] : 0.0;
        a[at(i)] = 0.5 * (s + d) + normal(rng);
    }
    for (int i = from; i <= n; ++i) {
        const double pe = normal(rng);
        for (int k = 1; k <= repeats; ++k) {
            small_row r;
            r.animal = i;
            r.pe = i - from + 1;
            r.dam = 1 + i % 7;
            r.herd = 1 + static_cast<int>(rng() % static_cast<unsigned>(nherd));
            r.age = randreg ? 1 + (3 * i + 4 * k) % 11 : k;
            r.x = normal(rng);
            const double common = normal(rng);
            for (int q = 1; q <= nq; ++q) {
                const double y = 10.0 * q + r.herd + 0.5 * r.x + (1.0 + 0.2 * q) * a[at(i - 1)] + pe + 0.5 * common +
                                 (1.0 + 0.1 * q) * normal(rng) + 0.1 * r.age;
                r.y.push_back(uniform(rng) < missing ? -999.0 : std::round(y * 1000.0) / 1000.0);
            }
            rows.push_back(r);
        }
    }
}

std::string small_model::parameters() const {
    std::ostringstream s;
    s << "DAT model.dat\n animal 999\n pe 999\n dam 99\n herd 99\n age 99\n x\n";
    for (int q = 1; q <= nq; ++q) s << " y" << q << "\n";
    s << "END\n";
    if (!sire.empty()) s << "PED model.ped" << (sires ? " SIR" : "") << "\n";
    const std::string pc = principal ? " PC" : "";
    if (randreg)
        s << "ANA RR" << pc << "\nMOD\n";
    else if (nq == 1 && !principal)
        s << "ANA UNI\nMOD\n";
    else
        s << "ANA MUV" << pc << " " << nq << "\nMOD EQ\n";
    if (herd) s << " FIX herd\n";
    if (covariable) s << " COV x(1,POL)\n";
    if (mean) s << " MEA\n";
    for (const auto& e : random)
        for (const std::string& name : names(e)) {
            s << " RAN " << name;
            if (randreg) s << "(" << e.order << ",LEG)";
            s << " " << e.kov << "\n";
        }
    if (randreg) s << " RRC age\n";
    for (int q = 1; q <= nq; ++q) s << " TRAIT y" << q << " " << q << " -999\n";
    s << "END\n";
    for (const auto& e : random) {
        s << "VAR " << e.name << " " << e.order;
        if (principal && e.rank > 0) s << " " << e.rank;
        if (e.diagonal) s << " DIA";
        if (e.by_record) s << " REC";
        s << number_list(e.g) << "\n";
    }
    s << "VAR residual " << nq;
    if (!randreg)
        s << number_list(residual) << "\n";
    else if (class_bounds.empty())
        s << " HOM" << number_list(residual) << "\n";
    else {
        s << " HET " << class_bounds.size() << " age\n";
        int low = 1;
        for (std::size_t k = 0; k < class_bounds.size(); ++k) {
            s << "  " << low << " " << class_bounds[k] << " " << residual[k] << "\n";
            low = class_bounds[k] + 1;
        }
    }
    s << extra;
    return s.str();
}

void small_model::write_files(const std::string& stem) const {
    write_file(stem + ".par", parameters());
    std::ostringstream d, p;
    d.precision(17);
    for (const auto& r : rows) {
        d << r.animal << " " << r.pe << " " << r.dam << " " << r.herd << " " << r.age << " " << r.x;
        for (double y : r.y) d << " " << y;
        d << "\n";
    }
    for (std::size_t i = 0; i < sire.size(); ++i) p << i + 1 << " " << sire[i] << " " << dam[i] << "\n";
    write_file("model.dat", d.str());
    if (!sire.empty()) write_file("model.ped", p.str());
}

oracle::analysis small_model::dense() const {
    oracle::analysis m;
    m.randreg = randreg;
    int low = 9999, high = 0, nherd = 0;
    for (const auto& r : rows) {
        low = std::min(low, r.age);
        high = std::max(high, r.age);
        nherd = std::max(nherd, r.herd);
    }
    std::map<std::pair<int, int>, std::size_t> herds;
    for (int q = 1; q <= nq; ++q)
        for (const auto& r : rows)
            if (r.y[at(q - 1)] != -999.0) herds.emplace(std::pair(q, r.herd), herds.size());
    const std::size_t nh = herd ? herds.size() : 0, width = nh + (covariable ? at(nq) : 0) + (mean ? at(nq) : 0);
    int previous = 0, subject = 0;
    for (const auto& r : rows) {
        if (r.animal != previous) ++subject;
        previous = r.animal;
        for (int q = 1; q <= nq; ++q) {
            if (r.y[at(q - 1)] == -999.0) continue;
            oracle::observation o;
            o.trait = q;
            o.subject = subject;
            o.age = r.age;
            o.y = r.y[at(q - 1)];
            for (std::size_t k = 0; k < class_bounds.size() && r.age > class_bounds[k]; ++k) ++o.iclass;
            o.x.assign(width, 0.0);
            if (herd) o.x[herds[{q, r.herd}]] = 1.0;
            if (covariable) o.x[nh + at(q - 1)] = r.x;
            if (mean) o.x[width - at(nq) + at(q - 1)] = 1.0;
            for (const auto& e : random) {
                o.terms.emplace_back();
                if (e.kov == "PEQ") continue;
                int place = q;
                for (const std::string& name : names(e)) {
                    oracle::vec z(at(e.order), 0.0);
                    if (randreg)
                        z = legendre(r.age, low, high, e.order);
                    else
                        z[at(place - 1)] = 1.0;
                    o.terms.back().push_back({name == "animal" ? r.animal : name == "pe" ? r.pe : r.dam, z});
                    place += nq;
                }
            }
            m.obs.push_back(o);
        }
    }
    for (const auto& e : random) {
        int nlev = 1;
        for (const auto& o : m.obs)
            for (const auto& t : o.terms[m.a.size()]) nlev = std::max(nlev, t.level);
        if (e.kov == "NRM" || e.kov == "GIN") {
            m.a.push_back(sires && e.kov == "NRM" ? oracle::related_sires(sire, dam) : oracle::tabular(sire, dam));
            continue;
        }
        m.a.push_back(oracle::zeros(at(nlev), at(nlev)));
        for (int l = 0; l < nlev; ++l) m.a.back()[at(l)][at(l)] = 1.0;
    }
    return m;
}

small_model one_trait_model() {
    small_model m;
    m.make_pedigree(24, 6, 1);
    m.make_rows(4, 1, 3, 0.0, 2);
    m.random = {{"animal", "NRM", 1, 0, {1.3}}};
    m.residual = {2.1};
    return m;
}

small_model traits_model(int nq, std::vector<double> g, std::vector<double> r, int repeats, int animals) {
    small_model m;
    m.nq = nq;
    m.make_pedigree(animals, 6, 5);
    m.make_rows(4, repeats, 2, nq > 1 ? 0.2 : 0.0, 6);
    m.random = {{"animal", "NRM", nq, 0, std::move(g)}};
    m.residual = std::move(r);
    return m;
}

oracle::dense square(std::span<const double> packed, int n) {
    const auto size = static_cast<std::size_t>(n);
    oracle::dense a = oracle::zeros(size, size);
    std::size_t k = 0;
    for (std::size_t i = 0; i < size; ++i)
        for (std::size_t j = i; j < size; ++j) a[i][j] = a[j][i] = packed[k++];
    return a;
}

dense_model as_given(const small_model& m, bool lines) {
    dense_model d{m.dense(), {}};
    if (m.class_bounds.empty())
        d.at.r = {square(m.residual, m.nq)};
    else
        for (const double v : m.residual) d.at.r.push_back({{v}});
    for (const auto& e : m.random) {
        const auto order = static_cast<std::size_t>(e.order);
        d.at.g.push_back(e.diagonal ? oracle::zeros(order, order) : square(e.g, e.order));
        for (std::size_t i = 0; i < e.g.size() && e.diagonal; ++i) d.at.g.back()[i][i] = e.g[i];
    }
    std::size_t k = 0;
    int line = 0;
    for (const auto& r : m.rows) {
        ++line;
        for (double y : r.y)
            if (y != -999.0 && lines) d.an.obs[k++].subject = line;
    }
    return d;
}

void set_up(const small_model& m, const std::vector<std::string>& arguments) {
    m.write_files("model");
    std::vector<std::string> list{"tarvex"};
    list.insert(list.end(), arguments.begin(), arguments.end());
    list.push_back("model.par");
    std::vector<const char*> argv;
    for (const auto& s : list) argv.push_back(s.c_str());
    const auto ended = run_to(run_stage::stores, static_cast<int>(argv.size()), argv.data());
    EXPECT_FALSE(ended) << "the run ended before the stores were set up";
}

namespace {

void in_units_of_the_data(int irand, int n, array<double>& cc) {
    int k = 0;
    for (int i = 1; i <= n; ++i)
        for (int j = i; j <= n; ++j) cc(++k) *= cov_unit(irand, i, j);
}

} // namespace

oracle::point point_at(const small_model& m, array<double> parvec) {
    oracle::point p;
    array<double> cc;
    array<double, 2> vv;
    int ifail = 0;
    for (int step = 1; step <= model.rr_resteps; ++step) {
        parvec2covs(parvec, 0, step, cc, vv, ifail);
        in_units_of_the_data(0, m.nq, cc);
        p.r.push_back(unpacked(cc.data(), m.nq));
        int k = (step - 1) * m.nq * (m.nq + 1) / 2;
        for (int i = 0; i < m.nq; ++i)
            for (int j = i; j < m.nq; ++j)
                if (residualvars.fixres(++k)) p.r.back()[at(i)][at(j)] = p.r.back()[at(j)][at(i)] = 0.0;
    }
    for (std::size_t k = 0; k < m.random.size(); ++k) {
        const int irand = static_cast<int>(k) + 1;
        parvec2covs(parvec, irand, 1, cc, vv, ifail);
        in_units_of_the_data(irand, model.kkfit(irand), cc);
        const oracle::dense g = unpacked(cc.data(), model.kkfit(irand));
        if (m.random[k].kov == "PEQ") {
            p.b = g;
            p.g.push_back({});
        } else {
            p.g.push_back(g);
        }
    }
    return p;
}

double dense_logl(const small_model& m, const array<double>& parvec) {
    const oracle::analysis a = m.dense();
    return oracle::evaluate(a, oracle::variance(a, point_at(m, parvec))).logl;
}

double program_logl(array<double> parvec, int iopt) { return evaluate_point(parvec, iopt); }

std::vector<double> difference_gradient(const array<double>& parvec, double h) {
    std::vector<double> g;
    const auto slope = [&](int i, double step) {
        array<double> up = parvec, down = parvec;
        up(i) += step;
        down(i) -= step;
        return (program_logl(up) - program_logl(down)) / (2.0 * step);
    };
    for (int i = 1; i <= estimates.nparm; ++i) {
        const double step = h * std::max(1.0, std::fabs(parvec(i)));
        g.push_back((4.0 * slope(i, step / 2.0) - slope(i, step)) / 3.0);
    }
    return g;
}

} // namespace tarvex
