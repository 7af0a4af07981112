// SPDX-License-Identifier: Apache-2.0
// main.cpp - the olvex-det command: parses the command line, runs the chosen subcommand, and turns
// every failure into one message and an exit code.
// common/command.h has the codes, common/subcommands.h the subcommands.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <initializer_list>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "video/det/include/commit_det.h"

#include "tools/common/command.h"
#include "tools/common/output_file.h"
#include "tools/common/subcommands.h"
#include "tools/common/text.h"

namespace {

using olvex_tools::Command;
using olvex_tools::ToolError;

const char kExamples[] =
    "Examples:\n"
    "  olvex-det pack detector.onnx -o detector.qtm --boxes boxes --scores scores\n"
    "  olvex-det inspect detector.qtm\n"
    "  olvex-det SUBCOMMAND --help\n\n"
    "Exit codes: 0 done, 1 a check failed, 2 wrong usage, 3 model, 4 input or output file,\n"
    "            5 accelerator, 70 a fault of this program, 130 interrupted";

const char kEvalExamples[] =
    "Examples:\n"
    "  olvex-det eval coco truth.json results.json --min AP50=0.6\n"
    "  olvex-det eval mot truth.txt result.txt --min IDF1=0.7\n"
    "  olvex-det eval coco --help\n\n"
    "Exit code 1: a metric is below its --min.";

const char kRecordExamples[] =
    "Examples:\n"
    "  olvex-det record info camera.1.mcap\n"
    "  olvex-det record repair camera.1.mcap -o whole.mcap\n"
    "  olvex-det record cut --help";

// A subcommand that has subcommands of its own, one of which must be chosen.
void add_group(CLI::App& application, const char* name, const char* description,
               const char* examples, Command* chosen,
               std::initializer_list<void (*)(CLI::App&, Command*)> members) {
  CLI::App* const group = application.add_subcommand(name, description);
  group->require_subcommand(1);
  group->footer(examples);
  for (const auto add : members) {
    add(*group, chosen);
  }
}

// The subcommands that the command line selects, from the outermost in: eval, then coco.
std::vector<const CLI::App*> selected_subcommands(const CLI::App& application) {
  std::vector<const CLI::App*> selected;
  const CLI::App* current = &application;
  while (!current->get_subcommands().empty()) {
    current = current->get_subcommands().front();
    selected.push_back(current);
  }
  return selected;
}

// As the user would type it: "olvex-det eval coco".
std::string selected_name(const CLI::App& application) {
  std::string name = "olvex-det";
  for (const CLI::App* subcommand : selected_subcommands(application)) {
    name += " " + subcommand->get_name();
  }
  return name;
}

std::vector<std::string> subcommand_names(const CLI::App& application) {
  std::vector<std::string> names;
  for (const CLI::App* subcommand : application.get_subcommands(nullptr)) {
    names.push_back(subcommand->get_name());
  }
  return names;
}

std::vector<std::string> option_names(const CLI::App& application) {
  std::vector<std::string> names;
  for (const CLI::Option* option : application.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      names.push_back("--" + name);
    }
  }
  return names;
}

bool is_option(const std::string& word) {
  return word.size() > 1 && word[0] == '-';
}

// What to say of the words that the parser could not place; empty when it placed all.
std::string describe_unknown_words(const CLI::App& application, const CLI::App& selected) {
  const std::vector<std::string> words = application.remaining(true);
  if (words.empty()) {
    return "";
  }
  const std::vector<std::string> subcommands = subcommand_names(selected);
  if (!subcommands.empty() && !is_option(words.front())) {
    return "unknown subcommand \"" + words.front() + "\"" +
           olvex_tools::did_you_mean(words.front(), subcommands);
  }
  // A misspelt option leaves its value over too; the option is what to talk about.
  const auto option = std::find_if(words.begin(), words.end(), is_option);
  if (option == words.end()) {
    return "unexpected argument \"" + words.front() + "\"";
  }
  const std::string name = option->substr(0, option->find('='));
  return "unknown option \"" + name + "\"" +
         olvex_tools::did_you_mean(name, option_names(selected));
}

// Help was asked for something that there is not: the help of what is around it would not answer.
bool has_unknown_subcommand(const CLI::App& application) {
  const auto chosen = selected_subcommands(application);
  const std::vector<std::string> words = application.remaining(true);
  return !subcommand_names(chosen.empty() ? application : *chosen.back()).empty() &&
         !words.empty() && !is_option(words.front());
}

void print_error(const CLI::App& application, const std::string& message) {
  std::fprintf(stderr, "%s: %s\n", selected_name(application).c_str(),
               olvex_tools::printable(message).c_str());
}

int report_usage_error(const CLI::App& application, const CLI::ParseError& error) {
  const auto chosen = selected_subcommands(application);
  const CLI::App& selected = chosen.empty() ? application : *chosen.back();
  const std::string unknown = describe_unknown_words(application, selected);
  print_error(application, unknown.empty() ? error.what() : unknown);
  std::fprintf(stderr, "Try: %s --help\n", selected_name(application).c_str());
  return olvex_tools::kUsageError;
}

// A script's empty variable would silently read as zero, or as an output that is not wanted.
void refuse_empty_values(const CLI::App& application) {
  for (const CLI::App* selected : selected_subcommands(application)) {
    for (const CLI::Option* option : selected->get_options()) {
      const std::vector<std::string>& values = option->results();
      if (std::find(values.begin(), values.end(), "") != values.end()) {
        throw CLI::ValidationError(option->get_name(), "the value is empty");
      }
    }
  }
}

bool is_open(int descriptor) {
  return fcntl(descriptor, F_GETFD) >= 0;
}

// The next file that is opened would take a closed stream's place and get what is printed there.
bool prepare_standard_streams() {
  if (!is_open(STDOUT_FILENO)) {
    std::fputs(
        "olvex-det: standard output is closed. Redirect it to /dev/null if it is not wanted\n",
        stderr);
    return false;
  }
  for (const int descriptor : {STDIN_FILENO, STDERR_FILENO}) {
    if (!is_open(descriptor)) {
      open("/dev/null", O_RDWR);
    }
  }
  return true;
}

// The help or the version that was asked for.
int print_help(const CLI::App& application, const CLI::ParseError& error) {
  std::ostringstream text;
  const int exit_code = application.exit(error, text);
  olvex_tools::print_result(text.str());
  return exit_code;
}

int run_command(const CLI::App& application, const Command& command) {
  try {
    return command();
  } catch (...) {
    const ToolError error = olvex_tools::caught_error();
    print_error(application, error.what());
    return error.exit_code();
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (!prepare_standard_streams()) {
    return olvex_tools::kInputError;
  }
  CLI::App application("Packs, inspects and runs detection models of libolvex_det.", "olvex-det");
  application.set_version_flag(
      "--version", "olvex-det " OLVEX_VERSION "\nlibolvex_det release version: " OLVEX_COMMIT_DET);
  application.footer(kExamples);
  application.require_subcommand(1);

  Command command;
  olvex_tools::add_pack_command(application, &command);
  olvex_tools::add_inspect_command(application, &command);
  olvex_tools::add_doctor_command(application, &command);
  olvex_tools::add_run_command(application, &command);
  olvex_tools::add_merge_command(application, &command);
  add_group(application, "eval", "Measure how good results are, against the truth", kEvalExamples,
            &command, {olvex_tools::add_eval_coco_command, olvex_tools::add_eval_mot_command});
  olvex_tools::add_compare_command(application, &command);
  olvex_tools::add_replay_command(application, &command);
  add_group(application, "record", "Show, repair, cut and anonymise recordings", kRecordExamples,
            &command,
            {olvex_tools::add_record_info_command, olvex_tools::add_record_repair_command,
             olvex_tools::add_record_cut_command, olvex_tools::add_record_anonymise_command});
  olvex_tools::add_manual_commands(application, OLVEX_VERSION, &command);
  try {
    application.parse(argc, argv);
    refuse_empty_values(application);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success) &&
        !has_unknown_subcommand(application)) {
      return run_command(application, [&] { return print_help(application, error); });
    }
    return report_usage_error(application, error);
  }
  return run_command(application, command);
}
