// Seconds for the inbreeding coefficients of pedigrees with many sires, by stretches of the list and by sires.
//
//   inbreeding_bench [--both]     --both: the sweeps by sires too, and the largest difference
//
// Generations follow one another; half of each are its sires, half its dams, mated at random. Processor time of one
// core.
#include "relations/inbreeding.h"
#include "relations/inbreeding_cuts.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>

namespace {

double seconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

void run(int count, int size, bool both) {
    std::mt19937 rng(7);
    const auto half = static_cast<unsigned>(size / 2);
    std::vector<int> sire(static_cast<std::size_t>(count) * size), dam(sire.size());
    for (int i = size; i < count * size; ++i) {
        const int before = (i / size - 1) * size;
        sire[i] = before + 1 + static_cast<int>(rng() % half);
        dam[i] = before + 1 + static_cast<int>(half + rng() % half);
    }
    const tarvex::pedigree_cuts cuts = tarvex::cut_pedigree(sire, dam);
    const double start = seconds();
    const std::vector<double> f = tarvex::inbreeding(sire, dam);
    std::printf(
        "%7zu animals, %2d generations, %5u sires in each: %5.2f s; million steps by stretches %6.0f, by sires %6.0f",
        sire.size(), count, half, seconds() - start, 1e-6 * static_cast<double>(cuts.steps),
        1e-6 * static_cast<double>(tarvex::sweep_steps(sire, dam)));
    if (both) {
        const double again = seconds();
        const std::vector<double> g = tarvex::inbreeding_by_sires(sire, dam);
        double difference = 0.0;
        for (std::size_t i = 0; i < f.size(); ++i) difference = std::fmax(difference, std::fabs(f[i] - g[i]));
        std::printf("; by sires %.2f s, largest difference %.1e", seconds() - again, difference);
    }
    std::puts("");
}

} // namespace

int main(int argc, char** argv) {
    const bool both = argc > 1 && std::strcmp(argv[1], "--both") == 0;
    run(10, 20000, both);
    run(20, 10000, both);
    run(20, 15000, both);
}
