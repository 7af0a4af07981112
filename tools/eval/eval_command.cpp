// eval_command.cpp - the subcommand eval, which has subcommands of its own, one per kind of result.
// Read eval_command.h first.
#include "tools/eval/eval_command.h"

#include <CLI/CLI.hpp>

namespace olvex_tools {

namespace {

const char kExamples[] =
    "Examples:\n"
    "  olvex-det eval coco truth.json results.json --min AP50=0.6\n"
    "  olvex-det eval mot truth.txt result.txt --min IDF1=0.7\n"
    "  olvex-det eval coco --help\n\n"
    "Exit code 1: a metric is below its --min.";

}  // namespace

void add_eval_command(CLI::App& application, Command* chosen) {
  CLI::App* const eval =
      application.add_subcommand("eval", "Measure how good results are, against the truth");
  eval->require_subcommand(1);
  eval->footer(kExamples);
  add_eval_coco_command(*eval, chosen);
  add_eval_mot_command(*eval, chosen);
}

}  // namespace olvex_tools
