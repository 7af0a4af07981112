// inspect_report.h - the findings of inspect, for people and as JSON.
// The JSON's manual is schema/inspect.schema.json; inspect_command.cpp gathers the findings.
#ifndef TOOLS_INSPECT_INSPECT_REPORT_H
#define TOOLS_INSPECT_INSPECT_REPORT_H

#include <cstdint>
#include <string>

#include "platform/host/host_image.h"

#include "tools/inside/model_facts.h"

namespace olvex_tools {

struct Inspection {
  std::string path;
  std::uint64_t file_size = 0;    // bytes
  std::uint64_t header_size = 0;  // bytes before the start pattern
  qv_host::ImageHeader image;
  qv_host::Description description;
  ModelFacts facts;
};

std::string inspection_text(const Inspection& inspection);
std::string inspection_json(const Inspection& inspection);

}  // namespace olvex_tools

#endif  // TOOLS_INSPECT_INSPECT_REPORT_H
