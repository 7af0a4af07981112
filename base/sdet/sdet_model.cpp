// sdet_model.cpp - model image, model types, invocation, choice of the decoder, rescaling. See
// sdet_model.h.
#include "base/sdet/sdet_model.h"

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "utils/log/olvex_log.h"
#include "utils/olvex_stl/scratch.h"
#include "utils/records/algo_types.h"

OLVEX_LOG_CLOCK;

// ---- Model image --------------------------------------------------------------------------------

namespace {

const char OfflineStartPattern[] = {'Q', 'T', 'N', 'X'};
const size_t kPatternSize = sizeof(OfflineStartPattern);

bool is_start_pattern(const char* text) {
  for (size_t k = 0; k < kPatternSize; ++k) {
    if (text[k] != OfflineStartPattern[k]) {
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
  const bool is_too_short = model_file_size < kPatternSize;
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
  get_model_kvs(p_model_file, model_file_size - kPatternSize, kvs, p_model);
  return E_ALGO_SUCCESS;
}

int H2SerializedReadFunc(void* dst, int offset, int size, char* ctx) {
  if (ctx == NULL) {
    return -1;
  }
  memcpy(dst, ctx + offset, static_cast<size_t>(size));
  return 0;
}

// ---- Output type --------------------------------------------------------------------------------

namespace {

struct OutputType {
  const char* name;
  int num_classes;
  int num_keypoints;
};

const OutputType kOutputTypes[] = {
    {"zrpd", 1, 0},   {"zrfd", 1, 0},   {"zrlpd", 1, 4},   {"zrhgd", 1, 21},     {"zrhpd", 1, 17},
    {"zrfl", 1, 5},   {"zrfsd", 2, 0},  {"zrpcd", 3, 0},   {"zrphf", 3, 0},      {"zrpcn", 6, 0},
    {"zrpcnh", 7, 0}, {"zrpcnf", 7, 0}, {"zrpcncd", 8, 0}, {"zrpcncdhf", 10, 0},
};

struct ChannelGuess {
  int channels;
  int num_classes;
  int num_keypoints;
};

// Deliberate: no entry for 9 channels; such a model has to name its type.
const ChannelGuess kChannelGuesses[] = {
    {5, 1, 0},  {6, 2, 0},   {7, 3, 0},  {8, 4, 0},  {10, 6, 0},  {11, 7, 0},  {12, 8, 0},
    {13, 1, 4}, {14, 10, 0}, {15, 1, 5}, {20, 1, 5}, {56, 1, 17}, {68, 1, 21},
};

const char kModelOutKey[] = "model_out";
const char kLibOutKey[] = "lib_out";

bool equal_text(const char* a, const char* b) {
  return strcmp(a, b) == 0;
}

// Value of the first or the last pair with that key; "" when there is none.
const char* first_value(const olvex::vector<ModelKeyValue_t>& kvs, const char* key) {
  for (size_t k = 0; k < kvs.size(); ++k) {
    if (equal_text(kvs[k].key, key)) {
      return kvs[k].value;
    }
  }
  return "";
}

const char* last_value(const olvex::vector<ModelKeyValue_t>& kvs, const char* key) {
  const char* value = "";
  for (size_t k = 0; k < kvs.size(); ++k) {
    if (equal_text(kvs[k].key, key)) {
      value = kvs[k].value;
    }
  }
  return value;
}

// A tensor's shape is unsigned; the decoders' records are not.
unsigned long channel_count(int channels) {
  return static_cast<unsigned int>(channels);
}

// Division first, then multiplication, then the clamp; a NaN becomes 0.
float rescale(float position, int net_extent, int img_extent) {
  const float scaled = position / static_cast<float>(net_extent) * static_cast<float>(img_extent);
  const float last = static_cast<float>(img_extent) - 1.0f;
  return olvex::min(olvex::max(0.0f, scaled), last);
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is fixed
int set_det_class_keypoint(olvex::vector<ModelKeyValue_t> kvs, int& num_classes,
                           int& num_keypoints) {
  const char* name = first_value(kvs, kModelOutKey);
  if (name[0] == 0) {
    OLVEX_DEBUG("empty model_out type");
    return E_ALGO_INVALID_PARAM;
  }
  for (const OutputType& type : kOutputTypes) {
    if (equal_text(name, type.name)) {
      num_classes = type.num_classes;
      num_keypoints = type.num_keypoints;
      return E_ALGO_SUCCESS;
    }
  }
  OLVEX_DEBUG_FORMAT("unknown model_out type %s\n", name);
  return E_ALGO_INVALID_PARAM;
}

int det_class_keypoint_guess(int channels, int& num_classes, int& num_keypoints) {
  for (const ChannelGuess& guess : kChannelGuesses) {
    if (guess.channels == channels) {
      num_classes = guess.num_classes;
      num_keypoints = guess.num_keypoints;
      return E_ALGO_SUCCESS;
    }
  }
  return E_ALGO_INVALID_OUTPUT_SIZE;
}

OutputDecoder choose_output_decoder(const DetDecodeInfo& info) {
  const int n = info.num_out_layers;
  const int* w = info.net_out_w;
  const int* h = info.net_out_h;
  const int* c = info.net_out_c;
  if ((n == 4 && w[0] == w[1] && w[0] == h[2]) ||
      (n == 5 && w[0] == w[1] && w[0] == w[2] && w[0] == h[3])) {
    OLVEX_DEBUG("decode in ipu");
    return kDecoderIpu;
  }
  if (n == 3) {
    OLVEX_DEBUG("decode in cpu");
    if (c[0] == c[1] && c[0] == c[2]) {
      return kDecoderCpu;
    }
    OLVEX_DEBUG_FORMAT(
        "channels of out layers should be the same, however %lu(layer%d), %lu(layer%d), "
        "%lu(layer%d)\n",
        channel_count(c[0]), 0, channel_count(c[1]), 1, channel_count(c[2]), 2);
  }
  return kDecoderNone;
}

int det_rescale_boxinfos(olvex::vector<BoxInfo>& boxes, int net_width, int net_height,
                         int img_width, int img_height, int /*keypointnum*/) {
  for (size_t i = 0; i < boxes.size(); ++i) {
    BoxInfo& box = boxes[i];
    box.x1 = rescale(box.x1, net_width, img_width);
    box.x2 = rescale(box.x2, net_width, img_width);
    box.y1 = rescale(box.y1, net_height, img_height);
    box.y2 = rescale(box.y2, net_height, img_height);
    for (size_t k = 0; k < box.keypts.size(); ++k) {
      box.keypts[k].x = rescale(box.keypts[k].x, net_width, img_width);
      box.keypts[k].y = rescale(box.keypts[k].y, net_height, img_height);
    }
  }
  return 0;
}

// ---- Class mapping ------------------------------------------------------------------------------

namespace {

const int kMaxMappedClasses = 9;
const int kMaxConfirmingClasses = 2;

struct ClassRule {
  const char* model_type;
  const char* library_type;
  int num_mapped;
  int mapped[kMaxMappedClasses][2];  // model class id, library class id
  int num_confirming;
  int confirming[kMaxConfirmingClasses];
};

// Deliberate: negative library ids travel on as labels. Such boxes confirm tracks in the double
// check and are dropped only where boxes are tracked or written out.
const ClassRule kClassRules[] = {
    // Its confirming ids are the ones before the mapping, which no box carries any more.
    {"zrphf", "zrpd", 2, {{1, -1}, {2, -2}}, 2, {1, 2}},
    {"zrpcnh", "zrpcn", 1, {{6, -6}}, 1, {-6}},
    {"zrpcnf", "zrpcn", 1, {{6, -6}}, 1, {-6}},
    {"zrpcnhf", "zrpcn", 2, {{6, -6}, {7, -7}}, 2, {-6, -7}},
    {"zrpcncdhf", "zrpcncd", 2, {{8, -8}, {9, -9}}, 2, {-8, -9}},
    {"zrpcncdhf", "zrpcn", 4, {{6, -6}, {7, -7}, {8, -8}, {9, -9}}, 2, {-8, -9}},
    {"zrpcncdhf",
     "zrpcd",
     9,
     {{1, -1}, {2, -2}, {3, -3}, {4, -4}, {5, -5}, {6, 1}, {7, 2}, {8, -8}, {9, -9}},
     2,
     {-8, -9}},
};

// The first rule that one of the two words satisfies, or NULL.
//
// Deliberate: either word alone is enough, so that a new model type works with a library type that
// is known. A later rule with the same first word can only be reached through its second, and the
// sixth not at all: earlier rules have both of its words.
const ClassRule* find_class_rule(const char* model_type, const char* library_type) {
  for (const ClassRule& rule : kClassRules) {
    if (equal_text(model_type, rule.model_type) || equal_text(library_type, rule.library_type)) {
      return &rule;
    }
  }
  return NULL;
}

}  // namespace

int DetAfModel::get_class_id_map() {
  const char* model_type = last_value(model_kvs_, kModelOutKey);
  const char* library_type = last_value(model_kvs_, kLibOutKey);
  if (model_type[0] == 0 || library_type[0] == 0) {
    return 0;
  }
  class_id_map_.clear();
  const ClassRule* rule = find_class_rule(model_type, library_type);
  if (rule != NULL) {
    for (int k = 0; k < rule->num_mapped; ++k) {
      class_id_map_.push_back(olvex::pair<int, int>(rule->mapped[k][0], rule->mapped[k][1]));
    }
  }
  return 0;
}

void DetAfModel::get_double_check_ids(olvex::vector<int>& check_with_classes,
                                      int& check_target_class) {
  const char* model_type = last_value(model_kvs_, kModelOutKey);
  const char* library_type = last_value(model_kvs_, kLibOutKey);
  if (model_type[0] == 0 || library_type[0] == 0) {
    return;
  }
  OLVEX_DEBUG_FORMAT("model_output = %s; lib_out = %s\n", model_type, library_type);
  const ClassRule* rule = find_class_rule(model_type, library_type);
  if (rule == NULL) {
    return;
  }
  check_with_classes.clear();
  for (int k = 0; k < rule->num_confirming; ++k) {
    check_with_classes.push_back(rule->confirming[k]);
  }
  check_target_class = 0;
}

void DetAfModel::map_class_id(olvex::vector<BoxInfo>& boxes) {
  if (class_id_map_.empty()) {
    return;
  }
  for (size_t i = 0; i < boxes.size(); ++i) {
    for (size_t k = 0; k < class_id_map_.size(); ++k) {
      if (class_id_map_[k].first == boxes[i].label) {
        OLVEX_DEBUG_FORMAT("map class id from %d to %d\n", boxes[i].label, class_id_map_[k].second);
        boxes[i].label = class_id_map_[k].second;
        break;
      }
    }
  }
}

// ---- Loading ------------------------------------------------------------------------------------

DetAfModel::DetAfModel()
    : num_key_point_(0),
      p_model_file_(NULL),
      p_model_(NULL),
      model_file_size_(0),
      mapping_(NULL),
      mapping_size_(0) {}

DetAfModel::~DetAfModel() {
  release_own_image();
}

// Deliberate: a buffer of the caller's is unmapped like our own mapping. The platform has its copy
// of the model by then, and the caller hands over a mapping, not heap memory.
void DetAfModel::release_image() {
  if (p_model_file_ != mapping_) {
    munmap(p_model_file_, model_file_size_);
  }
  release_mapping();
  forget_image();
}

void DetAfModel::forget_image() {
  p_model_file_ = NULL;
  p_model_ = NULL;
  model_file_size_ = 0;
}

void DetAfModel::release_mapping() {
  if (mapping_ != NULL) {
    munmap(mapping_, mapping_size_);
    mapping_ = NULL;
  }
}

void DetAfModel::release_own_image() {
  if (mapping_ != NULL) {
    release_mapping();
    forget_image();
  }
}

int DetAfModel::query_variable_size(unsigned int* variable_size) {
  QV_IPU_OfflineModelStaticInfo_s info = QV_IPU_OfflineModelStaticInfo_s();
  const QV_S32 result = QV_IPU_GetOfflineModeStaticInfo(H2SerializedReadFunc, p_model_, &info);
  if (result == 0) {
    *variable_size = info.u32VariableBufferSize;
  }
  return result;
}

// Takes over what get_model_ptr has mapped, also when an allocation fails while it reads the pairs.
class DetAfModel::NewMapping {
 public:
  explicit NewMapping(DetAfModel& model) : size(0), pattern(NULL), model_(model) {}
  ~NewMapping() {
    model_.model_file_size_ = size;
    if (size != 0) {
      model_.release_mapping();
      model_.mapping_ = model_.p_model_file_;
      model_.mapping_size_ = size;
      model_.p_model_ = pattern;
    }
  }
  NewMapping(const NewMapping&) = delete;
  NewMapping& operator=(const NewMapping&) = delete;

  unsigned int size;  // 0 while nothing is mapped
  char* pattern;      // NULL: a file without one must not go on with the model of an earlier call

 private:
  DetAfModel& model_;
};

// Where nothing is mapped, an earlier mapping stays with the pointers that may lead into it.
int DetAfModel::map_model_file(char* model_path) {
  NewMapping mapping(*this);
  return get_model_ptr(model_path, p_model_file_, mapping.size, model_kvs_, mapping.pattern);
}

int DetAfModel::cal_variable_size(char* model_path, unsigned int* variable_size) {
  OLVEX_DEBUG("enter model file version DetAfModel::cal_variable_size");
  OLVEX_DEBUG_FORMAT("enter %s\n", "cal_variable_size");
  if (map_model_file(model_path) != E_ALGO_SUCCESS) {
    OLVEX_ERROR_FORMAT("failed to get_model_ptr: %s\n", model_path);
    return E_ALGO_LOADMODEL_FAIL;
  }
  if (query_variable_size(variable_size) != 0) {
    OLVEX_ERROR_FORMAT("get Model variable buffer size failed! model path:%s\n", model_path);
    release_image();
    return E_ALGO_LOADMODEL_FAIL;
  }
  OLVEX_DEBUG_FORMAT("model variable buffer size = %lu\n",
                     static_cast<unsigned long>(*variable_size));
  return E_ALGO_SUCCESS;
}

int DetAfModel::cal_variable_size(char* model_buffer, unsigned int size,
                                  unsigned int* variable_size) {
  OLVEX_DEBUG("enter model pointer version DetAfModel::cal_variable_size");
  OLVEX_DEBUG_FORMAT("enter %s\n", "cal_variable_size");
  release_mapping();
  p_model_file_ = model_buffer;
  p_model_ = model_buffer;
  model_file_size_ = size;
  if (query_variable_size(variable_size) != 0) {
    OLVEX_ERROR("get Model variable buffer size failed! model buffer");
    return E_ALGO_LOADMODEL_FAIL;
  }
  return E_ALGO_SUCCESS;
}

// Takes down what model_init opened when a scope is left without keep(): by a failing call, or by an
// allocation that fails. A closed channel takes its output tensors with it.
class DetAfModel::OpenChannel {
 public:
  explicit OpenChannel(DetAfModel& model) : model_(model), is_kept_(false) {}
  ~OpenChannel() {
    if (!is_kept_) {
      QV_IPU_DestroyCHN(model_.u32channelid_);
      QV_IPU_DestroyDevice();
      model_.release_image();
    }
  }
  OpenChannel(const OpenChannel&) = delete;
  OpenChannel& operator=(const OpenChannel&) = delete;

  void keep() { is_kept_ = true; }

 private:
  DetAfModel& model_;
  bool is_kept_;
};

int DetAfModel::model_init(int input_buf_depth, int output_buf_depth) {
  QV_IPUChnAttr_s attributes = QV_IPUChnAttr_s();
  attributes.u32InputBufDepth = static_cast<QV_U32>(input_buf_depth);
  attributes.u32OutputBufDepth = static_cast<QV_U32>(output_buf_depth);
  if (p_model_file_ == NULL || p_model_ == NULL || model_file_size_ == 0) {
    if (model_path_.empty()) {
      OLVEX_ERROR("please call cal_variable_size before call model_init!");
      return E_ALGO_LOADMODEL_FAIL;
    }
    return IpuEngine::model_init(input_buf_depth, output_buf_depth);
  }

  // Deliberate: a failure below takes the device down, also one that the application made, so that
  // a model whose channel cannot be opened leaves no device behind.
  QV_S32 result = QV_IPU_CreateCHN(&u32channelid_, &attributes, H2SerializedReadFunc, p_model_);
  if (result != 0) {
    OLVEX_ERROR_FORMAT("create ipu channel failed! (error code = %x)\n",
                       static_cast<unsigned int>(result));
    QV_IPU_DestroyDevice();
    release_image();
    return E_ALGO_LOADMODEL_FAIL;
  }
  OpenChannel channel(*this);
  result = QV_IPU_GetInOutTensorDesc(u32channelid_, &desc_);
  if (result != 0) {
    OLVEX_ERROR_FORMAT("fail to get network description %d\n", result);
    return E_ALGO_LOADMODEL_FAIL;
  }
  log_tensors_and_learn_keys();
  memset(&output_tensor_vector_, 0, sizeof(output_tensor_vector_));
  QV_IPU_GetOutputTensors(u32channelid_, &output_tensor_vector_);
  release_image();
  get_class_id_map();
  channel.keep();
  return E_ALGO_SUCCESS;
}

void DetAfModel::log_tensors_and_learn_keys() {
  log_input_tensors();
  for (unsigned int i = 0; i < readable_tensors(desc_.u32OutputTensorCount); ++i) {
    const QV_IPU_TensorDesc_t& tensor = desc_.astQV_OutputTensorDescs[i];
    const TensorName name(tensor);
    OLVEX_INFO_FORMAT(
        "output tensor [%d], name: %s, shape %d %d %d %d, format: %d\n", static_cast<int>(i),
        name.text, static_cast<int>(tensor.u32TensorShape[0]),
        static_cast<int>(tensor.u32TensorShape[1]), static_cast<int>(tensor.u32TensorShape[2]),
        static_cast<int>(tensor.u32TensorShape[3]), static_cast<int>(tensor.eElmFormat));
    if (i == 0) {
      learn_keys_from_name(name);
    }
  }
}

// A model can carry its pairs in the name of its first output, the only way for a model in memory.
void DetAfModel::learn_keys_from_name(const TensorName& name) {
  // Zeros behind the name keep the scan for the start pattern inside the buffer.
  char text[QV_IPU_TENSOR_NAME_SIZE + kPatternSize] = {0};
  memcpy(text, name.text, QV_IPU_TENSOR_NAME_SIZE);
  olvex::vector<ModelKeyValue_t> kvs;
  char* pattern_in_name = NULL;
  get_model_kvs(text, QV_IPU_TENSOR_NAME_SIZE, kvs, pattern_in_name);
  if (!kvs.empty()) {
    model_kvs_ = kvs;
  }
}

// ---- One frame ----------------------------------------------------------------------------------

namespace {

const unsigned int kMaxOutputs = 6;
const float kNmsThreshold = 0.45f;

// What a DetDecodeInfo points at, for the call.
struct OutputTensors {
  void* data[kMaxOutputs];
  float scalar[kMaxOutputs];
  int grid_height[kMaxOutputs];
  int grid_width[kMaxOutputs];
  int grid_channel[kMaxOutputs];
  OutputMemory memory[kMaxOutputs];
};

double milliseconds_between(const struct timeval& start, const struct timeval& end) {
  // In double: a 32-bit clock that passes its end between the two would overflow.
  return (static_cast<double>(end.tv_sec) - static_cast<double>(start.tv_sec)) * 1000.0 +
         static_cast<double>(end.tv_usec - start.tv_usec) / 1000.0;
}

// Bytes of an element of the types that the decoders read. The first output's type holds for all.
size_t decoded_size(QV_IPU_ELEMENT_FORMAT format) {
  return format == QV_IPU_FORMAT_INT16 ? sizeof(QV_S16) : sizeof(QV_FLOAT);
}

// An extent of 0 stands for a dimension that the shape leaves out.
size_t elements_of(const QV_IPU_TensorDesc_t& tensor) {
  size_t elements = 1;
  for (size_t k = 0; k < QV_IPU_MAX_DIMENSIONS; ++k) {
    const size_t extent = olvex::max<size_t>(tensor.u32TensorShape[k], 1);
    elements = elements > SIZE_MAX / extent ? SIZE_MAX : elements * extent;
  }
  return elements;
}

OutputMemory memory_of(const QV_IPU_TensorDesc_t& tensor, const void* data, size_t element_size) {
  OutputMemory memory;
  const uint64_t rows = static_cast<uint64_t>(olvex::max<QV_U32>(tensor.u32TensorShape[1], 1)) *
                        tensor.u32TensorShape[2];
  memory.rows = static_cast<size_t>(olvex::min<uint64_t>(rows, SIZE_MAX));
  memory.elements = elements_of(tensor);
  // Only what the platform itself says of the buffer counts against a tensor: a size of 0 says nothing.
  memory.readable = data == NULL             ? 0
                    : tensor.u32BufSize != 0 ? tensor.u32BufSize / element_size
                                             : olvex::min(memory.elements, SIZE_MAX / element_size);
  return memory;
}

}  // namespace

int DetAfModel::model_invoke(QV_IPU_TensorVector_s* input, BoxInfo** boxes, int* count,
                             unsigned int disp_width, unsigned int disp_height) {
  if (input == NULL) {
    OLVEX_ERROR("det input tensor is nullptr");
    return E_ALGO_INPUT_DATA_NULL;
  }
  OLVEX_INFO_FORMAT("input tensors and output tensor count is %d %d\n",
                    static_cast<int>(desc_.u32InputTensorCount),
                    static_cast<int>(desc_.u32OutputTensorCount));
  // A clock that cannot tell the time leaves them as they are.
  struct timeval start = timeval();
  struct timeval end = timeval();
  gettimeofday(&start, NULL);
  int result = QV_IPU_Invoke(u32channelid_, input, &output_tensor_vector_);
  if (result != 0) {
    OLVEX_ERROR_FORMAT("QV_IPU_Invoke error, ret[0x%x]\n", static_cast<unsigned int>(result));
    // The channel is not opened again: only teardown makes sense from here.
    QV_IPU_DestroyCHN(u32channelid_);
    return result;
  }
  gettimeofday(&end, NULL);
  OLVEX_INFO_FORMAT("model invoke cost time: %f ms\n", milliseconds_between(start, end));
  start = end;

  const bool has_one_output = desc_.u32OutputTensorCount == 1;
  result = has_one_output ? model_one_output_postprocess() : model_postprocess();
  if (result != E_ALGO_SUCCESS) {
    OLVEX_ERROR(has_one_output ? "model one_output post process wrong"
                               : "model post process wrong");
    return result;
  }
  const QV_IPU_TensorDesc_t& input_desc = desc_.astQV_InputTensorDescs[0];
  det_rescale_boxinfos(det_bboxes_, static_cast<int>(input_desc.u32TensorShape[2]),
                       static_cast<int>(input_desc.u32TensorShape[1]), static_cast<int>(disp_width),
                       static_cast<int>(disp_height), num_key_point_);
  *boxes = det_bboxes_.empty() ? NULL : det_bboxes_.data();
  *count = static_cast<int>(det_bboxes_.size());
  gettimeofday(&end, NULL);
  OLVEX_INFO_FORMAT("postprocess cost time: %f ms\n", milliseconds_between(start, end));
  return E_ALGO_SUCCESS;
}

int DetAfModel::model_one_output_postprocess() {
  OLVEX_ERROR("not realized");
  return E_ALGO_LOADMODEL_FAIL;
}

int DetAfModel::model_postprocess() {
  const QV_U32 n = desc_.u32OutputTensorCount;
  if (n > kMaxOutputs) {
    OLVEX_ERROR_FORMAT("num output tensor channel should not be larger than %d\n",
                       static_cast<int>(kMaxOutputs));
    return E_ALGO_INVALID_OUTPUT_SIZE;
  }
  const QV_IPU_ELEMENT_FORMAT format = desc_.astQV_OutputTensorDescs[0].eElmFormat;
  const size_t element_size = decoded_size(format);
  OutputTensors outputs = OutputTensors();
  for (QV_U32 i = 0; i < n; ++i) {
    const QV_IPU_TensorDesc_t& tensor = desc_.astQV_OutputTensorDescs[i];
    outputs.scalar[i] = tensor.fScalar;
    outputs.grid_height[i] = static_cast<int>(tensor.u32TensorShape[1]);
    outputs.grid_width[i] = static_cast<int>(tensor.u32TensorShape[2]);
    outputs.grid_channel[i] = static_cast<int>(tensor.u32TensorShape[3]);
    outputs.data[i] = output_tensor_vector_.astArrayTensors[i].ptTensorData[0];
    outputs.memory[i] = memory_of(tensor, outputs.data[i], element_size);
    OLVEX_INFO_FORMAT("layer %d w h c =: [%d][%d][%d] \n", static_cast<int>(i),
                      outputs.grid_width[i], outputs.grid_height[i], outputs.grid_channel[i]);
  }

  DetDecodeInfo decode_info;
  decode_info.data = outputs.data;
  decode_info.scalar = outputs.scalar;
  decode_info.out_format = format;
  decode_info.net_in_w = static_cast<int>(desc_.astQV_InputTensorDescs[0].u32TensorShape[2]);
  decode_info.net_in_h = static_cast<int>(desc_.astQV_InputTensorDescs[0].u32TensorShape[1]);
  decode_info.net_out_w = outputs.grid_width;
  decode_info.net_out_h = outputs.grid_height;
  decode_info.net_out_c = outputs.grid_channel;
  decode_info.num_out_layers = static_cast<int>(n);
  decode_info.conf_threshold = threshold_;
  decode_info.nms_threshold = kNmsThreshold;
  decode_info.reg_max = 1;
  decode_info.memory = outputs.memory;

  const OutputDecoder decoder = choose_output_decoder(decode_info);
  if (decoder == kDecoderNone) {
    OLVEX_ERROR("shape of model output tensor might be wrong, please check!");
    return E_ALGO_INVALID_OUTPUT_SIZE;
  }
  const int result = decode_outputs(decode_info, decoder);
  if (result != E_ALGO_SUCCESS) {
    return result;
  }
  num_key_point_ = decode_info.num_keypoints;
  map_class_id(det_bboxes_);
  OLVEX_INFO_FORMAT("detect box num is %d\n", static_cast<int>(det_bboxes_.size()));
  return E_ALGO_SUCCESS;
}

int DetAfModel::decode_outputs(DetDecodeInfo& info, OutputDecoder decoder) {
  int result = set_det_class_keypoint(model_kvs_, info.num_classes, info.num_keypoints);
  OLVEX_DEBUG_FORMAT("set_det_class_keypoint return %d\n", result);
  if (decoder == kDecoderIpu) {
    result = ipu_decode(info, det_bboxes_);
    if (result != E_ALGO_SUCCESS) {
      OLVEX_ERROR_FORMAT("ipu_decode failed(error code = %d)\n", result);
    }
    return result;
  }
  if (result != E_ALGO_SUCCESS) {
    result = det_class_keypoint_guess(info.net_out_c[0], info.num_classes, info.num_keypoints);
  }
  OLVEX_INFO_FORMAT("decode_info.num_keypoints = %d\n", info.num_keypoints);
  OLVEX_INFO_FORMAT("decode_info.num_classes = %d\n", info.num_classes);
  if (result != E_ALGO_SUCCESS) {
    OLVEX_ERROR("the detect class is wrong ");
    return E_ALGO_INVALID_OUTPUT_SIZE;
  }
  if (!raw_layers_are_readable(info)) {
    OLVEX_ERROR("shape of model output tensor might be wrong, please check!");
    return E_ALGO_INVALID_OUTPUT_SIZE;
  }
  det_postprocess(info, det_bboxes_);
  return E_ALGO_SUCCESS;
}
