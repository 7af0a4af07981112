// SPDX-License-Identifier: Apache-2.0
// inspect.h - the parts of the subcommand inspect beside model files, which inspect_command.cpp shows.
#ifndef TOOLS_INSPECT_INSPECT_H
#define TOOLS_INSPECT_INSPECT_H

#include <string>

#include "platform/host/host_image.h"

namespace olvex_tools {

// "label           text", one line of a report.
std::string report_line(const std::string& label, const std::string& text);

// The text, or what stands for none.
std::string or_none(const std::string& text);

// What a model image says of pictures, boxes and proof, in several lines of a report.
std::string description_text(const qv_host::Description& description);

// Whether the file begins as every ONNX network does. False for a file that cannot be read.
bool looks_like_network(const std::string& path);

// Reports what a network holds and what pack would make of it, as text or as the JSON of
// schema/inspect_network.schema.json. Returns the exit code. Throws ToolError.
int inspect_network(const std::string& path, bool as_json);

}  // namespace olvex_tools

#endif  // TOOLS_INSPECT_INSPECT_H
