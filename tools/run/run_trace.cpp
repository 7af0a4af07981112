// SPDX-License-Identifier: Apache-2.0
// run_trace.cpp - an array of trace events, one a line. Declared in run.h.
#include "tools/run/run.h"

#include <utility>

#include "tools/common/json_text.h"

namespace olvex_tools {

namespace {

constexpr int kProcess = 1;
constexpr int kOneLine = -1;  // the indent of JSON without line ends

double microseconds_between(Clock::time_point start, Clock::time_point end) {
  return rounded(1000 * milliseconds_between(start, end));
}

}  // namespace

RunTrace::RunTrace(const std::string& path, FILE* standard_output, int engines)
    : file_(path, standard_output, OutputForm::kWhole), engines_(engines), start_(Clock::now()) {}

void RunTrace::write_event(const std::string& event) {
  file_.write((std::exchange(begun_, true) ? ",\n" : "[\n") + event);
}

void RunTrace::write_row_name(int row, const std::string& name) {
  write_event(json_text({{"name", "thread_name"},
                         {"ph", "M"},
                         {"pid", kProcess},
                         {"tid", row},
                         {"args", {{"name", name}}}},
                        kOneLine));
}

void RunTrace::add(const FrameJob& job) {
  if (!begun_) {
    write_row_name(kReadingRow, "reading");
    write_row_name(kConversionRow, "conversion");
    write_row_name(kOutputRow, "output");
    for (int i = 0; i < engines_; ++i) {
      write_row_name(kFirstEngineRow + i, "network " + std::to_string(i + 1));
    }
  }
  const StageTimes& times = job.record.milliseconds;
  for (const Span& span : job.spans) {
    Json arguments = {{"frame", job.record.number}, {"source", job.record.source}};
    if (span.row >= kFirstEngineRow) {
      arguments["network_ms"] = rounded(times.network);
      arguments["postprocessing_ms"] = rounded(times.postprocessing);
    }
    write_event(json_text({{"name", span.stage},
                           {"ph", "X"},
                           {"ts", microseconds_between(start_, span.start)},
                           {"dur", microseconds_between(span.start, span.end)},
                           {"pid", kProcess},
                           {"tid", span.row},
                           {"args", std::move(arguments)}},
                          kOneLine));
  }
}

void RunTrace::finish() {
  if (begun_) {
    file_.write("\n]\n");
  }
  file_.close();
}

}  // namespace olvex_tools
