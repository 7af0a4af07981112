// SPDX-License-Identifier: Apache-2.0
// options.h - how a subcommand declares its options. A thin layer over the parser, so that its header, which
// takes long to compile, is needed here and in main.cpp alone. compare_command.cpp is an example.
#ifndef TOOLS_COMMON_OPTIONS_H
#define TOOLS_COMMON_OPTIONS_H

#include <string>
#include <vector>

#include "tools/common/command.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace olvex_tools {

// An option that was declared. The functions that return it change how it is shown or what it takes.
class Option {
 public:
  Option() = default;
  explicit Option(CLI::Option* option) : option_(option) {}

  Option& required();
  Option& shows_default();
  // Several values in one word, with that character between them.
  Option& split_at(char separator);
  // That many values, each a separate word.
  Option& takes(int count);
  // May be given again, with one value each time.
  Option& repeats();
  template <typename Number>
  Option& range(Number least, Number most);
  Option& one_of(const std::vector<std::string>& words);
  Option& excludes(const Option& other);

  // After parsing:
  bool given() const;
  std::string name() const;
  std::string value() const;  // as it was typed

 private:
  CLI::Option* option_ = nullptr;
};

// An option on the command line, as it was typed.
struct GivenOption {
  std::string name;                 // with its dashes; empty for a word that stands by itself
  std::vector<std::string> values;  // none for a flag
};

class OptionTable {
 public:
  explicit OptionTable(CLI::App* command) : command_(command) {}
  // Adds a subcommand; when parsing selects it, *chosen becomes its work.
  OptionTable(CLI::App* parent, const char* name, const char* description, const char* manual,
              Command* chosen, const Command& work);

  // Options that follow stand under that heading in the help.
  void group(const std::string& heading) { group_ = heading; }
  // name: as in "-o,--output"; a name in capitals is a word that stands by itself. type: what the help
  // shows for the value.
  template <typename Value>
  Option add(const std::string& name, const std::string& type, Value* value,
             const std::string& help);
  // One that keeps its value as it was typed.
  Option add(const std::string& name, const std::string& type, const std::string& help);
  // name: as in "--track,!--no-track".
  template <typename Flag>
  Option flag(const std::string& name, Flag* value, const std::string& help);

  // After parsing.
  std::vector<GivenOption> given() const;

 private:
  CLI::App* command_;
  std::string group_ = "Options";
};

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_OPTIONS_H
