// SPDX-License-Identifier: Apache-2.0
// json_text.h - reports as JSON: what all that write some share. json_reader.h reads.
#ifndef TOOLS_COMMON_JSON_TEXT_H
#define TOOLS_COMMON_JSON_TEXT_H

#include <cmath>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace olvex_tools {

using Json = nlohmann::ordered_json;

template <typename Value>
Json or_null(const std::optional<Value>& value) {
  return value ? Json(*value) : Json(nullptr);
}

// Times to the microsecond, and the like: more digits would only be noise.
inline double rounded(double value) {
  return std::round(value * 1000) / 1000;
}

// One line, or with an indent several. Names from files need not be UTF-8, JSON must be: a
// replaced character beats no report.
inline std::string json_text(const Json& json, int indent = 2) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_JSON_TEXT_H
