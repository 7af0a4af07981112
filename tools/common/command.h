// SPDX-License-Identifier: Apache-2.0
// command.h - what every subcommand of olvex-det shares: exit codes, the error that carries one, and the kind
// of its work. subcommands.h lists the subcommands.
#ifndef TOOLS_COMMON_COMMAND_H
#define TOOLS_COMMON_COMMAND_H

#include <functional>
#include <new>
#include <stdexcept>
#include <string>

namespace olvex_tools {

enum ExitCode {
  kDone = 0,
  kCheckFailed = 1,
  kUsageError = 2,
  kModelError = 3,
  kInputError = 4,
  kAcceleratorError = 5,
  kInternalError = 70,
  kInterrupted = 130
};

// An error for the user: one or more lines that say what failed, which file, and what to do.
class ToolError : public std::runtime_error {
 public:
  ToolError(ExitCode exit_code, const std::string& message)
      : std::runtime_error(message), exit_code_(exit_code) {}
  ExitCode exit_code() const { return exit_code_; }

 private:
  ExitCode exit_code_;
};

// What a catch block has caught, as an error for the user.
inline ToolError caught_error() {
  try {
    throw;
  } catch (const ToolError& error) {
    return error;
  } catch (const std::bad_alloc&) {
    return {kInputError, "out of memory"};
  } catch (const std::exception& error) {
    return {kInternalError, std::string("unexpected error: ") + error.what()};
  }
}

[[noreturn]] inline void refuse_usage(const std::string& message) {
  throw ToolError(kUsageError, message);
}

// place: the file, and where in it.
[[noreturn]] inline void refuse_input(const std::string& place, const std::string& problem) {
  throw ToolError(kInputError, place + ": " + problem);
}

// name: the model or network.
[[noreturn]] inline void refuse_model(const std::string& name, const std::string& problem) {
  throw ToolError(kModelError, name + ": " + problem);
}

// The work of the subcommand that was chosen; returns an ExitCode, may throw ToolError.
using Command = std::function<int()>;

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_COMMAND_H
