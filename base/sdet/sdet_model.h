// SPDX-License-Identifier: Apache-2.0
// sdet_model.h - the detection model: reads the model image and its key/value pairs, opens the
// accelerator channel, runs the network, has the outputs decoded
// (base/postprocess/det_postprocess.h), maps class ids and rescales the boxes. One handle owns one
// model (video/det/src/det_schedule.cpp).
#ifndef BASE_SDET_SDET_MODEL_H
#define BASE_SDET_SDET_MODEL_H

#include "qv_ipu.h"

#include "utils/olvex_stl/simplestl.h"
#include "utils/records/det_records.h"
#include "base/ipu_engine/ipu_engine.h"
#include "base/postprocess/det_postprocess.h"

// ---- Model image --------------------------------------------------------------------------------
//
// Text entries "key:value", each ended by a newline or ';', up to the start pattern "QTNX", with
// which the accelerator's offline model begins. The text may be empty; it holds no zero byte.

// One pair; longer texts are cut at 127 characters.
struct ModelKeyValue_t {
  char key[128];    // terminated
  char value[128];  // terminated
};

// Maps a model file read-only and splits it.
//
//   p_model_file     out: start of the mapping, released by the caller with munmap; NULL after a
//                    failure, but untouched when the file cannot be opened or measured
//   model_file_size  out: bytes, in 32 bits; 0 after a failure
//   kvs              out: the pairs, in order, duplicates kept
//   p_model          out: the start pattern; left as it was when the file has none that begins
//                    before its last four bytes
//
// Returns E_ALGO_SUCCESS, also without a start pattern; E_ALGO_LOADMODEL_FAIL when the file cannot
// be opened or measured (logged, with the system's message on standard error), cannot be mapped
// (the system's message alone), or is shorter than the pattern (logged).
int get_model_ptr(char* model_path, char*& p_model_file, unsigned int& model_file_size,
                  olvex::vector<ModelKeyValue_t>& kvs, char*& p_model);

// Scans len bytes for pairs and the start pattern. kvs is cleared first; p_model is set when the
// pattern is found. A zero byte ends the scan. Entries without ':', key or value are skipped.
// Requires: three bytes after buf[len - 1] can be read. Returns 0.
int get_model_kvs(char* buf, unsigned long long len, olvex::vector<ModelKeyValue_t>& kvs,
                  char*& p_model);

// The read callback for the platform; ctx is the start pattern in memory and offset counts from
// there. Returns 0, or -1 for a null ctx. Bounds are not checked: the platform must not ask for
// more than the model holds.
int H2SerializedReadFunc(void* dst, int offset, int size, char* ctx);

// ---- Output type --------------------------------------------------------------------------------

// Classes and key points of the model type that the first "model_out" pair names. Returns
// E_ALGO_SUCCESS, or E_ALGO_INVALID_PARAM (logged) with the outputs untouched when the pair is
// missing, empty or unknown.
int set_det_class_keypoint(olvex::vector<ModelKeyValue_t> kvs, int& num_classes,
                           int& num_keypoints);

// The same from the channels of a raw layer: 4 box values, classes and key-point values. Returns
// E_ALGO_SUCCESS, or E_ALGO_INVALID_OUTPUT_SIZE with the outputs untouched.
int det_class_keypoint_guess(int channels, int& num_classes, int& num_keypoints);

enum OutputDecoder {
  kDecoderNone,  // no decoder takes these shapes
  kDecoderCpu,   // raw layers: det_postprocess
  kDecoderIpu    // decoded by the accelerator: ipu_decode
};

// Chooses by the number and shapes of the output tensors; logs the choice.
OutputDecoder choose_output_decoder(const DetDecodeInfo& info);

// Maps boxes and key points from network-input to image pixels and clamps them into the image, in
// single precision. keypointnum is not used: each box holds its key points. Returns 0.
int det_rescale_boxinfos(olvex::vector<BoxInfo>& boxes, int net_width, int net_height,
                         int img_width, int img_height, int keypointnum);

// ---- Model --------------------------------------------------------------------------------------

class DetAfModel : public IpuEngine {
 public:
  DetAfModel();
  ~DetAfModel();
  DetAfModel(const DetAfModel&) = delete;
  DetAfModel& operator=(const DetAfModel&) = delete;

  // Maps a model file and asks the platform for the working memory that the model needs. Returns
  // E_ALGO_SUCCESS, or E_ALGO_LOADMODEL_FAIL (logged): with nothing mapped when the platform refuses
  // the model; with the pointers of an earlier call and a size of 0 when the file cannot be opened or
  // measured.
  int cal_variable_size(char* model_path, unsigned int* variable_size);

  // The same for an offline model in memory, which starts at its pattern and stays the caller's
  // until model_init. The pairs stay as they are.
  int cal_variable_size(char* model_buffer, unsigned int size, unsigned int* variable_size);

  // Opens the channel, learns the pairs of the first output's name, and releases the model image.
  // Requires: the device is up. Returns E_ALGO_SUCCESS, or E_ALGO_LOADMODEL_FAIL (logged); a
  // failing channel or description also takes the device down and releases the image, and so does
  // lack of memory.
  int model_init(int input_buf_depth, int output_buf_depth);

  // Runs one frame.
  //
  //   input                    the frame's addresses in its first tensor
  //   boxes, count             out: the model's own boxes in display pixels, valid until the
  //                            next call; NULL and 0 without any
  //   disp_width, disp_height  display size in pixels
  //
  // Returns E_ALGO_SUCCESS; E_ALGO_INPUT_DATA_NULL without input; the platform's code when the
  // network fails, after which the channel is closed; E_ALGO_LOADMODEL_FAIL for a model with one
  // output; E_ALGO_INVALID_OUTPUT_SIZE when no decoder takes the outputs' shapes, the classes are not
  // known, or a buffer is missing or, as the platform reports it, ends before what is to be read;
  // E_ALGO_INVALID_DECODE_MODE for accelerator-decoded outputs of another element type than FP32 and
  // INT16. Each failure is logged. A raw layer that cannot be decoded is logged and adds no boxes.
  int model_invoke(QV_IPU_TensorVector_s* input, BoxInfo** boxes, int* count,
                   unsigned int disp_width, unsigned int disp_height);

  // Builds class_id_map_ from the pairs "model_out" and "lib_out"; leaves it when one is missing or
  // empty. Returns 0.
  int get_class_id_map();

  // The classes of the double check that follow from the same pairs; leaves the arguments when a
  // pair is missing or empty or no rule matches.
  void get_double_check_ids(olvex::vector<int>& check_with_classes, int& check_target_class);

  // Rewrites labels through class_id_map_; a label without a pair stays.
  void map_class_id(olvex::vector<BoxInfo>& boxes);

  // Decodes the output tensors into det_bboxes_, in network-input pixels with mapped classes.
  int model_postprocess();

  // Models with a single output are not supported: logs and returns E_ALGO_LOADMODEL_FAIL.
  int model_one_output_postprocess();

  // Releases a mapping that cal_variable_size made and model_init has not released; a caller's
  // buffer stays.
  void release_own_image();

  olvex::vector<ModelKeyValue_t> model_kvs_;
  olvex::vector<BoxInfo> det_bboxes_;  // of the last invocation
  int num_key_point_;                  // key points per box
  char* p_model_file_;                 // the mapping or the caller's buffer; NULL once released
  char* p_model_;                      // its start pattern
  size_t model_file_size_;             // bytes
  olvex::vector<olvex::pair<int, int> > class_id_map_;  // model class id, library class id

 private:
  class NewMapping;
  class OpenChannel;

  int query_variable_size(unsigned int* variable_size);
  int map_model_file(char* model_path);
  void release_image();
  void release_mapping();
  void forget_image();
  void log_tensors_and_learn_keys();
  void learn_keys_from_name(const TensorName& name);
  int decode_outputs(DetDecodeInfo& info, OutputDecoder decoder);

  char* mapping_;  // of a model file, made here and released here on every path; NULL without one
  size_t mapping_size_;
};

#endif  // BASE_SDET_SDET_MODEL_H
