// tool_runner.h - runs the built olvex-det as a user would, in a folder of its own, and hands back
// what it printed. pack_test.cpp and run_test.cpp use it.
#ifndef TESTS_TOOLS_TOOL_RUNNER_H
#define TESTS_TOOLS_TOOL_RUNNER_H

#include <string>
#include <vector>

namespace tool_runner {

struct Outcome {
  int exit_code = -1;  // 128 + number when a signal ended it
  std::string out;
  std::string err;
};

// An empty folder, removed with everything in it by the destructor.
class ScratchFolder {
 public:
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  std::string path(const std::string& name) const { return path_ + "/" + name; }
  std::vector<std::string> names() const;  // of the files in it, sorted
  void write(const std::string& name, const std::string& bytes) const;
  std::string read(const std::string& name) const;

  // Runs olvex-det with the folder as its working directory. largest_file, unless 0, is the largest
  // size in bytes that it can give a file.
  Outcome run(const std::vector<std::string>& arguments, unsigned long largest_file = 0) const;

 private:
  std::string path_;
  std::string
      log_path_;  // where output is kept: a folder of its own, so that names() is only theirs
};

}  // namespace tool_runner

#endif  // TESTS_TOOLS_TOOL_RUNNER_H
