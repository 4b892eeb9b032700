#include "app/forecast.h"

#include "control/options.h"
#include "control/tvxroutines.h"
#include "equations/mmmatrix.h"
#include "likelihood/factormmm.h"
#include "sparse/supernodes.h"
#include "sparse/symbfact.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <vector>

namespace tarvex {

namespace {

constexpr double factorisations = 3.7;                        // in an AI iterate
constexpr double sparse_part = 0.4;                           // of the rate of a dense product
constexpr double many_operations = 1.0e9, many_bytes = 1.0e8; // below: neither a minute nor short of memory

// Multiplications in a second of the processor's time, by products of 240 x 240 for some hundredths of a second.
double dense_rate() {
    constexpr int m = 240;
    const double m3 = static_cast<double>(m) * m * m;
    std::vector<double> a(static_cast<std::size_t>(m) * m, 0.5), c(a), space(kernel_space_size);
    kernel_space w;
    w.scratch = space.data();
    w.packed_b = w.scratch + scratch_size;
    w.corner = w.packed_b + broad * packed_depth;
    const double start = cpu_time();
    double seconds = 0.0;
    int calls = 0;
    for (; seconds < 0.03; ++calls) {
        dense_kernels().product(w, store_mode::set, m, m, m, a.data(), m, a.data(), m, c.data(), m);
        seconds = cpu_time() - start;
    }
    return calls * m3 / seconds;
}

// Values of the factor and of the right-hand side, and the work space of the kernels.
double numeric_bytes() {
    double words = static_cast<double>(sparse.maxlnz) + 4.0 * sparse.n;
    if (supernodes_wanted()) {
        const supernode_tree& tree = supernodes(sparse, kernels.work);
        const double panel = static_cast<double>(tree.rows) * std::min(tree.width, wide);
        words += 5.0 * panel + static_cast<double>(std::max(tree.triangles[0] + tree.triangles[1], tree.inverse));
    }
    return 8.0 * words;
}

} // namespace

double iterate_seconds(const cost_forecast& c) {
    return c.rate > 0.0 ? factorisations * c.operations / (sparse_part * c.rate) : 0.0;
}

std::string forecast_line(const cost_forecast& c) {
    char text[300], free[60] = "", seconds[60] = "";
    if (c.free >= 0.0) std::snprintf(free, sizeof free, " of %.2f GB free", 1e-9 * c.free);
    if (c.rate > 0.0) std::snprintf(seconds, sizeof seconds, ", about %.3g seconds an iterate", iterate_seconds(c));
    std::snprintf(text, sizeof text,
                  "Forecast : %lld equations, %lld elements of the factor, memory %.2f GB%s, %.4g billion operations%s",
                  c.equations, c.elements, 1e-9 * c.bytes, free, 1e-9 * c.operations, seconds);
    return text;
}

double free_memory(std::string_view meminfo) {
    double sum = 0.0;
    bool known = false;
    std::istringstream lines{std::string(meminfo)};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        double kilobytes = 0.0;
        if (!(words >> name >> kilobytes)) continue;
        if (name != "MemAvailable:" && name != "SwapFree:") continue;
        known = known || name == "MemAvailable:";
        sum += 1024.0 * kilobytes;
    }
    return known ? sum : -1.0;
}

void tell_forecast(const cost_forecast& c) {
    const bool known = c.free >= 0.0;
    const bool short_of_memory = known && c.bytes > c.free;
    const bool much = iterate_seconds(c) > 60.0 || (known && c.bytes > 0.5 * c.free);
    if (options.print_times || options.setup_only || short_of_memory || (much && !options.terse))
        screen().line(forecast_line(c));
    if (!short_of_memory || options.setup_only) return;
    screen().line("The memory of this machine does not suffice for the factorisation !");
    screen().line("What helps: other programs stopped, a better order (--setup --metisall), fewer effects or traits, "
                  "reduced rank, or a larger machine.");
    stoptarvex();
}

void forecast() {
    const bool always = options.print_times || options.setup_only;
    cost_forecast c;
    c.equations = sparse.n - 1;
    c.elements = sparse.maxlnz;
    c.operations = count_operations(sparse.n, sparse.ixvec1);
    const bool small = c.operations < many_operations && 8.0 * static_cast<double>(c.elements) < many_bytes;
    if (small && !always) return;
    c.bytes = numeric_bytes();
    std::ifstream in("/proc/meminfo");
    std::ostringstream meminfo;
    meminfo << in.rdbuf();
    c.free = free_memory(meminfo.str());
    c.rate = dense_rate();
    tell_forecast(c);
}

} // namespace tarvex
