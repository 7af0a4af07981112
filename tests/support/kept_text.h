// SPDX-License-Identifier: Apache-2.0
// kept_text.h - texts that a test has to print again to the byte. A file holds those of one program,
// each behind a line "=== NAME". To accept an intended change run the program itself, not ctest,
// which runs its cases side by side, with OLVEX_GOLDEN_UPDATE=1 in the environment; read the
// difference.
#ifndef TESTS_SUPPORT_KEPT_TEXT_H
#define TESTS_SUPPORT_KEPT_TEXT_H

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

#include <gtest/gtest.h>

inline std::map<std::string, std::string> kept_texts(const std::string& path) {
  std::map<std::string, std::string> texts;
  std::string name;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.compare(0, 4, "=== ") == 0) {
      name = line.substr(4);
    } else {
      texts[name] += line + '\n';
    }
  }
  return texts;
}

inline void expect_kept(const std::string& path, const std::string& name, const std::string& text) {
  if (std::getenv("OLVEX_GOLDEN_UPDATE") != nullptr) {
    std::map<std::string, std::string> texts = kept_texts(path);
    texts[name] = text;
    std::ofstream file(path);
    for (const auto& kept : texts) {
      file << "=== " << kept.first << '\n' << kept.second;
    }
  }
  EXPECT_EQ(kept_texts(path)[name], text) << name << " of " << path;
}

#endif  // TESTS_SUPPORT_KEPT_TEXT_H
