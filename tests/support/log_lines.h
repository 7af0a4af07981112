// SPDX-License-Identifier: Apache-2.0
// log_lines.h - the messages in what the library has printed, and whether they are the ones that
// searches of logs rely on: log_lines.txt has each with its level, # for a number, * for any text.
#ifndef TESTS_SUPPORT_LOG_LINES_H
#define TESTS_SUPPORT_LOG_LINES_H

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "log_lines_text.h"

// Each line as: LEVEL "message". What has no level stands as it is.
inline std::vector<std::string> log_lines(const std::string& log) {
  std::vector<std::string> lines;
  std::istringstream stream(log);
  for (std::string line; std::getline(stream, line);) {
    const std::size_t level = line.find("] DLA_");
    if (level != std::string::npos) {
      const std::string words = line.substr(level + 6);
      line = words.substr(0, words.find(':')) + " \"" + words.substr(words.find(". ") + 2) + '"';
    }
    lines.push_back(line);
  }
  return lines;
}

inline bool fits(const char* line, const char* known) {
  if (*known == '*') {
    return fits(line, known + 1) || (*line != 0 && fits(line + 1, known));
  }
  if (*known == '#') {
    const std::size_t sign = *line == '-' ? 1 : 0;
    const std::size_t digits = std::strspn(line + sign, "0123456789");
    return digits > 0 && fits(line + sign + digits, known + 1);
  }
  return *line == *known && (*line == 0 || fits(line + 1, known + 1));
}

// The lines that log_lines.txt does not have, but for the banner and the empty ones that follow a
// message that ends with a newline itself.
inline std::string unknown_lines(const std::string& log) {
  static const std::vector<std::string> known = log_lines(kLogLines);
  std::string unknown;
  for (const std::string& line : log_lines(log)) {
    bool is_known = line.empty() || line.find("libolvex_det release version: ") == 0;
    for (std::size_t k = 0; k < known.size() && !is_known; ++k) {
      is_known = fits(line.c_str(), known[k].c_str());
    }
    unknown += is_known ? "" : line + '\n';
  }
  return unknown;
}

#endif  // TESTS_SUPPORT_LOG_LINES_H
