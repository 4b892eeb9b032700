// What the analysis is about to cost, told before the first factorisation.
#pragma once
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace tarvex {

struct cost_forecast {
    long long equations = 0, elements = 0; // of the factor, off the diagonal
    double operations = 0.0;               // multiplications of a factorisation
    double bytes = 0.0;                    // that the numerical work will take beyond what the process holds
    double free = -1.0;                    // bytes that the machine has free, -1: not known
    double rate = 0.0;                     // multiplications in a second of a small dense product, 0: not measured
};

// Seconds of an AI iterate: 3.7 factorisations, at the part of the dense rate that sparse systems reach.
double iterate_seconds(const cost_forecast& c);
std::string forecast_line(const cost_forecast& c);

// Bytes free by the text of /proc/meminfo: available memory and free swap space. -1: the text does not tell.
double free_memory(std::string_view meminfo);

// Bytes that the control groups of this process leave it, by the text of /proc/self/cgroup and the files below `root`
// (/sys/fs/cgroup): the least of its group and of all above it. -1: none has a limit.
double group_memory(const std::filesystem::path& root, std::string_view groups);

// Tells a forecast in one line: always with --times and --setup, at the default level only when an iterate will take
// more than a minute or more than half of the free memory is needed. Stops where the memory cannot suffice, but for
// --setup.
void tell_forecast(const cost_forecast& c);

// The forecast for the equations in hand. Small systems are not looked at unless the line is asked for.
void forecast();

} // namespace tarvex
