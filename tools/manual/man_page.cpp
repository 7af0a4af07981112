// SPDX-License-Identifier: Apache-2.0
// man_page.cpp - a command's description as a page for man. Declared in manual.h.
#include <algorithm>
#include <cctype>
#include <sstream>

#include "tools/manual/manual.h"

namespace olvex_tools {

namespace {

// Requests begin a line with a point or an apostrophe, and a bare minus is set as a hyphen, which cannot be
// copied into a shell.
std::string roff(const std::string& text) {
  std::string escaped;
  bool begins_line = true;
  for (const char letter : text) {
    if (begins_line && (letter == '.' || letter == '\'')) {
      escaped += "\\&";
    }
    escaped += letter == '\\' ? "\\e" : letter == '-' ? "\\-" : std::string(1, letter);
    begins_line = letter == '\n';
  }
  return escaped;
}

std::string in_capitals(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

std::string synopsis(const DescribedCommand& command) {
  std::string text = ".B " + roff(command.name) + "\n[\\fIOPTIONS\\fR]";
  for (const DescribedOption& option : command.options) {
    if (option.is_positional) {
      const std::string name =
          "\\fI" + roff(option.names.front()) + "\\fR" + (option.repeats ? " ..." : "");
      text += option.is_required ? " " + name : " [" + name + "]";
    }
  }
  return text + (command.subcommands.empty() ? "" : " \\fISUBCOMMAND\\fR") + "\n";
}

std::string described(const DescribedOption& option) {
  std::string text = ".TP\n";
  for (std::size_t k = 0; k < option.names.size(); ++k) {
    text += (k == 0 ? "\\fB" : ", \\fB") + roff(option.names[k]) + "\\fR";
  }
  text += option.value.empty() ? "" : " \\fI" + roff(option.value) + "\\fR";
  text += "\n" + roff(option.help) + ".";
  if (!option.words.empty()) {
    text += " One of";
    for (const std::string& word : option.words) {
      text += " " + roff(word);
    }
    text += ".";
  }
  text += option.usual.empty() ? "" : " Without it: " + roff(option.usual) + ".";
  return text + "\n";
}

std::string described_options(const DescribedCommand& command) {
  std::string arguments;
  std::string options;
  std::string group;
  for (const DescribedOption& option : command.options) {
    if (option.is_positional) {
      arguments += described(option);
      continue;
    }
    if (option.group != group) {
      options += ".SS " + roff(option.group) + "\n";
      group = option.group;
    }
    options += described(option);
  }
  return (arguments.empty() ? "" : ".SH ARGUMENTS\n" + arguments) + ".SH OPTIONS\n" + options;
}

}  // namespace

std::string man_page(const DescribedCommand& command, const std::string& version) {
  const std::string title = joined_name(command, '-');
  std::string text = ".TH " + roff(in_capitals(title)) + " 1 \"\" \"libolvex_det " + roff(version) +
                     "\" \"User Commands\"\n.SH NAME\n" + roff(title) + " \\- " +
                     roff(command.description) + "\n.SH SYNOPSIS\n" + synopsis(command);
  if (!command.subcommands.empty()) {
    text += ".SH SUBCOMMANDS\n";
  }
  for (const DescribedCommand& subcommand : command.subcommands) {
    text += ".TP\n.B " + roff(own_name(subcommand)) + "\n" + roff(subcommand.description) + ".\n";
  }
  text += described_options(command);
  if (!command.notes.empty()) {
    text += ".SH NOTES\n.nf\n" + roff(command.notes) + "\n.fi\n";
  }
  if (!command.subcommands.empty()) {
    text += ".SH SEE ALSO\n";
  }
  const char* between = "";
  for (const DescribedCommand& subcommand : command.subcommands) {
    text += between + (".BR " + roff(joined_name(subcommand, '-')) + " (1)");
    between = ",\n";
  }
  return text + (command.subcommands.empty() ? "" : "\n");
}

}  // namespace olvex_tools
