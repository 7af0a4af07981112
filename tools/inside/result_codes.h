// result_codes.h - the codes of the library and of the host accelerator in words, with the exit code
// that each leads to. command.h has the exit codes, qv_host.h the accelerator's codes.
#ifndef TOOLS_INSIDE_RESULT_CODES_H
#define TOOLS_INSIDE_RESULT_CODES_H

#include "qv_types.h"

#include "tools/common/command.h"

namespace olvex_tools {

struct ResultCode {
  QV_S32 code;
  ExitCode exit_code;
  const char* text;  // one sentence without its full stop
};

// Of an unknown code, what is common to all of them.
const ResultCode& explain_result(QV_S32 code);

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_RESULT_CODES_H
