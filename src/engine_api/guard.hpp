// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <exception>
#include <new>
#include <string>

#include <qorv/engine.h>

#include "engine_api/last_error.hpp"
#include "io/cloud_data.hpp"

namespace qorv::engine {

// Sets the thread's last error and returns the code.
inline int32_t Fail(int32_t code, const std::string& message) {
  SetLastError(message);
  return code;
}

// Runs the body of a C function: nothing thrown leaves it, every failure becomes a code and a
// message.
template <typename Body>
int32_t Guarded(Body body) {
  try {
    return body();
  } catch (const io::IoError& e) {
    return Fail(e.kind() == io::IoError::kFile ? QORV_ENGINE_ERROR_FILE : QORV_ENGINE_ERROR_FORMAT,
                e.what());
  } catch (const std::bad_alloc&) {
    return Fail(QORV_ENGINE_ERROR_ALLOCATION, "out of memory");
  } catch (const std::exception& e) {
    return Fail(QORV_ENGINE_ERROR_INTERNAL, std::string("internal error: ") + e.what());
  } catch (...) {
    return Fail(QORV_ENGINE_ERROR_INTERNAL, "internal error");
  }
}

}  // namespace qorv::engine
