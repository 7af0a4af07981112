// run_log.h - where the library's own log goes during a run: a file of the user's, or memory, from
// which its last errors can be shown when a run fails.
#ifndef TOOLS_RUN_RUN_LOG_H
#define TOOLS_RUN_RUN_LOG_H

#include <cstdio>
#include <memory>
#include <string>

#include "tools/common/standard_output.h"

namespace olvex_tools {

class RunLog {
 public:
  // path: file that the log is appended to; empty: only what belongs to the current frame is kept.
  explicit RunLog(const std::string& path);
  ~RunLog();
  RunLog(const RunLog&) = delete;
  RunLog& operator=(const RunLog&) = delete;

  // The process's real standard output.
  FILE* results() { return redirection_->results(); }
  // What was logged so far belongs to a frame that went well.
  void frame_done();
  // The last error lines since then, each indented and on its own line; may be empty, and is
  // where the log is no regular file.
  std::string last_errors() const;

 private:
  // Of what belongs to no good frame, the end.
  std::string unchecked_text() const;

  int memory_ = -1;  // descriptor of the log in memory; -1 with a file of the user's
  std::string path_;
  long long checked_ = 0;  // bytes of the log that belong to frames that went well
  std::unique_ptr<LibraryLog> redirection_;
};

}  // namespace olvex_tools

#endif  // TOOLS_RUN_RUN_LOG_H
