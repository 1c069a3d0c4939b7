// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine_api/last_error.hpp"

namespace qorv::engine {
namespace {
thread_local std::string lastError;
thread_local std::string lastWarning;

void Set(std::string& slot, const std::string& message) {
  try {
    slot = message;
  } catch (...) {
    slot.clear();
  }
}
}  // namespace

void SetLastError(const std::string& message) { Set(lastError, message); }

const char* LastError() { return lastError.c_str(); }

void SetLastWarning(const std::string& message) { Set(lastWarning, message); }

const char* LastWarning() { return lastWarning.c_str(); }

}  // namespace qorv::engine
