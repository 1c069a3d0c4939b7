// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cmath>

namespace qorv {

struct ScatterEigenvalues {
  float e0;  // largest
  float e1;  // smallest
  float e2;  // middle
};

// Eigenvalues of the symmetric 3x3 matrix [c00 c01 c02; c01 c11 c12; c02 c12 c22] by the
// trigonometric solution of the characteristic cubic (Smith, "Eigenvalues of a symmetric 3x3
// matrix", CACM 4(4), 1961), in single precision. The acos argument is not clamped and P = 0 is
// not guarded: a degenerate (planar, linear, isotropic) matrix may give NaN, which the key-point
// tests reject. Returned unsorted, in the order the formula produces them.
inline ScatterEigenvalues ComputeScatterEigenvalues(
    float c00, float c11, float c22, float c01, float c02, float c12) {
  const float t = c00 + c11 + c22;
  const float m = c00 * c11 + c00 * c22 + c11 * c22 - c01 * c01 - c02 * c02 - c12 * c12;
  const float det = c00 * c11 * c22 + 2.0f * c01 * c02 * c12 - c00 * c12 * c12 - c11 * c02 * c02 -
                    c22 * c01 * c01;
  const float p = (t * t - 3.0f * m) / 3.0f;
  const float s = std::sqrt(p / 3.0f);
  const float q = (2.0f * t * t * t - 9.0f * t * m + 27.0f * det) / 27.0f;
  const float phi = std::acos((q * 1.5f / p) / s) / 3.0f;
  const float third = t / 3.0f;
  ScatterEigenvalues e;
  e.e0 = 2.0f * s * std::cos(phi) + third;
  e.e1 = 2.0f * s * std::cos(phi + 2.0943952f) + third;
  e.e2 = 2.0f * s * std::cos(phi + 4.1887903f) + third;
  return e;
}

}  // namespace qorv
