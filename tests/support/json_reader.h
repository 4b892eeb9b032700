// JSON texts as trees of values, for the files of expected figures.
#pragma once
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex {

// One value: an object has members, an array items, a number and a flag (0 or 1) stand in `number`, `null` is none of
// them.
struct json {
    enum kind { none, flag, number_value, text_value, array_value, object_value } is = none;
    double number = 0.0;
    std::string text;
    std::vector<json> items;
    std::map<std::string, json> members;

    bool has(const std::string& name) const { return members.contains(name); }
    const json& operator[](const std::string& name) const; // a null where there is no such member
    const json& operator[](std::size_t i) const { return items.at(i); }
    std::size_t size() const { return items.size(); }
    std::vector<double> numbers() const; // of an array of numbers
};

// Throws std::runtime_error where the text is no JSON.
json read_json(std::string_view text);

} // namespace tarvex
