#include "app/forecast.h"

#include "control/options.h"
#include "control/tvxroutines.h"
#include "equations/mmmatrix.h"
#include "likelihood/factormmm.h"
#include "sparse/supernodes.h"
#include "sparse/symbfact.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
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
    // long against the clock's ticks
    for (; seconds < 0.03; ++calls) {
        dense_kernels().product(w, store_mode::set, m, m, m, a.data(), m, a.data(), m, c.data(), m);
        seconds = cpu_time() - start;
    }
    return calls * m3 / seconds;
}

// Values of the factor and of the right-hand side, and the work space of the kernels.
double numeric_bytes() {
    // diagonal, right-hand sides and solutions beside the factor
    double words = static_cast<double>(sparse.maxlnz) + 4.0 * sparse.n;
    if (supernodes_wanted()) {
        const supernode_tree& tree = supernodes(sparse, kernels.work);
        const double panel = static_cast<double>(tree.rows) * std::min(tree.width, wide);
        // panels of the inverse, the larger of the two; update matrices or the inverse below a front
        words += 5.0 * panel + static_cast<double>(std::max(tree.triangles[0] + tree.triangles[1], tree.inverse));
        const int threads = threads_wanted();
        const double piece = static_cast<double>(tree.piece_rows) * std::min(tree.piece_width, wide);
        if (threads > 1)
            words += threads * (5.0 * piece + static_cast<double>(
                                                  std::max(tree.triangles[0] + tree.triangles[1], tree.piece_inverse)));
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
    // "name: number kB", one a line
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        double kilobytes = 0.0;
        if (!(words >> name >> kilobytes)) continue;
        if (name != "MemAvailable:" && name != "SwapFree:") continue;
        known = known || name == "MemAvailable:";
        // swap counts: a run in it is slow, but ends
        sum += 1024.0 * kilobytes;
    }
    return known ? sum : -1.0;
}

namespace {

// The number in a file of one, -1 if there is none ("max": no limit).
double number_in(const std::filesystem::path& file) {
    double x = -1.0;
    std::ifstream in(file);
    return in >> x ? x : -1.0;
}

// The number behind `name` in a table of lines, 0 if it is not there.
double entry_of(const std::filesystem::path& file, std::string_view name) {
    std::ifstream in(file);
    std::string word;
    for (double x; in >> word >> x;)
        if (word == name) return x;
    return 0.0;
}

// What a group may still take: cached pages of files count as free. -1: it has no limit.
double left_in_group(const std::filesystem::path& group, bool first_kind) {
    const double limit = number_in(group / (first_kind ? "memory.limit_in_bytes" : "memory.max"));
    const double used = number_in(group / (first_kind ? "memory.usage_in_bytes" : "memory.current"));
    // a limit beyond all machines stands for none
    if (limit < 0.0 || used < 0.0 || limit > 1.0e18) return -1.0;
    const double cached = entry_of(group / "memory.stat", first_kind ? "total_inactive_file" : "inactive_file");
    return std::max(0.0, limit - used + cached);
}

// such files have no size: they are read to their end
std::string text_of(const char* file) {
    std::ifstream in(file);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

double group_memory(const std::filesystem::path& root, std::string_view groups) {
    double least = -1.0;
    std::istringstream lines{std::string(groups)};
    for (std::string line; std::getline(lines, line);) { // number:controllers:/path
        const auto first = line.find(':'), second = line.find(':', first + 1);
        if (second == std::string::npos || line.size() < second + 2) continue;
        const std::string kinds = line.substr(first + 1, second - first - 1);
        // the older way names its controllers and has a tree for memory; the newer one names none
        const bool first_kind = ("," + kinds + ",").find(",memory,") != std::string::npos;
        if (!first_kind && !kinds.empty()) continue;
        const std::filesystem::path top = first_kind ? root / "memory" : root;
        for (std::filesystem::path path = line.substr(second + 1);; path = path.parent_path()) { // and all above it
            const double left = left_in_group(top / path.relative_path(), first_kind);
            // the tightest of the groups counts
            if (left >= 0.0 && (least < 0.0 || left < least)) least = left;
            if (path.relative_path().empty()) break;
        }
    }
    return least;
}

void tell_forecast(const cost_forecast& c) {
    const bool known = c.free >= 0.0;
    const bool short_of_memory = known && c.bytes > c.free;
    // minutes, or half of what is free
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
    // not worth measuring the processor
    const bool small = c.operations < many_operations && 8.0 * static_cast<double>(c.elements) < many_bytes;
    if (small && !always) return;
    c.bytes = numeric_bytes();
    c.free = free_memory(text_of("/proc/meminfo"));
    const double group = group_memory("/sys/fs/cgroup", text_of("/proc/self/cgroup"));
    if (group >= 0.0 && (c.free < 0.0 || group < c.free)) c.free = group;
    c.rate = dense_rate();
    tell_forecast(c);
}

} // namespace tarvex
