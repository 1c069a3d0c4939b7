// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <array>
#include <cstdint>

namespace qorv {

// Least-squares rigid motion (no scale) carrying pointsB onto pointsA, pair i being (A_i, B_i), by
// Horn's closed-form unit-quaternion method, in single precision. Returns R row after row, then t,
// with A_i ~ R * B_i + t; R is always a proper rotation. Degenerate sets (n = 1, collinear or equal
// points) still give the rotation of whichever eigenvector the solver returns; NaN propagates.
std::array<float, 12> AbsoluteOrientation(const float* pointsA, const float* pointsB, int32_t n);

}  // namespace qorv
