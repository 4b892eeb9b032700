// Stops, pauses, timers and the frame of all reports.
#pragma once
#include "support/screen.h"

#include <string>
#include <string_view>

namespace tarvex {

struct times_module {
    double prev = 0.0; // processor time in seconds at the last call of tvxtimes
};
inline times_module times;

std::string program_version(); // as reports show it, "dd-mm-yyyy"
std::string version_number();  // as packages have it, "yyyy.m.d"
double cpu_time();             // processor time of the process, seconds

// Reads the processor clock and, with a label under verbose or print_times, prints it; mode 2 adds the time used since
// the last call. Sets times.prev.
void tvxtimes(int mode, std::string_view label = {});

// Error exit behind a message: "Programmed (error) stop ..." under verbose, the deliberate division by zero under
// details, then the stop text. Status 1.
[[noreturn]] void stoptarvex();
// Prints `line` list-directed and stops as stoptarvex.
[[noreturn]] void stop_with(std::string_view line);
// Exit for a combination of features that the program refuses.
[[noreturn]] void tvx_notyet();
// Finish of a run: tells it under verbose. Returns the last line of the run, empty: none.
[[nodiscard]] std::string finish_run();
// Failed allocation of a large array of n elements.
[[noreturn]] void tvx_noalloc(std::string_view name, long long n);
// Warning for a combination that runs unproved; waits for a line of input, or its end.
void tvx_caution();
// Flushes and waits for one line of standard input; end of input counts as the answer.
void pause_for_operator();

// Threads that take part in this run: options.threads, or all that the process may use.
int threads_wanted();

// Report header with title `message`, 78 columns wide, or 112.
void write_tvxtop(text_out& out, std::string_view message, bool wide);
// Footer with date and time; closes the output.
void write_tvxbottom(text_out& out, bool wide);

// Allocates a large array; a failure is told by tvx_noalloc.
template <class A> void allocate_large(std::string_view name, A& a, long long n) {
    try {
        a.allocate(n);
    } catch (const std::bad_alloc&) {
        tvx_noalloc(name, n);
    }
}

} // namespace tarvex
