// What it costs to read the scratch files of a folder and to check their seals, as each run does that takes them over.
//   seals_bench [ROUNDS]     in the folder; wall and processor seconds of the best round
#include "support/seal.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    using clock = std::chrono::steady_clock;
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
    std::vector<std::string> sealed;
    std::uintmax_t bytes = 0;
    tarvex::seal s;
    for (const auto& entry : std::filesystem::directory_iterator("."))
        if (entry.path().extension() == ".bin" && tarvex::read_seal(entry.path().filename(), s)) {
            sealed.push_back(entry.path().filename());
            bytes += entry.file_size();
        }
    double wall = 1.0e9, cpu = 1.0e9;
    for (int k = 0; k < rounds; ++k) {
        const auto from = clock::now();
        const std::clock_t used = std::clock();
        for (const auto& name : sealed)
            if (!tarvex::read_seal(name, s)) return 1;
        wall = std::min(wall, std::chrono::duration<double>(clock::now() - from).count());
        cpu = std::min(cpu, static_cast<double>(std::clock() - used) / CLOCKS_PER_SEC);
    }
    std::printf("%zu sealed files, %.1f MB: %.3f s wall, %.3f s processor\n", sealed.size(),
                static_cast<double>(bytes) / 1.0e6, wall, cpu);
}
