// SPDX-License-Identifier: Apache-2.0
// manual_command.cpp - the subcommands manual and completion: reads the option tables of the whole program.
#include <filesystem>
#include <memory>

#include <CLI/CLI.hpp>

#include "tools/common/options.h"
#include "tools/common/output_file.h"
#include "tools/common/subcommands.h"
#include "tools/common/text.h"
#include "tools/common/whole_file.h"
#include "tools/manual/manual.h"

namespace olvex_tools {

namespace {

const char kManualNotes[] =
    "Examples:\n"
    "  olvex-det manual run | man -l -\n"
    "  olvex-det manual eval coco > olvex-det-eval-coco.1\n"
    "  olvex-det manual --write /usr/local/share\n\n"
    "Without a subcommand the page is that of the program. --write puts each page into "
    "FOLDER/man/man1, and the\n"
    "scripts of completion into FOLDER/bash-completion/completions and FOLDER/zsh/site-functions; "
    "what is there\n"
    "already is replaced.";

const char kCompletionNotes[] =
    "Examples:\n"
    "  source <(olvex-det completion bash)     # in this shell\n"
    "  olvex-det completion bash > ~/.local/share/bash-completion/completions/olvex-det\n"
    "  olvex-det completion zsh > _olvex-det   # in a folder of zsh's fpath\n\n"
    "An installed olvex-det has both scripts where the shells look for them.";

// The words that a check between braces lets pass: "WORD:{png,jpg}".
std::vector<std::string> only_words(const std::string& type) {
  const std::size_t begin = type.find('{');
  const std::size_t end = type.rfind('}');
  return begin == std::string::npos || end < begin
             ? std::vector<std::string>()
             : split(type.substr(begin + 1, end - begin - 1), ',');
}

DescribedOption described(const CLI::Option& option) {
  DescribedOption result;
  result.is_positional = option.get_positional();
  if (result.is_positional) {
    result.names = {option.get_name(true)};
  }
  for (const std::string& name : option.get_snames()) {
    result.names.push_back("-" + name);
  }
  for (const std::string& name : option.get_lnames()) {
    result.names.push_back("--" + name);
  }
  const std::string type = option.get_type_name();
  const bool is_flag = option.get_expected_max() == 0;
  result.value = is_flag || result.is_positional ? "" : type.substr(0, type.find(':'));
  result.words = only_words(type);
  result.usual = is_flag ? "" : option.get_default_str();
  result.help = option.get_description();
  result.group = option.get_group();
  result.is_required = option.get_required();
  result.repeats = option.get_expected_max() > 1;
  return result;
}

DescribedCommand described(const CLI::App& application, const std::string& around) {
  DescribedCommand result;
  result.name = around + application.get_name();
  result.description = application.get_description();
  result.notes = application.get_footer();
  for (const CLI::Option* option : application.get_options()) {
    result.options.push_back(described(*option));
  }
  for (const CLI::App* subcommand : application.get_subcommands(nullptr)) {
    result.subcommands.push_back(described(*subcommand, result.name + " "));
  }
  return result;
}

// Descriptions of commands are phrases without a full stop.
DescribedCommand described_program(const CLI::App& application) {
  DescribedCommand program = described(application, "");
  std::string& description = program.description;
  description.erase(description.find_last_not_of('.') + 1);
  return program;
}

const DescribedCommand& chosen_command(const DescribedCommand& program,
                                       const std::vector<std::string>& words) {
  const DescribedCommand* command = &program;
  for (const std::string& word : words) {
    const DescribedCommand* found = nullptr;
    std::vector<std::string> names;
    for (const DescribedCommand& subcommand : command->subcommands) {
      names.push_back(own_name(subcommand));
      found = names.back() == word ? &subcommand : found;
    }
    if (found == nullptr) {
      refuse_usage(command->name + " has no subcommand \"" + word + "\"" +
                   did_you_mean(word, names));
    }
    command = found;
  }
  return *command;
}

void write_file(const std::filesystem::path& file, const std::string& text) {
  std::error_code failure;
  std::filesystem::create_directories(file.parent_path(), failure);
  if (failure) {
    refuse_input(file.parent_path().string(), "cannot make the folder: " + failure.message());
  }
  ReplacementFile whole(file.string());
  whole.write(std::string_view(text));
  whole.commit(Durability::kLeftToSystem);
}

void write_pages(const DescribedCommand& command, const std::string& version,
                 const std::filesystem::path& folder) {
  write_file(folder / (joined_name(command, '-') + ".1"), man_page(command, version));
  for (const DescribedCommand& subcommand : command.subcommands) {
    write_pages(subcommand, version, folder);
  }
}

// As they are installed below share/.
void write_all_files(const DescribedCommand& program, const std::string& version,
                     const std::filesystem::path& folder) {
  write_pages(program, version, folder / "man/man1");
  write_file(folder / "bash-completion/completions" / program.name, bash_completion(program));
  write_file(folder / "zsh/site-functions" / ("_" + program.name), zsh_completion(program));
}

}  // namespace

void add_manual_commands(CLI::App& application, const std::string& version, Command* chosen) {
  const auto words = std::make_shared<std::vector<std::string>>();
  const auto folder = std::make_shared<std::string>();
  OptionTable manual(&application, "manual", "Print a page for man", kManualNotes, chosen,
                     [&application, version, words, folder] {
                       const DescribedCommand program = described_program(application);
                       if (folder->empty()) {
                         print_result(man_page(chosen_command(program, *words), version));
                       } else {
                         write_all_files(program, version, *folder);
                       }
                       return kDone;
                     });
  const Option subcommand =
      manual.add("SUBCOMMAND", "WORD", words.get(), "Of which subcommand; none: of the program");
  manual.add("--write", "FOLDER", folder.get(), "Write all pages, and the scripts of completion")
      .excludes(subcommand);

  const auto shell = std::make_shared<std::string>();
  OptionTable completion(
      &application, "completion", "Print a script that completes words in a shell",
      kCompletionNotes, chosen, [&application, shell] {
        const DescribedCommand program = described_program(application);
        print_result(*shell == "zsh" ? zsh_completion(program) : bash_completion(program));
        return kDone;
      });
  completion.add("SHELL", "WORD", shell.get(), "The shell").required().one_of({"bash", "zsh"});
}

}  // namespace olvex_tools
