// output_file.h - a text file of results in which no failed write goes unnoticed.
// Read result_writers.h for the formats.
#ifndef TOOLS_OUTPUT_FILE_H
#define TOOLS_OUTPUT_FILE_H

#include <cstdio>
#include <string>

namespace olvex_tools {

// The path that stands for standard output.
constexpr char kStandardOutput[] = "-";

// All functions throw ToolError (kInputError) that names the file when the system reports a
// failure.
class OutputFile {
 public:
  // Creates the file, or empties it. standard_output is what "-" stands for; it is not closed.
  OutputFile(const std::string& path, FILE* standard_output);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Writes and flushes, so that a reader of a pipe sees it at once.
  void write(const std::string& text);
  // Afterwards the file is complete. Call it once.
  void close();

 private:
  [[noreturn]] void fail() const;

  std::string path_;
  FILE* file_;
  bool owned_;
};

}  // namespace olvex_tools

#endif  // TOOLS_OUTPUT_FILE_H
