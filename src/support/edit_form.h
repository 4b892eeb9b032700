// Report lines by edit forms: the form stands as its text, e.g. "(1x,a,t25,1h=,i7)".
//
// Known descriptors: a[w], iw, fw.d, gw.d, nx, tn, nh..., 'text', /, repeated groups, reversion at the end of the form.
// write(out, form, values...) walks the form and edits each value; arrays are passed as spans. A literal form is
// checked at compile time; edit_form::edited makes one from a text that the program has changed.
#pragma once
#include "support/screen.h"

#include <cstddef>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
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
    // A form whose text the program has put together or changed; `text` must outlive it. Stops if it is not well
    // formed.
    static edit_form edited(std::string_view text);
    constexpr std::string_view text() const { return text_; }

    // Throws (at compile time: is no constant expression) where the form is not well formed.
    static constexpr void check(std::string_view text);
    // What is wrong with the form, nullptr if nothing.
    static constexpr const char* fault(std::string_view text);

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
requires(std::is_integral_v<I> && !std::is_same_v<I, char>) void push(std::vector<edit_value>& v, I i) {
    v.push_back({edit_value::kind::integer, {}, static_cast<long long>(i)});
}
inline void push(std::vector<edit_value>& v, const char& c) { v.push_back({edit_value::kind::text, {&c, 1}}); }
template <class R>
requires(std::ranges::input_range<const R> &&
         !std::is_convertible_v<const R&, std::string_view>) void push(std::vector<edit_value>& v, const R& range) {
    for (const auto& x : range) push(v, x);
}
} // namespace detail

template <class... V> std::string edit(const edit_form& form, const V&... values) {
    std::vector<edit_value> list;
    list.reserve(sizeof...(values));
    (detail::push(list, values), ...);
    return edit(form.text(), std::span<const edit_value>(list));
}
template <class... V> void write(text_out& out, const edit_form& form, const V&... values) {
    out.raw(edit(form, values...));
}

namespace detail {

// One item of a form: what it is, how often it stands, its width (or place) and decimals.
struct form_item {
    enum class kind { open, close, slash, a, i, f, g, x, t, literal, fault } type = kind::fault;
    int repeat = 1;
    int width = -1; // -1: not given
    int decimals = 0;
    std::string_view literal{};
    const char* wrong = nullptr;
};

// Takes the items off the text of a form, one by one. Blanks, commas between items and the case of letters do not
// count.
class form_reader {
public:
    constexpr explicit form_reader(std::string_view text) : text_(text) {}
    std::size_t at = 0;

    constexpr void pass_blanks() {
        while (at < text_.size() && text_[at] == ' ') ++at;
    }
    constexpr bool at_end() {
        pass_blanks();
        return at >= text_.size();
    }
    // True, and passes it, when a comma comes next.
    constexpr bool comma() {
        if (at_end() || text_[at] != ',') return false;
        ++at;
        return true;
    }
    constexpr form_item next() {
        using kind = form_item::kind;
        form_item item;
        const int count = number();
        if (count == 0) return wrong("count of 0 in edit form");
        if (count > 0) item.repeat = count;
        if (at_end()) return wrong("edit form ends inside");
        switch (text_[at++]) {
        case '(':
            item.type = kind::open;
            return item;
        case ')':
            return plain(item, kind::close, count);
        case '/':
            return plain(item, kind::slash, count);
        case '\'':
            return quoted(item);
        case 'h':
        case 'H':
            return hollerith(item, count);
        case 'x':
        case 'X':
            item.type = kind::x;
            item.width = item.repeat;
            item.repeat = 1;
            return item;
        case 't':
        case 'T':
            return place(item, count);
        case 'a':
        case 'A':
            item.type = kind::a;
            item.width = number();
            return item.width == 0 ? wrong("width of 0 in edit form") : item;
        case 'i':
        case 'I':
            return sized(item, kind::i);
        case 'f':
        case 'F':
            return sized(item, kind::f);
        case 'g':
        case 'G':
            return sized(item, kind::g);
        default:
            return wrong("unknown descriptor in edit form");
        }
    }

private:
    static constexpr form_item wrong(const char* what) {
        form_item item;
        item.wrong = what;
        return item;
    }
    static constexpr form_item plain(form_item& item, form_item::kind type, int count) {
        if (count >= 0) return wrong("count in front of a bracket or slash in edit form");
        item.type = type;
        return item;
    }
    constexpr int number() { // -1: none stands here
        int n = -1;
        for (pass_blanks(); at < text_.size() && text_[at] >= '0' && text_[at] <= '9'; pass_blanks()) {
            n = (n < 0 ? 0 : n * 10) + (text_[at++] - '0');
            if (n > 99999) return 0;
        }
        return n;
    }
    constexpr form_item quoted(form_item& item) { // a doubled quote inside stays doubled in `literal`
        const std::size_t from = at;
        while (true) {
            while (at < text_.size() && text_[at] != '\'') ++at;
            if (at >= text_.size()) return wrong("quoted text of edit form has no end");
            if (at + 1 >= text_.size() || text_[at + 1] != '\'') break;
            at += 2;
        }
        item.type = form_item::kind::literal;
        item.literal = text_.substr(from, at++ - from);
        item.width = 0;
        return item;
    }
    constexpr form_item hollerith(form_item& item, int count) {
        if (count < 0) return wrong("h without count in edit form");
        if (text_.size() - at < static_cast<std::size_t>(count))
            return wrong("h reaches over the end of the edit form");
        item.type = form_item::kind::literal;
        item.repeat = 1;
        item.literal = text_.substr(at, static_cast<std::size_t>(count));
        at += static_cast<std::size_t>(count);
        return item;
    }
    constexpr form_item place(form_item& item, int count) {
        item.type = form_item::kind::t;
        item.width = number();
        return item.width < 1 || count >= 0 ? wrong("t without a place in edit form") : item;
    }
    constexpr form_item sized(form_item& item, form_item::kind type) {
        item.type = type;
        item.width = number();
        if (item.width < 1) return wrong("descriptor without width in edit form");
        if (type == form_item::kind::i) return item;
        if (at_end() || text_[at] != '.') return wrong("descriptor without decimals in edit form");
        ++at;
        item.decimals = number();
        if (item.decimals < 0 || item.decimals > 99) return wrong("descriptor without decimals in edit form");
        if (type == form_item::kind::g && item.decimals < 1) return wrong("g without digits in edit form");
        return item;
    }
    std::string_view text_;
};

} // namespace detail

constexpr const char* edit_form::fault(std::string_view text) {
    using kind = detail::form_item::kind;
    constexpr int most_nested = 8;
    detail::form_reader reader(text);
    if (reader.at_end()) return "empty edit form";
    detail::form_item item = reader.next();
    if (item.wrong) return item.wrong;
    if (item.type != kind::open || item.repeat != 1) return "edit form does not begin with a bracket";
    int depth = 1;
    bool parted = true; // may another item follow without a comma?
    while (depth > 0) {
        const bool comma = reader.comma();
        if (comma && parted && item.type != kind::slash) return "comma without item in edit form";
        const bool after_slash = item.type == kind::slash;
        item = reader.next();
        if (item.wrong) return item.wrong;
        const bool free_standing = item.type == kind::slash || item.type == kind::close;
        if (item.type == kind::close && comma) return "comma without item in edit form";
        if (!(parted || comma || after_slash || free_standing)) return "comma is missing in edit form";
        parted = item.type == kind::open;
        if (item.type == kind::open && ++depth > most_nested) return "edit form nested too deep";
        if (item.type == kind::close) --depth;
    }
    return reader.at_end() ? nullptr : "edit form goes on behind its last bracket";
}

constexpr void edit_form::check(std::string_view text) {
    if (const char* wrong = fault(text)) throw wrong;
}

} // namespace tarvex
