// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cmath>

namespace qorv {

// Small operations on 3-float vectors, in float, each sum taken left to right (x, then y, then
// z): results that other code compares bit for bit depend on that order.

inline float Dot(const float* a, const float* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

inline void Cross(const float* a, const float* b, float* out) {
  out[0] = a[1] * b[2] - a[2] * b[1];
  out[1] = a[2] * b[0] - a[0] * b[2];
  out[2] = a[0] * b[1] - a[1] * b[0];
}

// Divides by the length only when it is not 0: a zero vector stays zero.
inline void NormalizeInPlace(float* v) {
  const float length = std::sqrt(Dot(v, v));
  if (length != 0.0f) {
    v[0] /= length;
    v[1] /= length;
    v[2] /= length;
  }
}

inline bool HasNaN(const float* p) { return p[0] != p[0] || p[1] != p[1] || p[2] != p[2]; }

}  // namespace qorv
