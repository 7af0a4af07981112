// SPDX-License-Identifier: Apache-2.0
// mot_classes.h - which class the numbers in a file of boxes mean, and what classes are called. mot.h has what is
// measured of them.
#ifndef TOOLS_EVAL_MOT_MOT_CLASSES_H
#define TOOLS_EVAL_MOT_MOT_CLASSES_H

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace olvex_tools {

constexpr int kNoClass = -1;  // a row that names none
constexpr int kClassMost = 1000000;

using ClassNames = std::map<int, std::string>;  // by class id

// The names of a file of --class-names; none without one.
ClassNames class_names_of(const std::string& path);

// The class's name in one line, or "class 7".
std::string class_title(const ClassNames& names, int class_id);

// What an option's numbers of a file stand for.
class ClassMap {
 public:
  // text: NUMBER=CLASS,NUMBER=CLASS..., or, without a "=", a file with one of those on each line. CLASS is a class id,
  // a name, or "-": rows of that number are not to count. A name that names has stands for its id; another one,
  // where names may be added, for the number that is given it first.
  // Throws ToolError (kUsageError, or kInputError for a file) with the item that it cannot take.
  ClassMap(const std::string& option, const std::string& text, bool may_add_names,
           ClassNames* names);
  ClassMap() = default;

  // Empty where rows of that number are not to count. Numbers that are not listed stay what they are.
  std::optional<int> target(int number) const;

 private:
  std::map<int, std::optional<int>> targets_;
};

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_CLASSES_H
