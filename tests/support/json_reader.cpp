#include "support/json_reader.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

namespace tarvex {

namespace {

json taken_over(const nlohmann::json& from) {
    json to;
    if (from.is_boolean()) {
        to.is = json::flag;
        to.number = from.get<bool>() ? 1.0 : 0.0;
    } else if (from.is_number()) {
        to.is = json::number_value;
        to.number = from.get<double>();
    } else if (from.is_string()) {
        to.is = json::text_value;
        to.text = from.get<std::string>();
    } else if (from.is_array()) {
        to.is = json::array_value;
        for (const auto& item : from) to.items.push_back(taken_over(item));
    } else if (from.is_object()) {
        to.is = json::object_value;
        for (const auto& [name, value] : from.items()) to.members.emplace(name, taken_over(value));
    }
    return to;
}

} // namespace

const json& json::operator[](const std::string& name) const {
    static const json nothing;
    const auto at = members.find(name);
    return at == members.end() ? nothing : at->second;
}

std::vector<double> json::numbers() const {
    std::vector<double> list;
    for (const json& item : items) list.push_back(item.number);
    return list;
}

json read_json(std::string_view text) {
    try {
        return taken_over(nlohmann::json::parse(text));
    } catch (const nlohmann::json::exception& fault) {
        throw std::runtime_error(fault.what());
    }
}

} // namespace tarvex
