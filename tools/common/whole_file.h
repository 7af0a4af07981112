// SPDX-License-Identifier: Apache-2.0
// whole_file.h - files read and written as a whole: a reader that says what went wrong, and a
// writer that leaves either the complete new file or what was there before.
#ifndef TOOLS_COMMON_WHOLE_FILE_H
#define TOOLS_COMMON_WHOLE_FILE_H

#include <array>
#include <csignal>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/command.h"

namespace olvex_tools {

// The bytes of a file or pipe, up to 1 GiB. Throws ToolError (kInputError) with what ("the network")
// and path.
std::vector<char> read_whole_file(const std::string& what, const std::string& path);

// A ToolError (kInputError) that also carries the system's reason.
class FileError : public ToolError {
 public:
  FileError(const std::string& message, int reason)
      : ToolError(kInputError, message), reason_(reason) {}
  int reason() const { return reason_; }  // errno

 private:
  int reason_;
};

// Hands the bytes to the system; returns how many it took, with errno set where that is not all.
std::size_t write_all(int descriptor, std::string_view bytes);

// Removes the temporary file of every ReplacementFile. For signal handlers that end the process.
extern "C" void remove_unfinished_files();

// Whether commit() waits until the contents are on the disk.
enum class Durability { kOnDisk, kLeftToSystem };

// The file behind a path that may be a link; empty when the link leads nowhere.
std::string behind_link(const std::string& path);

// A file that is written beside its target under a temporary name, <target>.partial.XXXXXX, and
// takes the target's place in one step, with its mode and owner. A link stays one: the target is
// the file behind it. A target that may not be written is refused. Until commit() the target is
// untouched; without it, also when SIGINT, SIGTERM, SIGHUP or SIGQUIT ends the process, the temporary
// file is removed. A signal that is ignored or handled already stays so, and SIGXFSZ is ignored.
class ReplacementFile {
 public:
  // Creates the temporary file. Throws FileError, as do the others, or ToolError (kInputError).
  explicit ReplacementFile(const std::string& target);
  ~ReplacementFile();
  ReplacementFile(const ReplacementFile&) = delete;
  ReplacementFile& operator=(const ReplacementFile&) = delete;

  void write(std::string_view bytes);
  void write(const std::vector<char>& bytes) { write({bytes.data(), bytes.size()}); }
  // Puts the file in place: by its name, or, where the system does not permit that, by its
  // contents. When neither is possible, the temporary file stays and the error names it.
  void commit(Durability durability = Durability::kOnDisk);
  const std::string& temporary_path() const { return temporary_path_; }

 private:
  void take_over_attributes() const;
  void put_in_place(int reason);

  std::string target_;
  std::string temporary_path_;
  int descriptor_ = -1;
  char* registration_ = nullptr;  // of the temporary path, for remove_unfinished_files()
  std::array<struct sigaction, 5> former_;
};

}  // namespace olvex_tools

#endif  // TOOLS_COMMON_WHOLE_FILE_H
