// Remarks on input that the program accepts by design and only a person can judge: a line each, at most three of a
// kind.
#pragma once
#include <map>
#include <string>

namespace tarvex {

struct warnings_module {
    std::map<std::string, int> count; // lines asked for, by kind
};
inline warnings_module warnings;

inline constexpr int most_of_a_kind = 3;

// "***** WARNING : " and the text, unless three of this kind have been told.
void warn(const std::string& kind, const std::string& text);
// A line for each kind of which there were more than were told.
void sum_up_warnings();

// A text file of the user that cannot be read as lines stops the run.
void check_text_file(const std::string& name);

} // namespace tarvex
