// SPDX-License-Identifier: Apache-2.0
// olvex_log.cpp - replaces the source that prints the header of a log line: prints none.
#include "utils/log/olvex_log.h"
