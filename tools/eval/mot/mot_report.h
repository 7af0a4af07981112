// mot_report.h - what eval mot found, as a table, as JSON, and one clip as an SVG picture.
// schema/eval_mot.schema.json defines the JSON; mot_metrics.h has the values.
#ifndef TOOLS_EVAL_MOT_MOT_REPORT_H
#define TOOLS_EVAL_MOT_MOT_REPORT_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/eval/mot/mot_metrics.h"

namespace olvex_tools {

struct MotClipReport {
  std::string name;
  std::string truth_path;
  std::string result_path;
  MotScores scores;
  std::vector<ClipObject> objects;
  std::vector<std::vector<FoundRun>> runs;  // by objects
};

struct MotReport {
  std::set<int> restricted_to;  // empty: all classes
  std::vector<MotClipReport> clips;
  MotScores combined;                  // of all clips
  std::map<int, MotScores> per_class;  // of all clips
  std::vector<LintFinding> findings;
};

std::string mot_report_text(const MotReport& report);
std::string mot_report_json(const MotReport& report, const std::vector<MetricMinimum>& minimums);

// A picture of one clip: per object of the truth a row that shows when it was there and under which id it was
// found. Ids are written where they fit; every bar's tooltip has id and frames. In mot_timeline.cpp.
std::string timeline_svg(const std::string& title, const MotClip& clip,
                         const std::vector<std::vector<FoundRun>>& runs);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_MOT_MOT_REPORT_H
