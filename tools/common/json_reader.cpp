// SPDX-License-Identifier: Apache-2.0
// json_reader.cpp - the parser with a callback that checks; for lists it hands each object on when that is
// complete and drops it from the tree.
#include "tools/common/json_reader.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

#include <nlohmann/json.hpp>

#include "tools/common/command.h"
#include "tools/common/whole_file.h"

namespace olvex_tools {

namespace {

using Json = nlohmann::json;
using Event = Json::parse_event_t;

constexpr int kNestingMost = 64;     // levels; the files need 5
constexpr double kNumberMost = 1e9;  // areas of such boxes are still far from overflow
constexpr double kIntegerMost = 9007199254740992;  // 2^53
constexpr std::size_t kReasonMost = 300;           // letters; the parser repeats what it read last

// From the first of the starts on that is in the parser's message.
std::string reason_of(const Json::exception& error, bool one_line) {
  std::string reason = error.what();
  const std::size_t column = one_line ? reason.find("column ") : std::string::npos;
  const std::size_t tag = reason.find("] ");  // "[json.exception.parse_error.101] "
  if (column != std::string::npos) {
    reason = reason.substr(column);
  } else if (tag != std::string::npos) {
    reason = reason.substr(tag + 2);
  }
  return reason.size() > kReasonMost ? reason.substr(0, kReasonMost) + "..." : reason;
}

Json parse(const std::string& place, const char* begin, const char* end, bool one_line,
           const Json::parser_callback_t& handle) {
  // The parser takes a zero byte for the end of the text.
  if (std::find(begin, end, '\0') != end) {
    refuse_input(place, "is not JSON: it holds a zero byte");
  }
  const auto callback = [&](int depth, Event event, Json& value) {
    if (depth > kNestingMost) {
      refuse_input(place, "nests its values more than " + std::to_string(kNestingMost) + " deep");
    }
    return handle(depth, event, value);
  };
  try {
    return Json::parse(begin, end, callback);
  } catch (const Json::exception& error) {
    refuse_input(place, "is not JSON: " + reason_of(error, one_line));
  }
}

// The members of an object so far. A file of another kind may have any number.
struct Keys {
  std::set<std::string> all;
  std::string last;

  void add(const std::string& place, const Json& key) {
    last = key.get<std::string>();
    if (!all.insert(last).second) {
      throw ToolError(kInputError, place + " has the member \"" + last + "\" twice");
    }
  }
};

class ListParser {
 public:
  ListParser(const std::string& path, const JsonListsKind& kind,
             const std::map<std::string, JsonItemReader>& lists)
      : path_(path),
        kind_(kind),
        lists_(lists),
        one_list_(lists.count("") > 0),
        item_depth_(one_list_ ? 1 : 2),
        reader_(one_list_ ? &lists.at("") : nullptr) {}

  void read() {
    const std::vector<char> bytes = read_whole_file("the file", path_);
    if (bytes.empty()) {
      refuse_input(path_, "the file is empty");
    }
    parse(path_, bytes.data(), bytes.data() + bytes.size(), false,
          [this](int depth, Event event, Json& value) { return handle(depth, event, value); });
    for (const auto& [name, reader] : lists_) {
      if (!one_list_ && file_keys_.all.count(name) == 0) {
        refuse_input(path_, "has no \"" + name + "\"" + kind_.missing_list);
      }
    }
  }

 private:
  // False leaves the value out of the tree.
  bool handle(int depth, Event event, const Json& value) {
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
      refuse_input(path_, kind_.wrong_kind);
    }
  }

  bool handle_member_of_file(Event event, const Json& value) {
    if (event == Event::key) {
      file_keys_.add(path_ + ": the file", value);
      const auto list = lists_.find(file_keys_.last);
      reader_ = list == lists_.end() ? nullptr : &list->second;
      list_name_ = file_keys_.last;
      count_ = 0;
      return true;
    }
    if (reader_ != nullptr && (event == Event::value || event == Event::object_start)) {
      refuse_input(path_, "\"" + list_name_ + "\" must be a list");
    }
    return reader_ != nullptr || event != Event::array_start;
  }

  bool handle_item(Event event, const Json& value) {
    if (event == Event::value || event == Event::array_start) {
      refuse_input(path_, item() + " must be an object {...}");
    }
    if (event == Event::object_start) {
      item_keys_.all.clear();
    }
    if (event != Event::object_end) {
      return true;
    }
    (*reader_)(JsonItem(place(), "", value));
    ++count_;
    return false;
  }

  bool handle_member_of_item(Event event, const Json& value) {
    if (event == Event::key) {
      item_keys_.add(place(), value);
    }
    // Outlines can be the larger part of a file, and nothing uses them.
    const bool nested = event == Event::array_start || event == Event::object_start;
    return !nested || item_keys_.last == "bbox";
  }

  std::string item() const {
    return (one_list_ ? "result" : list_name_) + " [" + std::to_string(count_) + "]";
  }
  std::string place() const { return path_ + ": " + item(); }

  const std::string& path_;
  const JsonListsKind& kind_;
  const std::map<std::string, JsonItemReader>& lists_;
  const bool one_list_;
  const int item_depth_;
  const JsonItemReader* reader_;  // of the list that is being read; null where there is none
  std::string list_name_;
  std::size_t count_ = 0;  // objects of that list before this one
  Keys file_keys_;
  Keys item_keys_;
};

std::string quoted(const char* name) {
  return "\"" + std::string(name) + "\"";
}

}  // namespace

JsonItem::JsonItem(const std::string& place, const std::string& advice, const Json& object)
    : place_(place), advice_(advice), object_(object) {
  if (!object.is_object()) {
    refuse("must be an object {...}");
  }
}

void JsonItem::refuse(const std::string& problem) const {
  refuse_input(place_, problem);
}

void JsonItem::refuse_member(const std::string& name, const std::string& wanted) const {
  refuse(name + " must be " + wanted);
}

const Json* JsonItem::find(const char* name) const {
  const auto member = object_.find(name);
  return member == object_.end() ? nullptr : &*member;
}

const Json& JsonItem::require(const char* name) const {
  const Json* const member = find(name);
  if (member == nullptr) {
    refuse("has no " + quoted(name) + (advice_.empty() ? "" : ". " + advice_));
  }
  return *member;
}

double JsonItem::to_number(const std::string& name, const Json& member) const {
  if (!member.is_number()) {
    refuse_member(name, "a number");
  }
  const double value = member.get<double>();
  if (!(std::abs(value) <= kNumberMost)) {
    refuse_member(name, "a number from -1e9 to 1e9");
  }
  return value;
}

std::int64_t JsonItem::integer(const char* name) const {
  const Json& member = require(name);
  if (!member.is_number_integer() || std::abs(member.get<double>()) > kIntegerMost) {
    refuse_member(quoted(name), "an integer, at most 2^53");
  }
  return member.get<std::int64_t>();
}

std::optional<std::int64_t> JsonItem::optional_integer(const char* name) const {
  return find(name) == nullptr ? std::nullopt : std::make_optional(integer(name));
}

std::uint64_t JsonItem::integer(const char* name, std::uint64_t least, std::uint64_t most) const {
  const Json& member = require(name);
  const std::uint64_t value = member.is_number_unsigned() ? member.get<std::uint64_t>() : 0;
  if (!member.is_number_unsigned() || value < least || value > most) {
    refuse_member(quoted(name),
                  "an integer from " + std::to_string(least) + " to " + std::to_string(most));
  }
  return value;
}

std::optional<std::uint64_t> JsonItem::integer_or_null(const char* name,
                                                       std::uint64_t least) const {
  constexpr std::uint64_t kAnyMost = std::numeric_limits<std::uint64_t>::max();
  return require(name).is_null() ? std::nullopt
                                 : std::make_optional(integer(name, least, kAnyMost));
}

double JsonItem::number(const char* name) const {
  return to_number(quoted(name), require(name));
}

std::optional<double> JsonItem::optional_number(const char* name) const {
  return find(name) == nullptr ? std::nullopt : std::make_optional(number(name));
}

std::optional<float> JsonItem::number_or_null(const char* name) const {
  const Json& member = require(name);
  if (member.is_null()) {
    return std::nullopt;
  }
  if (!member.is_number() || !(std::abs(member.get<double>()) <= kNumberMost)) {
    refuse_member(quoted(name), "null or a number from -1e9 to 1e9");
  }
  return member.get<float>();
}

std::string JsonItem::text(const char* name) const {
  const Json& member = require(name);
  if (!member.is_string()) {
    refuse_member(quoted(name), "a text");
  }
  return member.get<std::string>();
}

std::string JsonItem::optional_text(const char* name) const {
  return find(name) == nullptr ? std::string() : text(name);
}

bool JsonItem::optional_flag(const char* name) const {
  const Json* const member = find(name);
  if (member == nullptr || member->is_boolean()) {
    return member != nullptr && member->get<bool>();
  }
  const double value = member->is_number_integer() ? member->get<double>() : -1;
  if (value != 0 && value != 1) {
    refuse_member(quoted(name), "0 or 1");
  }
  return value == 1;
}

Box JsonItem::box(const char* name) const {
  const Json& member = require(name);
  if (!member.is_array() || member.size() != 4) {
    refuse_member(quoted(name), "a list of 4 numbers, [x, y, width, height]");
  }
  const auto element = [&](std::size_t i) {
    return to_number(quoted(name) + "[" + std::to_string(i) + "]", member[i]);
  };
  return {element(0), element(1), element(2), element(3)};
}

JsonItem JsonItem::object(const char* name) const {
  return {place_ + ": " + quoted(name), advice_, require(name)};
}

std::vector<JsonItem> JsonItem::objects(const char* name, const std::string& one,
                                        std::size_t most) const {
  const Json& member = require(name);
  if (!member.is_array() || member.size() > most) {
    refuse_member(quoted(name), "a list of at most " + std::to_string(most));
  }
  std::vector<JsonItem> items;
  for (std::size_t i = 0; i < member.size(); ++i) {
    items.emplace_back(place_ + ": " + one + " " + std::to_string(i + 1), advice_, member[i]);
  }
  return items;
}

void read_json_object(const std::string& place, const std::string& advice, const char* begin,
                      const char* end, const JsonItemReader& reader) {
  std::vector<Keys> open;
  const Json json = parse(place, begin, end, true, [&](int, Event event, const Json& value) {
    if (event == Event::object_start) {
      open.emplace_back();
    } else if (event == Event::object_end) {
      open.pop_back();
    } else if (event == Event::key) {
      open.back().add(place + ":", value);
    }
    return true;
  });
  reader(JsonItem(place, advice, json));
}

void read_json_lists(const std::string& path, const JsonListsKind& kind,
                     const std::map<std::string, JsonItemReader>& lists) {
  ListParser(path, kind, lists).read();
}

std::string valid_utf8(const std::string& text) {
  return Json::parse(Json(text).dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace olvex_tools
