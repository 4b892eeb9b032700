// The one way in which a run ends early by an error: an exception that only run_phases catches.
#pragma once
#include <string>
#include <string_view>

namespace tarvex {

struct program_stop {
    std::string text; // last line on standard output; nothing is printed when empty
    int status = 1;   // exit status of the program
};

// Ends the run as an error with `text` as its last line (the short tags of failed allocations, "numerical problems").
[[noreturn]] void stop(std::string_view text);

// The same with another status than 1.
[[noreturn]] void stop(std::string_view text, int status);

// Allocates and turns a failure into the stop text `tag`.
template <class A, class... N> void allocate(const char* tag, A& a, N... n);

} // namespace tarvex

#include <new>
namespace tarvex {
template <class A, class... N> void allocate(const char* tag, A& a, N... n) {
    try {
        a.allocate(n...);
    } catch (const std::bad_alloc&) {
        stop(tag);
    }
}
} // namespace tarvex
