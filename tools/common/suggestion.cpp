// suggestion.cpp - edit distance with transpositions (restricted Damerau-Levenshtein).
// Read suggestion.h first.
#include "tools/common/suggestion.h"

#include <algorithm>
#include <cstddef>

namespace olvex_tools {

namespace {

std::size_t edit_distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> distance(a.size() + 1,
                                                 std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) {
    for (std::size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        distance[i][j] = i + j;
        continue;
      }
      const std::size_t replaced = distance[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      distance[i][j] = std::min({distance[i - 1][j] + 1, distance[i][j - 1] + 1, replaced});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) {
        distance[i][j] = std::min(distance[i][j], distance[i - 2][j - 2] + 1);
      }
    }
  }
  return distance[a.size()][b.size()];
}

}  // namespace

std::string closest_name(const std::string& word, const std::vector<std::string>& names) {
  std::string closest;
  // A third of the word may be wrong; more than that is another word.
  std::size_t best = word.size() / 3 + 1;
  for (const std::string& name : names) {
    const std::size_t distance = edit_distance(word, name);
    if (distance < best || (distance == best && closest.empty() && distance < name.size())) {
      best = distance;
      closest = name;
    }
  }
  return closest;
}

std::string did_you_mean(const std::string& word, const std::vector<std::string>& names) {
  const std::string name = closest_name(word, names);
  return name.empty() ? name : ". Did you mean " + name + "?";
}

}  // namespace olvex_tools
