// Report lines by edit forms: the form stands as its text, e.g. "(1x,a,t25,1h=,i7)".
//
// Known descriptors: a[w], iw, fw.d, gw.d, nx, tn, nh..., 'text', /, repeated groups, reversion at the end of the form.
// write(out, form, values...) walks the form and edits each value; arrays are passed as spans. A literal form is
// checked at compile time; edit_form::edited makes one from a text that the program has changed.
#pragma once
#include "support/screen.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex {

// One value to be edited.
struct edit_value {
    enum class kind { text, integer, real } type;
    std::string_view text{};
    long long integer = 0;
    double real = 0.0;
};

class edit_form {
public:
    consteval edit_form(const char* text) : text_(text) { check(text_); } // NOLINT: a form is written as its text
    static edit_form edited(std::string_view text) { return edit_form(text, 0); }
    constexpr std::string_view text() const { return text_; }

    // Throws (at compile time: is no constant expression) where the form is not well formed.
    static constexpr void check(std::string_view text);

private:
    constexpr edit_form(std::string_view text, int) : text_(text) {}
    std::string_view text_;
};

// The record or records, each ended by a line end, that `form` makes of `values`.
std::string edit(std::string_view form, std::span<const edit_value> values);

// Single descriptors, by the rules of the edit forms (asterisks where the width does not do).
std::string edit_i(long long value, int width);
std::string edit_f(double value, int width, int decimals);
std::string edit_g(double value, int width, int digits);

namespace detail {
inline void push(std::vector<edit_value>& v, std::string_view s) { v.push_back({edit_value::kind::text, s}); }
inline void push(std::vector<edit_value>& v, const std::string& s) { v.push_back({edit_value::kind::text, s}); }
inline void push(std::vector<edit_value>& v, const char* s) { v.push_back({edit_value::kind::text, s}); }
inline void push(std::vector<edit_value>& v, double x) { v.push_back({edit_value::kind::real, {}, 0, x}); }
template <class I>
    requires std::is_integral_v<I>
void push(std::vector<edit_value>& v, I i) {
    v.push_back({edit_value::kind::integer, {}, static_cast<long long>(i)});
}
template <class T> void push(std::vector<edit_value>& v, std::span<T> s) {
    for (const auto& x : s) push(v, x);
}
template <class T> void push(std::vector<edit_value>& v, const std::vector<T>& s) {
    for (const auto& x : s) push(v, x);
}
} // namespace detail

template <class... V> std::string edit(const edit_form& form, const V&... values) {
    std::vector<edit_value> list;
    (detail::push(list, values), ...);
    return edit(form.text(), std::span<const edit_value>(list));
}
template <class... V> void write(text_out& out, const edit_form& form, const V&... values) {
    out.raw(edit(form, values...));
}

constexpr void edit_form::check(std::string_view text) {
    // Placeholder until the full check is in: brackets must balance.
    int depth = 0;
    for (char c : text) {
        if (c == '(') ++depth;
        if (c == ')') --depth;
        if (depth < 0) throw "unbalanced bracket in edit form";
    }
}

} // namespace tarvex
