// SPDX-License-Identifier: Apache-2.0
// memory_map.cpp - reads /proc/self/maps.
#include "platform/host/memory_map.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <optional>

namespace qv_host {
namespace {

struct Mapping {
  std::uintptr_t start = 0;
  std::uintptr_t end = 0;
  bool readable = false;
  bool writable = false;
  std::uint64_t file_offset = 0;
  std::uint64_t inode = 0;  // 0: not mapped from a file
  std::string path;
};

std::optional<Mapping> parse_line(const std::string& line) {
  Mapping mapping;
  char permissions[5] = {};
  int path_position = 0;
  const int fields = std::sscanf(
      line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %4s %" SCNx64 " %*s %" SCNu64 " %n", &mapping.start,
      &mapping.end, permissions, &mapping.file_offset, &mapping.inode, &path_position);
  if (fields < 5) {
    return std::nullopt;
  }
  mapping.readable = permissions[0] == 'r';
  mapping.writable = permissions[1] == 'w';
  if (mapping.inode != 0 && path_position > 0) {
    mapping.path = line.substr(static_cast<std::size_t>(path_position));
  }
  return mapping;
}

// End of the part of the mapping that its file fills. A program's variables may lie in a writable
// mapping beyond the end of its file, in the rest of the last page.
std::uintptr_t end_within_file(const Mapping& mapping) {
  struct stat status {};
  if (mapping.path.empty() || stat(mapping.path.c_str(), &status) != 0 ||
      !S_ISREG(status.st_mode) || status.st_ino != mapping.inode) {
    return mapping.end;  // no file, or one that was deleted or replaced: nothing more is known
  }
  const std::uint64_t page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  std::uint64_t file_end = static_cast<std::uint64_t>(status.st_size);
  if (mapping.writable) {
    file_end = (file_end + page - 1) / page * page;
  }
  const std::uint64_t filled = file_end > mapping.file_offset ? file_end - mapping.file_offset : 0;
  return mapping.start +
         static_cast<std::uintptr_t>(std::min<std::uint64_t>(filled, mapping.end - mapping.start));
}

}  // namespace

ReadableRange readable_range(const void* address, std::size_t wanted) {
  const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(address);
  std::uintptr_t position = start;
  ReadableRange range;
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (range.size < wanted && std::getline(maps, line)) {
    const std::optional<Mapping> mapping = parse_line(line);
    if (!mapping || mapping->end <= position) {
      continue;
    }
    if (mapping->start > position || !mapping->readable) {
      break;
    }
    if (position == start) {
      range.file = mapping->path;
    }
    range.has_file = range.has_file || mapping->inode != 0;
    const std::uintptr_t end = end_within_file(*mapping);
    position = std::max(position, end);
    range.size = std::min<std::size_t>(wanted, position - start);
    if (end != mapping->end) {
      break;
    }
  }
  return range;
}

bool is_still_readable(const void* address, std::size_t size) {
  constexpr std::size_t kPagesAtOnce = 256;
  const std::uintptr_t page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(address);
  const std::uintptr_t end = start + size;
  std::uintptr_t position = start;
  while (position < end) {
    iovec from[kPagesAtOnce];
    char bytes[kPagesAtOnce];
    std::size_t count = 0;
    for (; count < kPagesAtOnce && position < end; ++count) {
      from[count] = {reinterpret_cast<void*>(position), 1};
      position = (position / page + 1) * page;
    }
    const iovec to = {bytes, count};
    if (process_vm_readv(getpid(), &to, 1, from, count, 0) != static_cast<ssize_t>(count)) {
      return false;
    }
  }
  return true;
}

}  // namespace qv_host
