// SPDX-License-Identifier: Apache-2.0
// text_readers_fuzz.cpp - the readers of text that others wrote: the key/value pairs before a model
// and in its first output's name, what follows from them, and the INI file of the frame dump.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "base/sdet/sdet_model.h"
#include "fuzz/fuzz_input.h"
#include "platform/scripted/qv_scripted.h"
#include "utils/debug/debug.h"
#include "utils/records/algo_types.h"

namespace {

const char kPattern[] = OLVEX_OFFLINE_MODEL_START;
const QV_U32 kModelSize = 16;
const int kUntouched = 77;
typedef olvex::vector<ModelKeyValue_t> Pairs;

MemoryFile& memory_file() {
  static MemoryFile file;
  return file;
}

bool occurs(const std::string& part, const std::string& text) {
  return text.find(part) != std::string::npos;
}

bool same(const Pairs& a, const Pairs& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof a[0]) == 0);
}

// Most bytes stand for themselves, others for words that need not be guessed and for runs that end
// about where a reader cuts: for their last characters, how long the line is by then.
std::string draw_text(FuzzInput& input, const std::vector<std::string>& words, size_t cut) {
  std::string text;
  while (!input.empty() && text.size() < 6 * cut) {
    const uint8_t choice = input.byte();
    const size_t line = text.size() - (text.rfind('\n') + 1);  // npos + 1 is 0
    if (choice < words.size()) {
      text += words[choice];
    } else if (choice < 32) {
      const size_t end = cut - 8 + choice % 16;
      text += std::string(end > line ? end - line : cut + choice % 4, 'x');
    } else {
      text += static_cast<char>(choice);
    }
  }
  return text;
}

// ---- Key/value pairs ----------------------------------------------------------------------------

std::string model_text(FuzzInput& input) {
  static const std::vector<std::string> kWords = {
      "model_out:", "lib_out:", "zrpd",  "zrphf", "zrpcnh", "zrpcnf", "zrpcnhf",
      "zrpcncdhf",  "zrpcncd",  "zrpcn", "zrpcd", "zrlpd",  "\n",     kPattern};
  return input.flag() ? draw_text(input, kWords, 128) : input.rest();
}

void check_pair(const ModelKeyValue_t& pair, const std::string& text) {
  for (const char* field : {pair.key, pair.value}) {
    FUZZ_CHECK(std::memchr(field, 0, sizeof pair.key) != nullptr);
    FUZZ_CHECK(field[0] != 0 && std::strpbrk(field, "\n;") == nullptr);
  }
  const std::string key = pair.key, value = pair.value;
  FUZZ_CHECK(!occurs(":", value));
  const bool is_cut = key.size() == sizeof pair.key - 1;
  FUZZ_CHECK(occurs(is_cut ? key : key + ":" + value, text) && occurs(value, text));
}

// Reads the text with three bytes behind it, which may complete a pattern. Returns the place of the
// pattern, npos without one.
size_t read_pairs(const std::string& text, const std::string& behind, Pairs& pairs) {
  const std::string whole = text + behind;
  std::vector<char> exact(whole.begin(), whole.end());
  char* found = nullptr;
  FUZZ_CHECK(get_model_kvs(exact.data(), text.size(), pairs, found) == 0);
  for (const ModelKeyValue_t& pair : pairs) {
    check_pair(pair, text);
  }
  const size_t place = whole.find(kPattern);
  if (place < std::min(whole.find('\0'), text.size())) {
    FUZZ_CHECK(found == exact.data() + place);
    return place;
  }
  FUZZ_CHECK(found == nullptr);
  return std::string::npos;
}

// The same bytes as a file, whose last four are looked at only as the end of a pattern.
void check_file(const std::string& bytes) {
  std::string path = memory_file().holding(bytes);
  char* file = nullptr;
  char* pattern = nullptr;
  unsigned int size = 0;
  Pairs pairs, expected;
  const int result = get_model_ptr(&path[0], file, size, pairs, pattern);
  if (bytes.size() < 4) {
    FUZZ_CHECK(result == E_ALGO_LOADMODEL_FAIL && file == nullptr && size == 0);
    return;
  }
  FUZZ_CHECK(result == E_ALGO_SUCCESS && std::string(file, size) == bytes);
  const size_t cut = bytes.size() - 4;
  const size_t place = read_pairs(bytes.substr(0, cut), bytes.substr(cut, 3), expected);
  FUZZ_CHECK(same(expected, pairs));
  FUZZ_CHECK(pattern == (place == std::string::npos ? nullptr : file + place));
  munmap(file, size);
}

// ---- What follows from the pairs ----------------------------------------------------------------

void check_output_type(const Pairs& pairs, int channels) {
  int classes = kUntouched, keypoints = kUntouched;
  const int named = set_det_class_keypoint(pairs, classes, keypoints);
  FUZZ_CHECK(named == E_ALGO_SUCCESS ? classes <= 10 && keypoints <= 21
                                     : named == E_ALGO_INVALID_PARAM && classes == kUntouched);
  classes = kUntouched;
  const int guessed = det_class_keypoint_guess(channels, classes, keypoints);
  const int base = 4 + classes;
  FUZZ_CHECK(guessed == E_ALGO_SUCCESS
                 ? channels == base + 2 * keypoints || channels == base + 3 * keypoints
                 : guessed == E_ALGO_INVALID_OUTPUT_SIZE && classes == kUntouched);
}

void check_classes(DetAfModel& model) {
  FUZZ_CHECK(model.get_class_id_map() == 0);
  const auto& map = model.class_id_map_;
  olvex::vector<int> confirming;
  int target = kUntouched;
  model.get_double_check_ids(confirming, target);
  FUZZ_CHECK(target == (map.empty() ? kUntouched : 0) && confirming.empty() == map.empty());
  olvex::vector<BoxInfo> boxes(12, BoxInfo());
  for (int label = 0; label < 12; ++label) {
    boxes[static_cast<size_t>(label)].label = label;
  }
  model.map_class_id(boxes);
  for (const auto& entry : map) {
    FUZZ_CHECK(boxes[static_cast<size_t>(entry.first)].label == entry.second);
  }
}

void fuzz_model_image(FuzzInput& input) {
  const int channels = input.flag() ? input.raw<int>() : input.byte();
  const std::string text = model_text(input);
  Pairs pairs;
  read_pairs(text, "TNX", pairs);
  check_file(text);
  check_output_type(pairs, channels);
  DetAfModel model;
  model.model_kvs_ = pairs;
  check_classes(model);
}

// ---- The name of the first output ---------------------------------------------------------------

void fuzz_output_name(FuzzInput& input) {
  std::string name = model_text(input);
  name.resize(OLVEX_TENSOR_NAME_SIZE);
  qv_scripted::Network network;
  network.outputs.assign(2, qv_scripted::fp32_tensor(name, {1, 1, 1, 1}));
  qv_scripted::add_network(network);
  QV_IPU_DevAttr_s attributes = {};
  char firmware[] = "";
  FUZZ_CHECK(QV_IPU_CreateDevice(&attributes, nullptr, firmware, 0) == 0);
  // The model releases it when its channel is open.
  void* const image =
      mmap(nullptr, kModelSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  FUZZ_CHECK(image != MAP_FAILED);
  std::memcpy(image, kPattern, std::strlen(kPattern));
  DetAfModel model;
  const Pairs old(1, ModelKeyValue_t());
  model.model_kvs_ = old;
  unsigned int variable_size = 0;
  FUZZ_CHECK(model.cal_variable_size(static_cast<char*>(image), kModelSize, &variable_size) == 0);
  FUZZ_CHECK(model.model_init(0, 1) == 0);
  Pairs pairs;
  read_pairs(name, std::string(3, 0), pairs);
  FUZZ_CHECK(same(model.model_kvs_, pairs.empty() ? old : pairs));
  check_classes(model);
  FUZZ_CHECK(model.model_deinit() == 0);
  FUZZ_CHECK(QV_IPU_DestroyDevice() == 0 && qv_scripted::violations().empty());
  qv_scripted::reset();
}

// ---- INI files ----------------------------------------------------------------------------------

void fuzz_ini(FuzzInput& input) {
  const bool is_usual = input.flag();
  const std::string title = is_usual ? "SET_ENV" : input.text(61).c_str();
  const std::string key = is_usual ? "QK_ALGO_I" : input.text(40).c_str();
  const std::string header = "[" + title + "]";
  const std::string text =
      input.flag() ? draw_text(input, {header, key, "=", "\n", " ", "#", "//"}, kIniLineSize)
                   : input.rest();
  const std::string& path = memory_file().holding(text);
  std::vector<char> out(kIniLineSize, 'u');
  if (getIniKeyString(title.c_str(), key.c_str(), path.c_str(), out.data()) != 0) {
    FUZZ_CHECK(std::count(out.begin(), out.end(), 'u') == kIniLineSize);
    return;
  }
  FUZZ_CHECK(std::find(out.begin(), out.end(), '\0') != out.end() && occurs(header, text));
  const std::string behind = text.substr(text.find(header)), value = out.data();
  FUZZ_CHECK(value[0] != ' ' && occurs(value, behind) && occurs(key, behind));
  FUZZ_CHECK(value.find('\n') >= value.size() - 1 || value.empty());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  discard_standard_output();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  void (*const kReaders[])(FuzzInput&) = {fuzz_model_image, fuzz_output_name, fuzz_ini};
  kReaders[input.below(3)](input);
  return 0;
}
