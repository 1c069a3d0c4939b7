// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>

#include "runtime/parallel_for.hpp"

namespace qorv {

// Typical point spacing: the distance from every point to its k-th nearest point (the point itself
// being the first), sorted, with the lowest and highest count / 8 values left out and the rest
// averaged (square roots in float, summed in double). Logs "checkDistance: <lo>-<hi>", the kept
// range. A point with fewer than k points in the tree within reach, in particular a point with a
// NaN coordinate (never indexed, and nothing compares below a NaN distance) or any point when
// k exceeds the number of indexed points, counts as FLT_MAX and sorts among the largest values.
float CheckDistance(const float* points, int32_t count, int32_t k, const Execution& exec);

}  // namespace qorv
