// SPDX-License-Identifier: Apache-2.0
// subcommands.h - the subcommands of olvex-det. main.cpp adds them all; each is defined in the sources of its
// folder. Apart from command.h, which most sources include, so that another subcommand compiles few of them.
#ifndef TOOLS_COMMON_SUBCOMMANDS_H
#define TOOLS_COMMON_SUBCOMMANDS_H

#include <string>

#include "tools/common/command.h"

namespace CLI {
class App;
}

namespace olvex_tools {

// Each adds one subcommand with its options to the application and, when parsing selects it, sets
// *chosen to its work.
void add_pack_command(CLI::App& application, Command* chosen);
void add_inspect_command(CLI::App& application, Command* chosen);
void add_doctor_command(CLI::App& application, Command* chosen);
void add_run_command(CLI::App& application, Command* chosen);
void add_merge_command(CLI::App& application, Command* chosen);
void add_eval_coco_command(CLI::App& eval, Command* chosen);
void add_eval_mot_command(CLI::App& eval, Command* chosen);
void add_compare_command(CLI::App& application, Command* chosen);
void add_replay_command(CLI::App& application, Command* chosen);
void add_record_info_command(CLI::App& record, Command* chosen);
void add_record_repair_command(CLI::App& record, Command* chosen);
void add_record_cut_command(CLI::App& record, Command* chosen);
void add_record_anonymise_command(CLI::App& record, Command* chosen);
// manual and completion, which tell of all that the application has then.
void add_manual_commands(CLI::App& application, const std::string& version, Command* chosen);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_SUBCOMMANDS_H
