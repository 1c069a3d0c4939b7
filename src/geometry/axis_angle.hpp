// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <array>
#include <cmath>

namespace qorv {

// The rotation of `angle` radians about `axis` (any non-zero length), row after row, by Rodrigues'
// formula. For tools, tests and benchmarks that make known motions; RANSAC's own rotation vector
// keeps its formula in registration/ransac_matching.cpp, whose float results are fixed.
inline std::array<double, 9> AxisAngleRotation(const double axis[3], double angle) {
  const double length = std::sqrt(axis[0] * axis[0] + axis[1] * axis[1] + axis[2] * axis[2]);
  const double x = axis[0] / length, y = axis[1] / length, z = axis[2] / length;
  const double c = std::cos(angle), s = std::sin(angle), v = 1.0 - c;
  return {c + x * x * v,
          x * y * v - z * s,
          x * z * v + y * s,
          y * x * v + z * s,
          c + y * y * v,
          y * z * v - x * s,
          z * x * v - y * s,
          z * y * v + x * s,
          c + z * z * v};
}

}  // namespace qorv
