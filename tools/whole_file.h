// whole_file.h - files read and written as a whole: a reader that says what went wrong, and a
// writer that leaves either the complete new file or what was there before. Used by
// pack_command.cpp.
#ifndef TOOLS_WHOLE_FILE_H
#define TOOLS_WHOLE_FILE_H

#include <string>
#include <vector>

namespace olvex_tools {

// The bytes of a file or pipe, up to 1 GiB. Throws ToolError (kInputError) with what ("the network") and path.
std::vector<char> read_whole_file(const std::string& what, const std::string& path);

// A file that is written beside its target under a temporary name and takes the target's place in
// one step. Until commit() the target is untouched; without it, also when SIGINT, SIGTERM or SIGHUP
// ends the process, the temporary file is removed. One at a time.
class ReplacementFile {
 public:
  // Creates the temporary file. Throws ToolError (kInputError), as do the others.
  explicit ReplacementFile(const std::string& target);
  ~ReplacementFile();
  ReplacementFile(const ReplacementFile&) = delete;
  ReplacementFile& operator=(const ReplacementFile&) = delete;

  void write(const std::vector<char>& bytes);
  // Puts the file in place, with its contents on the disk first.
  void commit();
  const std::string& temporary_path() const { return temporary_path_; }

 private:
  std::string target_;
  std::string temporary_path_;
  int descriptor_ = -1;
  bool committed_ = false;
};

}  // namespace olvex_tools

#endif  // TOOLS_WHOLE_FILE_H
