// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine_api/last_error.hpp"

namespace qorv::engine {
namespace {
thread_local std::string lastError;
}

void SetLastError(const std::string& message) {
  try {
    lastError = message;
  } catch (...) {
    lastError.clear();
  }
}

const char* LastError() { return lastError.c_str(); }

}  // namespace qorv::engine
