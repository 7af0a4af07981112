// SPDX-License-Identifier: Apache-2.0
// model_image.cpp - the model image: a file's mapping, the pairs in front of the start pattern, and the read
// callback. model_loading.cpp calls it.
#include "base/sdet/sdet_model.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "utils/log/olvex_log.h"
#include "utils/olvex_stl/scratch.h"
#include "utils/records/algo_types.h"
#include "base/sdet/start_pattern.h"

OLVEX_LOG_CLOCK;

namespace {

bool is_start_pattern(const char* text) {
  for (size_t k = 0; k < kStartPatternSize; ++k) {
    if (text[k] != kStartPattern[k]) {
      return false;
    }
  }
  return true;
}

// Copies at most 127 characters into a zeroed field of 128.
void copy_cut(char (&field)[128], const char* text, unsigned long long length) {
  memcpy(field, text, static_cast<size_t>(olvex::min<unsigned long long>(length, 127)));
}

}  // namespace

int get_model_kvs(char* buf, unsigned long long len, olvex::vector<ModelKeyValue_t>& kvs,
                  char*& p_model) {
  kvs.clear();
  // Not the list itself, which would be copied with each pair: in a text file taken for a model,
  // every line can be one.
  olvex::scratch<ModelKeyValue_t> pairs;
  unsigned long long entry_start = 0;
  unsigned long long colon = 0;
  unsigned long long value_start = 0;
  for (unsigned long long i = 0; i < len; ++i) {
    if (buf[i] == ':') {
      colon = i;
      value_start = i + 1;
    }
    const bool at_pattern = is_start_pattern(buf + i);
    if (at_pattern || buf[i] == '\n' || buf[i] == ';' || buf[i] == 0) {
      if (entry_start < colon && value_start < i) {
        ModelKeyValue_t pair = ModelKeyValue_t();
        copy_cut(pair.key, buf + entry_start, colon - entry_start);
        copy_cut(pair.value, buf + value_start, i - value_start);
        OLVEX_DEBUG_FORMAT("got model key: %s, value: %s\n", pair.key, pair.value);
        pairs.push_back(pair);
      }
      if (at_pattern) {
        p_model = buf + i;
        break;
      }
      if (buf[i] == 0) {
        break;
      }
      entry_start = i + 1;
    }
  }
  kvs.resize(pairs.size(), ModelKeyValue_t());
  for (size_t k = 0; k < pairs.size(); ++k) {
    kvs[k] = pairs[k];
  }
  return 0;
}

int get_model_ptr(char* model_path, char*& p_model_file, unsigned int& model_file_size,
                  olvex::vector<ModelKeyValue_t>& kvs, char*& p_model) {
  OLVEX_DEBUG("enter get_model_ptr");
  model_file_size = 0;
  const int file = open(model_path, O_RDONLY);
  if (file < 0) {
    perror("open error");
    OLVEX_ERROR_FORMAT("fail to open model %s\n", model_path);
    return E_ALGO_LOADMODEL_FAIL;
  }
  struct stat sb;
  if (fstat(file, &sb) != 0) {
    perror("fstat error");
    OLVEX_ERROR_FORMAT("fail to get stat of %s\n", model_path);
    close(file);
    return E_ALGO_LOADMODEL_FAIL;
  }
  const unsigned long long file_size = static_cast<unsigned long long>(sb.st_size);
  model_file_size = static_cast<unsigned int>(file_size);
  OLVEX_DEBUG_FORMAT("sb.st_size = %llu; model_file_size = %lu\n", file_size,
                     static_cast<unsigned long>(model_file_size));
  OLVEX_DEBUG_FORMAT("sizeof(sb.st_size) = %d ; sizeof(model_file_size) = %d\n",
                     static_cast<int>(sizeof(file_size)),
                     static_cast<int>(sizeof(model_file_size)));

  // The mapping, like its release, counts bytes in 32 bits. It outlives the descriptor.
  void* mapping = mmap(NULL, model_file_size, PROT_READ, MAP_SHARED, file, 0);
  const bool is_mapped = mapping != NULL && mapping != MAP_FAILED;
  const bool is_too_short = model_file_size < kStartPatternSize;
  if (is_too_short) {
    OLVEX_ERROR("model file size should not be smaller than start pattern!");
  } else if (!is_mapped) {
    perror("failed to do mmap");
  }
  close(file);
  if (is_too_short || !is_mapped) {
    if (is_mapped) {
      munmap(mapping, model_file_size);
    }
    p_model_file = NULL;
    model_file_size = 0;
    return E_ALGO_LOADMODEL_FAIL;
  }
  p_model_file = static_cast<char*>(mapping);
  get_model_kvs(p_model_file, model_file_size - kStartPatternSize, kvs, p_model);
  return E_ALGO_SUCCESS;
}

int H2SerializedReadFunc(void* dst, int offset, int size, char* ctx) {
  if (ctx == NULL) {
    return -1;
  }
  memcpy(dst, ctx + offset, static_cast<size_t>(size));
  return 0;
}
