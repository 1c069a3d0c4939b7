// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>

#include "runtime/parallel_for.hpp"

// The record behind the opaque QorvInstance handle, fields in declaration order.
struct QorvInstance {
  int32_t matchNeighborNum;
  bool crossCheck;
  bool multiThread;
};

namespace qorv {

inline Execution ExecutionOf(const QorvInstance& inst) { return Execution{inst.multiThread}; }

}  // namespace qorv
