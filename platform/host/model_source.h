// SPDX-License-Identifier: Apache-2.0
// model_source.h - gets an offline model from where the caller says it is: a file, memory, or
// whatever a read callback delivers. host_image.h holds the format.
#ifndef PLATFORM_HOST_MODEL_SOURCE_H
#define PLATFORM_HOST_MODEL_SOURCE_H

#include <string>

#include "platform/host/host_image.h"

namespace qv_host {

struct Model {
  Image image;
  std::string origin;  // for messages: the path, or what else is known
};

// Reads and checks a whole model. Without a callback path_or_context is a path, with one it is the
// callback's context. Throws HostError or ImageError.
Model load_model(QV_IPU_ReadFunc read, char* path_or_context);

}  // namespace qv_host

#endif  // PLATFORM_HOST_MODEL_SOURCE_H
