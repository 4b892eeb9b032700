#include "support/text.h"

#include <charconv>
#include <cstdlib>
#include <limits>

namespace tarvex {

void capitalise(std::string& text, int n) {
    for (int i = 0; i < n && i < static_cast<int>(text.size()); ++i)
        if (text[i] >= 'a' && text[i] <= 'z') text[i] = static_cast<char>(text[i] - 'a' + 'A');
}

bool is_digit(char ch) { return ch >= '0' && ch <= '9'; }

std::string_view trim_right(std::string_view text) {
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    return text;
}

std::string trim(std::string_view text) {
    text = trim_right(text);
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    return std::string(text);
}

bool to_integer(std::string_view token, long long& value) {
    // a plus that the conversion does not take
    if (!token.empty() && token.front() == '+') {
        token.remove_prefix(1);
        if (!token.empty() && (token.front() == '-' || token.front() == '+')) return false;
    }
    if (token.empty()) return false;
    long long v = 0;
    const auto r = std::from_chars(token.data(), token.data() + token.size(), v);
    if (r.ec != std::errc() || r.ptr != token.data() + token.size()) return false;
    value = v;
    return true;
}

namespace {

bool is_named_real(std::string_view token, double& value) {
    const bool negative = token.front() == '-';
    if (negative || token.front() == '+') token.remove_prefix(1);
    std::string name(token);
    capitalise(name, static_cast<int>(name.size()));
    if (name == "NAN")
        value = std::numeric_limits<double>::quiet_NaN();
    else if (name == "INF" || name == "INFINITY")
        value = negative ? -std::numeric_limits<double>::infinity() : std::numeric_limits<double>::infinity();
    else
        return false;
    return true;
}

} // namespace

bool to_real(std::string_view token, double& value) {
    char text[128];
    // 127 characters are more than any number
    if (token.empty() || token.size() + 1 >= sizeof text) return false;
    std::size_t n = 0;
    // copied with "e" for every letter or sign that opens an exponent, for one conversion at the end
    bool digits = false, exponent = false;
    for (std::size_t i = 0; i < token.size(); ++i) {
        char c = token[i];
        if (is_digit(c)) {
            digits = true;
        } else if (c == 'd' || c == 'D' || c == 'e' || c == 'E') {
            if (exponent || !digits) return is_named_real(token, value);
            exponent = true;
            text[n++] = 'e';
            if (i + 1 < token.size() && (token[i + 1] == '+' || token[i + 1] == '-')) {
                if (token[++i] == '-') text[n++] = '-';
            }
            continue;
        } else if (c == '+' || c == '-') {
            // a sign within a number is an exponent without its letter
            if (i == 0 && c == '+') continue;
            if (i > 0) {
                if (exponent || !digits) return false;
                exponent = true;
                text[n++] = 'e';
                if (c == '+') continue;
            }
        } else if (c != '.') {
            return is_named_real(token, value);
        }
        text[n++] = c;
    }
    double v = 0.0;
    const auto r = std::from_chars(text, text + n, v);
    if (r.ptr != text + n) return false;
    if (r.ec == std::errc::result_out_of_range)
        v = std::strtod(std::string(text, n).c_str(), nullptr); // underflow to 0, overflow to infinity
    else if (r.ec != std::errc())
        return false;
    value = v;
    return true;
}

// Leaves the reader behind an "n*" in front of a value.
void list_reader::repeat_count() {
    std::size_t i = at_;
    while (i < text_.size() && is_digit(text_[i])) ++i;
    if (i == at_ || i >= text_.size() || text_[i] != '*') return;
    long long n = 0;
    // no count: the star belongs to the value
    if (!to_integer(text_.substr(at_, i - at_), n) || n < 1) return;
    at_ = i + 1;
    copies_ = n - 1;
}

list_read list_reader::token(std::string_view& t) {
    // blanks, "," and ";" part values; "/" ends the list, and leaves what follows as it is
    const auto parts = [](char c) { return c == ' ' || c == ',' || c == ';' || c == '/'; };
    if (copies_ > 0) {
        --copies_;
        t = repeated_;
        return t.empty() ? list_read::null : list_read::value;
    }
    // separators behind a value are part of it; two in succession hold nothing between them
    while (at_ < text_.size() && text_[at_] == ' ') ++at_;
    if (at_ >= text_.size()) return list_read::end;
    if (text_[at_] == '/') return list_read::null;
    if (text_[at_] == ',' || text_[at_] == ';') {
        ++at_;
        if (!after_value_) return list_read::null;
        after_value_ = false;
        return token(t);
    }
    repeat_count();
    const std::size_t from = at_;
    while (at_ < text_.size() && !parts(text_[at_])) ++at_;
    t = repeated_ = text_.substr(from, at_ - from);
    after_value_ = true;
    return t.empty() ? list_read::null : list_read::value;
}

list_read list_reader::next(long long& value) {
    std::string_view t;
    const list_read r = token(t);
    if (r != list_read::value) return r;
    return to_integer(t, value) ? r : list_read::error;
}

list_read list_reader::next(int& value) {
    long long wide = 0;
    const list_read r = next(wide);
    if (r != list_read::value) return r;
    if (wide != static_cast<int>(wide)) return list_read::error;
    value = static_cast<int>(wide);
    return r;
}

list_read list_reader::next(double& value) {
    std::string_view t;
    const list_read r = token(t);
    if (r != list_read::value) return r;
    return to_real(t, value) ? r : list_read::error;
}

bool list_reader::at_end() {
    while (at_ < text_.size() && text_[at_] == ' ') ++at_;
    return at_ >= text_.size();
}

} // namespace tarvex
