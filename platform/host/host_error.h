// SPDX-License-Identifier: Apache-2.0
// host_error.h - the exception that any part of the host accelerator throws. The contract's calls
// turn it into a code and one line on standard error (host_accelerator.cpp).
#ifndef PLATFORM_HOST_HOST_ERROR_H
#define PLATFORM_HOST_HOST_ERROR_H

#include <stdexcept>
#include <string>

#include "platform/host/qv_host.h"

namespace qv_host {

class HostError : public std::runtime_error {
 public:
  HostError(QV_S32 code, const std::string& message) : std::runtime_error(message), code_(code) {}
  QV_S32 code() const { return code_; }

 private:
  QV_S32 code_;  // one of qv_host.h
};

}  // namespace qv_host

#endif  // PLATFORM_HOST_HOST_ERROR_H
