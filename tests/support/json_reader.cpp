#include "support/json_reader.h"

#include <charconv>
#include <stdexcept>

namespace tarvex {

namespace {

class json_parser {
public:
    explicit json_parser(std::string_view text) : text_(text) {}
    json whole() {
        json v = value();
        if (next() != '\0') fail("end of text expected");
        return v;
    }

private:
    [[noreturn]] void fail(const char* what) const {
        throw std::runtime_error(std::string("json: ") + what + " at character " + std::to_string(at_));
    }
    char next() { // next character that is no white space, not taken
        while (at_ < text_.size() && std::string_view(" \t\r\n").find(text_[at_]) != std::string_view::npos) ++at_;
        return at_ < text_.size() ? text_[at_] : '\0';
    }
    bool take(char c) {
        if (next() != c) return false;
        ++at_;
        return true;
    }
    bool take_word(std::string_view word) {
        if (!text_.substr(at_).starts_with(word)) return false;
        at_ += word.size();
        return true;
    }
    std::string quoted() {
        if (!take('"')) fail("text expected");
        std::string s;
        while (at_ < text_.size() && text_[at_] != '"') {
            if (text_[at_] == '\\' && ++at_ < text_.size()) {
                const char c = text_[at_];
                s += c == 'n' ? '\n' : c == 't' ? '\t' : c;
                if (c == 'u') at_ += 4;
                ++at_;
            } else {
                s += text_[at_++];
            }
        }
        if (at_ >= text_.size()) fail("text without end");
        ++at_;
        return s;
    }
    json value() {
        json v;
        switch (next()) {
        case '{':
            object(v);
            break;
        case '[':
            array(v);
            break;
        case '"':
            v.is = json::text_value;
            v.text = quoted();
            break;
        default:
            word_or_number(v);
        }
        return v;
    }
    void object(json& v) {
        v.is = json::object_value;
        ++at_;
        if (take('}')) return;
        do {
            const std::string name = quoted();
            if (!take(':')) fail("':' expected");
            v.members[name] = value();
        } while (take(','));
        if (!take('}')) fail("'}' expected");
    }
    void array(json& v) {
        v.is = json::array_value;
        ++at_;
        if (take(']')) return;
        do {
            v.items.push_back(value());
        } while (take(','));
        if (!take(']')) fail("']' expected");
    }
    void word_or_number(json& v) {
        if (take_word("null")) return;
        v.is = json::flag;
        if (take_word("false")) return;
        v.number = 1.0;
        if (take_word("true")) return;
        v.is = json::number_value;
        const auto rest = text_.substr(at_);
        const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), v.number);
        if (error != std::errc{}) fail("value expected");
        at_ += static_cast<std::size_t>(end - rest.data());
    }

    std::string_view text_;
    std::size_t at_ = 0;
};

} // namespace

const json& json::operator[](const std::string& name) const {
    static const json nothing;
    const auto found = members.find(name);
    return found == members.end() ? nothing : found->second;
}

std::vector<double> json::numbers() const {
    std::vector<double> list;
    for (const auto& item : items) list.push_back(item.number);
    return list;
}

json read_json(std::string_view text) { return json_parser(text).whole(); }

} // namespace tarvex
