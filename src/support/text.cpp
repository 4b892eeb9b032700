#include "support/text.h"

#include <cctype>
#include <charconv>

namespace tarvex {

void capitalise(std::string& text, int n) {
    for (int i = 0; i < n && i < static_cast<int>(text.size()); ++i)
        if (text[static_cast<std::size_t>(i)] >= 'a' && text[static_cast<std::size_t>(i)] <= 'z')
            text[static_cast<std::size_t>(i)] = static_cast<char>(text[static_cast<std::size_t>(i)] - 'a' + 'A');
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

int findsym(std::string_view text, char ch) {
    const auto at = trim_right(text).find(ch);
    return at == std::string_view::npos ? 0 : static_cast<int>(at) + 1;
}

void find2sym(std::string_view text, char ch1, char ch2, int& ii, int& jj) {
    const std::string_view t = trim_right(text);
    ii = findsym(t, ch1);
    jj = 0;
    const auto from = static_cast<std::size_t>(ii > 0 ? ii : 1);
    if (from >= t.size()) return;
    const auto at = t.find(ch2, from);
    if (at != std::string_view::npos) jj = static_cast<int>(at) + 1;
}

bool to_integer(std::string_view token, long long& value) {
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

bool to_real(std::string_view token, double& value) {
    char text[128];
    if (token.empty() || token.size() >= sizeof text) return false;
    std::size_t n = 0;
    for (char c : token) {
        if (c == 'd' || c == 'D') c = 'e';
        if (!(is_digit(c) || c == '.' || c == 'e' || c == 'E' || c == '+' || c == '-')) return false;
        text[n++] = c;
    }
    const char* from = text;
    if (*from == '+') ++from;
    if (from != text && (*from == '-' || *from == '+')) return false;
    double v = 0.0;
    const auto r = std::from_chars(from, text + n, v);
    if (r.ec != std::errc() || r.ptr != text + n) return false;
    value = v;
    return true;
}

list_read list_reader::token(std::string_view& t) {
    while (at_ < text_.size() && text_[at_] == ' ') ++at_;
    if (at_ >= text_.size()) return list_read::end;
    if (text_[at_] == ',') {
        ++at_;
        if (!after_value_) return list_read::null;
        after_value_ = false;
        return token(t);
    }
    const std::size_t from = at_;
    while (at_ < text_.size() && text_[at_] != ' ' && text_[at_] != ',') ++at_;
    t = text_.substr(from, at_ - from);
    after_value_ = true;
    return list_read::value;
}

list_read list_reader::next(long long& value) {
    std::string_view t;
    const list_read r = token(t);
    if (r != list_read::value) return r;
    return to_integer(t, value) ? r : list_read::error;
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
