// SPDX-License-Identifier: Apache-2.0
// evaluation.cpp - warnings on standard error, parsing and checking of --min, composing SVG elements.
#include "tools/common/evaluation.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "tools/common/json_reader.h"
#include "tools/common/json_text.h"
#include "tools/common/output_file.h"
#include "tools/common/text.h"

namespace olvex_tools {

namespace {

constexpr std::size_t kNamesListed = 30;  // metrics of every class would fill the screen

double parse_value(const std::string& option, const std::string& text, const std::string& example) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(value)) {
    refuse_usage(option + ": \"" + text + "\" is not a number; give METRIC=VALUE, as in --min " +
                 example);
  }
  return value;
}

std::string listed(std::vector<std::string> names) {
  if (names.size() > kNamesListed) {
    names.resize(kNamesListed);
    names.push_back("...");
  }
  return join(names, ", ");
}

std::string decimal(double value, int digits) {
  return format("%.*g", digits, value);
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

const std::optional<double>& value_of(const MetricMinimum& minimum,
                                      const std::vector<Metric>& metrics) {
  return std::find_if(metrics.begin(), metrics.end(),
                      [&](const Metric& metric) { return metric.name == minimum.name; })
      ->value;
}

bool is_met(const MetricMinimum& minimum, const std::vector<Metric>& metrics) {
  const std::optional<double>& value = value_of(minimum, metrics);
  return value && *value >= minimum.value;
}

}  // namespace

void print_findings(const std::string& command, const std::vector<LintFinding>& findings) {
  for (const LintFinding& finding : findings) {
    std::fprintf(stderr, "%s: warning: %s: %s\n", command.c_str(), one_line(finding.file).c_str(),
                 one_line(finding.message).c_str());
  }
}

void add_minimum_option(OptionTable* options, std::vector<std::string>* texts) {
  const char help[] =
      "Exit with code 1 when the metric is below the value or undefined; may be given many times";
  options->add("--min", "METRIC=VALUE", texts, help).repeats();
}

std::vector<MetricMinimum> parse_minimums(const std::vector<std::string>& texts,
                                          const std::string& example) {
  std::vector<MetricMinimum> minimums;
  for (const std::string& text : texts) {
    const std::string option = "--min " + text;
    const std::size_t sign = text.rfind('=');  // a class may have one in its name
    if (sign == std::string::npos || sign == 0) {
      refuse_usage(option + ": give METRIC=VALUE, as in --min " + example);
    }
    minimums.push_back({text.substr(0, sign), parse_value(option, text.substr(sign + 1), example)});
  }
  return minimums;
}

void require_known_metrics(const std::vector<MetricMinimum>& minimums,
                           const std::vector<std::string>& known_names) {
  for (const MetricMinimum& minimum : minimums) {
    if (std::find(known_names.begin(), known_names.end(), minimum.name) != known_names.end()) {
      continue;
    }
    refuse_usage("--min " + minimum.name + ": there is no such metric" +
                 did_you_mean(minimum.name, known_names) + "\nMetrics: " + listed(known_names));
  }
}

std::string metric_text(const std::optional<double>& value) {
  return value ? format("%.3f", *value) : "-";
}

void print_report(const std::string& text, const std::vector<std::string>& outputs) {
  if (std::find(outputs.begin(), outputs.end(), kStandardOutput) != outputs.end()) {
    std::fputs(text.c_str(), stderr);
  } else {
    print_result(text);
  }
}

ExitCode check_minimums(const std::vector<MetricMinimum>& minimums,
                        const std::vector<Metric>& metrics) {
  ExitCode code = kDone;
  for (const MetricMinimum& minimum : minimums) {
    if (is_met(minimum, metrics)) {
      continue;
    }
    const std::optional<double>& value = value_of(minimum, metrics);
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

Json metrics_json(const std::vector<Metric>& metrics) {
  Json values = Json::object();
  for (const Metric& metric : metrics) {
    values[metric.name] = or_null(metric.value);
  }
  return values;
}

std::string evaluation_json(Json report, const std::vector<LintFinding>& findings,
                            const std::vector<MetricMinimum>& minimums,
                            const std::vector<Metric>& metrics) {
  report["warnings"] = Json::array();
  for (const LintFinding& finding : findings) {
    Json warning = {{"kind", finding.kind}, {"file", finding.file}};
    if (finding.count > 0) {
      warning["count"] = finding.count;
    }
    warning["message"] = finding.message;
    report["warnings"].push_back(std::move(warning));
  }
  report["minimums"] = Json::array();
  for (const MetricMinimum& minimum : minimums) {
    report["minimums"].push_back(
        {{"metric", minimum.name}, {"minimum", minimum.value}, {"met", is_met(minimum, metrics)}});
  }
  return json_text(report) + "\n";
}

// ---- SVG pictures -------------------------------------------------------------------------------

std::string xml_text(const std::string& text) {
  std::string result;
  std::string allowed = one_line(valid_utf8(text));
  // The two characters of its first 65,536 that XML has not.
  for (const char* const other : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"}) {
    for (std::size_t at = allowed.find(other); at != std::string::npos; at = allowed.find(other)) {
      allowed.replace(at, 3, "?");
    }
  }
  for (const char letter : allowed) {
    switch (letter) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      default:
        result += letter;
    }
  }
  return result;
}

std::string svg_element(const std::string& name, const std::string& attributes,
                        const std::string& content) {
  const std::string start = "<" + name + (attributes.empty() ? "" : " ") + attributes;
  return content.empty() ? start + "/>\n" : start + ">" + content + "</" + name + ">\n";
}

std::string svg_document(double width, double height, int font_size, const std::string& content) {
  return format(
             "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %.0f %.0f\" width=\"%.0f\" "
             "height=\"%.0f\" font-family=\"sans-serif\" font-size=\"%d\" fill=\"#202020\">\n"
             "<rect width=\"100%%\" height=\"100%%\" fill=\"#ffffff\"/>\n",
             width, height, width, height, font_size) +
         content + "</svg>\n";
}

}  // namespace olvex_tools
