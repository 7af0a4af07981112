// lint_finding.h - what a lint of the files found, for both subcommands of eval.
// Read coco_lint.h and mot_lint.h for what is looked for.
#ifndef TOOLS_COMMON_LINT_FINDING_H
#define TOOLS_COMMON_LINT_FINDING_H

#include <cstddef>
#include <string>
#include <vector>

namespace olvex_tools {

struct LintFinding {
  std::string kind;       // one of the words in the report's schema
  std::string file;       // path as given
  std::size_t count = 0;  // boxes, pictures or ids concerned; 0: it is about the file as a whole
  std::string message;    // what was found, with an example, and what to change
};

// One line each on standard error. command: as the user types it, as in "olvex-det eval mot".
void print_findings(const std::string& command, const std::vector<LintFinding>& findings);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_LINT_FINDING_H
