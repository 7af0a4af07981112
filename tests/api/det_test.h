// det_test.h - fixtures of this folder: a test with the scripted accelerator, a directory of its
// own and the library's log, and one with a handle of the public interface.
// list_network.h describes the networks, tests/support/scripted_test.h the fixture below these.
#ifndef TESTS_API_DET_TEST_H
#define TESTS_API_DET_TEST_H

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/api/list_network.h"
#include "tests/support/scripted_test.h"

class DetTest : public ScriptedTest {
 protected:
  void SetUp() override {
    ScriptedTest::SetUp();
    std::string pattern = testing::TempDir() + "olvex_api_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(&pattern[0]));
    directory_ = pattern + "/";
    testing::internal::CaptureStdout();
  }

  void TearDown() override {
    transcript_ += testing::internal::GetCapturedStdout();
    ScriptedTest::TearDown();
    if (HasFailure()) {
      std::fputs(transcript_.c_str(), stdout);
    }
    std::filesystem::remove_all(directory_);
  }

  // What was printed since the last call.
  std::string log() {
    const std::string text = testing::internal::GetCapturedStdout();
    transcript_ += text;
    testing::internal::CaptureStdout();
    return text;
  }

  std::string path(const std::string& name) const { return directory_ + name; }

  std::string write_file(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }

  // A model file with these key/value entries before the offline model.
  std::string write_model(const std::string& header = "") const {
    return write_file("model.bin", header + kOfflineModel);
  }

  // A file as a mapping of its own, which a model buffer has to be.
  static char* map_file(const std::string& file, std::size_t size) {
    const int descriptor = open(file.c_str(), O_RDONLY);
    void* const mapping = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, descriptor, 0);
    close(descriptor);
    return mapping == MAP_FAILED ? nullptr : static_cast<char*>(mapping);
  }

  static std::string read_file(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
  }

  static bool is_mapped(const std::string& file) { return count_of(read_maps(), file) > 0; }

  static int count_of(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++count;
    }
    return count;
  }

  static bool contains(const std::string& text, const std::string& part) {
    return count_of(text, part) > 0;
  }

 private:
  static std::string read_maps() { return read_file("/proc/self/maps"); }

  std::string directory_;
  std::string transcript_;
};

#endif  // TESTS_API_DET_TEST_H
