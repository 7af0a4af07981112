// coco_json.h - reads the lists of a COCO file item by item, so that a large file never lies in
// memory as a tree, and checks every member that is asked for.
// Read coco_files.h for the files and their members.
#ifndef TOOLS_EVAL_COCO_COCO_JSON_H
#define TOOLS_EVAL_COCO_COCO_JSON_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "tools/eval/coco/coco_data.h"

namespace olvex_tools {

// One object of a list. Every function throws ToolError (kInputError) that names file, object and
// member when the member is missing, unless its name says otherwise, or not of its kind.
class CocoItem {
 public:
  // place: file, list and number of the object, for messages
  CocoItem(const std::string& place, const nlohmann::json& object)
      : place_(place), object_(object) {}

  std::int64_t integer(const char* name) const;
  std::optional<std::int64_t> optional_integer(const char* name) const;
  double number(const char* name) const;
  std::optional<double> optional_number(const char* name) const;
  std::string text(const char* name) const;
  std::string optional_text(const char* name) const;
  // 0, 1, true or false; without the member false.
  bool optional_flag(const char* name) const;
  // [x, y, width, height]
  Box box(const char* name) const;

  [[noreturn]] void refuse(const std::string& problem) const;

 private:
  const nlohmann::json* find(const char* name) const;
  const nlohmann::json& require(const char* name) const;
  std::int64_t to_integer(const char* name, const nlohmann::json& member) const;
  double to_number(const std::string& name, const nlohmann::json& member) const;

  const std::string& place_;
  const nlohmann::json& object_;
};

using CocoItemReader = std::function<void(const CocoItem&)>;

// Calls the reader of a list for each of its objects, in the order of the file. lists maps the names
// of members of the file's object to readers; all must be there, other members are passed over.
void read_coco_lists(const std::string& path, const std::map<std::string, CocoItemReader>& lists);

// The same for a file that is one list.
void read_coco_list(const std::string& path, const CocoItemReader& reader);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_COCO_COCO_JSON_H
