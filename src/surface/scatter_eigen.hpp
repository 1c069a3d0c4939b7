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

// Two single-precision forms of the trigonometric solution of the characteristic cubic (Smith,
// "Eigenvalues of a symmetric 3x3 matrix", CACM 4(4), 1961). They are the same formula with
// different summation orders of the trace, the minors and the determinant, and a different
// grouping of the acos argument: float rounding makes them differ in the last bits, and the
// results of the surface filters and of the key-point detectors depend on the order they were
// built with, so each keeps its own. Neither clamps the acos argument nor guards p = 0: a repeated
// eigenvalue (planar, linear, isotropic scatter) may give NaN, which every caller treats as
// degenerate.

// Surface filters: root(0), root(kThirdTurn) and root(kTwoThirdsTurn) are the eigenvalues of the
// Scatter.
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

// Key-point detectors: the eigenvalues of [c00 c01 c02; c01 c11 c12; c02 c12 c22], unsorted, in
// the order the formula produces them.
struct ScatterEigenvalues {
  float e0;  // largest
  float e1;  // smallest
  float e2;  // middle
};

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
  e.e1 = 2.0f * s * std::cos(phi + CubicRoots::kThirdTurn) + third;
  e.e2 = 2.0f * s * std::cos(phi + CubicRoots::kTwoThirdsTurn) + third;
  return e;
}

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
