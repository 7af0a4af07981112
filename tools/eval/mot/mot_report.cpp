// mot_report.cpp - a table of metrics, a table of counts, and the same as JSON with each object's
// runs.
#include "tools/eval/mot/mot.h"

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include "tools/common/text.h"

namespace olvex_tools {

namespace {

using Json = nlohmann::ordered_json;

constexpr int kReportSchemaVersion = 1;
constexpr int kMetricWidth = 7;
constexpr std::size_t kNameWidest = 24;

// ---- Text ----

struct TableRow {
  std::string name;
  const MotScores* scores;
};

std::vector<TableRow> table_rows(const MotReport& report) {
  std::vector<TableRow> rows;
  for (const MotClipReport& clip : report.clips) {
    rows.push_back({clip.name, &clip.scores});
  }
  if (report.clips.size() > 1) {
    rows.push_back({"combined", &report.combined});
  }
  for (const auto& [class_id, scores] : report.per_class) {
    if (report.per_class.size() > 1) {
      rows.push_back({"class " + std::to_string(class_id), &scores});
    }
  }
  // The ends of long names tell them apart.
  for (TableRow& row : rows) {
    row.name = one_line(row.name);
    if (row.name.size() > kNameWidest) {
      row.name = "..." + row.name.substr(row.name.size() - kNameWidest + 3);
    }
  }
  return rows;
}

std::string padded_left(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

std::string padded_right(const std::string& text, std::size_t width) {
  return text + std::string(width - std::min(width, text.size()), ' ');
}

std::string metrics_table(const std::vector<TableRow>& rows, std::size_t name_width) {
  std::string text(name_width, ' ');
  for (const Metric& metric : mot_metrics(*rows.front().scores)) {
    text += padded_left(metric.name, kMetricWidth);
  }
  for (const TableRow& row : rows) {
    text += "\n" + padded_right(row.name, name_width);
    for (const Metric& metric : mot_metrics(*row.scores)) {
      text += " " + padded_left(metric_text(metric.value), kMetricWidth - 1);
    }
  }
  return text + "\n";
}

std::string counts_table(const std::vector<TableRow>& rows, std::size_t name_width) {
  std::vector<std::size_t> widths;
  for (const MotCount& count : mot_counts(*rows.front().scores)) {
    widths.push_back(std::string(count.heading).size());
  }
  for (const TableRow& row : rows) {
    const std::vector<MotCount> counts = mot_counts(*row.scores);
    for (std::size_t i = 0; i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], std::to_string(counts[i].value).size());
    }
  }
  std::string text(name_width, ' ');
  const std::vector<MotCount> first = mot_counts(*rows.front().scores);
  for (std::size_t i = 0; i < widths.size(); ++i) {
    text += "  " + padded_left(first[i].heading, widths[i]);
  }
  for (const TableRow& row : rows) {
    text += "\n" + padded_right(row.name, name_width);
    const std::vector<MotCount> counts = mot_counts(*row.scores);
    for (std::size_t i = 0; i < widths.size(); ++i) {
      text += "  " + padded_left(std::to_string(counts[i].value), widths[i]);
    }
  }
  return text + "\n";
}

// ---- JSON ----

Json values_of(const MotScores& scores) {
  Json metrics = Json::object();
  for (const Metric& metric : mot_metrics(scores)) {
    metrics[metric.name] = metric.value ? Json(*metric.value) : Json(nullptr);
  }
  Json counts = Json::object();
  for (const MotCount& count : mot_counts(scores)) {
    counts[count.name] = count.value;
  }
  return {{"metrics", std::move(metrics)}, {"counts", std::move(counts)}};
}

Json spans_of(const std::vector<FrameSpan>& spans) {
  Json list = Json::array();
  for (const FrameSpan& span : spans) {
    list.push_back({{"first", span.first}, {"last", span.last}});
  }
  return list;
}

Json object_of(const ClipObject& object, const std::vector<FoundRun>& runs) {
  long first = object.present.empty() ? object.ignored.front().first : object.present.front().first;
  long last = first;
  for (const auto* spans : {&object.present, &object.ignored}) {
    if (!spans->empty()) {
      first = std::min(first, spans->front().first);
      last = std::max(last, spans->back().last);
    }
  }
  Json list = Json::array();
  for (const FoundRun& run : runs) {
    list.push_back(
        {{"first", run.frames.first}, {"last", run.frames.last}, {"result_id", run.result_id}});
  }
  return {{"truth_id", object.id},
          {"class", object.class_id},
          {"first", first},
          {"last", last},
          {"ignored", spans_of(object.ignored)},
          {"runs", std::move(list)}};
}

Json clip_of(const MotClipReport& clip) {
  Json json = {{"name", clip.name}, {"truth", clip.truth_path}, {"result", clip.result_path}};
  json.update(values_of(clip.scores));
  json["objects"] = Json::array();
  for (std::size_t i = 0; i < clip.objects.size(); ++i) {
    json["objects"].push_back(object_of(clip.objects[i], clip.runs[i]));
  }
  return json;
}

Json classes_json(const MotReport& report) {
  Json list = Json::array();
  for (const auto& [class_id, scores] : report.per_class) {
    Json entry = {{"class", class_id}};
    entry.update(values_of(scores));
    list.push_back(std::move(entry));
  }
  return list;
}

}  // namespace

std::string mot_report_text(const MotReport& report) {
  const std::vector<TableRow> rows = table_rows(report);
  std::size_t name_width = 0;
  for (const TableRow& row : rows) {
    name_width = std::max(name_width, row.name.size());
  }
  return metrics_table(rows, name_width) + "\n" + counts_table(rows, name_width);
}

std::string mot_report_json(const MotReport& report, const std::vector<MetricMinimum>& minimums) {
  Json json = {{"schema_version", kReportSchemaVersion}, {"classes", nullptr}};
  if (!report.restricted_to.empty()) {
    json["classes"] = report.restricted_to;
  }
  json["clips"] = Json::array();
  for (const MotClipReport& clip : report.clips) {
    json["clips"].push_back(clip_of(clip));
  }
  json["combined"] = values_of(report.combined);
  json["per_class"] = classes_json(report);
  json["warnings"] = Json::array();
  for (const LintFinding& finding : report.findings) {
    json["warnings"].push_back(
        {{"kind", finding.kind}, {"file", finding.file}, {"message", finding.message}});
  }
  json["minimums"] = Json::array();
  const std::vector<Metric> metrics = mot_metrics(report.combined);
  for (const MetricMinimum& minimum : minimums) {
    json["minimums"].push_back(
        {{"metric", minimum.name}, {"minimum", minimum.value}, {"met", is_met(minimum, metrics)}});
  }
  // File names need not be UTF-8, JSON must be.
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace olvex_tools
