// SPDX-License-Identifier: Apache-2.0
// allocations.cpp - olvex_allocations: what the libraries take from the heap in the steady state of
// a stream. Prints a Markdown table.
//
// The program's own operator new serves the shared libraries as well. An allocation counts when the
// call comes from the code of the library under test; the scripted accelerator and this program use
// the same heap.
#include <link.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>

#include "bench/whole_run.h"

namespace {

// What precedes each block; as long as the strictest alignment.
struct alignas(std::max_align_t) Header {
  std::size_t size;
  bool counted;
};

struct Counter {
  std::uintptr_t code_begin = 0;  // of the library under test; nothing counts while empty
  std::uintptr_t code_end = 0;
  std::size_t allocations = 0;
  std::size_t bytes = 0;
  std::size_t live = 0;
  std::size_t peak = 0;

  void take(Header* header, const void* caller) {
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(caller);
    header->counted = code_begin <= address && address < code_end;
    if (header->counted) {
      ++allocations;
      bytes += header->size;
      live += header->size;
      peak = live > peak ? live : peak;
    }
  }
  void give_back(const Header* header) { live -= header->counted ? header->size : 0; }
};
Counter counter;

void* allocate(std::size_t size, const void* caller) {
  Header* const header = size > SIZE_MAX - sizeof(Header)
                             ? nullptr
                             : static_cast<Header*>(std::malloc(size + sizeof(Header)));
  if (header == nullptr) {
    throw std::bad_alloc();
  }
  header->size = size;
  counter.take(header, caller);
  return header + 1;
}

void release(void* block) {
  if (block != nullptr) {
    Header* const header = static_cast<Header*>(block) - 1;
    counter.give_back(header);
    std::free(header);
  }
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size, __builtin_return_address(0));
}
void* operator new[](std::size_t size) {
  return allocate(size, __builtin_return_address(0));
}
void operator delete(void* block) noexcept {
  release(block);
}
void operator delete[](void* block) noexcept {
  release(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
  release(block);
}
void operator delete[](void* block, std::size_t /*size*/) noexcept {
  release(block);
}

namespace {

constexpr int kFrames = 8 * kMoments;

// Lets the counter watch the object that holds this code.
void watch(const void* code) {
  struct Search {
    std::uintptr_t address, begin, end;
  } search = {reinterpret_cast<std::uintptr_t>(code), 0, 0};
  dl_iterate_phdr(
      [](dl_phdr_info* object, std::size_t, void* data) {
        Search& sought = *static_cast<Search*>(data);
        for (int i = 0; i < object->dlpi_phnum; ++i) {
          const auto& segment = object->dlpi_phdr[i];
          const std::uintptr_t begin = object->dlpi_addr + segment.p_vaddr;
          if (segment.p_type == PT_LOAD && begin <= sought.address &&
              sought.address < begin + segment.p_memsz) {
            sought.begin = begin;
            sought.end = begin + segment.p_memsz;
          }
        }
        return 0;
      },
      &search);
  if (search.begin == search.end) {
    throw std::runtime_error("the library's code is not where the loader says");
  }
  counter = Counter();
  counter.code_begin = search.begin;
  counter.code_end = search.end;
}

// A kind of work: made with a library, which returns one frame of it.
using Frame = std::function<void()>;
using Make = std::function<Frame(const Routines&)>;

void print_row(std::FILE* table, const char* work, const Library& library, const Make& make) {
  const Routines& routines = *library.without_log;
  watch(reinterpret_cast<const void*>(routines.run));
  const Frame frame = make(routines);
  for (int i = 0; i < kFrames; ++i) {
    frame();
  }
  counter.allocations = counter.bytes = 0;
  counter.peak = counter.live;
  for (int i = 0; i < kFrames; ++i) {
    frame();
  }
  std::fprintf(table, "| %s | %s | %.1f | %.0f | %zu | %zu |\n", work, library.name,
               static_cast<double>(counter.allocations) / kFrames,
               static_cast<double>(counter.bytes) / kFrames, counter.live, counter.peak);
}

Make whole_run(int boxes) {
  return [boxes](const Routines& routines) {
    const auto run = std::make_shared<WholeRun>(routines, boxes, WholeRun::kNormal);
    return [run] { run->frame(); };
  };
}

Make decoding(int kept) {
  return [kept](const Routines& routines) {
    RawScene scene;
    scene.kept = kept;
    const auto layers = std::make_shared<RawLayers>(scene);
    const auto boxes = std::make_shared<olvex::vector<BoxInfo>>();
    return [&routines, layers, boxes] { decode(routines, layers->info(), *boxes); };
  };
}

Make tracking(int objects) {
  return [objects](const Routines& routines) {
    const auto tracker = std::make_shared<SteadyTracker>(routines, objects);
    return [tracker] { tracker->track(); };
  };
}

void print_table(std::FILE* table) {
  const struct {
    const char* work;
    Make make;
  } rows[] = {{"whole run, 20 boxes", whole_run(20)}, {"whole run, 200 boxes", whole_run(200)},
              {"decode, 20 boxes", decoding(20)},     {"decode, 200 boxes", decoding(200)},
              {"tracking, 20 objects", tracking(20)}, {"tracking, 200 objects", tracking(200)}};
  std::fprintf(table,
               "| work | library | allocations per frame | bytes per frame | "
               "bytes held between frames | most bytes held |\n"
               "|---|---|---:|---:|---:|---:|\n");
  for (const auto& row : rows) {
    for (const Library& library : libraries()) {
      print_row(table, row.work, library, row.make);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 1) {
    std::fprintf(stderr,
                 "usage: olvex_allocations\n"
                 "Counts what each library allocates per frame in the steady state.\n");
    return argc == 2 && std::strcmp(argv[1], "--help") == 0 ? 0 : 2;
  }
  // The table goes where standard output was, the libraries' log does not.
  std::FILE* const table = fdopen(dup(STDOUT_FILENO), "w");
  if (table == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) {
    std::perror("olvex_allocations");
    return 1;
  }
  try {
    print_table(table);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "olvex_allocations: %s\n", error.what());
    return 1;
  }
  const bool failed = std::ferror(table) != 0;
  if (std::fclose(table) != 0 || failed) {
    std::fprintf(stderr, "olvex_allocations: cannot write to standard output\n");
    return 1;
  }
  return 0;
}
