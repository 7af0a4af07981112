// SPDX-License-Identifier: Apache-2.0
/* recording_file.c - records of the container, and what is left when one cannot be written. */
#include "recorder/recording_file.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include "recorder/checksums.h"
#include "recorder/packer.h"

#define MOST_PARTS (MOST_PIECES + 2u)
#define WAIT_MS 100

/* The application may have closed the descriptor, and opened something else under its number. */
static int is_still_the_file(const struct recording_file* file) {
  struct stat status;
  return fstat(file->descriptor, &status) == 0 && status.st_dev == file->device &&
         status.st_ino == file->inode;
}

static void skip(struct iovec** parts, int* count, size_t written) {
  while (*count != 0 && written >= (*parts)->iov_len) {
    written -= (*parts)->iov_len;
    ++*parts;
    --*count;
  }
  if (*count != 0) {
    (*parts)->iov_base = (char*)(*parts)->iov_base + written;
    (*parts)->iov_len -= written;
  }
}

static int write_parts(struct recording_file* file, struct iovec* parts, int count) {
  skip(&parts, &count, 0);
  while (count != 0) {
    const ssize_t written = writev(file->descriptor, parts, count);
    if (written > 0) {
      skip(&parts, &count, (size_t)written);
    } else if (written == 0) {
      return EIO;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      struct pollfd waiting = {file->descriptor, POLLOUT, 0};
      poll(&waiting, 1, WAIT_MS);
      if (!file->may_go_on()) {
        return EAGAIN;
      }
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

/* All parts or, where the file can be cut, none. */
static int write_record(struct recording_file* file, struct iovec* parts, int count) {
  uint64_t bytes = 0;
  if (!is_still_the_file(file)) {
    file->descriptor = -1;
    return EBADF;
  }
  for (int k = 0; k < count; ++k) {
    bytes += parts[k].iov_len;
  }
  const int code = write_parts(file, parts, count);
  if (code != 0 && file->can_seek && is_still_the_file(file) &&
      ftruncate(file->descriptor, (off_t)file->size) == 0) {
    lseek(file->descriptor, (off_t)file->size, SEEK_SET);
  }
  file->size += code == 0 ? bytes : 0;
  return code;
}

static int write_packed(struct recording_file* file, const struct packer* packer) {
  struct iovec part = {packer->buffer, packer->used};
  return packer->overflowed ? ENOBUFS : write_record(file, &part, 1);
}

static void pack_schemas(struct packer* packer) {
  for (uint32_t id = 1; id <= RECORDING_CHANNELS; ++id) {
    const struct recording_schema* const schema = &recording_schemas[id - 1];
    uint32_t begun = record_begin(packer, RECORDING_SCHEMA);
    pack16(packer, id);
    pack_string(packer, schema->name);
    pack_string(packer, "ros1msg");
    pack_string(packer, schema->text);
    record_end(packer, begun);
    begun = record_begin(packer, RECORDING_CHANNEL);
    pack16(packer, id);
    pack16(packer, id);
    pack_string(packer, schema->topic);
    pack_string(packer, "ros1");
    pack32(packer, 0);
    record_end(packer, begun);
  }
}

int file_begin(struct recording_file* file, int descriptor, int is_ours, unsigned char* scratch,
               uint32_t scratch_size, int (*may_go_on)(void)) {
  struct packer packer;
  struct stat status;
  memset(file, 0, sizeof *file);
  file->descriptor = descriptor;
  file->is_ours = is_ours;
  file->scratch = scratch;
  file->scratch_size = scratch_size;
  file->may_go_on = may_go_on;
  if (fstat(descriptor, &status) != 0) {
    return errno;
  }
  file->device = status.st_dev;
  file->inode = status.st_ino;
  file->can_seek = is_ours && S_ISREG(status.st_mode);
  packer_start(&packer, scratch, scratch_size, NULL);
  pack_bytes(&packer, RECORDING_MAGIC, RECORDING_MAGIC_SIZE);
  const uint32_t begun = record_begin(&packer, RECORDING_HEADER);
  pack_string(&packer, "");
  pack_string(&packer, "olvex_recorder 1");
  record_end(&packer, begun);
  pack_schemas(&packer);
  file->first_chunk = packer.used;
  return write_packed(file, &packer);
}

/* ---- Chunks ---- */

/* The records of a chunk in pieces, as if in one. */
struct contents {
  const struct iovec* pieces;
  int count;
  uint64_t size;
};

static void copy_out(const struct contents* contents, uint64_t at, void* to, size_t size) {
  unsigned char* out = (unsigned char*)to;
  for (int k = 0; k < contents->count && size != 0; ++k) {
    const size_t length = contents->pieces[k].iov_len;
    if (at < length) {
      const size_t part = length - at < size ? length - (size_t)at : size;
      memcpy(out, (const char*)contents->pieces[k].iov_base + at, part);
      out += part;
      size -= part;
      at += part;
    }
    at -= length;
  }
}

static uint64_t read_value(const unsigned char* bytes, unsigned size) {
  uint64_t value = 0;
  for (unsigned k = 0; k < size; ++k) {
    value |= (uint64_t)bytes[k] << (8 * k);
  }
  return value;
}

struct message_head {
  uint32_t channel;
  uint64_t log_time;
  uint64_t offset; /* in the chunk's records */
};

/* The message at *at, and the place after it. Returns 0 at the end. */
static int next_message(const struct contents* contents, uint64_t* at, struct message_head* head) {
  unsigned char bytes[RECORDING_RECORD_HEADER + 14];
  if (*at >= contents->size) {
    return 0;
  }
  copy_out(contents, *at, bytes, sizeof bytes);
  head->channel = (uint32_t)read_value(bytes + RECORDING_RECORD_HEADER, 2);
  head->log_time = read_value(bytes + RECORDING_RECORD_HEADER + 6, 8);
  head->offset = *at;
  *at += RECORDING_RECORD_HEADER + read_value(bytes + 1, 8);
  return 1;
}

static void pack_message_index(struct packer* packer, const struct contents* contents,
                               uint32_t channel) {
  struct message_head head;
  uint64_t at = 0;
  const uint32_t begun = record_begin(packer, RECORDING_MESSAGE_INDEX);
  pack16(packer, channel);
  const uint32_t size_at = packer_offset(packer);
  pack32(packer, 0);
  while (next_message(contents, &at, &head)) {
    if (head.channel == channel) {
      pack64(packer, head.log_time);
      pack64(packer, head.offset);
    }
  }
  packer_patch32(packer, size_at, packer_offset(packer) - size_at - 4);
  record_end(packer, begun);
}

int file_add_chunk(struct recording_file* file, const struct iovec* pieces, int count) {
  struct contents contents = {pieces, count, 0};
  struct message_head head;
  struct packer packer;
  struct iovec parts[MOST_PARTS];
  uint64_t messages[RECORDING_CHANNELS] = {0};
  uint64_t first = UINT64_MAX;
  uint64_t last = 0;
  uint64_t at = 0;
  uint32_t crc = 0;
  for (int k = 0; k < count; ++k) {
    crc = crc32_of(crc, pieces[k].iov_base, pieces[k].iov_len);
    contents.size += pieces[k].iov_len;
    parts[k + 1] = pieces[k];
  }
  while (next_message(&contents, &at, &head)) {
    first = head.log_time < first ? head.log_time : first;
    last = head.log_time > last ? head.log_time : last;
    ++messages[head.channel - 1];
  }
  packer_start(&packer, file->scratch, file->scratch_size, NULL);
  pack8(&packer, RECORDING_CHUNK);
  pack64(&packer, RECORDING_CHUNK_HEADER + contents.size);
  pack64(&packer, first);
  pack64(&packer, last);
  pack64(&packer, contents.size);
  pack32(&packer, crc);
  pack_string(&packer, "");
  pack64(&packer, contents.size);
  parts[0].iov_base = file->scratch;
  parts[0].iov_len = packer.used;
  for (uint32_t channel = 1; channel <= RECORDING_CHANNELS; ++channel) {
    if (messages[channel - 1] != 0) {
      pack_message_index(&packer, &contents, channel);
    }
  }
  if (packer.overflowed) {
    return ENOBUFS;
  }
  parts[count + 1].iov_base = file->scratch + parts[0].iov_len;
  parts[count + 1].iov_len = packer.used - parts[0].iov_len;
  const int code = write_record(file, parts, count + 2);
  if (code == 0) {
    file->first = file->chunks == 0 || first < file->first ? first : file->first;
    file->last = last > file->last ? last : file->last;
    ++file->chunks;
    for (uint32_t k = 0; k < RECORDING_CHANNELS; ++k) {
      file->messages[k] += messages[k];
    }
  }
  return code;
}

/* ---- The end ---- */

static void pack_data_end(struct packer* packer) {
  const uint32_t begun = record_begin(packer, RECORDING_DATA_END);
  pack32(packer, 0); /* no CRC of all the data: each chunk has its own */
  record_end(packer, begun);
}

static void pack_footer(struct packer* packer, uint64_t summary) {
  const uint32_t begun = record_begin(packer, RECORDING_FOOTER);
  pack64(packer, summary);
  pack64(packer, 0);
  pack32(packer, 0);
  record_end(packer, begun);
  pack_bytes(packer, RECORDING_MAGIC, RECORDING_MAGIC_SIZE);
}

static void pack_statistics(struct packer* packer, const struct recording_file* file) {
  uint64_t all = 0;
  uint32_t used = 0;
  for (uint32_t k = 0; k < RECORDING_CHANNELS; ++k) {
    all += file->messages[k];
    used += file->messages[k] != 0;
  }
  const uint32_t begun = record_begin(packer, RECORDING_STATISTICS);
  pack64(packer, all);
  pack16(packer, RECORDING_CHANNELS);
  pack32(packer, RECORDING_CHANNELS);
  pack32(packer, 0);
  pack32(packer, 0);
  pack32(packer, file->chunks);
  pack64(packer, file->first);
  pack64(packer, file->last);
  pack32(packer, used * 10);
  for (uint32_t k = 0; k < RECORDING_CHANNELS; ++k) {
    if (file->messages[k] != 0) {
      pack16(packer, k + 1);
      pack64(packer, file->messages[k]);
    }
  }
  record_end(packer, begun);
}

static int read_back(const struct recording_file* file, uint64_t at, unsigned char* to,
                     size_t size) {
  return pread(file->descriptor, to, size, (off_t)at) == (ssize_t)size ? 0 : EIO;
}

/* Packs the Chunk Index of the chunk at, and moves to what follows its message indexes. */
static int pack_chunk_index(struct packer* packer, const struct recording_file* file, uint64_t* at,
                            uint64_t end) {
  unsigned char head[RECORDING_RECORD_HEADER + RECORDING_CHUNK_HEADER];
  const uint64_t start = *at;
  int code = read_back(file, start, head, sizeof head);
  const uint64_t length = RECORDING_RECORD_HEADER + read_value(head + 1, 8);
  const unsigned char* const fields = head + RECORDING_RECORD_HEADER;
  const uint32_t begun = record_begin(packer, RECORDING_CHUNK_INDEX);
  pack_bytes(packer, fields, 16); /* both times */
  pack64(packer, start);
  pack64(packer, length);
  const uint32_t offsets_at = packer_offset(packer);
  pack32(packer, 0);
  for (*at += length; *at < end && code == 0;) {
    code = read_back(file, *at, head, RECORDING_RECORD_HEADER + 2);
    if (code != 0 || head[0] != RECORDING_MESSAGE_INDEX) {
      break;
    }
    pack_bytes(packer, head + RECORDING_RECORD_HEADER, 2);
    pack64(packer, *at);
    *at += RECORDING_RECORD_HEADER + read_value(head + 1, 8);
  }
  packer_patch32(packer, offsets_at, packer_offset(packer) - offsets_at - 4);
  pack64(packer, *at - start - length);
  pack_string(packer, "");
  pack64(packer, length - RECORDING_RECORD_HEADER - RECORDING_CHUNK_HEADER);
  pack64(packer, length - RECORDING_RECORD_HEADER - RECORDING_CHUNK_HEADER);
  record_end(packer, begun);
  return code;
}

/* The chunks follow one another from the first on. They are read back, as nothing remembers them. */
static int write_chunk_indexes(struct recording_file* file, uint64_t first_chunk, uint64_t end) {
  int code = 0;
  for (uint64_t at = first_chunk; at < end && code == 0;) {
    struct packer packer;
    packer_start(&packer, file->scratch, file->scratch_size, NULL);
    while (at < end && code == 0 && packer.used < file->scratch_size / 2) {
      code = pack_chunk_index(&packer, file, &at, end);
    }
    code = code != 0 ? code : write_packed(file, &packer);
  }
  return code;
}

static int write_summary(struct recording_file* file) {
  struct packer packer;
  const uint64_t data_end = file->size;
  packer_start(&packer, file->scratch, file->scratch_size, NULL);
  pack_data_end(&packer);
  const uint64_t summary = data_end + packer.used;
  pack_schemas(&packer);
  pack_statistics(&packer, file);
  int code = write_packed(file, &packer);
  code = code != 0 ? code : write_chunk_indexes(file, file->first_chunk, data_end);
  packer_start(&packer, file->scratch, file->scratch_size, NULL);
  pack_footer(&packer, summary);
  return code != 0 ? code : write_packed(file, &packer);
}

/* Without a summary; what a full disk still takes. */
static int write_bare_end(struct recording_file* file) {
  struct packer packer;
  packer_start(&packer, file->scratch, file->scratch_size, NULL);
  pack_data_end(&packer);
  pack_footer(&packer, 0);
  return write_packed(file, &packer);
}

int file_end(struct recording_file* file) {
  const uint64_t data_end = file->size;
  int code = file->can_seek ? write_summary(file) : write_bare_end(file);
  if (code != 0 && file->can_seek && file->descriptor >= 0 && is_still_the_file(file) &&
      ftruncate(file->descriptor, (off_t)data_end) == 0) {
    lseek(file->descriptor, (off_t)data_end, SEEK_SET);
    file->size = data_end;
    write_bare_end(file);
  }
  file_close(file);
  return code;
}

void file_close(struct recording_file* file) {
  if (file->descriptor >= 0 && file->is_ours && is_still_the_file(file)) {
    close(file->descriptor);
  }
  file->descriptor = -1;
}
