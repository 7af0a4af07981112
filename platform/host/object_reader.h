// SPDX-License-Identifier: Apache-2.0
// object_reader.h - reads the fields of one JSON object strictly: a field of another type, out of range or
// unknown is refused by its path. description_json.cpp reads descriptions with it.
#ifndef PLATFORM_HOST_OBJECT_READER_H
#define PLATFORM_HOST_OBJECT_READER_H

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <set>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/host/description_words.h"

namespace qv_host {

using Json = nlohmann::ordered_json;

inline bool fits_float(double value) {
  // Written so that a value that is not a number fails too.
  return std::fabs(value) <= static_cast<double>(std::numeric_limits<float>::max());
}

enum class Presence { kRequired, kOptional };

// Reads the fields of one JSON object and remembers which it was asked for, so that finish() can
// refuse the rest. An optional field that is absent leaves the destination, which holds the
// default.
class ObjectReader {
 public:
  // Requires: the value outlives the reader.
  ObjectReader(const Json& value, const std::string& path) : value_(value), path_(path) {
    if (!value.is_object()) {
      refuse(path.empty() ? "(whole)" : path, found(value), "an object");
    }
  }

  const Json* field(const char* key, Presence presence, const std::string& expected) {
    asked_.insert(key);
    const auto position = value_.find(key);
    if (position != value_.end()) {
      return &*position;
    }
    if (presence == Presence::kRequired) {
      refuse(path_of(key), "nothing", expected);
    }
    return nullptr;
  }

  void read(const char* key, Presence presence, std::string* text) {
    if (const Json* json = field(key, presence, "a text")) {
      read_text(path_of(key), *json, text);
    }
  }

  void read(const char* key, Presence presence, float* number) {
    if (const Json* json = field(key, presence, "a number")) {
      read_number(path_of(key), *json, number);
    }
  }

  void read(const char* key, Presence presence, int* integer) {
    const Json* json = field(key, presence, "a whole number");
    if (json == nullptr) {
      return;
    }
    // An unsigned number above the signed range would wrap around in a signed reading.
    const bool fits = json->is_number_unsigned()
                          ? json->get<std::uint64_t>() <= std::numeric_limits<int>::max()
                          : json->is_number_integer() &&
                                json->get<std::int64_t>() >= std::numeric_limits<int>::min();
    if (!fits) {
      refuse(path_of(key), found(*json), "a whole number");
    }
    *integer = json->get<int>();
  }

  void read(const char* key, Presence presence, bool* flag) {
    if (const Json* json = field(key, presence, "true or false")) {
      if (!json->is_boolean()) {
        refuse(path_of(key), found(*json), "true or false");
      }
      *flag = json->get<bool>();
    }
  }

  template <typename Value, std::size_t kCount>
  void read(const char* key, Presence presence, const Choice<Value> (&choices)[kCount],
            Value* value) {
    const std::string expected = "one of " + words_of(choices);
    const Json* json = field(key, presence, expected);
    if (json == nullptr) {
      return;
    }
    for (const Choice<Value>& choice : choices) {
      if (*json == choice.word) {
        *value = choice.value;
        return;
      }
    }
    refuse(path_of(key), found(*json), expected);
  }

  // Calls read_element(path, element) for each element of an array of lowest to highest elements.
  template <typename ReadElement>
  void read_array(const char* key, Presence presence, std::size_t lowest, std::size_t highest,
                  const std::string& expected, const ReadElement& read_element) {
    const Json* json = field(key, presence, expected);
    if (json == nullptr) {
      return;
    }
    if (!json->is_array() || json->size() < lowest || json->size() > highest) {
      refuse(path_of(key), found(*json), expected);
    }
    for (std::size_t i = 0; i < json->size(); ++i) {
      read_element(path_of(key) + "[" + std::to_string(i) + "]", (*json)[i], i);
    }
  }

  void read(const char* key, Presence presence, std::array<float, 3>* numbers) {
    read_array(key, presence, 3, 3, "an array of 3 numbers",
               [numbers](const std::string& path, const Json& json, std::size_t i) {
                 read_number(path, json, &(*numbers)[i]);
               });
  }

  // Refuses fields that were not asked for.
  void finish() const {
    for (const auto& item : value_.items()) {
      if (asked_.count(item.key()) == 0) {
        std::string known;
        for (const std::string& key : asked_) {
          known += (known.empty() ? "" : ", ") + key;
        }
        refuse(path_of(item.key()), "an unknown field", "only these here: " + known);
      }
    }
  }

  std::string path_of(const std::string& key) const {
    return path_.empty() ? key : path_ + "." + key;
  }

  static void read_text(const std::string& path, const Json& json, std::string* text) {
    if (!json.is_string()) {
      refuse(path, found(json), "a text");
    }
    *text = json.get<std::string>();
  }

 private:
  static std::string found(const Json& json) {
    constexpr std::size_t kLongest = 60;
    const std::string text = json.dump(-1, ' ', true);
    return text.size() <= kLongest ? text : text.substr(0, kLongest) + "...";
  }

  static void read_number(const std::string& path, const Json& json, float* number) {
    if (!json.is_number()) {
      refuse(path, found(json), "a number");
    }
    const double wide = json.get<double>();
    if (!fits_float(wide)) {
      refuse(path, found(json), "a number that a 32-bit float can hold");
    }
    *number = static_cast<float>(wide);
  }

  const Json& value_;
  std::string path_;
  std::set<std::string> asked_;
};

}  // namespace qv_host

#endif  // PLATFORM_HOST_OBJECT_READER_H
