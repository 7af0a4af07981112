// SPDX-License-Identifier: Apache-2.0
// mot_report.cpp - a table of metrics, a table of counts, and the same as JSON with each object's
// runs.
#include "tools/eval/mot/mot.h"

#include <algorithm>
#include <utility>

#include "tools/common/json_text.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

constexpr int kReportSchemaVersion = 1;
constexpr std::size_t kMetricWidth = 7;
constexpr std::size_t kNameWidest = 24;

// ---- Text ----

struct TableRow {
  std::string name;
  const MotScores* scores;
};

std::vector<TableRow> table_rows(const MotReport& report) {
  std::vector<TableRow> rows;
  for (const MotClipReport& clip : report.clips) {
    rows.push_back({clip.name, &clip.measured.scores});
  }
  if (report.clips.size() > 1) {
    rows.push_back({"combined", &report.combined});
  }
  for (const auto& [class_id, scores] : report.per_class) {
    if (report.per_class.size() > 1) {
      rows.push_back({class_title(report.class_names, class_id), &scores});
    }
  }
  // The ends of long names tell them apart.
  for (TableRow& row : rows) {
    row.name = one_line(row.name);
    if (width_of(row.name) > kNameWidest) {
      const std::size_t left_out = width_of(row.name) - kNameWidest + 3;
      row.name = "..." + row.name.substr(shortened(row.name, left_out, "").size());
    }
  }
  return rows;
}

std::string padded(const std::string& text, std::size_t width) {
  return format("%*s", static_cast<int>(width), text.c_str());
}

// The names, below a heading without one.
std::vector<std::string> name_column(const std::vector<TableRow>& rows) {
  std::size_t width = 0;
  for (const TableRow& row : rows) {
    width = std::max(width, width_of(row.name));
  }
  std::vector<std::string> lines = {std::string(width, ' ')};
  for (const TableRow& row : rows) {
    lines.push_back(row.name + std::string(width - width_of(row.name), ' '));
  }
  return lines;
}

std::string metrics_table(const std::vector<TableRow>& rows) {
  std::vector<std::string> lines = name_column(rows);
  for (const Metric& metric : mot_metrics(*rows.front().scores)) {
    lines[0] += padded(metric.name, kMetricWidth);
  }
  for (std::size_t i = 0; i < rows.size(); ++i) {
    for (const Metric& metric : mot_metrics(*rows[i].scores)) {
      lines[i + 1] += " " + padded(metric_text(metric.value), kMetricWidth - 1);
    }
  }
  return join(lines, "\n") + "\n";
}

std::string counts_table(const std::vector<TableRow>& rows) {
  std::vector<std::string> lines = name_column(rows);
  const std::vector<MotCount> first = mot_counts(*rows.front().scores);
  for (std::size_t i = 0; i < first.size(); ++i) {
    std::vector<std::string> column = {first[i].heading};
    std::size_t width = column[0].size();
    for (const TableRow& row : rows) {
      column.push_back(std::to_string(mot_counts(*row.scores)[i].value));
      width = std::max(width, column.back().size());
    }
    for (std::size_t line = 0; line < lines.size(); ++line) {
      lines[line] += "  " + padded(column[line], width);
    }
  }
  return join(lines, "\n") + "\n";
}

// ---- JSON ----

Json values_of(const MotScores& scores) {
  Json counts = Json::object();
  for (const MotCount& count : mot_counts(scores)) {
    counts[count.name] = count.value;
  }
  return {{"metrics", metrics_json(mot_metrics(scores))}, {"counts", std::move(counts)}};
}

// A list of values per part of HOTA, by overlap; null without truth.
Json curve_json(const MotScores& scores) {
  if (scores.hota.truths == 0) {
    return nullptr;
  }
  Json lists = Json::object();
  const auto curve = hota_curve(scores.hota);
  for (std::size_t i = 0; i < kHotaThresholds; ++i) {
    lists["overlap"].push_back(hota_threshold(i));
    for (const Metric& metric : hota_metrics(curve[i])) {
      lists[metric.name].push_back(*metric.value);
    }
  }
  return lists;
}

Json spans_of(const std::vector<FrameSpan>& spans) {
  Json list = Json::array();
  for (const FrameSpan& span : spans) {
    list.push_back({{"first", span.first}, {"last", span.last}});
  }
  return list;
}

Json name_json(const ClassNames& names, int class_id) {
  const auto name = names.find(class_id);
  return name == names.end() ? Json(nullptr) : Json(name->second);
}

Json object_of(const ClassNames& names, const ClipObject& object,
               const std::vector<FoundRun>& runs) {
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
          {"class_name", name_json(names, object.class_id)},
          {"first", first},
          {"last", last},
          {"ignored", spans_of(object.ignored)},
          {"runs", std::move(list)}};
}

Json clip_of(const ClassNames& names, const MotClipReport& clip) {
  Json json = {{"name", clip.name}, {"truth", clip.truth_path}, {"result", clip.result_path}};
  json.update(values_of(clip.measured.scores));
  json["objects"] = Json::array();
  for (std::size_t i = 0; i < clip.objects.size(); ++i) {
    json["objects"].push_back(object_of(names, clip.objects[i], clip.measured.runs[i]));
  }
  json["false_tracks"] = Json::array();
  for (const FalseTrack& track : clip.measured.false_tracks) {
    json["false_tracks"].push_back({{"result_id", track.result_id},
                                    {"class", track.class_id},
                                    {"class_name", name_json(names, track.class_id)},
                                    {"finds_an_object", track.finds_an_object},
                                    {"frames", spans_of(track.frames)}});
  }
  return json;
}

Json classes_json(const MotReport& report) {
  Json list = Json::array();
  for (const auto& [class_id, scores] : report.per_class) {
    Json entry = {{"class", class_id}, {"name", name_json(report.class_names, class_id)}};
    entry.update(values_of(scores));
    list.push_back(std::move(entry));
  }
  return list;
}

}  // namespace

std::string mot_report_text(const MotReport& report) {
  const std::vector<TableRow> rows = table_rows(report);
  return metrics_table(rows) + "\n" + counts_table(rows);
}

std::string mot_report_json(const MotReport& report, const std::vector<MetricMinimum>& minimums) {
  Json json = {{"schema_version", kReportSchemaVersion}, {"classes", nullptr}};
  if (!report.restricted_to.empty()) {
    json["classes"] = report.restricted_to;
  }
  json["clips"] = Json::array();
  for (const MotClipReport& clip : report.clips) {
    json["clips"].push_back(clip_of(report.class_names, clip));
  }
  json["combined"] = values_of(report.combined);
  json["combined"]["over_overlap"] = curve_json(report.combined);
  json["per_class"] = classes_json(report);
  return evaluation_json(json, report.findings, minimums, mot_metrics(report.combined));
}

}  // namespace olvex_tools
