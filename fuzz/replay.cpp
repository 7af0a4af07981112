// replay.cpp - runs a fuzzer over the files that it is given, in place of libFuzzer, so that any compiler
// can check what has been found before. A file NAME.inputs holds many inputs, packed as
// scripts/fuzz/packed_inputs.py describes; every other file is one input.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// There when a fuzzer has something to prepare.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

const std::string kPackedEnding = ".inputs";
const std::string kFormat = "olvex inputs 1";

uint32_t crc32_of(const std::string& bytes, std::size_t begin) {
  uint32_t crc = 0xFFFFFFFFu;
  for (std::size_t i = begin; i < bytes.size(); ++i) {
    crc ^= static_cast<uint8_t>(bytes[i]);
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320u : 0u);
    }
  }
  return ~crc;
}

std::optional<std::string> content_of(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  std::string content;
  for (char byte = 0; stream.get(byte);) {
    content += byte;
  }
  if (!stream.eof()) {
    return std::nullopt;
  }
  return content;
}

void run_input(const std::string& name, const std::string& content) {
  // The last name on standard error is the input that a crash belongs to.
  std::fprintf(stderr, "%s\n", name.c_str());
  // A copy of the exact size, so that a sanitizer sees every byte read behind the end.
  const std::vector<uint8_t> exact(content.begin(), content.end());
  LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

// The inputs of a packed file, none if it is damaged.
std::optional<std::vector<std::string>> unpack(const std::string& packed) {
  std::istringstream stream(packed);
  std::string format;
  std::size_t count = 0;
  uint32_t crc = 0;
  if (!std::getline(stream, format) || format != kFormat ||
      !(stream >> count >> std::hex >> crc >> std::dec) || stream.get() != '\n' ||
      crc != crc32_of(packed, static_cast<std::size_t>(stream.tellg()))) {
    return std::nullopt;
  }
  std::vector<std::string> inputs;
  std::size_t size = 0;
  std::string name;
  while (inputs.size() < count && stream >> size && stream.get() == ' ' &&
         std::getline(stream, name)) {
    const std::size_t begin = static_cast<std::size_t>(stream.tellg());
    if (size > packed.size() - begin) {
      return std::nullopt;
    }
    inputs.push_back(packed.substr(begin, size));
    stream.seekg(static_cast<std::streamoff>(begin + size));
  }
  if (inputs.size() != count || static_cast<std::size_t>(stream.tellg()) != packed.size()) {
    return std::nullopt;
  }
  return inputs;
}

bool ends_with(const std::string& text, const std::string& ending) {
  return text.size() >= ending.size() &&
         text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

// The number of inputs in the file, none if it cannot be read.
std::optional<std::size_t> replay(const std::string& file) {
  const std::optional<std::string> content = content_of(file);
  if (!content) {
    std::fprintf(stderr, "cannot read %s\n", file.c_str());
    return std::nullopt;
  }
  if (!ends_with(file, kPackedEnding)) {
    run_input(file, *content);
    return 1;
  }
  const std::optional<std::vector<std::string>> inputs = unpack(*content);
  if (!inputs) {
    std::fprintf(stderr, "%s is damaged: take it from the repository again\n", file.c_str());
    return std::nullopt;
  }
  for (std::size_t i = 0; i < inputs->size(); ++i) {
    run_input(file + " input " + std::to_string(i + 1), (*inputs)[i]);
  }
  return inputs->size();
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) {
    LLVMFuzzerInitialize(&argc, &argv);
  }
  std::size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    const std::optional<std::size_t> count = replay(argv[i]);
    if (!count) {
      return 1;
    }
    replayed += *count;
  }
  if (replayed == 0) {
    std::fprintf(stderr, "usage: %s FILE...: no input given or found\n", argv[0]);
    return 2;
  }
  std::fprintf(stderr, "%zu inputs\n", replayed);
  return 0;
}
