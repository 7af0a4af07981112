// SPDX-License-Identifier: Apache-2.0
// manual.h - what the option tables say, for man pages and for the completion of words in shells.
#ifndef TOOLS_MANUAL_MANUAL_H
#define TOOLS_MANUAL_MANUAL_H

#include <string>
#include <vector>

namespace olvex_tools {

struct DescribedOption {
  std::vector<std::string>
      names;          // with their dashes; of a word that stands by itself its name in capitals
  std::string value;  // "FILE"; empty for a flag
  std::vector<std::string> words;  // the only values that it takes, if it takes words
  std::string usual;               // its value when it is not given
  std::string help;
  std::string group;
  bool is_positional = false;
  bool is_required = false;
  bool repeats = false;  // a positional one: several words
};

struct DescribedCommand {
  std::string name;  // "olvex-det eval coco"
  std::string description;
  std::string notes;  // what its help ends with
  std::vector<DescribedOption> options;
  std::vector<DescribedCommand> subcommands;
};

// In the language of man(7).
std::string man_page(const DescribedCommand& command, const std::string& version);

// A script that a shell reads once. Words that name no option and no choice are completed as files.
std::string bash_completion(const DescribedCommand& program);
std::string zsh_completion(const DescribedCommand& program);

// The last word of the name, by which the command around it knows it.
inline std::string own_name(const DescribedCommand& command) {
  return command.name.substr(command.name.rfind(' ') + 1);
}

// The name with another text between its words.
inline std::string joined_name(const DescribedCommand& command, char between) {
  std::string name = command.name;
  for (char& letter : name) {
    letter = letter == ' ' ? between : letter;
  }
  return name;
}

}  // namespace olvex_tools

#endif  // TOOLS_MANUAL_MANUAL_H
