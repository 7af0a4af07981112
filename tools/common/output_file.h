// SPDX-License-Identifier: Apache-2.0
// output_file.h - files of results in which no failed write goes unnoticed, and which are whole at any
// moment: up to their last text, or as they were before. And standard output, which is kept for results.
#ifndef TOOLS_COMMON_OUTPUT_FILE_H
#define TOOLS_COMMON_OUTPUT_FILE_H

#include <cstdio>
#include <optional>
#include <string>

#include "tools/common/whole_file.h"

namespace olvex_tools {

// The path that stands for standard output.
constexpr char kStandardOutput[] = "-";

enum class OutputForm {
  kLines,     // grows in place; emptied when the first text comes
  kWhole,     // written beside its place and put there by close()
  kOneOfMany  // like kWhole, but close() does not wait for the disk
};

// Throws ToolError (kInputError) when the file can neither be made nor replaced. Touches nothing.
void require_writable(const std::string& path);

// All functions throw ToolError (kInputError) that names the file when the system reports a
// failure. Standard output, devices and pipes are opened at once and written as the texts come,
// whatever the form; so is, from the first text on, a file whose folder permits no other file.
class OutputFile {
 public:
  // Touches no file. standard_output is what "-" stands for; it is not closed.
  OutputFile(const std::string& path, FILE* standard_output, OutputForm form);
  // Without close() before, a file that is written beside its place is dropped.
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Hands the text to the system in one piece. When that fails, kLines drops what was written of
  // it, and later texts are ignored.
  void write(const std::string& text);
  // Afterwards the file is complete, and later texts are ignored; one that got no text, or whose write failed, stays as it is.
  // Call it once.
  void close();
  // Whether there is a file to keep until the first text comes.
  bool is_file() const { return is_file_; }

 private:
  void open_in_place();
  void empty_own_file();
  void open();
  void write_in_place(const std::string& text);
  void commit();
  [[noreturn]] void fail(int reason, const std::string& state = "");

  std::string path_;
  OutputForm form_;
  bool is_file_ = true;  // or yet to be made
  bool failed_ = false;
  bool closed_ = false;
  int descriptor_ = -1;  // when written in place
  bool owned_ = true;    // descriptor_ is to be closed
  std::optional<ReplacementFile> replacement_;
  off_t whole_ = 0;  // bytes of the texts that were written
};

// A file of one text, kWhole.
void write_output(const std::string& path, FILE* standard_output, const std::string& text);

// ---- Standard output ----------------------------------------------------------------------------

// While an object exists, file descriptor 1 is a log file or /dev/null, and results() is the process's
// real standard output. The destructor puts everything back. Not for use from two threads; one at
// a time.
class LibraryLog {
 public:
  // log_path: file that the library's diagnostics are appended to; empty: they are dropped. Throws
  // ToolError (kInputError) when it cannot be opened.
  explicit LibraryLog(const std::string& log_path);
  ~LibraryLog();
  LibraryLog(const LibraryLog&) = delete;
  LibraryLog& operator=(const LibraryLog&) = delete;

  FILE* results() { return results_; }

 private:
  FILE* results_ = nullptr;
};

// Writes text to standard output and flushes it; throws ToolError when that fails (a full disk).
void print_result(const std::string& text);

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_OUTPUT_FILE_H
