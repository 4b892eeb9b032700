// Character services and list-directed reading of numbers from text.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace tarvex {

void capitalise(std::string& text, int n); // letters among the first n characters to upper case
bool is_digit(char ch);                    // one of 1234567890
std::string trim(std::string_view text);   // without leading and trailing blanks
std::string_view trim_right(std::string_view text);

// A value was read; empty place between commas; end of text; no number.
enum class list_read { value, null, end, error };

// Walks a text as list-directed input does: values parted by blanks or a comma (a semicolon counts as one); n*value
// stands for n values; a slash ends the list, all further places are empty ones.
class list_reader {
public:
    explicit list_reader(std::string_view text) : text_(text) {}
    list_read next(long long& value); // whole number; a point is an error
    list_read next(int& value);       // as well, and one that 32 bits do not hold
    list_read next(double& value);    // D or E exponents
    bool at_end();                    // nothing but blanks is left

private:
    list_read token(std::string_view& t);
    void repeat_count();
    std::string_view text_;
    std::size_t at_ = 0;
    bool after_value_ = false;
    std::string_view repeated_{}; // value of n*value, `copies_` more times
    long long copies_ = 0;
};

// The whole token as a number; false if it is none.
bool to_integer(std::string_view token, long long& value);
bool to_real(std::string_view token, double& value); // also with D exponent, exponent without letter, nan, inf

} // namespace tarvex
