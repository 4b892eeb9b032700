// Times of the steps of an analysis, in processor seconds of one thread.
//
//   steps_bench [--rounds N] [--columns N] [--small | --pairs N] RUN ARGUMENTS
//
// The run arguments are those of the program, with --setup, in the folder of the case. Each round goes through all
// steps at slightly other parameters, beside CHOLMOD (supernodal, OpenBLAS, one thread) on the same matrix in the same
// order, so that the ratios are of pairs; --columns times the column kernel as well. --small times the choice that the
// program makes by itself against the column kernel, many calls in turn. --pairs N times steps with one thread and with
// N in turn, by the clock on the wall, and dense products that each thread makes by itself: what N processors of the
// machine have to give at the time; beside them CHOLMOD in the same order with as many threads of OpenBLAS. Printed are
// "time NAME MEDIAN" and "ratio NAME MEDIAN", the ratios to the factorisation of the same round, and for --pairs
// "speed_up NAME MEDIAN" over pairs.
#include "app/phases.h"
#include "control/numbers.h"
#include "control/options.h"
#include "critical_path.h"
#include "equations/mmmatrix.h"
#include "estimation/emsteps.h"
#include "estimation/estimates.h"
#include "likelihood/buildmmm.h"
#include "likelihood/derivatives.h"
#include "likelihood/factormmm.h"
#include "likelihood/likelihood.h"
#include "likelihood/setups.h"
#include "sparse/dense_kernels.h"
#include "sparse/symbfact.h"
#include "sparse/workspace.h"
#include "support/screen.h"
#include "support/stop.h"
#include "yardstick.h"

#include <algorithm>
#include <cholmod.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace tarvex {
namespace {

double now() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

template <class F> double timed(F f) {
    const double start = now();
    f();
    return now() - start;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const std::size_t n = v.size();
    return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

struct series {
    std::string name;
    std::vector<double> seconds;
};
std::vector<series> all;

void keep(const char* name, double seconds) {
    auto found = std::find_if(all.begin(), all.end(), [&](const series& s) { return s.name == name; });
    if (found == all.end()) found = all.insert(all.end(), {name, {}});
    found->seconds.push_back(seconds);
}

void print_all(const char* base) {
    const auto of = std::find_if(all.begin(), all.end(), [&](const series& s) { return s.name == base; });
    for (const series& s : all) {
        std::printf("time %s %.6f\n", s.name.c_str(), median(s.seconds));
        std::vector<double> ratios;
        for (std::size_t r = 0; r < s.seconds.size(); ++r) ratios.push_back(s.seconds[r] / of->seconds[r]);
        std::printf("ratio %s %.4f\n", s.name.c_str(), median(ratios));
    }
}

void check(bool good, const char* what) {
    if (good) return;
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
}

// The assembled matrix for CHOLMOD, without the places of the fill-in; the pattern is that of the first call.
struct cholmod_system {
    bool own_order = false; // METIS as CHOLMOD calls it by itself, in place of the program's order
    cholmod_common c{};
    cholmod_sparse* a = nullptr;
    cholmod_factor* l = nullptr;
    std::vector<int> place{}; // in xspars, 0: diagonal element

    void set() {
        if (!a) start();
        double* x = static_cast<double*>(a->x);
        const int* p = static_cast<int*>(a->p);
        for (int j = 1; j <= numbers.nsrow; ++j)
            for (int k = p[j - 1]; k < p[j]; ++k) {
                const int q = place[static_cast<std::size_t>(k)];
                x[k] = q > 0 ? sparse.xspars(q) : sparse.diag(j);
            }
    }
    void start() {
        const int n = numbers.nsrow;
        cholmod_start(&c);
        c.nmethods = 1;
        c.method[0].ordering = own_order ? CHOLMOD_METIS : CHOLMOD_NATURAL;
        c.postorder = 1;
        c.supernodal = CHOLMOD_SUPERNODAL;
        std::vector<int> p(1, 0), rows;
        for (int j = 1; j <= n; ++j) {
            place.push_back(0);
            rows.push_back(j - 1);
            for (int q = sparse.ixvec1(j); q < sparse.ixvec1(j + 1); ++q) {
                if (sparse.xspars(q) == 0.0) continue;
                place.push_back(q);
                rows.push_back(sparse.ixsub(sparse.ixvec2(j) + q - sparse.ixvec1(j)) - 1);
            }
            p.push_back(static_cast<int>(rows.size()));
        }
        a = cholmod_allocate_sparse(static_cast<std::size_t>(n), static_cast<std::size_t>(n), rows.size(), 1, 1, -1,
                                    CHOLMOD_REAL, &c);
        std::copy(p.begin(), p.end(), static_cast<int*>(a->p));
        std::copy(rows.begin(), rows.end(), static_cast<int*>(a->i));
        set();
        l = cholmod_analyze(a, &c);
        if (own_order) std::printf("cholmod_operations %.0f\n", 0.5 * c.fl); // it counts multiplications and additions
    }
    void factorise() {
        cholmod_factorize(a, l, &c);
        check(c.status == CHOLMOD_OK, "CHOLMOD");
    }
};

array<double> start_parameters;

// Parameters a little off the start, others in each round.
void set_parameters(int round) {
    estimates.parvec = start_parameters;
    for (double& v : estimates.parvec) v *= 1.0 + 1e-4 * round;
}

void evaluate() { check(loglike(estimates.parvec, 1).valid, "log L"); }

void factorise() {
    double detc = 0.0, ypy = 0.0;
    int ifail = 0;
    factorise_mmm(detc, ypy, ifail);
    check(ifail == 0, "factorisation");
}

void assemble() {
    int iflag = 0;
    build_mmm(iflag);
    check(iflag == 0, "assembly");
}

// The same matrix by CHOLMOD, in the program's order and in its own.
struct cholmod_pair {
    bool wanted = true;
    cholmod_system same{}, own{true};
    void set() {
        if (!wanted) return;
        same.set();
        own.set();
    }
    void factorise() {
        if (!wanted) return;
        keep("cholmod", timed([&] { same.factorise(); }));
        keep("cholmod_own_order", timed([&] { own.factorise(); }));
    }
};

void one_round(int round, bool columns, cholmod_pair& other) {
    set_parameters(round);
    const double like = timed(evaluate), information = timed(average_info), gradient = timed(derivatives_mmm);
    keep("assembly", timed(assemble));
    other.set();
    keep("factor", timed(factorise));
    other.factorise();
    keep("inverse", timed(takaha_inverse));
    assemble();
    factorise();
    keep("derivative", timed(autodiff_in_place));
    keep("information", information);
    keep("gradient", gradient);
    keep("evaluation", like);
    keep("iterate", like + information + gradient);
    evaluate();
    int iround = 1;
    double xlike = 0.0;
    keep("em_round", timed([&] { em_algorithm(1, iround, xlike, 0.0); }));
    if (!columns) return;
    set_parameters(round);
    evaluate();
    assemble();
    kernels.choice = kernel_kind::columns;
    keep("columns", timed(factorise));
    kernels.choice = kernel_kind::automatic;
}

// The program's choice of kernel against the column kernel, in turn.
void compare_small() {
    evaluate();
    assemble();
    const array<double> diag = sparse.diag, off = sparse.xspars;
    array<double> fdiag, foff;
    const char* names[2][3] = {{"factor", "inverse", "derivative"},
                               {"factor_columns", "inverse_columns", "derivative_columns"}};
    std::vector<double> sums[2][3];
    for (int call = 0; call < 2000 && (call < 7 || now() < 20.0); ++call)
        for (int k = 0; k < 2; ++k) {
            kernels.choice = (call + k) % 2 ? kernel_kind::columns : kernel_kind::automatic;
            auto& times = sums[(call + k) % 2];
            sparse.diag = diag;
            sparse.xspars = off;
            sparse.state = store_state::assembled;
            times[0].push_back(timed(factorise));
            times[2].push_back(timed([&] { autodiff_1(fdiag, foff); }));
            times[1].push_back(timed(takaha_inverse));
        }
    kernels.choice = kernel_kind::automatic;
    for (int what = 0; what < 3; ++what) {
        std::vector<double> ratios;
        for (std::size_t r = 0; r < sums[0][what].size(); ++r) ratios.push_back(sums[0][what][r] / sums[1][what][r]);
        for (int k = 0; k < 2; ++k) std::printf("time %s %.9f\n", names[k][what], median(sums[k][what]));
        std::printf("ratio %s_by_columns %.4f\n", names[0][what], median(ratios));
    }
    std::printf("kernel %s\n", supernodes_wanted() ? "supernodes" : "columns");
}

template <class F> double on_the_wall(F f) {
    const auto start = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Seconds that so many threads take for some dense products each, which share nothing.
double products_of(int threads) {
    constexpr int n = 480, times = 30;
    const dense_kernels_table& kernel = dense_kernels();
    std::vector<sparse_work> works(static_cast<std::size_t>(threads));
    std::vector<std::vector<double>> squares(works.size(), std::vector<double>(3 * (n + 8) * n, 0.001));
    std::vector<std::thread> others;
    return on_the_wall([&] {
        for (std::size_t t = 0; t < works.size(); ++t)
            others.emplace_back([&, t] {
                double* a = squares[t].data();
                const kernel_space space = packing_of(works[t]);
                for (int i = 0; i < times; ++i)
                    kernel.product(space, store_mode::set, n, n, n, a, n + 8, a + (n + 8) * n, n + 8,
                                   a + 2 * (n + 8) * n, n + 8);
            });
        for (std::thread& t : others) t.join();
    });
}

// Seconds of factorisation, sparse inverse, derivative and a whole iterate with so many threads.
std::vector<double> steps_with(int threads, int round) {
    options.threads = threads;
    set_parameters(round);
    assemble();
    factorise(); // threads are started and have their space
    takaha_inverse();
    assemble();
    std::vector<double> seconds{on_the_wall(factorise)};
    seconds.push_back(on_the_wall(takaha_inverse));
    assemble();
    factorise();
    seconds.push_back(on_the_wall(autodiff_in_place));
    set_parameters(-round);
    seconds.push_back(on_the_wall([] {
        evaluate();
        average_info();
        derivatives_mmm();
    }));
    return seconds;
}

// CHOLMOD on the same matrix with so many threads of OpenBLAS.
double cholmod_with(int threads, cholmod_system& other) {
    set_openblas_threads(threads);
    return on_the_wall([&] { other.factorise(); });
}

// One thread against several, in turn; what goes first changes from round to round.
void compare_threads(int threads, int rounds, bool honest) {
    const char* names[] = {"factor", "inverse", "derivative", "iterate"};
    std::vector<double> gain[4], seconds[4], machine, one_cholmod, cholmod_gain;
    cholmod_system other;
    for (int round = 1; round <= rounds; ++round) {
        const int first = round % 2 ? 1 : threads;
        const auto a = steps_with(first, round), b = steps_with(1 + threads - first, round);
        for (int k = 0; k < 4; ++k) {
            const auto& one = first == 1 ? a : b;
            const auto& many = first == 1 ? b : a;
            gain[k].push_back(one[k] / many[k]);
            seconds[k].push_back(one[k]);
        }
        machine.push_back(threads * products_of(1) / products_of(threads));
        if (!honest) continue;
        options.threads = 1;
        set_parameters(round);
        assemble();
        other.set();
        one_cholmod.push_back(cholmod_with(1, other));
        cholmod_gain.push_back(one_cholmod.back() / cholmod_with(threads, other));
    }
    if (honest) std::printf("time cholmod %.4f\nspeed_up cholmod %.3f\n", median(one_cholmod), median(cholmod_gain));
    std::printf("speed_up machine %.3f\n", median(machine));
    for (int k = 0; k < 4; ++k)
        std::printf("time %s %.4f\nspeed_up %s %.3f\n", names[k], median(seconds[k]), names[k], median(gain[k]));
}

void set_up(int argc, char** argv) {
    const double start = now();
    try {
        run_to(run_stage::equations, argc, argv);
    } catch (const program_stop&) {
        flush_all();
        check(false, "set-up");
    }
    const double used = now() - start;
    options.verbose = options.details = options.print_times = false;
    options.terse = true;
    setup4like();
    setup4mmm();
    start_parameters = estimates.parvec;
    evaluate(); // finds the places of the elements
    std::printf("\nrows %d\nelements %d\noperations %.0f\nbytes %.0f\nkernels %s\ntime setup %.3f\n", numbers.nsrow,
                sparse.maxlnz, count_operations(sparse.n, sparse.ixvec1), 8.0 * (sparse.maxlnz + numbers.nsrow),
                dense_kernels().name, used);
    if (supernodes_wanted()) print_chain(chain_of(sparse, supernodes(sparse, kernels.work)));
}

} // namespace
} // namespace tarvex

int main(int argc, char** argv) {
    using namespace tarvex;
    const bool honest = honest_openblas(argv); // may start anew, with all arguments
    int rounds = 3, columns = 0, pairs = 0, kept = 1;
    bool small = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc)
            rounds = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--columns") == 0 && i + 1 < argc)
            columns = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--pairs") == 0 && i + 1 < argc)
            pairs = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--small") == 0)
            small = true;
        else
            argv[kept++] = argv[i];
    }
    try {
        set_up(kept, argv);
        if (small) {
            compare_small();
            return 0;
        }
        if (pairs > 1) {
            compare_threads(pairs, rounds, honest);
            return 0;
        }
        cholmod_pair other{honest};
        for (int round = 1; round <= rounds; ++round) one_round(round, round <= columns, other);
    } catch (const program_stop& stopped) {
        std::fprintf(stderr, "%s\n", stopped.text.c_str());
        return 1;
    }
    print_all("factor");
    return 0;
}
