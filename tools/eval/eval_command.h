// eval_command.h - the subcommands of olvex-det eval. Each compares a result of olvex-det run with
// the truth. eval_coco_command.cpp and eval_mot_command.cpp hold their options.
#ifndef TOOLS_EVAL_EVAL_COMMAND_H
#define TOOLS_EVAL_EVAL_COMMAND_H

#include "tools/command.h"

namespace olvex_tools {

// Each adds one subcommand with its options to eval and, when parsing selects it, sets *chosen to
// its work.
void add_eval_coco_command(CLI::App& eval, Command* chosen);
void add_eval_mot_command(CLI::App& eval, Command* chosen);

}  // namespace olvex_tools

#endif  // TOOLS_EVAL_EVAL_COMMAND_H
