// SPDX-License-Identifier: Apache-2.0
// memory_map.h - what of this process's memory can be read without a fault. The library's read
// callback and the application's frames come as bare addresses, so a truncated model file or an
// unmapped frame would otherwise end the process. model_source.h, channel.h and the cache flush use it.
#ifndef PLATFORM_HOST_MEMORY_MAP_H
#define PLATFORM_HOST_MEMORY_MAP_H

#include <cstddef>
#include <string>

namespace qv_host {

struct ReadableRange {
  std::size_t size = 0;   // readable bytes from the address on; never more than asked for
  std::string file;       // file that the first byte is mapped from, empty: none
  bool has_file = false;  // whether any of the bytes is mapped from a file
};

// How many of the wanted bytes at the address can be read. Bytes of a mapping beyond the end of its
// file do not count, since whole pages of them fault; nor does the rest of the last page when the
// mapping is read-only, since it is no part of the file.
ReadableRange readable_range(const void* address, std::size_t wanted);

// Whether a byte of each page of the range can be read now, which is found without the list of mappings. For
// a range that was readable without a file, readable_range would say the same; false also when the system
// does not tell.
bool is_still_readable(const void* address, std::size_t size);

}  // namespace qv_host

#endif  // PLATFORM_HOST_MEMORY_MAP_H
