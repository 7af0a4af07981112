// metric_minimums.cpp - parsing and checking of --min. Read metric_minimums.h first.
#include "tools/common/metric_minimums.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <CLI/CLI.hpp>

#include "tools/common/suggestion.h"

namespace olvex_tools {

namespace {

constexpr std::size_t kNamesListed = 30;  // metrics of every class would fill the screen

[[noreturn]] void refuse(const std::string& message) {
  throw ToolError(kUsageError, message);
}

double parse_value(const std::string& option, const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(value)) {
    refuse(option + ": \"" + text + "\" is not a number; give METRIC=VALUE, as in --min AP50=0.6.");
  }
  return value;
}

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (std::size_t i = 0; i < names.size() && i < kNamesListed; ++i) {
    text += (i == 0 ? "" : ", ") + names[i];
  }
  return names.size() > kNamesListed ? text + ", ..." : text;
}

std::string decimal(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*g", digits, value);
  return text;
}

// As few digits as leave the value and its minimum different.
std::string missed_text(const std::string& name, double value, double minimum) {
  constexpr int kFewestDigits = 3;
  constexpr int kMostDigits = 17;  // enough to tell any two doubles apart
  int digits = kFewestDigits;
  while (digits < kMostDigits && decimal(value, digits) == decimal(minimum, digits)) {
    ++digits;
  }
  return name + " is " + decimal(value, digits) + ", below the minimum " + decimal(minimum, digits);
}

const Metric& metric_of(const MetricMinimum& minimum, const std::vector<Metric>& metrics) {
  return *std::find_if(metrics.begin(), metrics.end(),
                       [&](const Metric& metric) { return metric.name == minimum.name; });
}

}  // namespace

void add_minimum_option(CLI::App* command, std::vector<std::string>* texts) {
  command
      ->add_option("--min", *texts,
                   "Exit with code 1 when the metric is below the value or undefined; may be "
                   "given many times")
      ->type_name("METRIC=VALUE")
      ->allow_extra_args(false);
}

std::vector<MetricMinimum> parse_minimums(const std::vector<std::string>& texts) {
  std::vector<MetricMinimum> minimums;
  for (const std::string& text : texts) {
    const std::string option = "--min " + text;
    const std::size_t sign = text.rfind('=');  // a class may have one in its name
    if (sign == std::string::npos || sign == 0) {
      refuse(option + ": give METRIC=VALUE, as in --min AP50=0.6.");
    }
    minimums.push_back({text.substr(0, sign), parse_value(option, text.substr(sign + 1))});
  }
  return minimums;
}

void require_known_metrics(const std::vector<MetricMinimum>& minimums,
                           const std::vector<std::string>& known_names) {
  for (const MetricMinimum& minimum : minimums) {
    if (std::find(known_names.begin(), known_names.end(), minimum.name) != known_names.end()) {
      continue;
    }
    refuse("--min " + minimum.name + ": there is no such metric." +
           did_you_mean(minimum.name, known_names) + "\nMetrics: " + joined(known_names));
  }
}

bool is_met(const MetricMinimum& minimum, const std::vector<Metric>& metrics) {
  const std::optional<double>& value = metric_of(minimum, metrics).value;
  return value && *value >= minimum.value;
}

ExitCode check_minimums(const std::vector<MetricMinimum>& minimums,
                        const std::vector<Metric>& metrics) {
  ExitCode code = kDone;
  for (const MetricMinimum& minimum : minimums) {
    if (is_met(minimum, metrics)) {
      continue;
    }
    const std::optional<double>& value = metric_of(minimum, metrics).value;
    const std::string text = value ? missed_text(minimum.name, *value, minimum.value)
                                   : minimum.name +
                                         " is undefined, there is no truth for it; the "
                                         "minimum is " +
                                         decimal(minimum.value, 6);
    std::fprintf(stderr, "%s\n", text.c_str());
    code = kCheckFailed;
  }
  return code;
}

}  // namespace olvex_tools
