// SPDX-License-Identifier: Apache-2.0
// scripted_test.h - GoogleTest fixture over the scripted accelerator: resets it before each test
// and fails a test that left violations behind which it did not announce.
// platform/scripted/qv_scripted.h has the control functions themselves.
#ifndef TESTS_SUPPORT_SCRIPTED_TEST_H
#define TESTS_SUPPORT_SCRIPTED_TEST_H

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/scripted/qv_scripted.h"

class ScriptedTest : public testing::Test {
 protected:
  void SetUp() override { qv_scripted::reset(); }

  void TearDown() override {
    check_violations();
    qv_scripted::reset();
  }

  // A violation with this text in it must have happened when the test ends.
  void expect_violation(const std::string& part) { expected_.push_back(part); }
  // A violation with this text in it may have happened.
  void allow_violation(const std::string& part) { allowed_.push_back(part); }

  // Compares the violations so far with what was announced, and starts over with both.
  // Requires: reset() or the end of the test follows, since the accelerator keeps its own list.
  void check_violations() {
    std::vector<bool> seen(expected_.size(), false);
    for (const std::string& violation : qv_scripted::violations()) {
      bool announced = false;
      for (std::size_t i = 0; i < expected_.size(); ++i) {
        if (contains(violation, expected_[i])) {
          announced = seen[i] = true;
        }
      }
      for (const std::string& part : allowed_) {
        announced = announced || contains(violation, part);
      }
      EXPECT_TRUE(announced) << "violation of the platform's contract: " << violation;
    }
    for (std::size_t i = 0; i < expected_.size(); ++i) {
      EXPECT_TRUE(seen[i]) << "expected violation did not happen: " << expected_[i];
    }
    expected_.clear();
    allowed_.clear();
  }

 private:
  static bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }

  std::vector<std::string> expected_;
  std::vector<std::string> allowed_;
};

#endif  // TESTS_SUPPORT_SCRIPTED_TEST_H
