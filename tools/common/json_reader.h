// SPDX-License-Identifier: Apache-2.0
// json_reader.h - strict reading of JSON: no member twice, no endless nesting, nothing after a zero byte,
// and every member that is asked for is checked.
#ifndef TOOLS_COMMON_JSON_READER_H
#define TOOLS_COMMON_JSON_READER_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "tools/common/box.h"

namespace olvex_tools {

// One object. Every function throws ToolError (kInputError) that names place, object and member when the
// member is missing, unless its name says otherwise, or not of its kind.
class JsonItem {
 public:
  // place: file and object, for messages. advice: what to do when a member is missing; may be empty.
  JsonItem(const std::string& place, const std::string& advice, const nlohmann::json& object);

  std::int64_t integer(const char* name) const;  // at most 2^53, beyond which programs round
  std::optional<std::int64_t> optional_integer(const char* name) const;
  std::uint64_t integer(const char* name, std::uint64_t least, std::uint64_t most) const;
  std::optional<std::uint64_t> integer_or_null(const char* name, std::uint64_t least) const;
  double number(const char* name) const;  // from -1e9 to 1e9
  std::optional<double> optional_number(const char* name) const;
  std::optional<float> number_or_null(const char* name) const;
  std::string text(const char* name) const;
  std::string optional_text(const char* name) const;
  // 0, 1, true or false; without the member false.
  bool optional_flag(const char* name) const;
  // [x, y, width, height]
  Box box(const char* name) const;
  JsonItem object(const char* name) const;
  // The objects of a list; one, as in "box", names each in messages.
  std::vector<JsonItem> objects(const char* name, const std::string& one, std::size_t most) const;

  [[noreturn]] void refuse(const std::string& problem) const;

 private:
  const nlohmann::json* find(const char* name) const;
  const nlohmann::json& require(const char* name) const;
  double to_number(const std::string& name, const nlohmann::json& member) const;
  [[noreturn]] void refuse_member(const std::string& name, const std::string& wanted) const;

  std::string place_;
  std::string advice_;
  const nlohmann::json& object_;
};

using JsonItemReader = std::function<void(const JsonItem&)>;

// Calls the reader for the one object that the bytes hold.
void read_json_object(const std::string& place, const std::string& advice, const char* begin,
                      const char* end, const JsonItemReader& reader);

// What read_json_lists says of a file of another kind.
struct JsonListsKind {
  std::string wrong_kind;    // "is not a list of results"
  std::string missing_list;  // "; is it a COCO instances file?"
};

// Calls the reader of a list for each of its objects, in the order of the file, so that a large file never
// lies in memory as a tree: values within the objects are left out, but for the lists called bbox. lists maps
// the names of members of the file's object to readers; all must be there, other members are passed over. The
// name "" alone stands for a file that is one list, whose objects messages call "result".
void read_json_lists(const std::string& path, const JsonListsKind& kind,
                     const std::map<std::string, JsonItemReader>& lists);

// The text with a mark instead of what is not UTF-8.
std::string valid_utf8(const std::string& text);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_JSON_READER_H
