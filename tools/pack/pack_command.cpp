// SPDX-License-Identifier: Apache-2.0
// pack_command.cpp - the work of the subcommand pack: builds a model file, tries it with the library, and
// only then puts it in place. pack.h has the parts, model_facts.h what is checked.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "platform/host/host_image.h"
#include "platform/host/qv_host.h"

#include "tools/frames/codec_modules.h"
#include "tools/pack/pack.h"
#include "tools/common/command.h"
#include "tools/frames/frame_conversion.h"
#include "tools/inside/library_model.h"
#include "tools/inside/model_facts.h"
#include "tools/inside/network_head.h"
#include "tools/inside/network_trial.h"
#include "tools/frames/own_files.h"
#include "tools/common/output_file.h"
#include "tools/network/loadable.h"
#include "tools/common/text.h"
#include "tools/common/whole_file.h"

namespace olvex_tools {

namespace {

using qv_host::Description;

constexpr float kTestThreshold = 0.5f;

// What the test of a new model file showed.
struct TestRun {
  ModelFacts facts;
  std::vector<BoxInfo> boxes;  // network pixels
  double conversion_ms = 0;
  double network_ms = 0;
};

void check_target(const PackOptions& options) {
  if (options.image_path.empty()) {
    refuse_usage("no output is named: give --output IMAGE");
  }
  if (options.image_path == kStandardOutput) {
    refuse_usage("--output -: a model file is not written to standard output. Name a file");
  }
  require_own_files(
      {{"--output", options.image_path}, {"--save-network", options.saved_network_path}},
      {options.network_path, options.description_path, options.class_names_path,
       options.picture_path, options.calibration_pictures.value_or("")});
}

void check_pair_places(const PackOptions& options, const Description& description) {
  const Pairs& pairs = options.pairs;
  if (options.pairs_in_name && pairs.empty()) {
    refuse_usage("--pairs-in-name: there are no entries. Add --model-out, --lib-out or --pair");
  }
  if (!pairs.empty() && !description.name_pairs.empty() && description.name_pairs != pairs) {
    refuse_usage(
        "the description already has name_pairs, and the library would read them "
        "instead of the header. Add --pairs-in-name to replace them");
  }
}

cv::Mat read_picture(const std::string& path) {
  const std::vector<char> bytes = read_whole_file("the test picture", path);
  const cv::Mat picture = decode_picture({bytes.begin(), bytes.end()});
  if (picture.empty()) {
    refuse_input(path, "not a picture that can be decoded. Give a JPEG or PNG file");
  }
  return picture;
}

cv::Mat test_picture(const PackOptions& options, const Description& description) {
  return options.picture_path.empty()
             ? generated_gradient(description.input.width, description.input.height)
             : read_picture(options.picture_path);
}

// What the library makes of the model, which is refused when that is not what was asked for.
ModelFacts checked_facts(LibraryModel* model, const std::string& name, const Pairs& pairs,
                         const Description& description) {
  ModelFacts facts = collect_facts(model, file_header(pairs));
  if (!facts.decoding.fault.empty()) {
    refuse_model(name, facts.decoding.fault);
  }
  const Pairs& expected = description.name_pairs.empty() ? pairs : description.name_pairs;
  if (facts.valid_pairs != expected) {
    refuse_model(name, "the library reads other header entries than were given (" +
                           std::to_string(facts.valid_pairs.size()) +
                           " of them). Choose plainer keys and values");
  }
  return facts;
}

// Requires: a LibraryLog exists.
TestRun try_model(const std::string& path, const std::string& name, const Pairs& pairs,
                  const Description& description, const cv::Mat& picture) {
  std::vector<unsigned char> frame;
  convert_to_frame(picture, frame_layout(description.input), &frame);
  LibraryModel model(path, name);
  TestRun test;
  test.facts = checked_facts(&model, name, pairs, description);
  test.boxes = model.detect(&frame, kTestThreshold);
  QV_HOST_LastInvokeTimes(&test.conversion_ms, &test.network_ms);
  return test;
}

// ---- Report -------------------------------------------------------------------------------------

std::string describe_boxes(const std::vector<BoxInfo>& boxes, const Description& description) {
  constexpr std::size_t kMostShown = 5;
  std::string text;
  for (std::size_t i = 0; i < boxes.size() && i < kMostShown; ++i) {
    const BoxInfo& box = boxes[i];
    const bool named =
        box.label >= 0 && static_cast<std::size_t>(box.label) < description.class_names.size();
    text += format(
        "             class %d%s%.60s%s, score %.3f, %.0f,%.0f to %.0f,%.0f\n", box.label,
        named ? " (" : "",
        named ? description.class_names[static_cast<std::size_t>(box.label)].c_str() : "",
        named ? ")" : "", static_cast<double>(box.score), static_cast<double>(box.x1),
        static_cast<double>(box.y1), static_cast<double>(box.x2), static_cast<double>(box.y2));
  }
  return text;
}

std::string describe_type(const DecodingFacts& decoding) {
  std::string classes = "not declared; the tensors carry them";
  if (decoding.counts.classes >= 0) {
    classes = std::to_string(decoding.counts.classes);
  }
  return "classes " + classes + ", key points " + std::to_string(decoding.counts.keypoints) +
         " (from the " + decoding.counts_source + ")";
}

std::string describe_test(const PackOptions& options, const Description& description,
                          const TestRun& test) {
  const std::string picture =
      options.picture_path.empty() ? "generated gradient" : options.picture_path;
  return "  test run   " + picture + ": " + counted(test.boxes.size(), "box", "boxes") +
         format(" at score 0.5 or more, %.1f ms conversion, %.1f ms network\n", test.conversion_ms,
                test.network_ms) +
         describe_boxes(test.boxes, description);
}

std::string describe_calibration(const std::string& pictures, const Calibration& calibration) {
  std::string text =
      "  calibrated " + pictures + ", " + counted(calibration.frames, "frame", "frames") + "\n";
  for (const CalibratedOutput& output : calibration.outputs) {
    text += "             " + output.name +
            format(": largest value %.6g, scale %.6g, which reaches %.6g\n", output.largest,
                   static_cast<double>(output.scale), output.reach);
  }
  return text;
}

// What was concluded and from what.
std::string describe_head(const PreparedNetwork& prepared) {
  std::string text = "  head       " + prepared.head->reading.head.family + "\n";
  for (const HeadFact& fact : prepared.head->reading.facts) {
    text += "             " + fact.text + "\n";
  }
  return text + "  the same   " + prepared.head->command + "\n";
}

std::string describe_proof(const ProofResult& proof) {
  std::string text;
  for (const std::string& line : proof.shown) {
    text += (text.empty() ? "  proof      " : "             ") + line + "\n";
  }
  for (const std::string& fault : proof.faults) {
    text += "  UNPROVEN   " + fault + "\n";
  }
  return text;
}

std::string describe_result(const PackOptions& options, const Description& description,
                            const std::vector<std::string>& rewrites,
                            const std::optional<Calibration>& calibration, std::size_t bytes,
                            const TestRun& test, const std::string& head_and_proof) {
  std::string text = "packed " + options.image_path + ", " + std::to_string(bytes) + " bytes\n";
  for (const std::string& rewrite : rewrites) {
    text += "  network    " + one_line(rewrite) + "\n";
  }
  text += head_and_proof;
  for (const TensorFacts& tensor : test.facts.inputs) {
    text += "  input      " + describe(tensor) + "\n";
  }
  for (const TensorFacts& tensor : test.facts.outputs) {
    text += "  output     " + describe(tensor) + "\n";
  }
  text += "  decoding   " + test.facts.decoding.reason + "\n";
  text += "             " + describe_type(test.facts.decoding) + "\n";
  for (const Pair& pair : test.facts.valid_pairs) {
    text += "  header     " + pair.first + ":" + pair.second + "\n";
  }
  if (calibration) {
    text += describe_calibration(*options.calibration_pictures, *calibration);
  }
  return printable(text + describe_test(options, description, test));
}

// Score columns that are classes; 0 when the network leaves their number open.
long class_columns(const Description& description, const NetworkGraph& network) {
  for (const NetworkTensor& tensor : network.outputs()) {
    if (tensor.name == description.decoded.scores && !tensor.shape.empty() &&
        tensor.shape.back() > 0) {
      return static_cast<long>(tensor.shape.back()) - (description.decoded.background >= 0 ? 1 : 0);
    }
  }
  return 0;
}

void print_note(const std::string& note) {
  std::fprintf(stderr, "olvex-det pack: note: %s\n", note.c_str());
}

// What works, but probably not as meant.
void print_notes(const Description& description, const NetworkGraph& network, const TestRun& test) {
  if (description.kind != qv_host::OutputKind::kDecoded) {
    return;
  }
  const long columns = description.decoded.emit_classes ? class_columns(description, network) : 0;
  if (columns == 0) {
    return;
  }
  const TypeCounts& counts = test.facts.decoding.counts;
  if (counts.known && counts.classes != columns) {
    print_note("the model_out word declares " + counted(counts.classes, "class", "classes") +
               ", the scores hold " + std::to_string(columns) +
               "; class ids beyond the declared ones are reported all the same");
  }
  const auto names = static_cast<long>(description.class_names.size());
  if (names != 0 && names != columns) {
    print_note(counted(names, "class name", "class names") + " for " +
               counted(columns, "class", "classes"));
  }
}

// ---- The work -----------------------------------------------------------------------------------

std::vector<char> build_model_file(const Pairs& pairs, const Description& description,
                                   const std::vector<char>& network) {
  const std::string header = file_header(pairs);
  std::vector<char> bytes(header.begin(), header.end());
  const std::vector<char> image = qv_host::build_image(description, network);
  bytes.insert(bytes.end(), image.begin(), image.end());
  return bytes;
}

// The file of the model that is calibrated with. It lies beside the model file to be written, so that
// missing rights or disk space show before the pictures are run.
std::string calibration_path(const PackOptions& options) {
  if (!options.print_description) {
    return options.image_path;
  }
  std::error_code ignored;  // without a folder for temporary files: the current one
  return std::filesystem::temp_directory_path(ignored) / "olvex-det-pack";
}

// Nothing without --calibrate. Requires: a LibraryLog exists.
std::optional<Calibration> choose_scales(const PackOptions& options, const Pairs& pairs,
                                         const std::vector<char>& network,
                                         Description* description) {
  if (!options.calibration_pictures) {
    return std::nullopt;
  }
  Description exact = *description;
  exact.output_format = QV_IPU_FORMAT_FP32;
  ReplacementFile file(calibration_path(options));
  file.write(build_model_file(pairs, exact, network));
  require_harmless_network(file.temporary_path(), options.network_path);
  LibraryModel model(file.temporary_path(), options.network_path);
  checked_facts(&model, options.network_path, pairs, exact);
  return calibrate(*options.calibration_pictures,
                   options.calibration_limit.value_or(kUsualCalibrationFrames), &model,
                   description);
}

std::vector<ProofPicture> proof_pictures(const PackOptions& options, const cv::Mat& given) {
  std::vector<ProofPicture> pictures = {{"street picture", street_picture()}};
  if (!options.picture_path.empty()) {
    pictures.push_back({options.picture_path, given});
  }
  return pictures;
}

// Sets what the description says about the proof. Throws ToolError (kModelError) when it fails and is not
// forced. Nothing is proven of outputs that the options describe.
ProofResult prove_and_mark(const PackOptions& options, const PreparedNetwork& prepared,
                           const cv::Mat& picture, Description* description) {
  const std::vector<ProofPicture> pictures = proof_pictures(options, picture);
  if (!prepared.head) {
    const ProofResult trial = try_described_outputs(prepared, *description, pictures);
    description->fusion = description->fusion && trial.fusion;
    return trial;
  }
  const ProofResult proof = prove(prepared, *description, pictures);
  if (!proof.faults.empty() && !options.force) {
    std::string head = describe_head(prepared);
    head.pop_back();  // the last line's end
    throw ToolError(kModelError, options.network_path + ": " + join(proof.faults, "\n  ") +
                                     "\n  Nothing is written; --force writes it all the same\n" +
                                     head);
  }
  description->fusion = proof.fusion;
  description->proof = proof.faults.empty() ? qv_host::Proof::kProven : qv_host::Proof::kUnproven;
  return proof;
}

void save_network(const PackOptions& options, const PreparedNetwork& prepared) {
  if (!options.saved_network_path.empty()) {
    ReplacementFile file(options.saved_network_path);
    file.write(prepared.portable);
    file.commit();
  }
}

// The image, tried, proven and put in place. Returns what to print.
std::string write_image(const PreparedNetwork& prepared, Description description) {
  const PackOptions& options = prepared.options;
  const Pairs& pairs = options.pairs;
  const cv::Mat picture = test_picture(options, description);
  const std::optional<Calibration> calibration =
      choose_scales(options, pairs, prepared.bytes, &description);
  {
    ReplacementFile file(options.image_path);
    file.write(build_model_file(pairs, description, prepared.bytes));
    if (!calibration) {  // which has tried the network
      require_harmless_network(file.temporary_path(), options.network_path);
    }
  }
  const ProofResult proof = prove_and_mark(options, prepared, picture, &description);
  const std::vector<char> bytes = build_model_file(pairs, description, prepared.bytes);
  ReplacementFile file(options.image_path);
  file.write(bytes);
  const TestRun test =
      try_model(file.temporary_path(), options.network_path, pairs, description, picture);
  save_network(options, prepared);
  file.commit();
  for (const std::vector<std::string>& notes : {prepared.notes, proof.notes}) {
    std::for_each(notes.begin(), notes.end(), print_note);
  }
  print_notes(description, prepared.graph, test);
  const std::string head = prepared.head ? describe_head(prepared) + describe_proof(proof) : "";
  return describe_result(options, description, prepared.rewrites, calibration, bytes.size(), test,
                         head);
}

// Returns what to print. Requires: a LibraryLog exists.
std::string pack_and_describe(const PackOptions& options) {
  if (!options.print_description) {
    check_target(options);
  }
  const Description start = start_description(options);
  PreparedNetwork prepared = prepare_network(options, start, [&options] {
    return options.picture_path.empty() ? street_picture() : read_picture(options.picture_path);
  });
  Description description = describe_model(prepared.options, start, prepared.graph);
  check_pair_places(prepared.options, description);
  if (options.print_description && !options.calibration_pictures) {
    return qv_host::description_to_json(description) + "\n";
  }
  finish_network(&prepared);
  if (options.print_description) {
    choose_scales(prepared.options, prepared.options.pairs, prepared.bytes, &description);
    return qv_host::description_to_json(description) + "\n";
  }
  return write_image(prepared, description);
}

// Returns what to print.
std::string pack_quietly(const PackOptions& options) {
  const LibraryLog log("");
  try {
    return pack_and_describe(options);
  } catch (const qv_host::ImageError& error) {
    refuse_model(options.network_path, error.what());
  }
}

}  // namespace

int pack(const PackOptions& options) {
  print_result(pack_quietly(options));
  return kDone;
}

}  // namespace olvex_tools
