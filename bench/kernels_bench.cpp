// Times of the sparse kernels on one structure, beside CHOLMOD (supernodal, OpenBLAS, one thread) on the same matrix in
// the same order.
//
//   kernels_bench SOURCE [benchmark options]     SOURCE as in systems.h
//
// Each benchmark is one call on fresh values; medians are shown. "Mops" are millions of multiplications in a second.
#include "control/numbers.h"
#include "control/options.h"
#include "critical_path.h"
#include "equations/mmmatrix.h"
#include "likelihood/factormmm.h"
#include "sparse/dense_kernels.h"
#include "sparse/supernodes.h"
#include "sparse/symbfact.h"
#include "systems.h"
#include "yardstick.h"

#include <benchmark/benchmark.h>
#include <cholmod.h>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sys/resource.h>

namespace tarvex {
namespace {

// The factor of the last call stands in module sparse.
bool factorised = false;
double logdet = 0.0;

void factorise(benchmark::State& state, kernel_kind kind) {
    kernels.choice = kind;
    for (auto _ : state) {
        state.PauseTiming();
        set_values();
        factorised = true;
        double ypy = 0.0;
        int ifail = 0;
        state.ResumeTiming();
        factorise_mmm(logdet, ypy, ifail);
        if (ifail != 0) state.SkipWithError("no factor");
    }
    state.counters["Mops"] = benchmark::Counter(1e-6 * count_operations(sparse.n, sparse.ixvec1),
                                                benchmark::Counter::kIsIterationInvariantRate);
}

void need_factor() {
    if (factorised) return;
    double ypy = 0.0;
    int ifail = 0;
    set_values();
    kernels.choice = kernel_kind::supernodes;
    factorise_mmm(logdet, ypy, ifail);
    factorised = true;
}

void invert(benchmark::State& state, kernel_kind kind) {
    for (auto _ : state) {
        state.PauseTiming();
        need_factor();
        kernels.choice = kind;
        state.ResumeTiming();
        takaha_inverse();
        factorised = false;
    }
}

array<double> fdiag, foff;

void differentiate(benchmark::State& state, kernel_kind kind) {
    for (auto _ : state) {
        state.PauseTiming();
        need_factor();
        kernels.choice = kind;
        state.ResumeTiming();
        autodiff_1(fdiag, foff);
    }
}

void forward(benchmark::State& state, kernel_kind kind) {
    need_factor();
    kernels.choice = kind;
    array<double, 2> b;
    b.allocate(numbers.nsrow, solve_columns);
    for (auto _ : state) {
        state.PauseTiming();
        b.fill(1.0);
        state.ResumeTiming();
        forward_columns(b);
    }
}

void partition(benchmark::State& state) {
    for (auto _ : state) {
        kernels.work.tree = {};
        supernodes(sparse, kernels.work);
    }
}

void cholmod(benchmark::State& state) {
    cholmod_common c;
    cholmod_start(&c);
    c.nmethods = 1;
    c.method[0].ordering = CHOLMOD_NATURAL;
    c.postorder = 1;
    c.supernodal = CHOLMOD_SUPERNODAL;
    const int n = numbers.nsrow;
    set_values();
    factorised = false;
    cholmod_sparse* a =
        cholmod_allocate_sparse(n, n, static_cast<std::size_t>(n) + sparse.maxlnz, 1, 1, -1, CHOLMOD_REAL, &c);
    int *ap = static_cast<int*>(a->p), *ai = static_cast<int*>(a->i), at = 0;
    double* ax = static_cast<double*>(a->x);
    for (int j = 1; j <= n; ++j) {
        ap[j - 1] = at;
        ai[at] = j - 1;
        ax[at++] = sparse.diag(j);
        for (int q = sparse.ixvec1(j); q < sparse.ixvec1(j + 1); ++q) {
            ai[at] = sparse.ixsub(sparse.ixvec2(j) + q - sparse.ixvec1(j)) - 1;
            ax[at++] = sparse.xspars(q);
        }
    }
    ap[n] = at;
    cholmod_factor* l = cholmod_analyze(a, &c);
    for (auto _ : state) cholmod_factorize(a, l, &c);
    if (c.status != CHOLMOD_OK) state.SkipWithError("no factor");
    state.counters["Mops"] = benchmark::Counter(1e-6 * count_operations(sparse.n, sparse.ixvec1),
                                                benchmark::Counter::kIsIterationInvariantRate);
    cholmod_free_factor(&l, &c);
    cholmod_free_sparse(&a, &c);
    cholmod_finish(&c);
}

// Largest difference of F by both kernels, against its largest element, and of the log determinant.
void compare_kernels() {
    array<double> fd, fo;
    double detc[2], ypy[2], largest = 0.0, difference = 0.0;
    int ifail = 0;
    for (int k = 0; k < 2; ++k) {
        set_values();
        kernels.choice = k == 0 ? kernel_kind::supernodes : kernel_kind::columns;
        factorise_mmm(detc[k], ypy[k], ifail);
        autodiff_1(k == 0 ? fdiag : fd, k == 0 ? foff : fo);
    }
    for (int i = 1; i < numbers.nsrow; ++i) {
        largest = std::max(largest, std::fabs(fd(i)));
        difference = std::max(difference, std::fabs(fd(i) - fdiag(i)));
    }
    for (int q = 1; q <= sparse.maxlnz; ++q) difference = std::max(difference, std::fabs(fo(q) - foff(q)));
    std::printf("relative differences: log determinant %.1e, y'Py %.1e, derivatives %.1e\n",
                std::fabs(detc[0] / detc[1] - 1.0), std::fabs(ypy[0] / ypy[1] - 1.0), difference / largest);
    factorised = true;
}

template <class F> void add(const char* name, int repetitions, F f) {
    benchmark::RegisterBenchmark(name, f)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1)
        ->Repetitions(repetitions)
        ->ReportAggregatesOnly(repetitions > 1);
}

} // namespace
} // namespace tarvex

int main(int argc, char** argv) {
    using namespace tarvex;
    if (argc < 2) {
        std::puts("kernels_bench SOURCE [--compare] [benchmark options]");
        return 1;
    }
    const bool honest = honest_openblas(argv);
    options.terse = true;
    load_structure(argv[1]);
    bool compare = false;
    int kept = 1;
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--compare") == 0)
            compare = true;
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
    const supernode_tree& tree = supernodes(sparse, kernels.work);
    std::printf("%s: %d rows, %d elements, %.1f Mops, %.0f an element; %zu supernodes, largest front %d, widest %d; "
                "update matrices %.0f MB, inverse %.0f MB; kernels %s\n",
                argv[0], numbers.nsrow, sparse.maxlnz, 1e-6 * count_operations(sparse.n, sparse.ixvec1),
                count_operations(sparse.n, sparse.ixvec1) / sparse.maxlnz, tree.parent.size(), tree.rows, tree.width,
                8e-6 * static_cast<double>(tree.triangles[0] + tree.triangles[1]),
                8e-6 * static_cast<double>(tree.inverse), dense_kernels().name);
    print_chain(chain_of(sparse, tree));
    if (compare) compare_kernels();
    const bool big = count_operations(sparse.n, sparse.ixvec1) > 2e9;
    if (honest) add("factor/cholmod", 5, cholmod);
    add("factor/supernodes", 5, [](benchmark::State& s) { factorise(s, kernel_kind::supernodes); });
    add("factor/columns", big ? 1 : 3, [](benchmark::State& s) { factorise(s, kernel_kind::columns); });
    add("inverse/supernodes", 5, [](benchmark::State& s) { invert(s, kernel_kind::supernodes); });
    add("inverse/columns", big ? 1 : 3, [](benchmark::State& s) { invert(s, kernel_kind::columns); });
    add("derivatives/supernodes", 5, [](benchmark::State& s) { differentiate(s, kernel_kind::supernodes); });
    add("derivatives/columns", big ? 1 : 3, [](benchmark::State& s) { differentiate(s, kernel_kind::columns); });
    add("forward16/supernodes", 5, [](benchmark::State& s) { forward(s, kernel_kind::supernodes); });
    add("forward16/columns", 3, [](benchmark::State& s) { forward(s, kernel_kind::columns); });
    add("partition", 5, partition);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("peak memory %.0f MB, of which the factor %.0f MB\n", 1e-3 * static_cast<double>(usage.ru_maxrss),
                8e-6 * (sparse.maxlnz + numbers.nsrow));
    return 0;
}
