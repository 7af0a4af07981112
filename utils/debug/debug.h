// SPDX-License-Identifier: Apache-2.0
// debug.h - the reader of one INI key and the dump of a frame to a file. The detection
// handle (video/det/src/det_schedule.cpp) uses them to dump input frames on demand.
#ifndef UTILS_DEBUG_DEBUG_H
#define UTILS_DEBUG_DEBUG_H

// Longest line that getIniKeyString reads in one piece, its terminator included; a value with its
// terminator fits a buffer of this size.
enum { kIniLineSize = 1024 };

// Finds a key in an INI file.
//
//   title     section name without brackets, at most 61 characters
//   key       compared with the beginning of each line that holds a '=': a prefix matches too
//   filename  path; read again on every call
//   out       caller's buffer of at least kIniLineSize bytes; gets the text after '=' and its
//             blanks, with the line's newline when it has one. Untouched when nothing is found
//
// Returns 0 when found; -1 when the file cannot be opened (the system's message goes to standard
// error) or holds no such line after the section's header.
int getIniKeyString(const char* title, const char* key, const char* filename, char* out);

// Writes a buffer to DIR/NAME_dump_data[date and time to the millisecond].bin, replacing a file of
// that name. A short write counts as success.
//
//   buf, len  the bytes; only read
//   dir       an existing directory
//   name      first part of the file name
//
// Returns E_ALGO_SUCCESS; E_ALGO_INVALID_PARAM when the path has 256 characters or more;
// E_ALGO_FILEIO_ERROR when the file cannot be opened or written. Failures are logged.
int save_buffer_to_file(void* buf, int len, const char* dir, const char* name);

#endif  // UTILS_DEBUG_DEBUG_H
