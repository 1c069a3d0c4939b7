// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "runtime/log.hpp"

#include <cstdarg>
#include <cstdio>

namespace qorv {

void LogInfo(const char* format, ...) {
  std::printf("[QORV INFO] ");
  va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
  std::printf("\n");
}

}  // namespace qorv
