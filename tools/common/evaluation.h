// SPDX-License-Identifier: Apache-2.0
// evaluation.h - what both subcommands of eval share: warnings of probable mistakes in the files, the option
// --min METRIC=VALUE, values that an evaluation must reach, and SVG pictures.
#ifndef TOOLS_COMMON_EVALUATION_H
#define TOOLS_COMMON_EVALUATION_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "tools/common/command.h"
#include "tools/common/options.h"

namespace olvex_tools {

struct LintFinding {
  std::string kind;       // one of the words in the report's schema
  std::string file;       // path as given
  std::size_t count = 0;  // boxes, pictures or ids concerned; 0: it is about the file as a whole
  std::string message;    // what was found, with an example, and what to change
};

// One line each on standard error. command: as the user types it, as in "olvex-det eval mot".
void print_findings(const std::string& command, const std::vector<LintFinding>& findings);

struct Metric {
  std::string name;
  std::optional<double> value;  // empty: undefined, as there is no truth
};

struct MetricMinimum {
  std::string name;
  double value = 0;
};

// Declares the option, which may be given many times; its values go to *texts.
void add_minimum_option(OptionTable* options, std::vector<std::string>* texts);

// Takes METRIC=VALUE apart. Throws ToolError (kUsageError) for another form, or when VALUE is not a
// finite number; the message has the example.
std::vector<MetricMinimum> parse_minimums(const std::vector<std::string>& texts,
                                          const std::string& example);

// Throws ToolError (kUsageError) for a minimum that is of none of the metrics.
void require_known_metrics(const std::vector<MetricMinimum>& minimums,
                           const std::vector<std::string>& known_names);

// One line on standard error for each minimum that its metric misses; an undefined metric misses.
// Returns kCheckFailed when there was one, else kDone. Requires: require_known_metrics passed.
ExitCode check_minimums(const std::vector<MetricMinimum>& minimums,
                        const std::vector<Metric>& metrics);

// "0.853", or "-" where there is no value.
std::string metric_text(const std::optional<double>& value);

// Prints a report, on standard error when one of the outputs goes to standard output.
void print_report(const std::string& text, const std::vector<std::string>& outputs);

// Values by name, null where there is none.
nlohmann::ordered_json metrics_json(const std::vector<Metric>& metrics);

// The text of a report, with the warnings and minimums added at its end.
std::string evaluation_json(nlohmann::ordered_json report, const std::vector<LintFinding>& findings,
                            const std::vector<MetricMinimum>& minimums,
                            const std::vector<Metric>& metrics);

// ---- Elements of SVG pictures as text; coco_plot.cpp and mot_timeline.cpp draw ------------------

// A text of any bytes as XML holds it.
std::string xml_text(const std::string& text);

// <name attributes>content</name> on its own line. content is XML.
std::string svg_element(const std::string& name, const std::string& attributes,
                        const std::string& content = "");

// A whole picture on white ground; sizes in pixels.
std::string svg_document(double width, double height, int font_size, const std::string& content);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_EVALUATION_H
