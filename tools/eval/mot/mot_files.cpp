// SPDX-License-Identifier: Apache-2.0
// mot_files.cpp - reading rows of comma separated numbers.
#include "tools/eval/mot/mot.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>
#include <set>
#include <string_view>

#include "tools/common/command.h"
#include "tools/common/text.h"
#include "tools/common/whole_file.h"

namespace olvex_tools {

namespace {

constexpr std::size_t kRowsMost = 2000000;
constexpr std::size_t kBoxesInFrameMost = 1000;  // what an assignment takes seconds for
constexpr double kFramesMost = 1e9;
constexpr double kIdMost = 9e15;  // whole numbers up to there are exact as double
constexpr double kPixelsMost = 1e6;
constexpr double kScoreMost = 1e9;  // not only networks with scores up to 1 are measured

const char kTruthColumns[] =
    "frame,id,left,top,width,height,consider[,class[,visibility[,moving]]]";
const char kResultColumns[] = "frame,id,left,top,width,height,score[,class[,-1[,-1]]]";

[[noreturn]] void refuse(const std::string& path, std::size_t line, const std::string& message) {
  refuse_input(path + ":" + std::to_string(line), message);
}

std::string_view trimmed(std::string_view text) {
  constexpr char kBlanks[] = " \t\r";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::vector<std::string_view> split(std::string_view row) {
  constexpr std::size_t kUsual = 10;
  std::vector<std::string_view> fields;
  fields.reserve(kUsual);
  for (std::size_t start = 0; start <= row.size();) {
    const std::size_t end = std::min(row.find(',', start), row.size());
    fields.push_back(trimmed(row.substr(start, end - start)));
    start = end + 1;
  }
  return fields;
}

std::string quoted(std::string_view field) {
  constexpr std::size_t kShown = 30;  // letters
  return "\"" + one_line(shortened(field, kShown, "...")) + "\"";
}

// One row under way, for messages that name file, row and column.
class RowReader {
 public:
  RowReader(const std::string& path, std::size_t line, std::string_view text)
      : path_(path), line_(line), fields_(split(text)) {}

  void require_columns(std::size_t fewest, std::size_t most, const char* columns) const {
    if (fields_.size() < fewest || fields_.size() > most) {
      fail((fields_.size() == 1 ? "there is " : "there are ") +
           counted(fields_.size(), "column", "columns") + "; a row is " + columns);
    }
  }

  std::size_t columns() const { return fields_.size(); }

  double number(std::size_t column, const char* name, double least, double most) const {
    const std::string_view field = fields_[column];
    double value = 0;
    const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), value);
    if (error == std::errc::invalid_argument || end != field.data() + field.size() ||
        std::isnan(value)) {
      fail(name + (" " + quoted(field)) + " (column " + std::to_string(column + 1) +
           ") is not a number");
    }
    if (error != std::errc() || value < least || value > most) {
      fail(name + (" " + quoted(field)) + " (column " + std::to_string(column + 1) +
           ") must be from " + quoted_limit(least) + " to " + quoted_limit(most));
    }
    return value;
  }

  // Other programs write 3 as 3.0.
  long whole(std::size_t column, const char* name, double least, double most) const {
    const double value = number(column, name, least, most);
    if (value != std::floor(value)) {
      fail(name + (" " + quoted(fields_[column])) + " (column " + std::to_string(column + 1) +
           ") must be a whole number");
    }
    return static_cast<long>(value);
  }

  [[noreturn]] void fail(const std::string& message) const { refuse(path_, line_, message); }

 private:
  static std::string quoted_limit(double limit) { return std::to_string(static_cast<long>(limit)); }

  const std::string& path_;
  std::size_t line_;
  std::vector<std::string_view> fields_;
};

// The columns that both files share.
MotRow read_shared(const RowReader& reader, std::size_t line, double least_id) {
  MotRow row;
  row.line = line;
  row.frame = reader.whole(0, "frame", 0, kFramesMost);
  row.id = reader.whole(1, "id", least_id, kIdMost);
  row.box.x = reader.number(2, "left", -kPixelsMost, kPixelsMost);
  row.box.y = reader.number(3, "top", -kPixelsMost, kPixelsMost);
  row.box.width = reader.number(4, "width", -kPixelsMost, kPixelsMost);
  row.box.height = reader.number(5, "height", -kPixelsMost, kPixelsMost);
  if (reader.columns() > 7) {
    row.class_id = static_cast<int>(reader.whole(7, "class", kNoClass, kClassMost));
  }
  return row;
}

MotRow read_truth_row(const RowReader& reader, std::size_t line) {
  reader.require_columns(7, 10, kTruthColumns);
  MotRow row = read_shared(reader, line, 0);
  row.ignored = reader.whole(6, "consider", 0, 1) == 0;
  // -1: not known.
  if (reader.columns() > 8) {
    reader.number(8, "visibility", -1, 1);
  }
  if (reader.columns() > 9) {
    reader.whole(9, "moving", -1, 1);
  }
  return row;
}

MotRow read_result_row(const RowReader& reader, std::size_t line) {
  reader.require_columns(7, 10, kResultColumns);
  MotRow row = read_shared(reader, line, -1);
  if (row.id == -1) {
    reader.fail("the box has no id (-1): run it with --track");
  }
  reader.number(6, "score", -kScoreMost, kScoreMost);
  const char* const names[] = {"the ninth column", "the tenth column"};
  for (std::size_t column = 8; column < reader.columns(); ++column) {
    reader.number(column, names[column - 8], -kScoreMost, kScoreMost);
  }
  return row;
}

void require_few_boxes_in_frame(const MotFile& file) {
  for (std::size_t i = kBoxesInFrameMost; i < file.rows.size(); ++i) {
    const MotRow& row = file.rows[i];
    if (file.rows[i - kBoxesInFrameMost].frame == row.frame) {
      refuse(file.path, row.line,
             "frame " + std::to_string(row.frame) + " has more than " +
                 std::to_string(kBoxesInFrameMost) +
                 " boxes. Is the first column the frame's number?");
    }
  }
}

template <typename ReadRow>
MotFile read_rows(const char* what, const std::string& path, ReadRow read_row) {
  const std::vector<char> bytes = read_whole_file(what, path);
  const std::string_view text = without_byte_order_mark({bytes.data(), bytes.size()});
  MotFile file;
  file.path = path;
  std::size_t line = 0;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::string_view row = trimmed(text.substr(start, end - start));
    start = end + 1;
    ++line;
    if (row.empty() || row.front() == '#') {
      continue;
    }
    if (file.rows.size() == kRowsMost) {
      refuse(path, line, "more than " + std::to_string(kRowsMost) + " rows; measure it in pieces");
    }
    file.rows.push_back(read_row(RowReader(path, line, row), line));
  }
  const auto by_frame = [](const MotRow& left, const MotRow& right) {
    return left.frame < right.frame;
  };
  if (!std::is_sorted(file.rows.begin(), file.rows.end(), by_frame)) {
    std::stable_sort(file.rows.begin(), file.rows.end(), by_frame);
  }
  require_few_boxes_in_frame(file);
  return file;
}

void require_sound_objects(const MotFile& truth) {
  std::map<long, const MotRow*> last_rows;
  std::map<long, const MotRow*> counted_rows;  // the first of each
  for (const MotRow& row : truth.rows) {
    const auto [place, is_new] = last_rows.emplace(row.id, &row);
    const MotRow& last = *place->second;
    const std::string object = "object " + std::to_string(row.id);
    if (!is_new && last.frame == row.frame) {
      refuse(truth.path, row.line,
             object + " has a box in frame " + std::to_string(row.frame) + " already, in row " +
                 std::to_string(last.line) + ". Remove one, or give it another id");
    }
    place->second = &row;
    // The class of a row that does not count does not matter.
    const MotRow* const counted =
        row.ignored ? nullptr : counted_rows.emplace(row.id, &row).first->second;
    if (counted != nullptr && counted->class_id != row.class_id) {
      refuse(truth.path, row.line,
             object + " is of class " + std::to_string(row.class_id) + ", in row " +
                 std::to_string(counted->line) + " of class " + std::to_string(counted->class_id) +
                 ". Give objects of different classes different ids");
    }
  }
}

// The classes of rows that count.
std::set<int> named_classes(const MotFile& file) {
  std::set<int> classes;
  for (const MotRow& row : file.rows) {
    if (row.class_id != kNoClass && !row.ignored) {
      classes.insert(row.class_id);
    }
  }
  return classes;
}

void settle_missing(const std::set<int>& of_other, const MotFile& other, const char* option,
                    MotFile* file) {
  for (MotRow& row : file->rows) {
    if (row.class_id != kNoClass) {
      continue;
    }
    if (of_other.size() > 1 && !row.ignored) {
      const std::string listed = join(of_other, ", ", [](int id) { return std::to_string(id); });
      refuse(file->path, row.line,
             "the row has no class, and " + other.path + " has several: " +
                 shortened(listed, 30, "...") + ". Say which one is meant, as in " + option +
                 " -1=" + std::to_string(*of_other.begin()));
    }
    row.class_id = of_other.empty() ? 0 : *of_other.begin();
  }
}

}  // namespace

MotFile read_mot_truth(const std::string& path, const ClassMap& classes) {
  MotFile truth = read_rows("the truth", path, read_truth_row);
  for (MotRow& row : truth.rows) {
    const std::optional<int> target = classes.target(row.class_id);
    row.ignored = row.ignored || !target;
    row.class_id = target.value_or(row.class_id);
  }
  return truth;
}

MotFile read_mot_result(const std::string& path, const ClassMap& classes) {
  MotFile result = read_rows("the result", path, read_result_row);
  std::vector<MotRow> kept;
  for (MotRow& row : result.rows) {
    if (const std::optional<int> target = classes.target(row.class_id)) {
      row.class_id = *target;
      kept.push_back(row);
    }
  }
  result.rows = std::move(kept);
  return result;
}

void settle_classes(MotFile* truth, MotFile* result) {
  const std::set<int> of_truth = named_classes(*truth);
  settle_missing(named_classes(*result), *result, "--class-map", truth);
  settle_missing(of_truth, *truth, "--result-class-map", result);
  require_sound_objects(*truth);
}

}  // namespace olvex_tools
