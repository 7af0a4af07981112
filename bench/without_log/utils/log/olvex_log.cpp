// olvex_log.cpp - stands in for the source that prints the header of a log line: here is none.
#include "utils/log/olvex_log.h"
