// log_test.cpp - the log lines, the INI key reader and the frame dump. The program is linked with
// its own gettimeofday and time, so that every line is known to the byte.
#include "utils/debug/debug.h"
#include "utils/log/olvex_log.h"

#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

OLVEX_LOG_CLOCK;

namespace {

std::string g_clocks_read;

}  // namespace

// The seconds differ: a line takes them from time() alone.
extern "C" int __wrap_gettimeofday(struct timeval* now, void* /*zone*/) {
  g_clocks_read += 'g';
  now->tv_sec = 1;
  now->tv_usec = 42017;
  return 0;
}

extern "C" time_t __wrap_time(time_t* /*now*/) {
  g_clocks_read += 't';
  return 1709820309;  // 2024-03-07 14:05:09 UTC
}

namespace {

const std::string kTime = "[2024-03-07 14:05:09 42.0170] ";
const char kDumpName[] = "/algo_dump_data[2024-03-07_14-05-09_042].bin";

// Standard output with an n for each line number, which is whatever the compiler makes of a
// statement.
std::string captured_lines() {
  std::string text = testing::internal::GetCapturedStdout();
  for (size_t at = 0; (at = text.find("LINE: ", at)) != std::string::npos;) {
    at += strlen("LINE: ");
    const size_t end = text.find_first_not_of("0123456789", at);
    EXPECT_TRUE(end > at && text[at] != '0');
    text.replace(at, end - at, "n");
  }
  return text;
}

class Log : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    g_clocks_read.clear();
    testing::internal::CaptureStdout();
  }
};

TEST_F(Log, HeaderIsExactToTheByte) {
  olvex_log_header(olvex_log_clock, "TAG:", 17);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), kTime + "TAG:, LINE: 17. ");
  EXPECT_EQ(g_clocks_read, "gt");
}

TEST_F(Log, EachLevelPrintsTextsAndFormats) {
  OLVEX_ERROR("50% off");
  OLVEX_INFO("b");
  OLVEX_DEBUG("");
  OLVEX_ERROR_FORMAT("%d+%s\n", 1, "x");
  OLVEX_INFO_FORMAT("%d", 2);
  OLVEX_DEBUG_FORMAT("%d\n\n", 3);
  EXPECT_EQ(captured_lines(), kTime + "DLA_ERROR:, LINE: n. 50% off\n" +  //
                                  kTime + "DLA_INFO:, LINE: n. b\n" +     //
                                  kTime + "DLA_DEBUG:, LINE: n. \n" +     //
                                  kTime + "DLA_ERROR:, LINE: n. 1+x\n" +  //
                                  kTime + "DLA_INFO:, LINE: n. 2" +       //
                                  kTime + "DLA_DEBUG:, LINE: n. 3\n\n");
}

// A fresh folder, removed with what is in it.
class Folder {
 public:
  Folder() : path_(testing::TempDir() + "olvex_log_XXXXXX") {
    EXPECT_NE(mkdtemp(&path_[0]), nullptr);
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  const std::string& path() const { return path_; }

  // A folder in this one whose path has that many characters.
  std::string of_length(size_t length) const {
    const std::string inner = path_ + "/" + std::string(length - path_.size() - 1, 'd');
    EXPECT_TRUE(std::filesystem::create_directory(inner));
    return inner;
  }

 private:
  std::string path_;
};

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

class Dump : public Log {
 protected:
  int dump(const std::string& bytes, const std::string& dir) {
    std::string copy(bytes);
    return save_buffer_to_file(&copy[0], static_cast<int>(copy.size()), dir.c_str(), "algo");
  }
  std::string error_line(const std::string& message) {
    return kTime + "DLA_ERROR:, LINE: n. " + message;
  }

  Folder folder_;
};

// Registered once more per value of ALGO_DEBUG, which is read before main().
TEST_F(Dump, LogsItsSizeAboveLevelOne) {
  const std::string bytes("a\0b", 3);
  EXPECT_EQ(dump(bytes, folder_.path()), 0);
  const std::string path = folder_.path() + kDumpName;
  EXPECT_EQ(read_file(path), bytes);
  const char* level = getenv("ALGO_DEBUG");
  const bool above_one = level != NULL && (*level == '2' || *level == '3');
  const std::string line = kTime + "DLA_INFO:, LINE: n. 3 bytes written into " + path + "\n";
  EXPECT_EQ(captured_lines(), above_one ? line : "");
}

TEST_F(Dump, ReplacesTheFileOfTheSameMillisecond) {
  EXPECT_EQ(dump("longer", folder_.path()), 0);
  EXPECT_EQ(dump("ab", folder_.path()), 0);
  EXPECT_EQ(read_file(folder_.path() + kDumpName), "ab");
  testing::internal::GetCapturedStdout();
}

TEST_F(Dump, RefusesAPathOf256Characters) {
  const size_t longest = 255 - strlen(kDumpName);
  EXPECT_EQ(dump("x", folder_.of_length(longest)), 0);
  captured_lines();
  for (const size_t length : {longest + 1, size_t{240}}) {
    const std::string dir = folder_.of_length(length);
    testing::internal::CaptureStdout();
    EXPECT_EQ(dump("x", dir), 2);
    EXPECT_EQ(captured_lines(), error_line("save dir is `" + dir + "` too long(max_len 256)\n"));
    EXPECT_TRUE(std::filesystem::is_empty(dir));
  }
}

TEST_F(Dump, ReportsAFileThatCannotBeOpened) {
  const std::string dir = folder_.path() + "/none";
  EXPECT_EQ(dump("x", dir), 11);
  EXPECT_EQ(captured_lines(),
            error_line("fail to open :" + dir + kDumpName + " No such file or directory\n"));
}

TEST_F(Dump, ReportsAFileThatCannotBeWritten) {
  const std::string path = folder_.path() + kDumpName;
  std::filesystem::create_symlink("/dev/full", path);
  EXPECT_EQ(dump("x", folder_.path()), 11);
  EXPECT_EQ(captured_lines(), error_line("failed to write data into " + path + "\n"));
}

TEST(IniReader, FindsTheFirstMatchBehindTheSection) {
  const std::string v1500(1500, 'v');
  const std::string x1023(1023, 'x');
  struct Row {
    const char* name;
    std::string text;
    const char* key;
    const char* value;  // NULL: not found
  };
  const Row rows[] = {
      {"newline is kept, blanks are not", "[S]\nk =  /tmp/dumps\n", "k", "/tmp/dumps\n"},
      {"last line without newline", "[S]\nk=v w", "k", "v w"},
      {"tab is kept", "[S]\nk= \t v\n", "k", "\t v\n"},
      {"empty value", "[S]\nk=\n", "k", "\n"},
      {"first of two", "[S]\nk=1\nk=2\n", "k", "1\n"},
      {"prefix of a key", "[S]\nthreshold=5\n", "thr", "5\n"},
      {"longer than the line's key", "[S]\nthr=5\n", "threshold", NULL},
      {"only the first = separates", "[S]\nk=a=b\n", "k", "a=b\n"},
      {"case counts", "[S]\nK=1\n", "k", NULL},
      {"no section", "k=1\n", "k", NULL},
      {"other section", "[T]\nk=1\n", "k", NULL},
      {"key before its section", "k=1\n[S]\n", "k", NULL},
      {"key of a later section", "[S]\na=1\n[T]\nk=2\n", "k", "2\n"},
      {"text behind the header", "[S] k=1\nk=2\n", "k", "2\n"},
      {"indented header", " [S]\nk=1\n", "k", NULL},
      {"comments", "[S]\n#k=1\n//k=2\nk=3\n", "k", "3\n"},
      {"comment as a key", "[S]\n#k=1\n", "#k", NULL},
      {"indented comment is none", "[S]\n #k=1\n", " #k", "1\n"},
      {"commented header", "#[S]\nk=1\n", "k", NULL},
      {"long line comes in pieces", "[S]\nk=" + v1500, "k", v1500.c_str() + 1500 - 1021},
      {"second piece counts as a line", "[S]\n" + x1023 + "k=1\n", "k", "1\n"},
      {"empty file", "", "k", NULL},
  };
  const Folder folder;
  const std::string file = folder.path() + "/file.ini";
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    char out[kIniLineSize] = "untouched";
    std::ofstream(file, std::ios::binary) << row.text;
    const int result = getIniKeyString("S", row.key, file.c_str(), out);
    EXPECT_EQ(result, row.value == NULL ? -1 : 0);
    EXPECT_STREQ(out, row.value == NULL ? "untouched" : row.value);
  }
}

TEST_F(Log, MissingIniFileIsReportedOnStandardErrorOnly) {
  char out[kIniLineSize] = "untouched";
  testing::internal::CaptureStderr();
  EXPECT_EQ(getIniKeyString("S", "k", "/nonexistent/x.ini", out), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "fopen: No such file or directory\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_STREQ(out, "untouched");
}

}  // namespace
