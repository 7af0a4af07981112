// SPDX-License-Identifier: Apache-2.0
// mot_classes.cpp - the items of --class-map, from the command line or a file. Declared in mot_classes.h.
#include "tools/eval/mot/mot_classes.h"

#include <algorithm>
#include <charconv>
#include <functional>

#include "tools/common/class_names.h"
#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/common/whole_file.h"

namespace olvex_tools {

namespace {

const char kForm[] = "give NUMBER=CLASS, as in 1=person, with a number from -1 to 1000000";

using Refuse = std::function<void(const std::string& problem)>;  // does not return

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  return first == std::string::npos
             ? std::string()
             : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::optional<int> whole_number(const std::string& text, int least) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool is_number = error == std::errc() && end == text.data() + text.size();
  return is_number && value >= least && value <= kClassMost ? std::make_optional(value)
                                                            : std::nullopt;
}

class MapReader {
 public:
  MapReader(bool may_add_names, ClassNames* names)
      : names_(*names), may_add_names_(may_add_names) {}

  void add(const std::string& item, const Refuse& refuse) {
    const std::size_t sign = item.find('=');
    const std::string name =
        sign == std::string::npos ? std::string() : trimmed(item.substr(sign + 1));
    const std::optional<int> number = whole_number(trimmed(item.substr(0, sign)), kNoClass);
    if (name.empty() || !number) {
      refuse(kForm);
    }
    if (!targets_.emplace(*number, target_of(name, *number, refuse)).second) {
      refuse("the number " + std::to_string(*number) + " is given a class twice");
    }
  }

  std::map<int, std::optional<int>> targets() const { return targets_; }

 private:
  std::optional<int> target_of(const std::string& name, int number, const Refuse& refuse) {
    if (name == "-") {
      return std::nullopt;
    }
    if (const std::optional<int> class_id = whole_number(name, 0)) {
      return class_id;
    }
    if (name.find_first_not_of("+-.0123456789") == std::string::npos) {
      refuse("\"" + one_line(name) + "\" is no class. Give an id from 0 to " +
             std::to_string(kClassMost) + ", a name, or - for none");
    }
    std::vector<std::string> known;
    for (const auto& [class_id, known_name] : names_) {
      if (known_name == name) {
        return class_id;
      }
      known.push_back(known_name);
    }
    if (!may_add_names_) {
      refuse("no class is named \"" + one_line(name) + "\"" + did_you_mean(name, known));
    }
    const int class_id = std::max(number, 0);
    if (!names_.emplace(class_id, name).second) {
      refuse("class " + std::to_string(class_id) + " is named \"" + one_line(names_.at(class_id)) +
             "\" already. Give the names with --class-names");
    }
    return class_id;
  }

  ClassNames& names_;
  bool may_add_names_;
  std::map<int, std::optional<int>> targets_;
};

void read_list(const std::string& option, const std::string& text, MapReader* reader) {
  for (const std::string& item : split(text, ',')) {
    reader->add(item, [&](const std::string& problem) {
      refuse_usage(option + ": \"" + one_line(item) + "\": " + problem);
    });
  }
}

void read_file(const std::string& path, MapReader* reader) {
  const std::vector<char> bytes = read_whole_file("the class map", path);
  std::size_t number = 0;
  for (const std::string& line :
       split(std::string(without_byte_order_mark({bytes.data(), bytes.size()})), '\n')) {
    ++number;
    const std::string item = trimmed(line);
    if (!item.empty() && item.front() != '#') {
      reader->add(item, [&](const std::string& problem) {
        refuse_input(path + ":" + std::to_string(number), problem);
      });
    }
  }
}

}  // namespace

ClassNames class_names_of(const std::string& path) {
  ClassNames names;
  if (!path.empty()) {
    int class_id = 0;
    for (const std::string& name : read_class_names(path)) {
      names.emplace(class_id++, name);
    }
  }
  return names;
}

std::string class_title(const ClassNames& names, int class_id) {
  const auto name = names.find(class_id);
  return name == names.end() || name->second.empty() ? "class " + std::to_string(class_id)
                                                     : one_line(name->second);
}

ClassMap::ClassMap(const std::string& option, const std::string& text, bool may_add_names,
                   ClassNames* names) {
  MapReader reader(may_add_names, names);
  if (text.find('=') != std::string::npos) {
    read_list(option, text, &reader);
  } else {
    read_file(text, &reader);
  }
  targets_ = reader.targets();
}

std::optional<int> ClassMap::target(int number) const {
  const auto listed = targets_.find(number);
  return listed == targets_.end() ? std::make_optional(number) : listed->second;
}

}  // namespace olvex_tools
