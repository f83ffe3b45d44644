// Answers for programs: one JSON object.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include <nlohmann/json.hpp>

namespace lofter::analyze {

// Members keep the order in which they were added.
using Json = nlohmann::ordered_json;

// An object that says which program's answer it is, in which form, and to which command.
Json Answer(const std::string& command);

template <typename Value>
Json OrNull(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

// With a line end behind it. What is not UTF-8 becomes U+FFFD.
void Print(const Json& answer, std::ostream& output);

}  // namespace lofter::analyze
