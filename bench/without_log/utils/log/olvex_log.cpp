// olvex_log.cpp - replaces the source that prints the header of a log line: prints none.
#include "utils/log/olvex_log.h"
