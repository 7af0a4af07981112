// SPDX-License-Identifier: Apache-2.0
/* about.c - the first message of a file: which recorder and which library, on what, with which settings. */
#include <elf.h>
#include <link.h>
#include <stdio.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/utsname.h>

#include "qv_ipu.h"

#include "recorder/packer.h"
#include "recorder/recorder.h"

#ifndef OLVEX_RECORDER_BUILD
#define OLVEX_RECORDER_BUILD "olvex_recorder"
#endif

#define BUILD_STRING_START "commit_det#"
#define BUILD_STRING_SIZE 64u
#define BUILD_ID_SIZE 20u

/* The object that the library was loaded from, or the application that it is part of. */
struct library {
  uintptr_t address;
  char build_string[BUILD_STRING_SIZE];
  char build_id[2 * BUILD_ID_SIZE + 1];
};

static int holds(const struct dl_phdr_info* object, uintptr_t address) {
  for (int k = 0; k < object->dlpi_phnum; ++k) {
    const ElfW(Phdr)* const part = &object->dlpi_phdr[k];
    if (part->p_type == PT_LOAD && address - object->dlpi_addr - part->p_vaddr < part->p_memsz) {
      return 1;
    }
  }
  return 0;
}

/* Deliberate: reads all of the segment, what lies between its variables included, byte by byte and without the
 * address sanitizer's checks. */
__attribute__((no_sanitize_address)) static void find_build_string(struct library* library,
                                                                   const char* data, size_t size) {
  static const char kStart[] = BUILD_STRING_START;
  for (size_t k = 0; k < size && library->build_string[0] == 0; ++k) {
    size_t length = 0;
    while (length + 1 < BUILD_STRING_SIZE && k + length < size && data[k + length] != 0 &&
           (length >= sizeof kStart - 1 || data[k + length] == kStart[length])) {
      ++length;
    }
    for (size_t n = 0; length >= sizeof kStart - 1 && n < length; ++n) {
      library->build_string[n] = data[k + n];
    }
  }
}

static void find_build_id(struct library* library, const char* notes, size_t size) {
  ElfW(Nhdr) note;
  for (size_t at = 0; at + sizeof note <= size;) {
    memcpy(&note, notes + at, sizeof note);
    const size_t text = at + sizeof note + ((note.n_namesz + 3u) & ~3u);
    const size_t next = text + ((note.n_descsz + 3u) & ~3u);
    if (next > size || next <= at) {
      return;
    }
    if (note.n_type == NT_GNU_BUILD_ID && note.n_descsz <= BUILD_ID_SIZE) {
      for (size_t k = 0; k < note.n_descsz; ++k) {
        snprintf(library->build_id + 2 * k, 3, "%02x", (unsigned char)notes[text + k]);
      }
      return;
    }
    at = next;
  }
}

static int look_at_object(struct dl_phdr_info* object, size_t size, void* context) {
  struct library* const library = (struct library*)context;
  (void)size;
  if (!holds(object, library->address)) {
    return 0;
  }
  for (int k = 0; k < object->dlpi_phnum; ++k) {
    const ElfW(Phdr)* const part = &object->dlpi_phdr[k];
    const char* const memory = (const char*)(object->dlpi_addr + part->p_vaddr);
    if (part->p_type == PT_LOAD && (part->p_flags & PF_W) != 0) {
      find_build_string(library, memory, part->p_filesz);
    } else if (part->p_type == PT_NOTE && library->build_id[0] == 0) {
      find_build_id(library, memory, part->p_memsz);
    }
  }
  return 1;
}

struct record_size {
  const char* name;
  uint32_t bytes;
};
#define SIZE_OF(record) \
  { #record, (uint32_t)sizeof(record) }

static const struct record_size kRecords[] = {SIZE_OF(Box_t),
                                              SIZE_OF(ALGO_Input_t),
                                              SIZE_OF(DetectionInfo_t),
                                              SIZE_OF(DetectionInfo2_t),
                                              SIZE_OF(InputAttr_t),
                                              SIZE_OF(DetTrackParams_t),
                                              SIZE_OF(DetStrictModeParams_t),
                                              SIZE_OF(QV_IPU_DevAttr_s),
                                              SIZE_OF(QV_IPU_OfflineModelStaticInfo_s),
                                              SIZE_OF(QV_IPUChnAttr_s),
                                              SIZE_OF(QV_IPU_TensorDesc_t),
                                              SIZE_OF(QV_IPU_SubNet_InputOutputDesc_t),
                                              SIZE_OF(QV_IPU_TensorVector_t)};

static void pack_records(struct packer* packer) {
  const uint32_t count = (uint32_t)(sizeof kRecords / sizeof kRecords[0]);
  pack32(packer, count);
  for (uint32_t k = 0; k < count; ++k) {
    pack_string(packer, kRecords[k].name);
    pack32(packer, kRecords[k].bytes);
  }
}

static void pack_environment(struct packer* packer) {
  const uint32_t count_at = packer_offset(packer);
  uint32_t count = 0;
  pack32(packer, 0);
  for (const char* const* name = kept_variables; *name != NULL; ++name) {
    const char* const value = environment_value(*name);
    const size_t bytes = value != NULL ? strlen(*name) + 1 + strlen(value) : 0;
    if (value != NULL && bytes + 4 <= packer->capacity - packer->used) {
      const uint32_t sizes = (uint32_t)bytes;
      pack32(packer, sizes);
      pack_bytes(packer, *name, (uint32_t)strlen(*name));
      pack8(packer, '=');
      pack_bytes(packer, value, (uint32_t)strlen(value));
      ++count;
    }
  }
  packer_patch32(packer, count_at, count);
}

void keep_environment(void) {
  struct packer packer;
  packer_start(&packer, the_recorder->environment, sizeof the_recorder->environment, NULL);
  pack_environment(&packer);
  the_recorder->environment_size = packer.used;
}

void pack_about(struct packer* packer, uint32_t part, uint64_t now) {
  const struct recorder* const recorder = the_recorder;
  struct library library;
  struct utsname system;
  memset(&library, 0, sizeof library);
  library.address = (uintptr_t)library_address();
  dl_iterate_phdr(look_at_object, &library);
  const uint32_t begun = message_begin(packer, RECORDING_ABOUT, 0, now, clock_offset());
  pack32(packer, RECORDING_FORMAT);
  pack32(packer, part);
  pack_string(packer, OLVEX_RECORDER_BUILD);
  pack_string(packer, library.build_string);
  pack_string(packer, library.build_id);
  pack_string(packer, uname(&system) == 0 ? system.machine : "");
  pack32(packer, (uint32_t)sizeof(void*));
  pack64(packer, getauxval(AT_HWCAP));
  pack64(packer, getauxval(AT_HWCAP2));
  pack_records(packer);
  pack_bytes(packer, recorder->environment, recorder->environment_size);
  pack64(packer, recorder->monotonic);
  pack64(packer, recorder->realtime);
  pack32(packer, recorder->ring.size);
  pack_real(packer, recorder->options.floor);
  pack32(packer, recorder->options.whole_every);
  const uint32_t lost_calls = __atomic_load_n(&recorder->lost_calls, __ATOMIC_RELAXED);
  pack64(packer, __atomic_load_n(&recorder->lost_frames, __ATOMIC_RELAXED));
  pack64(packer, lost_calls);
  pack8(packer, recorder->carried.is_complete && lost_calls == 0);
  record_end(packer, begun);
}
