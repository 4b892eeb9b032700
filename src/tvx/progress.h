// Progress on a terminal for what takes more than two seconds.
#pragma once
#include <chrono>
#include <cstddef>
#include <string>

namespace tvx {

// A line that is written over: a bar where the end is known, else the text with the seconds. Nothing with --quiet or
// --json, nothing where standard output is no terminal, nothing in the first two seconds; wiped out at the end.
class progress {
public:
    explicit progress(std::string what, std::size_t total = 0);
    ~progress();
    progress(const progress&) = delete;
    progress& operator=(const progress&) = delete;
    void at(std::size_t done);           // of total
    void note(const std::string& state); // in place of the bar
    bool wanted() const { return terminal_; }

private:
    bool due();
    void show(const std::string& text);
    std::string what_;
    std::size_t total_;
    bool terminal_, shown_ = false;
    std::chrono::steady_clock::time_point start_;
    double next_ = 2.0;
    double seconds() const;
};

} // namespace tvx
