// coco_json.cpp - streaming by the parser's callback: each object is handed on when it is complete
// and dropped from the tree. Read coco_json.h first.
#include "tools/eval/coco/coco_json.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <vector>

#include "tools/common/command.h"
#include "tools/common/whole_file.h"

namespace olvex_tools {

namespace {

using Json = nlohmann::json;
using Event = Json::parse_event_t;

constexpr int kNestingMost = 64;     // levels; a COCO file needs 5
constexpr double kNumberMost = 1e9;  // areas of such boxes are still far from overflow
constexpr double kIntegerMost =
    9007199254740992;                     // 2^53, beyond which programs round JSON's numbers
constexpr std::size_t kReasonMost = 300;  // letters; the parser repeats what it read last

[[noreturn]] void refuse_file(const std::string& path, const std::string& problem) {
  throw ToolError(kInputError, path + ": " + problem);
}

// Without the parser's own "[json.exception...]" in front.
std::string reason_of(const Json::exception& error) {
  std::string reason = error.what();
  const std::size_t end = reason.find("] ");
  reason = end == std::string::npos ? reason : reason.substr(end + 2);
  return reason.size() > kReasonMost ? reason.substr(0, kReasonMost) + "..." : reason;
}

class ListParser {
 public:
  // lists: see read_coco_lists; the name "" stands for a file that is one list.
  ListParser(const std::string& path, const std::map<std::string, CocoItemReader>& lists)
      : path_(path),
        lists_(lists),
        one_list_(lists.count("") > 0),
        item_depth_(one_list_ ? 1 : 2),
        reader_(one_list_ ? &lists.at("") : nullptr) {}

  void parse() {
    const std::vector<char> bytes = read_whole_file("the file", path_);
    if (bytes.empty()) {
      refuse_file(path_, "the file is empty.");
    }
    // The parser takes a zero byte for the end of the text.
    if (std::find(bytes.begin(), bytes.end(), '\0') != bytes.end()) {
      refuse_file(path_, "is not JSON: it holds a zero byte.");
    }
    const auto callback = [this](int depth, Event event, Json& value) {
      return handle(depth, event, value);
    };
    try {
      // What is left of the tree; the callback has seen the rest.
      const Json left_over = Json::parse(bytes.begin(), bytes.end(), callback);
    } catch (const Json::exception& error) {
      refuse_file(path_, "is not JSON: " + reason_of(error));
    }
    for (const auto& [name, reader] : lists_) {
      if (!one_list_ && file_keys_.all.count(name) == 0) {
        refuse_file(path_, "has no \"" + name + "\"; is it a COCO instances file?");
      }
    }
  }

 private:
  // False leaves the value out of the tree.
  bool handle(int depth, Event event, Json& value) {
    if (depth > kNestingMost) {
      refuse_file(path_, "nests its values more than " + std::to_string(kNestingMost) + " deep.");
    }
    if (depth == 0) {
      require_outer_kind(event);
    } else if (depth == 1 && !one_list_) {
      return handle_member_of_file(event, value);
    } else if (reader_ != nullptr && depth == item_depth_) {
      return handle_item(event, value);
    } else if (reader_ != nullptr && depth == item_depth_ + 1) {
      return handle_member_of_item(event, value);
    }
    return true;
  }

  void require_outer_kind(Event event) const {
    const bool begins =
        event == Event::object_start || event == Event::array_start || event == Event::value;
    if (begins && event != (one_list_ ? Event::array_start : Event::object_start)) {
      refuse_file(path_, one_list_ ? "is not a list of results. Give the truth first, then the "
                                     "results of olvex-det run --coco."
                                   : "is not a COCO instances file, an object with images, "
                                     "annotations and categories. Give the truth first, then the "
                                     "results.");
    }
  }

  bool handle_member_of_file(Event event, const Json& value) {
    if (event == Event::key) {
      remember(value.get<std::string>(), "the file", &file_keys_);
      const auto list = lists_.find(file_keys_.last);
      reader_ = list == lists_.end() ? nullptr : &list->second;
      list_name_ = file_keys_.last;
      count_ = 0;
      return true;
    }
    if (reader_ != nullptr && (event == Event::value || event == Event::object_start)) {
      refuse_file(path_, "\"" + list_name_ + "\" must be a list.");
    }
    return reader_ != nullptr || event != Event::array_start;
  }

  bool handle_item(Event event, const Json& value) {
    if (event == Event::value || event == Event::array_start) {
      refuse_file(path_, place() + " must be an object {...}.");
    }
    if (event == Event::object_start) {
      item_keys_.all.clear();
    }
    if (event != Event::object_end) {
      return true;
    }
    const std::string where = path_ + ": " + place();
    (*reader_)(CocoItem(where, value));
    ++count_;
    return false;
  }

  bool handle_member_of_item(Event event, const Json& value) {
    if (event == Event::key) {
      remember(value.get<std::string>(), place(), &item_keys_);
    }
    // Outlines can be the larger part of a file, and nothing asks for them.
    const bool nested = event == Event::array_start || event == Event::object_start;
    return !nested || item_keys_.last == "bbox";
  }

  // The members of an object so far. A file that is none of COCO's may have any number.
  struct Keys {
    std::set<std::string> all;
    std::string last;
  };

  void remember(const std::string& key, const std::string& where, Keys* keys) {
    if (!keys->all.insert(key).second) {
      refuse_file(path_, where + " has the member \"" + key + "\" twice.");
    }
    keys->last = key;
  }

  std::string place() const {
    return (one_list_ ? "result " : list_name_ + " ") + "[" + std::to_string(count_) + "]";
  }

  const std::string& path_;
  const std::map<std::string, CocoItemReader>& lists_;
  const bool one_list_;
  const int item_depth_;
  const CocoItemReader* reader_;  // of the list that is being read; null where nobody reads
  std::string list_name_;
  std::size_t count_ = 0;  // objects of that list before this one
  Keys file_keys_;
  Keys item_keys_;
};

}  // namespace

void CocoItem::refuse(const std::string& problem) const {
  throw ToolError(kInputError, place_ + ": " + problem);
}

const Json* CocoItem::find(const char* name) const {
  const auto member = object_.find(name);
  return member == object_.end() ? nullptr : &*member;
}

const Json& CocoItem::require(const char* name) const {
  const Json* const member = find(name);
  if (member == nullptr) {
    refuse("has no \"" + std::string(name) + "\".");
  }
  return *member;
}

std::int64_t CocoItem::to_integer(const char* name, const Json& member) const {
  const bool integer = member.is_number_integer();
  if (!integer || std::abs(member.get<double>()) > kIntegerMost) {
    refuse("\"" + std::string(name) + "\" must be an integer, at most 2^53.");
  }
  return member.get<std::int64_t>();
}

double CocoItem::to_number(const std::string& name, const Json& member) const {
  if (!member.is_number()) {
    refuse(name + " must be a number.");
  }
  const double value = member.get<double>();
  if (!(std::abs(value) <= kNumberMost)) {
    refuse(name + " must be a number from -1e9 to 1e9.");
  }
  return value;
}

std::int64_t CocoItem::integer(const char* name) const {
  return to_integer(name, require(name));
}

std::optional<std::int64_t> CocoItem::optional_integer(const char* name) const {
  const Json* const member = find(name);
  return member == nullptr ? std::nullopt : std::make_optional(to_integer(name, *member));
}

double CocoItem::number(const char* name) const {
  return to_number("\"" + std::string(name) + "\"", require(name));
}

std::optional<double> CocoItem::optional_number(const char* name) const {
  return find(name) == nullptr ? std::nullopt : std::make_optional(number(name));
}

std::string CocoItem::text(const char* name) const {
  const Json& member = require(name);
  if (!member.is_string()) {
    refuse("\"" + std::string(name) + "\" must be a text.");
  }
  return member.get<std::string>();
}

std::string CocoItem::optional_text(const char* name) const {
  return find(name) == nullptr ? std::string() : text(name);
}

bool CocoItem::optional_flag(const char* name) const {
  const Json* const member = find(name);
  if (member == nullptr) {
    return false;
  }
  if (member->is_boolean()) {
    return member->get<bool>();
  }
  const double value = member->is_number_integer() ? member->get<double>() : -1;
  if (value != 0 && value != 1) {
    refuse("\"" + std::string(name) + "\" must be 0 or 1.");
  }
  return value == 1;
}

Box CocoItem::box(const char* name) const {
  const std::string quoted = "\"" + std::string(name) + "\"";
  const Json& member = require(name);
  if (!member.is_array() || member.size() != 4) {
    refuse(quoted + " must be a list of 4 numbers, [x, y, width, height].");
  }
  const auto element = [&](std::size_t i) {
    return to_number(quoted + "[" + std::to_string(i) + "]", member[i]);
  };
  return {element(0), element(1), element(2), element(3)};
}

void read_coco_lists(const std::string& path, const std::map<std::string, CocoItemReader>& lists) {
  ListParser(path, lists).parse();
}

void read_coco_list(const std::string& path, const CocoItemReader& reader) {
  ListParser(path, {{"", reader}}).parse();
}

}  // namespace olvex_tools
