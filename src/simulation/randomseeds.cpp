#include "simulation/randomseeds.h"

#include "control/filenames.h"
#include "simulation/ignlgi.h"
#include "simulation/ranf.h"
#include "simulation/setall.h"
#include "simulation/simulation.h"
#include "support/plain_text.h"
#include "support/record_file.h"
#include "support/screen.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace tarvex {

namespace {

constexpr int largest_seed = 2147483398;       // legal for both moduli
constexpr int largest_first_seed = 2147483562; // legal for the first

bool read_seeds(long long& seed1, long long& seed2) {
    std::ifstream file(filenames.rnseedfile);
    skip_mark(file);
    std::string text(std::istreambuf_iterator<char>(file), {});
    // two numbers, parted by blanks or a comma
    std::replace(text.begin(), text.end(), ',', ' ');
    std::istringstream in(text);
    return in >> seed1 >> seed2 && seed1 >= 1 && seed1 <= largest_first_seed && seed2 >= 1 && seed2 <= largest_seed;
}

void seeds_from_clock() {
    // the clock seeds the generator, which makes the seeds: neighbouring times give unlike ones
    const auto ticks = std::chrono::system_clock::now().time_since_epoch().count();
    const int current = randomgen.curntg;
    setall(static_cast<int>(1 + ticks % largest_seed), static_cast<int>(1 + (ticks / 1000003) % largest_seed));
    setcgn(1);
    simulation.iseed1 = irandno(largest_seed);
    simulation.iseed2 = irandno(largest_seed);
    setcgn(current);
    simulation.newseeds = true;
}

} // namespace

void setup_randnos() {
    long long seed1 = 0, seed2 = 0;
    if (!file_exists(filenames.rnseedfile))
        seeds_from_clock();
    else if (read_seeds(seed1, seed2)) {
        simulation.iseed1 = static_cast<int>(seed1);
        simulation.iseed2 = static_cast<int>(seed2);
    } else {
        print_list(screen(), "Error reading random seeds from \"" + filenames.rnseedfile + "\" ");
        print_list(screen(), " ... switching to initialisation from clock ");
        seeds_from_clock();
    }
    // told, so that a simulation can be made again
    print_list(screen(), "Initial random no.s =", simulation.iseed1, simulation.iseed2);
    setall(simulation.iseed1, simulation.iseed2);
    // seeds of the next run are drawn from this one; then the run begins
    const int next1 = irandno(largest_seed), next2 = irandno(largest_seed);
    text_out out;
    if (out.open(filenames.rnseedfile)) print_list(out, next1, next2);
    setall(simulation.iseed1, simulation.iseed2);
}

} // namespace tarvex
