// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

namespace qorv {

// A pose as 12 floats (rotation row after row, then translation) to and from the 12 doubles of a
// 3 x 4 matrix [R | t] row after row.

inline void PoseToMatrix(const float pose[12], double* matrix) {
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) matrix[4 * r + c] = static_cast<double>(pose[3 * r + c]);
    matrix[4 * r + 3] = static_cast<double>(pose[9 + r]);
  }
}

inline void MatrixToPose(const double* matrix, float pose[12]) {
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) pose[3 * r + c] = static_cast<float>(matrix[4 * r + c]);
    pose[9 + r] = static_cast<float>(matrix[4 * r + 3]);
  }
}

}  // namespace qorv
