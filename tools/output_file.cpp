// output_file.cpp - checked writing through the C library. Read output_file.h first.
#include "tools/output_file.h"

#include <cerrno>
#include <cstring>

#include "tools/command.h"

namespace olvex_tools {

OutputFile::OutputFile(const std::string& path, FILE* standard_output)
    : path_(path), file_(standard_output), owned_(path != kStandardOutput) {
  if (!owned_) {
    path_ = "standard output";
    return;
  }
  file_ = std::fopen(path.c_str(), "we");
  if (file_ == nullptr) {
    fail();
  }
}

OutputFile::~OutputFile() {
  if (owned_ && file_ != nullptr) {
    std::fclose(file_);
  }
}

void OutputFile::write(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), file_) != text.size() || std::fflush(file_) != 0) {
    fail();
  }
}

void OutputFile::close() {
  if (!owned_) {
    return;
  }
  FILE* const file = file_;
  file_ = nullptr;
  if (std::fclose(file) != 0) {
    fail();
  }
}

void OutputFile::fail() const {
  const int reason = errno;
  std::string message = path_ + ": cannot be written: " + std::strerror(reason) + ".";
  if (reason == EPIPE) {
    message += " The program that reads the results ended before this one.";
  }
  throw ToolError(kInputError, message);
}

}  // namespace olvex_tools
