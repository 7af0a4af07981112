// SPDX-License-Identifier: Apache-2.0
// coco_report.cpp - tables in fixed columns, and the same as JSON.
#include "tools/eval/coco/coco.h"

#include <algorithm>
#include <set>
#include <utility>

#include "tools/common/json_text.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

constexpr int kReportSchemaVersion = 1;

// ---- text -------------------------------------------------------------------------------------

using Row = std::vector<std::string>;

// The first column to the left, the others to the right. Requires: rows of one length.
std::string table(const std::vector<Row>& rows) {
  std::vector<std::size_t> widths(rows.front().size(), 0);
  for (const Row& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], width_of(row[i]));
    }
  }
  std::string text;
  for (const Row& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string padding(widths[i] - width_of(row[i]), ' ');
      text += i == 0 ? row[i] + padding : "  " + padding + row[i];
    }
    text.erase(text.find_last_not_of(' ') + 1);
    text += "\n";
  }
  return text;
}

std::string counts_line(const CocoReport& report) {
  std::size_t ignored = 0;
  for (const ClassMetrics& item : report.metrics.classes) {
    ignored += item.ignored;
  }
  return counted(report.truth.pictures.size(), "picture, ", "pictures, ") +
         counted(report.truth.categories.size(), "class, ", "classes, ") +
         counted(report.truth.boxes.size(), "truth box", "truth boxes") + " (" +
         std::to_string(ignored) + " ignored), " + counted(report.results, "result", "results") +
         "\n";
}

std::string summary_table(const CocoMetrics& metrics) {
  static const char* const kMeanings[] = {"average precision, overlap .50 to .95",
                                          "average precision, overlap .50",
                                          "average precision, overlap .75",
                                          "AP of areas up to 32x32 pixels",
                                          "AP of areas from 32x32 to 96x96",
                                          "AP of larger areas",
                                          "average recall, 1 box per picture and class",
                                          "average recall, 10 boxes",
                                          "average recall, 100 boxes",
                                          "AR100 of areas up to 32x32 pixels",
                                          "AR100 of areas from 32x32 to 96x96",
                                          "AR100 of larger areas"};
  std::string text;
  for (std::size_t i = 0; i < metrics.summary.size(); ++i) {
    text += format("%-6s %6s  %s\n", metrics.summary[i].name.c_str(),
                   metric_text(metrics.summary[i].value).c_str(), kMeanings[i]);
  }
  return text;
}

std::string class_table(const CocoMetrics& metrics) {
  static const char* const kShown[] = {"AP", "AP50", "AP75", "APs", "APm", "APl", "AR100"};
  std::vector<Row> rows = {{"class"}};
  rows.front().insert(rows.front().end(), std::begin(kShown), std::end(kShown));
  rows.front().insert(rows.front().end(), {"truth", "ignored", "results"});
  for (const ClassMetrics& item : metrics.classes) {
    Row row = {one_line(item.category.name)};
    for (const char* const name : kShown) {
      row.push_back(metric_text(value_of(item, name)));
    }
    for (const std::size_t count : {item.truths, item.ignored, item.detections}) {
      row.push_back(std::to_string(count));
    }
    rows.push_back(row);
  }
  return table(rows);
}

Row threshold_row(const std::string& name, const std::optional<ScoreCurve>& scores) {
  if (!scores || !scores->best) {
    return {name, "-", "-", "-", "-"};
  }
  const ScoreCurve::Best& best = *scores->best;
  return {name, format("%.15g", best.threshold), metric_text(best.at.f1),
          metric_text(best.at.precision), metric_text(best.at.recall)};
}

std::string threshold_table(const CocoMetrics& metrics) {
  std::vector<Row> rows = {{"best threshold at overlap 0.5", "score", "F1", "precision", "recall"},
                           threshold_row("all boxes", metrics.scores)};
  for (const ClassMetrics& item : metrics.classes) {
    if (metrics.classes.size() > 1 && item.scores) {
      rows.push_back(threshold_row(one_line(item.category.name), item.scores));
    }
  }
  return table(rows);
}

std::string class_name_of(const CocoTruth& truth, std::size_t category, const char* none) {
  return category < truth.categories.size() ? one_line(truth.categories[category].name) : none;
}

constexpr const char* kNothing = "nothing";  // detected where no truth is
constexpr const char* kMissed = "missed";    // truth without a detection

std::string confusion_matrix(const CocoReport& report, const std::set<std::size_t>& shown) {
  std::vector<Row> rows = {{""}};
  for (const std::size_t column : shown) {
    rows.front().push_back(class_name_of(report.truth, column, kMissed));
  }
  for (const std::size_t line : shown) {
    rows.push_back({class_name_of(report.truth, line, kNothing)});
    for (const std::size_t column : shown) {
      const auto count = report.confusion.find({line, column});
      rows.back().push_back(count == report.confusion.end() ? "0" : std::to_string(count->second));
    }
  }
  // The pair of nothing and missed does not exist.
  rows.back().back().clear();
  return table(rows);
}

std::string confusion_list(const CocoReport& report) {
  constexpr std::size_t kListed = 20;
  std::vector<std::pair<std::pair<std::size_t, std::size_t>, std::size_t>> errors;
  for (const auto& item : report.confusion) {
    if (item.first.first != item.first.second) {
      errors.push_back(item);
    }
  }
  std::stable_sort(errors.begin(), errors.end(),
                   [](const auto& left, const auto& right) { return left.second > right.second; });
  std::vector<Row> rows = {{"truth", "result", "times"}};
  for (std::size_t i = 0; i < errors.size() && i < kListed; ++i) {
    rows.push_back({class_name_of(report.truth, errors[i].first.first, kNothing),
                    class_name_of(report.truth, errors[i].first.second, kMissed),
                    std::to_string(errors[i].second)});
  }
  return table(rows);
}

std::string confusion_table(const CocoReport& report) {
  constexpr std::size_t kClassesMost = 10;  // a screen is not wider
  const std::set<std::size_t> shown = shown_in_confusion(report);
  const std::string conditions = " at overlap 0.5 and score " + format("%g", report.error_score);
  return shown.size() <= kClassesMost + 1
             ? "confusion" + conditions + ", rows: truth, columns: results\n" +
                   confusion_matrix(report, shown)
             : "most frequent errors" + conditions + "\n" + confusion_list(report);
}

std::string worst_table(const CocoReport& report) {
  std::vector<Row> rows = {{"worst picture", "missed", "false", "hit", "file"}};
  for (const PictureErrors& errors : report.worst) {
    const CocoPicture& picture = report.truth.pictures[errors.picture];
    rows.push_back({std::to_string(picture.id), std::to_string(errors.misses),
                    std::to_string(errors.false_boxes), std::to_string(errors.hits),
                    one_line(picture.file_name)});
  }
  return table(rows);
}

// ---- JSON -------------------------------------------------------------------------------------

Json scores_of(const std::optional<ScoreCurve>& scores) {
  if (!scores) {
    return nullptr;
  }
  Json json = {{"best", nullptr}};
  if (scores->best) {
    json["best"] = {{"threshold", scores->best->threshold},
                    {"F1", scores->best->at.f1},
                    {"precision", or_null(scores->best->at.precision)},
                    {"recall", scores->best->at.recall}};
  }
  for (const ScorePoint& point : scores->points) {
    json["F1"].push_back(point.f1);
    json["precision"].push_back(or_null(point.precision));
    json["recall"].push_back(point.recall);
  }
  return json;
}

Json classes_of(const CocoMetrics& metrics) {
  Json list = Json::array();
  for (const ClassMetrics& item : metrics.classes) {
    list.push_back({{"id", item.category.id},
                    {"name", item.category.name},
                    {"truth_boxes", item.truths},
                    {"ignored_truth_boxes", item.ignored},
                    {"results", item.detections},
                    {"AP", or_null(value_of(item, "AP"))},
                    {"AP50", or_null(value_of(item, "AP50"))},
                    {"metrics", metrics_json(item.values)},
                    {"precision50", or_null(item.precision50)},
                    {"scores", scores_of(item.scores)}});
  }
  return list;
}

Json confusion_of(const CocoReport& report) {
  const auto name = [&](std::size_t category) {
    const std::vector<CocoCategory>& categories = report.truth.categories;
    return category < categories.size() ? Json(categories[category].name) : Json(nullptr);
  };
  Json cells = Json::array();
  for (const auto& [pair, count] : report.confusion) {
    cells.push_back({{"truth", name(pair.first)}, {"result", name(pair.second)}, {"count", count}});
  }
  return {{"overlap", kErrorOverlap}, {"score", report.error_score}, {"cells", std::move(cells)}};
}

Json worst_of(const CocoReport& report) {
  Json list = Json::array();
  for (const PictureErrors& errors : report.worst) {
    const CocoPicture& picture = report.truth.pictures[errors.picture];
    list.push_back({{"image_id", picture.id},
                    {"file_name", picture.file_name},
                    {"missed", errors.misses},
                    {"false", errors.false_boxes},
                    {"hit", errors.hits}});
  }
  return list;
}

}  // namespace

std::set<std::size_t> shown_in_confusion(const CocoReport& report) {
  std::set<std::size_t> shown = {report.truth.categories.size()};
  for (const auto& [pair, count] : report.confusion) {
    shown.insert(pair.first);
    shown.insert(pair.second);
  }
  return shown;
}

std::string coco_report_text(const CocoReport& report) {
  std::string text = counts_line(report) + "\n" + summary_table(report.metrics) + "\n" +
                     class_table(report.metrics) + "\n" + threshold_table(report.metrics) + "\n" +
                     confusion_table(report);
  if (!report.worst.empty()) {
    text += "\n" + worst_table(report);
  }
  return text;
}

std::string coco_report_json(const CocoReport& report, const std::vector<MetricMinimum>& minimums) {
  const Json json = {{"schema_version", kReportSchemaVersion},
                     {"truth", report.truth_path},
                     {"result", report.result_path},
                     {"pictures", report.truth.pictures.size()},
                     {"truth_boxes", report.truth.boxes.size()},
                     {"results", report.results},
                     {"metrics", metrics_json(report.metrics.summary)},
                     {"classes", classes_of(report.metrics)},
                     {"scores", scores_of(report.metrics.scores)},
                     {"confusion", confusion_of(report)},
                     {"worst_pictures", worst_of(report)}};
  return evaluation_json(json, report.findings, minimums, all_metrics(report.metrics));
}

}  // namespace olvex_tools
