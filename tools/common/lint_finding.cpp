// lint_finding.cpp - findings on the screen. Read lint_finding.h first.
#include "tools/common/lint_finding.h"

#include <cstdio>

#include "tools/common/standard_output.h"

namespace olvex_tools {

void print_findings(const std::string& command, const std::vector<LintFinding>& findings) {
  for (const LintFinding& finding : findings) {
    std::fprintf(stderr, "%s: warning: %s: %s\n", command.c_str(), one_line(finding.file).c_str(),
                 one_line(finding.message).c_str());
  }
}

}  // namespace olvex_tools
