// SPDX-License-Identifier: Apache-2.0
// log_format_without_argument.cpp - must not compile: a text without arguments belongs to
// OLVEX_INFO, which prints it with puts. tests/unit/CMakeLists.txt reads the compiler's message.
#include "utils/log/olvex_log.h"

OLVEX_LOG_CLOCK;

void log_without_argument() {
  OLVEX_INFO_FORMAT("a text\n");
}
