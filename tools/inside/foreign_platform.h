// SPDX-License-Identifier: Apache-2.0
// foreign_platform.h - a platform's library in place of the host accelerator, as --platform names it. Its images are
// opaque: what stands in an image of the host accelerator is asked of an open channel, or not known.
#ifndef TOOLS_INSIDE_FOREIGN_PLATFORM_H
#define TOOLS_INSIDE_FOREIGN_PLATFORM_H

#include <string>

#include "platform/host/host_image.h"
#include "tools/common/options.h"

namespace olvex_tools {

// Declares --platform.
Option add_platform_option(OptionTable* options, std::string* library);

// Loads a library; nothing happens where its path is empty. Before a model is opened; once. firmware: path for its
// device, may be empty. Throws ToolError (kAcceleratorError).
void use_platform(const std::string& library, const std::string& firmware);

bool platform_is_foreign();
// "the host accelerator" or "the platform LIB.so", for messages.
std::string accelerator_name();
// Path; empty where there is none.
const std::string& platform_firmware();

// Of the thread's last invocation, in milliseconds.
struct InvokeTimes {
  double conversion = 0;  // 0 on a foreign platform, whose network includes it
  double network = 0;
};
InvokeTimes last_invoke_times();

// A model of a foreign platform: the input by an open channel, and otherwise what a description holds of itself; no
// network. Throws ToolError. Requires: a LibraryLog exists.
qv_host::Image read_opaque_model(const std::string& path, std::string* text_header);

}  // namespace olvex_tools

#endif  // TOOLS_INSIDE_FOREIGN_PLATFORM_H
