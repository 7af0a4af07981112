// SPDX-License-Identifier: Apache-2.0
// log_test.cpp - the log lines, the INI key reader and the frame dump. The program is linked with
// its own gettimeofday and time, so that every line is known to the byte.
#include "utils/debug/debug.h"
#include "utils/log/olvex_log.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

OLVEX_LOG_CLOCK;

// The seconds differ: a line takes them from time() alone.
extern "C" int __wrap_gettimeofday(struct timeval* now, void* /*zone*/) {
  now->tv_sec = 1;
  now->tv_usec = 42017;
  return 0;
}

static time_t seconds_now = 1709820309;  // 2024-03-07 14:05:09 UTC

extern "C" time_t __wrap_time(time_t* /*now*/) {
  return seconds_now;
}

namespace {

const std::string kTime = "[2024-03-07 14:05:09 42.0170] ";
const std::string kDumpName = "/algo_dump_data[2024-03-07_14-05-09_042].bin";

// Each test has its folder.
class Log : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    folder_ = testing::TempDir() + "olvex_log_XXXXXX";
    ASSERT_NE(mkdtemp(&folder_[0]), nullptr);
    testing::internal::CaptureStdout();
  }
  void TearDown() override {
    testing::internal::GetCapturedStdout();
    std::filesystem::remove_all(folder_);
  }

  // What was logged since the last call, with an n for each line number.
  static std::string log() {
    std::string text = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    const std::string mark = "LINE: ";
    for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at)) {
      at += mark.size();
      text.replace(at, text.find_first_not_of("0123456789", at) - at, "n");
    }
    return text;
  }
  static int dump(std::string bytes, const std::string& dir) {
    return save_buffer_to_file(&bytes[0], static_cast<int>(bytes.size()), dir.c_str(), "algo");
  }
  std::string dumped() const {
    std::ifstream file(folder_ + kDumpName, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }

  std::string folder_;
};

typedef Log Dump;
typedef Log IniReader;

TEST_F(Log, each_level_prints_texts_and_formats) {
  OLVEX_ERROR("50% off");
  OLVEX_INFO("b");
  OLVEX_DEBUG("");
  OLVEX_ERROR_FORMAT("%d+%s\n", 1, "x");
  OLVEX_INFO_FORMAT("%d", 2);
  OLVEX_DEBUG_FORMAT("%d\n\n", 3);
  const std::string error = kTime + "DLA_ERROR:, LINE: n. ", info = kTime + "DLA_INFO:, LINE: n. ";
  const std::string debug = kTime + "DLA_DEBUG:, LINE: n. ";
  EXPECT_EQ(log(), error + "50% off\n" + info + "b\n" + debug + "\n" +  //
                       error + "1+x\n" + info + "2" + debug + "3\n\n");
}

// Second 0 is also what a new clock holds.
TEST_F(Log, first_line_has_its_calendar_from_the_first_second_on) {
  const time_t usual = seconds_now;
  seconds_now = 0;
  OlvexLogClock clock = OlvexLogClock();
  OLVEX_LOG_TEXT(clock, OLVEX_TAG_INFO, "a");
  seconds_now = usual;
  EXPECT_EQ(log(), "[1970-01-01 00:00:00 42.0170] DLA_INFO:, LINE: n. a\n");
}

// Registered once more per value of ALGO_DEBUG, which is read before main().
TEST_F(Dump, logs_its_size_above_level_one) {
  EXPECT_EQ(dump("longer", folder_), 0);
  log();
  const std::string bytes("a\0b", 3);
  EXPECT_EQ(dump(bytes, folder_), 0);
  EXPECT_EQ(dumped(), bytes) << "replaces the file of the same millisecond";
  const char* level = getenv("ALGO_DEBUG");
  const bool above_one = level != NULL && (*level == '2' || *level == '3');
  const std::string line = "DLA_INFO:, LINE: n. 3 bytes written into " + folder_ + kDumpName + "\n";
  EXPECT_EQ(log(), above_one ? kTime + line : "");
}

TEST_F(Dump, reports_what_it_cannot_write) {
  const std::string error = kTime + "DLA_ERROR:, LINE: n. ";
  const size_t longest = 255 - kDumpName.size();
  for (const size_t length : {longest, longest + 1, size_t{240}}) {  // the path has up to 255
    const std::string dir = folder_ + "/" + std::string(length - folder_.size() - 1, 'd');
    std::filesystem::create_directory(dir);
    log();
    EXPECT_EQ(dump("x", dir), length > longest ? 2 : 0);
    EXPECT_EQ(std::filesystem::is_empty(dir), length > longest);
    if (length > longest) {
      EXPECT_EQ(log(), error + "save dir is `" + dir + "` too long(max_len 256)\n");
    }
  }
  const std::string none = folder_ + "/none";
  EXPECT_EQ(dump("x", none), 11);
  EXPECT_EQ(log(), error + "fail to open :" + none + kDumpName + " No such file or directory\n");
  std::filesystem::create_symlink("/dev/full", folder_ + kDumpName);
  EXPECT_EQ(dump("x", folder_), 11);
  EXPECT_EQ(log(), error + "failed to write data into " + folder_ + kDumpName + "\n");
}

TEST_F(IniReader, finds_the_first_match_behind_the_section) {
  const std::string v1500(1500, 'v'), x1023(1023, 'x');
  // Value NULL: not found.
  const std::tuple<const char*, std::string, const char*, const char*> rows[] = {
      {"newline is kept, blanks are not", "[S]\nk =  /tmp/dumps\n", "k", "/tmp/dumps\n"},
      {"last line without newline", "[S]\nk=v w", "k", "v w"},
      {"tab is kept", "[S]\nk= \t v\n", "k", "\t v\n"},
      {"empty value", "[S]\nk=\n", "k", "\n"},
      {"first of two", "[S]\nk=1\nk=2\n", "k", "1\n"},
      {"prefix of a key", "[S]\nthreshold=5\n", "thr", "5\n"},
      {"longer than the line's key", "[S]\nthr=5\n", "threshold", NULL},
      {"only the first = separates", "[S]\nk=a=b\n", "k", "a=b\n"},
      {"other section", "[T]\nk=1\n", "k", NULL},
      {"key before its section", "k=1\n[S]\n", "k", NULL},
      {"key of a later section", "[S]\na=1\n[T]\nk=2\n", "k", "2\n"},
      {"text behind the header", "[S] k=1\nk=2\n", "k", "2\n"},
      {"indented header", " [S]\nk=1\n", "k", NULL},
      {"comment as a key", "[S]\n#k=1\n", "#k", NULL},
      {"the other comment as a key", "[S]\n//k=1\n", "//k", NULL},
      {"indented comment is none", "[S]\n #k=1\n", " #k", "1\n"},
      {"long line comes in pieces", "[S]\nk=" + v1500, "k", v1500.c_str() + 1500 - 1021},
      {"second piece counts as a line", "[S]\n" + x1023 + "k=1\n", "k", "1\n"},
  };
  const std::string file = folder_ + "/file.ini";
  for (const auto& [name, text, key, value] : rows) {
    SCOPED_TRACE(name);
    char out[kIniLineSize] = "untouched";
    std::ofstream(file, std::ios::binary) << text;
    EXPECT_EQ(getIniKeyString("S", key, file.c_str(), out), value == NULL ? -1 : 0);
    EXPECT_STREQ(out, value == NULL ? "untouched" : value);
  }
  char out[kIniLineSize];
  testing::internal::CaptureStderr();
  EXPECT_EQ(getIniKeyString("S", "k", "/nonexistent/x.ini", out), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "fopen: No such file or directory\n");
  EXPECT_EQ(log(), "");
}

}  // namespace
