// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <new>

#include <qorv/qorv.h>

namespace qorv {

// Runs the work of an export so that nothing thrown crosses the C boundary.
template <typename Work>
QorvResult Guarded(Work&& work) noexcept {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return QORV_ERROR_ALLOCATION;
  } catch (...) {
    return QORV_ERROR_ALLOCATION;  // only allocation can fail inside the library
  }
}

}  // namespace qorv
