// Text outputs: standard output ("the screen") and formatted files. Lines are written by edit forms (edit_form.h) or
// list-directed (print_list).
#pragma once
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

namespace tarvex {

// An open text output. Every open one is known to flush_all, so that nothing is lost when the run stops.
class text_out {
public:
    text_out();
    explicit text_out(std::ostream& sink); // writes to a stream that somebody else owns (screen, tests)
    ~text_out();
    text_out(const text_out&) = delete;
    text_out& operator=(const text_out&) = delete;

    bool open(const std::string& name);        // replaces the file; false if it cannot be opened
    bool open_append(const std::string& name); // adds to the file, which may be absent
    bool close();                              // false if anything could not be written
    bool is_open() const { return sink_ != nullptr; }
    void line(std::string_view text); // text and a line end
    void raw(std::string_view text);  // text as it stands
    void flush();
    std::ostream* redirect(std::ostream& sink); // another sink; returns the one before, null: none

private:
    bool start(const std::string& name, std::ios::openmode mode);
    void note_failure();
    std::ofstream file_;
    std::ostream* sink_ = nullptr;
    std::string name_;
};

struct outputs_module {
    std::string failed; // the first text output that could not be opened or written in full; empty: none
};
inline outputs_module outputs;

text_out& screen(); // standard output
void flush_all();   // flushes the screen and every open text output

// List-directed items: text as it is, integers at natural width, reals as the shortest text that reads back equal,
// flags as T or F.
std::string list_item(double x);
inline std::string list_item(std::string_view s) { return std::string(s); }
inline std::string list_item(const std::string& s) { return s; }
inline std::string list_item(const char* s) { return s; }
inline std::string list_item(bool b) { return b ? "T" : "F"; }
template <class I>
requires(std::is_integral_v<I> && !std::is_same_v<I, bool>) std::string list_item(I i) { return std::to_string(i); }

// One list-directed line: the items parted by one blank, no blank in front.
template <class... V> void print_list(text_out& out, const V&... items) {
    std::string s;
    bool first = true;
    ((s += (first ? "" : " "), s += list_item(items), first = false), ...);
    out.line(s);
}

} // namespace tarvex
