// jpeg_file.h - whether a JPEG file is whole, which its decoder does not tell: it fills what is
// missing with grey. Read file_source.cpp for its use.
#ifndef TOOLS_FRAMES_JPEG_FILE_H
#define TOOLS_FRAMES_JPEG_FILE_H

#include <vector>

namespace olvex_tools {

// True for the bytes of a JPEG file that ends before its end marker; false for any other file.
bool is_cut_jpeg(const std::vector<unsigned char>& bytes);

}  // namespace olvex_tools

#endif  // TOOLS_FRAMES_JPEG_FILE_H
