// SPDX-License-Identifier: Apache-2.0
// shell_completion.cpp - scripts that complete the words of a command line, without a call of the program.
// Declared in manual.h.
#include <algorithm>
#include <functional>

#include "tools/manual/manual.h"

namespace olvex_tools {

namespace {

// Values of other kinds than these have nothing that could be completed.
bool takes_file(const DescribedOption& option) {
  const auto has = [&](const char* part) { return option.value.find(part) != std::string::npos; };
  return option.is_positional || has("FILE") || has("FOLDER") || has("LIB") || has("PICTURE");
}

std::string joined(const std::vector<std::string>& words, const char* between) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : between) + word;
  }
  return text;
}

// In apostrophes; what ends them is written outside.
std::string quoted(const std::string& text) {
  std::string result = "'";
  for (const char letter : text) {
    result += letter == '\'' ? "'\\''" : std::string(1, letter);
  }
  return result + "'";
}

void for_each_command(const DescribedCommand& command,
                      const std::function<void(const DescribedCommand&)>& action) {
  action(command);
  for (const DescribedCommand& subcommand : command.subcommands) {
    for_each_command(subcommand, action);
  }
}

// ---- bash ----

std::string bash_case(const DescribedCommand& command) {
  std::vector<std::string> words;
  for (const DescribedCommand& subcommand : command.subcommands) {
    words.push_back(own_name(subcommand));
  }
  bool has_only_words = !command.subcommands.empty();
  std::string values;
  std::vector<std::string> others;
  for (const DescribedOption& option : command.options) {
    if (option.is_positional) {
      words.insert(words.end(), option.words.begin(), option.words.end());
      has_only_words = has_only_words || !option.words.empty();
      continue;
    }
    words.insert(words.end(), option.names.begin(), option.names.end());
    if (!option.words.empty()) {
      values += "        " + joined(option.names, "|") +
                ") words=" + quoted(joined(option.words, " ")) + " only_words=1 ;;\n";
    } else if (!option.value.empty() && takes_file(option)) {
      values += "        " + joined(option.names, "|") + ") words='' ;;\n";
    } else if (!option.value.empty()) {
      others.insert(others.end(), option.names.begin(), option.names.end());
    }
  }
  values += others.empty() ? "" : "        " + joined(others, "|") + ") words='' only_words=1 ;;\n";
  return "    " + quoted(command.name) + ")\n      words=" + quoted(joined(words, " ")) +
         (has_only_words ? " only_words=1" : "") + "\n" +
         (values.empty() ? "" : "      case \"$previous\" in\n" + values + "      esac\n") +
         "      ;;\n";
}

// ---- zsh ----

// In a description of _arguments brackets and colons have a meaning.
std::string zsh_text(const std::string& text) {
  std::string escaped;
  for (const char letter : text) {
    escaped += letter == '[' || letter == ']' || letter == ':' || letter == '\\'
                   ? std::string("\\") + letter
                   : std::string(1, letter);
  }
  return escaped;
}

std::string zsh_action(const DescribedOption& option) {
  if (option.value.empty() && !option.is_positional) {
    return "";
  }
  const std::string action = !option.words.empty() ? "(" + joined(option.words, " ") + ")"
                             : takes_file(option)  ? "_files"
                                                   : " ";
  return ":" + zsh_text(option.value.empty() ? option.names.front() : option.value) + ":" + action;
}

std::string zsh_arguments(const DescribedCommand& command) {
  std::string text = "  _arguments";
  std::string word = command.subcommands.empty() ? "*:file:_files" : "";
  for (const DescribedOption& option : command.options) {
    if (option.is_positional) {
      word = option.words.empty() ? word : "1" + zsh_action(option);
      continue;
    }
    for (const std::string& name : option.names) {
      // It may be given again where the program lets it; a list that says which would say it twice.
      text +=
          " \\\n    " + quoted("*" + name + "[" + zsh_text(option.help) + "]" + zsh_action(option));
    }
  }
  return text + (word.empty() ? "" : " \\\n    " + quoted(word)) + "\n";
}

std::string zsh_function(const DescribedCommand& command) {
  std::string text = "_" + joined_name(command, '_') + "() {\n";
  if (!command.subcommands.empty()) {
    text += "  if (( CURRENT > 2 )); then\n    case $words[2] in\n";
    for (const DescribedCommand& subcommand : command.subcommands) {
      text += "      " + own_name(subcommand) + ") shift words; (( CURRENT-- )); _" +
              joined_name(subcommand, '_') + " ;;\n";
    }
    text += "    esac\n    return\n  fi\n  local -a subcommands=(";
    for (const DescribedCommand& subcommand : command.subcommands) {
      text += "\n    " + quoted(own_name(subcommand) + ":" + subcommand.description);
    }
    text += ")\n  _describe subcommand subcommands\n";
  }
  return text + zsh_arguments(command) + "}\n\n";
}

}  // namespace

std::string bash_completion(const DescribedCommand& program) {
  std::vector<std::string> names;
  std::string cases;
  for_each_command(program, [&](const DescribedCommand& command) {
    names.push_back("\"" + command.name + "\"");
    cases += bash_case(command);
  });
  const std::string name = program.name;
  const std::string function = "_" + name;
  return "# Completes the words of " + name + "; made by: " + name + " completion bash\n" +
         function + "() {\n" +
         "  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}\n"
         "  local command='" +
         name +
         "' words='' only_words='' i\n"
         "  # A word is divided at its equals sign.\n"
         "  [[ $current == = ]] && current=''\n"
         "  [[ $previous == = ]] && previous=${COMP_WORDS[COMP_CWORD - 2]}\n"
         "  for ((i = 1; i < COMP_CWORD; ++i)); do\n"
         "    case \"$command ${COMP_WORDS[i]}\" in\n"
         "      " +
         joined({names.begin() + 1, names.end()}, "|") +
         ") command+=\" ${COMP_WORDS[i]}\" ;;\n"
         "    esac\n"
         "  done\n"
         "  case \"$command\" in\n" +
         cases +
         "  esac\n"
         "  COMPREPLY=()\n"
         "  # Without an answer the shell completes files.\n"
         "  if [[ -n $only_words || $current == -* ]]; then\n"
         "    mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
         "    compopt +o default 2> /dev/null\n"
         "  fi\n"
         "}\n"
         "complete -o default -F " +
         function + " " + name + "\n";
}

std::string zsh_completion(const DescribedCommand& program) {
  std::string text = "#compdef " + program.name + "\n# Completes the words of " + program.name +
                     "; made by: " + program.name + " completion zsh\n\n";
  for_each_command(program,
                   [&](const DescribedCommand& command) { text += zsh_function(command); });
  // Loaded by the shell at the first use, or read by hand.
  return text + "if [[ $zsh_eval_context[-1] == loadautofunc ]]; then\n  _" +
         joined_name(program, '_') + " \"$@\"\nelse\n  compdef _" + joined_name(program, '_') +
         " " + program.name + "\nfi\n";
}

}  // namespace olvex_tools
