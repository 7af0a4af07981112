// metric_minimums.h - the option --min METRIC=VALUE: values that an evaluation must reach.
// Read eval_coco_command.cpp for how a command uses it.
#ifndef TOOLS_COMMON_METRIC_MINIMUMS_H
#define TOOLS_COMMON_METRIC_MINIMUMS_H

#include <optional>
#include <string>
#include <vector>

#include "tools/common/command.h"

namespace olvex_tools {

struct Metric {
  std::string name;
  std::optional<double> value;  // empty: undefined, for want of truth
};

struct MetricMinimum {
  std::string name;
  double value = 0;
};

// Adds the option, which may be given many times, to a subcommand; its values go to *texts.
void add_minimum_option(CLI::App* command, std::vector<std::string>* texts);

// Takes METRIC=VALUE apart. Throws ToolError (kUsageError) for another form, or when VALUE is not a
// finite number.
std::vector<MetricMinimum> parse_minimums(const std::vector<std::string>& texts);

// Throws ToolError (kUsageError) for a minimum that is of none of the metrics.
void require_known_metrics(const std::vector<MetricMinimum>& minimums,
                           const std::vector<std::string>& known_names);

// One line on standard error for each minimum that its metric misses; an undefined metric misses.
// Returns kCheckFailed when there was one, else kDone. Requires: require_known_metrics passed.
ExitCode check_minimums(const std::vector<MetricMinimum>& minimums,
                        const std::vector<Metric>& metrics);

// Whether the metric of that name reaches its minimum.
bool is_met(const MetricMinimum& minimum, const std::vector<Metric>& metrics);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_METRIC_MINIMUMS_H
