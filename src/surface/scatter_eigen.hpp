// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cmath>

namespace qorv {

// Sums of products of neighbour offsets from the query point, not divided by their number:
// the symmetric matrix [[a, d, f], [d, b, e], [f, e, c]].
struct Scatter {
  float a = 0.0f;
  float b = 0.0f;
  float c = 0.0f;
  float d = 0.0f;
  float e = 0.0f;
  float f = 0.0f;

  void add(float dx, float dy, float dz) {
    a += dx * dx;
    b += dy * dy;
    c += dz * dz;
    d += dx * dy;
    e += dy * dz;
    f += dx * dz;
  }
};

// Trigonometric solution of the characteristic cubic, in float throughout: the eigenvalues are
// root(0), root(kThirdTurn) and root(kTwoThirdsTurn). The acos argument is not clamped, so
// rounding can turn a repeated eigenvalue into NaN; callers treat NaN as degenerate.
struct CubicRoots {
  static constexpr float kThirdTurn = 2.0943952f;
  static constexpr float kTwoThirdsTurn = 4.1887903f;

  float s;
  float phi;
  float trThird;

  explicit CubicRoots(const Scatter& m) {
    const float tr = m.b + m.a + m.c;
    const float minors = m.c * m.a + m.b * m.a + m.c * m.b - m.f * m.f - m.d * m.d - m.e * m.e;
    const float det = m.a * m.b * m.c + 2.0f * m.d * m.e * m.f - m.a * (m.e * m.e) -
                      m.c * (m.d * m.d) - m.b * (m.f * m.f);
    const float p = (tr * tr - 3.0f * minors) / 3.0f;
    const float q = (2.0f * (tr * tr * tr) - 9.0f * tr * minors + 27.0f * det) / 27.0f;
    s = std::sqrt(p / 3.0f);
    phi = std::acos(1.5f * q / (p * s)) / 3.0f;
    trThird = tr / 3.0f;
  }

  float root(float shift) const { return 2.0f * s * std::cos(phi + shift) + trThird; }
};

// Unit eigenvector of m for eigenvalue lambda with its z component fixed before normalising: the
// least-squares x, y of x * row1 + y * row2 = -row3 of m - lambda * I. z is therefore positive
// whenever the result is finite; NaN components mark a degenerate system (not zeroed here).
inline void ZUpEigenvector(const Scatter& m, float lambda, float* out) {
  const float a = m.a - lambda;
  const float b = m.b - lambda;
  const float c = m.c - lambda;
  const float g11 = a * a + m.d * m.d + m.f * m.f;
  const float g12 = m.d * b + m.d * a + m.e * m.f;
  const float g22 = b * b + m.d * m.d + m.e * m.e;
  const float h1 = -a * m.f - m.e * m.d - m.f * c;
  const float h2 = -m.d * m.f - m.e * b - m.e * c;
  const float det = g22 * g11 - g12 * g12;
  const float x = (h1 * g22 - h2 * g12) / det;
  const float y = (h2 * g11 - h1 * g12) / det;
  const float length = std::sqrt(y * y + x * x + 1.0f);
  out[0] = x / length;
  out[1] = y / length;
  out[2] = 1.0f / length;
}

}  // namespace qorv
