// SPDX-License-Identifier: Apache-2.0
// class_names.cpp - lines to names. Declared in class_names.h.
#include "tools/common/class_names.h"

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/common/whole_file.h"

namespace olvex_tools {

std::vector<std::string> read_class_names(const std::string& path) {
  const std::vector<char> bytes = read_whole_file("the class names", path);
  std::vector<std::string> names =
      split(std::string(without_byte_order_mark({bytes.data(), bytes.size()})), '\n');
  for (std::string& name : names) {
    name.erase(name.find_last_not_of(" \t\r") + 1);
  }
  while (!names.empty() && names.back().empty()) {
    names.pop_back();
  }
  if (names.empty()) {
    refuse_input(path, "no class names in it. Write one on each line");
  }
  return names;
}

}  // namespace olvex_tools
