// SPDX-License-Identifier: Apache-2.0
// start_pattern.h - the bytes with which the offline model starts, after the text of a model image.
// model_image.cpp looks for them.
#ifndef BASE_SDET_START_PATTERN_H
#define BASE_SDET_START_PATTERN_H

#include <stddef.h>

#include "platform/contract/olvex_platform.h"

const char kStartPattern[] = OLVEX_OFFLINE_MODEL_START;
const size_t kStartPatternSize = sizeof(kStartPattern) - 1;

#endif  // BASE_SDET_START_PATTERN_H
