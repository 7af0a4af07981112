// inspect_command.cpp - the subcommand inspect: checks a model file, opens it with the library, and
// reports what the library makes of it. Read inspect_report.h for the report.
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "platform/host/host_image.h"

#include "tools/common/command.h"
#include "tools/inspect/inspect_report.h"
#include "tools/inside/library_model.h"
#include "tools/inside/model_facts.h"
#include "tools/inside/network_trial.h"
#include "tools/common/standard_output.h"

namespace olvex_tools {

namespace {

const char kExamples[] =
    "Examples:\n"
    "  olvex-det inspect people.img\n"
    "  olvex-det inspect people.img --json | jq .outputs\n"
    "The JSON is described in share/olvex-det/schema/inspect.schema.json.\n"
    "Exit code 1: the file is sound, but the library would find no boxes in its outputs.";

struct InspectOptions {
  std::string path;
  bool json = false;
};

Inspection inspect_file(const std::string& path) {
  Inspection inspection;
  inspection.path = path;
  std::string text_header;
  try {
    const qv_host::Image image = qv_host::read_image_file(path, &text_header);
    inspection.image = image.header;
    inspection.description = image.description;
  } catch (const qv_host::ImageError& error) {
    throw ToolError(kModelError, error.what());
  }
  inspection.header_size = text_header.size();
  inspection.file_size = inspection.header_size + qv_host::image_size(inspection.image);
  const LibraryLog log("");
  require_harmless_network(path, path);
  LibraryModel model(path, path);
  inspection.facts = collect_facts(&model, text_header);
  return inspection;
}

int inspect(const InspectOptions& options) {
  const Inspection inspection = inspect_file(options.path);
  print_result(options.json ? inspection_json(inspection) : inspection_text(inspection));
  return inspection.facts.decoding.fault.empty() ? kDone : kCheckFailed;
}

}  // namespace

void add_inspect_command(CLI::App& application, Command* chosen) {
  CLI::App* command = application.add_subcommand(
      "inspect", "Check a model file and tell what the library makes of it");
  const auto options = std::make_shared<InspectOptions>();
  command->add_option("image", options->path, "The model file")->type_name("IMAGE")->required();
  command->add_flag("--json", options->json, "Print JSON for programs instead of text");
  command->footer(kExamples);
  command->callback([options, chosen] { *chosen = [options] { return inspect(*options); }; });
}

}  // namespace olvex_tools
