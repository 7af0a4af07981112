// tool_runner.cpp - starts the program with its output in two files. Read tool_runner.h first.
#include "tests/tools/tool_runner.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tool_runner {

namespace {

std::string make_folder() {
  std::string path = std::filesystem::temp_directory_path() / "olvex-det-test-XXXXXX";
  if (mkdtemp(path.data()) == nullptr) {
    throw std::runtime_error("no temporary folder");
  }
  return path;
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// In the child: leads a descriptor to a new file that the size limit does not cover.
void lead_to(int descriptor, const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(file, descriptor);
}

[[noreturn]] void become_tool(const std::string& folder, const std::vector<std::string>& arguments,
                              unsigned long largest_file) {
  std::vector<char*> argv = {const_cast<char*>(OLVEX_DET_PROGRAM)};
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  if (largest_file != 0) {
    const rlimit limit = {largest_file, largest_file};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  if (chdir(folder.c_str()) == 0) {
    execv(argv[0], argv.data());
  }
  _exit(127);
}

}  // namespace

ScratchFolder::ScratchFolder() : path_(make_folder()), log_path_(make_folder()) {}

ScratchFolder::~ScratchFolder() {
  std::filesystem::remove_all(path_);
  std::filesystem::remove_all(log_path_);
}

std::vector<std::string> ScratchFolder::names() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(path_)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void ScratchFolder::write(const std::string& name, const std::string& bytes) const {
  std::ofstream(path(name), std::ios::binary) << bytes;
}

std::string ScratchFolder::read(const std::string& name) const {
  return read_file(path(name));
}

Outcome ScratchFolder::run(const std::vector<std::string>& arguments,
                           unsigned long largest_file) const {
  const std::string out = log_path_ + "/out";
  const std::string err = log_path_ + "/err";
  const pid_t child = fork();
  if (child == 0) {
    lead_to(STDOUT_FILENO, out);
    lead_to(STDERR_FILENO, err);
    become_tool(path_, arguments, largest_file);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), read_file(out),
          read_file(err)};
}

}  // namespace tool_runner
