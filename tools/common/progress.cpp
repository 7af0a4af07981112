// SPDX-License-Identifier: Apache-2.0
// progress.cpp - draws the progress line with plain terminal control.
#include "tools/common/progress.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <sys/ioctl.h>
#include <unistd.h>

#include "tools/common/text.h"

namespace olvex_tools {

namespace {

constexpr std::chrono::milliseconds kDrawInterval(100);
constexpr std::size_t kBarWidth = 24;      // characters
constexpr std::size_t kUsualColumns = 80;  // of a terminal that does not report them
const char kEraseLine[] = "\r\033[K";

std::size_t terminal_columns() {
  winsize size = {};
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : kUsualColumns;
}

std::string duration(double seconds) {
  const long whole = std::lround(std::min(seconds, 1e8));
  if (whole >= 3600) {
    return format("%ld h %02ld min", whole / 3600, whole / 60 % 60);
  }
  return whole >= 60 ? format("%ld min %02ld s", whole / 60, whole % 60) : format("%ld s", whole);
}

std::string bar(double share) {
  const auto filled = static_cast<std::size_t>(share * static_cast<double>(kBarWidth));
  return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "]";
}

}  // namespace

Progress::Progress(std::optional<long> total, bool quiet)
    : total_(total),
      quiet_(quiet),
      visible_(!quiet && isatty(STDERR_FILENO) == 1),
      start_(std::chrono::steady_clock::now()),
      next_draw_(start_) {}

Progress::~Progress() {
  clear();
}

std::string Progress::line(long done, double seconds) const {
  const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  const std::string speed = format("%.1f frames/s", rate);
  if (!total_ || *total_ <= 0) {
    return counted(done, "frame", "frames") + "  " + speed;
  }
  const long total = std::max(*total_, done);
  const double share = static_cast<double>(done) / static_cast<double>(total);
  std::string text = bar(share) + format(" %3.0f%%", share * 100) + "  " + std::to_string(done) +
                     "/" + std::to_string(total) + "  " + speed;
  if (rate > 0) {
    text += "  " + duration(static_cast<double>(total - done) / rate) + " left";
  }
  return text;
}

void Progress::update(long done) {
  const auto now = std::chrono::steady_clock::now();
  if (!visible_ || now < next_draw_) {
    return;
  }
  next_draw_ = now + kDrawInterval;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  // A line that wraps could not be erased.
  const std::string text = line(done, seconds).substr(0, terminal_columns() - 1);
  std::fprintf(stderr, "%s%s", kEraseLine, text.c_str());
  std::fflush(stderr);
  drawn_ = true;
}

void Progress::notice(const std::string& text) {
  clear();
  if (!quiet_) {
    std::fprintf(stderr, "olvex-det run: %s\n", printable(text).c_str());
  }
}

void Progress::clear() {
  if (drawn_) {
    std::fputs(kEraseLine, stderr);
    std::fflush(stderr);
    drawn_ = false;
  }
}

}  // namespace olvex_tools
