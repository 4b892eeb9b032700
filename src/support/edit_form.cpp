#include "support/edit_form.h"

#include "support/stop.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>

namespace tarvex {

namespace {

std::string asterisks(int width) { return std::string(width, '*'); }

std::string right_adjusted(std::string_view text, int width) {
    const std::size_t w = width;
    if (text.size() > w) return asterisks(width);
    std::string s;
    s.reserve(w);
    s.append(w - text.size(), ' ');
    return s += text;
}

// Right-adjusted number text; a leading 0 before the point goes when the text is one column too long.
std::string adjust_number(std::string text, int width) {
    if (text.size() == static_cast<std::size_t>(width) + 1) {
        const std::size_t at = text[0] == '-' ? 1 : 0;
        if (text.size() > at + 2 && text[at] == '0' && text[at + 1] == '.') text.erase(at, 1);
    }
    return right_adjusted(text, width);
}

// Inf where Infinity is too long, with its sign
std::string not_finite(double value, int width) {
    if (std::isnan(value)) return right_adjusted("NaN", width);
    const std::string sign = value < 0 ? "-" : "";
    const std::string text = sign + "Infinity";
    return right_adjusted(static_cast<int>(text.size()) <= width ? text : sign + "Inf", width);
}

// The record that is being built, with the records that are complete in front of it.
struct record_text {
    std::string done, line;
    std::size_t at = 0;

    record_text() { line.reserve(160); }
    void put(std::string_view text) {
        // positions ahead of the text are blanks; a position behind overwrites
        if (line.size() < at + text.size()) line.resize(at + text.size(), ' ');
        std::copy(text.begin(), text.end(), line.begin() + static_cast<std::ptrdiff_t>(at));
        at += text.size();
    }
    void end() {
        line += '\n';
        // most texts are one record: no copy
        if (done.empty())
            done.swap(line);
        else
            done += line;
        line.clear();
        at = 0;
    }
};

using detail::form_item;
using kind = form_item::kind;

std::string edit_text(std::string_view text, int width) {
    const std::size_t w = width;
    // no width: the text as long as it is
    if (width < 0) return std::string(text);
    if (text.size() >= w) return std::string(text.substr(0, w));
    return right_adjusted(text, width);
}

std::string edit_item(const form_item& item, const edit_value& value) {
    using type = edit_value::kind;
    const bool text = value.type == type::text;
    // an integer may be edited as a real, not the other way round
    if (text != (item.type == kind::a) || (item.type == kind::i && value.type != type::integer))
        stop("edit form does not fit its values");
    const double x = value.type == type::integer ? static_cast<double>(value.integer) : value.real;
    switch (item.type) {
    case kind::a:
        return edit_text(value.text, item.width);
    case kind::i:
        return edit_i(value.integer, item.width);
    case kind::f:
        return edit_f(x, item.width, item.decimals);
    default:
        return edit_g(x, item.width, item.decimals);
    }
}

void put_literal(record_text& out, const form_item& item) {
    for (int k = 0; k < item.repeat; ++k) {
        if (item.width < 0) {
            out.put(item.literal);
            continue;
        }
        std::string s; // quoted: two quotes stand for one
        for (std::size_t i = 0; i < item.literal.size(); ++i) {
            s += item.literal[i];
            if (item.literal[i] == '\'') ++i;
        }
        out.put(s);
    }
}

} // namespace

edit_form edit_form::edited(std::string_view text) {
    if (const char* wrong = fault(text)) stop(std::string(wrong) + " : " + std::string(text));
    return edit_form(text, 0);
}

std::string edit_i(long long value, int width) {
    char text[24];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    return right_adjusted(std::string_view(text, end - text), width);
}

std::string edit_f(double value, int width, int decimals) {
    if (!std::isfinite(value)) return not_finite(value, width);
    char text[512];
    const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals).ptr;
    std::string s(text, end);
    // the point stays though nothing follows it
    if (decimals == 0) s += '.';
    return adjust_number(std::move(s), width);
}

// The value is rounded to `digits` digits first; the exponent of the result decides between the point and the E form.
std::string edit_g(double value, int width, int digits) {
    if (!std::isfinite(value)) return not_finite(value, width);
    char text[160];
    auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::scientific, digits - 1).ptr;
    const auto e = std::find(text, end, 'e');
    // of the form 0.ddd; 0 counts as 0.0 with one digit in front of the point
    const int exponent = value == 0.0 ? 1 : std::atoi(std::string(e + 1, end).c_str()) + 1;
    if (exponent >= 0 && exponent <= digits) {
        // in the point form four blanks stand for the exponent
        std::string s = width > 4 ? edit_f(value, width - 4, digits - exponent) : std::string("*");
        return s[s.size() - 1] == '*' ? asterisks(width) : s += "    ";
    }
    std::string s = value < 0 ? "-0." : "0.";
    for (const char* c = text; c != e; ++c)
        if (*c != '.' && *c != '-') s += *c;
    const int size = std::abs(exponent);
    // three digits take the place of the letter
    if (size < 100) s += 'E';
    s += exponent < 0 ? '-' : '+';
    if (size < 10) s += '0';
    s += std::to_string(size);
    return adjust_number(std::move(s), width);
}

// Walks the form from left to right. At a value descriptor for which no value is left the walk ends; at the last
// bracket values that are left send it back to the last group of the first level, behind a line end.
std::string edit(std::string_view form, std::span<const edit_value> values) {
    struct group {
        std::size_t start; // behind the opening bracket
        int left;          // repetitions to come
    };
    group open[16];
    int depth = 0;
    record_text out;
    detail::form_reader reader(form);
    std::size_t back = 0, taken = 0, taken_before = 0; // back: place of the first-level group, its count included
    while (true) {
        reader.comma();
        const std::size_t place = reader.at;
        const form_item item = reader.next();
        switch (item.type) {
        case kind::open:
            // reversion goes to the last group of the first level with its count, else to the head of the form
            if (depth < 2) back = depth == 0 ? reader.at : place;
            if (depth == 16) stop("edit form nested too deep");
            open[depth++] = {reader.at, item.repeat - 1};
            break;
        case kind::close:
            if (open[depth - 1].left > 0) {
                --open[depth - 1].left;
                reader.at = open[depth - 1].start;
                break;
            }
            if (depth > 1) {
                --depth;
                break;
            }
            if (taken == values.size()) return out.end(), std::move(out.done);
            // a round that takes no value would never end
            if (taken == taken_before) stop("edit form does not fit its values");
            taken_before = taken;
            out.end();
            reader.at = back;
            break;
        case kind::slash:
            out.end();
            break;
        case kind::x:
            out.at += item.width;
            break;
        case kind::t:
            out.at = item.width - 1;
            break;
        case kind::literal:
            put_literal(out, item);
            break;
        case kind::fault:
            stop(std::string(item.wrong) + " : " + std::string(form));
        default:
            for (int k = 0; k < item.repeat; ++k) {
                if (taken == values.size()) return out.end(), std::move(out.done);
                out.put(edit_item(item, values[taken++]));
            }
        }
    }
}

} // namespace tarvex
