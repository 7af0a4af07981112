// suggestion.h - finds the name that a misspelt word was probably meant to be.
// Used by main.cpp for options and subcommands, and by pack for the names of network outputs.
#ifndef TOOLS_COMMON_SUGGESTION_H
#define TOOLS_COMMON_SUGGESTION_H

#include <string>
#include <vector>

namespace olvex_tools {

// The nearest of names by edits (a letter added, left out, replaced, or two neighbours swapped);
// empty when none is near enough to be meant.
std::string closest_name(const std::string& word, const std::vector<std::string>& names);

// ". Did you mean NAME?" for the closest name, or nothing.
std::string did_you_mean(const std::string& word, const std::vector<std::string>& names);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_SUGGESTION_H
