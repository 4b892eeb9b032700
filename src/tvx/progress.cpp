#include "tvx/progress.h"

#include "tvx/commands.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace tvx {

namespace {

constexpr std::size_t bar_length = 30, line_length = 78;

// The first letters of a text; none is cut through.
std::string cut(std::string text, std::size_t length) {
    if (text.size() <= length) return text;
    // bytes behind the first of a letter begin with the bits 10
    while (length > 0 && (text[length] & '\xc0') == '\x80') --length;
    return text.substr(0, length);
}

} // namespace

progress::progress(std::string what, std::size_t total)
    : what_(std::move(what)), total_(total), terminal_(!display.quiet && !display.json && isatty(1) == 1),
      start_(std::chrono::steady_clock::now()) {}

progress::~progress() {
    // the line is wiped out: what follows begins on a clean one
    if (!shown_) return;
    std::printf("\r%*s\r", static_cast<int>(line_length), "");
    std::fflush(stdout);
}

double progress::seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

bool progress::due() {
    if (!terminal_ || seconds() < next_) return false;
    next_ = seconds() + 0.5;
    return true;
}

void progress::show(const std::string& text) {
    char time[32];
    std::snprintf(time, sizeof time, " %6.0f s", seconds());
    std::string line = cut(text, line_length - 10);
    line.resize(line_length - 10, ' ');
    std::printf("\r%s%s", line.c_str(), time);
    std::fflush(stdout);
    shown_ = true;
}

void progress::at(std::size_t done) {
    if (!due()) return;
    const std::size_t full = total_ > 0 ? bar_length * std::min(done, total_) / total_ : 0;
    show(cut(what_, 20) + " [" + std::string(full, '#') + std::string(bar_length - full, '.') + "] " +
         std::to_string(done) + "/" + std::to_string(total_));
}

void progress::note(const std::string& state) {
    if (due()) show(what_ + (what_.empty() || state.empty() ? "" : ": ") + state);
}

} // namespace tvx
