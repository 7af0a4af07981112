// fuzz_check.h - what the library's fuzzers share beside their input: a check that ends the program,
// and the library's log sent nowhere.
#ifndef FUZZ_FUZZ_CHECK_H
#define FUZZ_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

// Ends the program when the condition does not hold; the fuzzer keeps the input then.
#define FUZZ_CHECK(condition) \
  ((condition) ? static_cast<void>(0) : fuzz_check_failed(__FILE__, __LINE__, #condition))

[[noreturn]] inline void fuzz_check_failed(const char* file, int line, const char* condition) {
  std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
  std::abort();
}

// The library prints some hundred lines for each input. The fuzzer's own go to standard error. With a
// time zone set, the lines' clock need not look for the system's.
inline void discard_standard_output() {
  setenv("TZ", "UTC", 1);
  FUZZ_CHECK(std::freopen("/dev/null", "w", stdout) != nullptr);
}

#endif  // FUZZ_FUZZ_CHECK_H
