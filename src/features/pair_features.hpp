// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cmath>

namespace qorv {

// Angular features of one oriented point pair (Rusu et al., "Fast Point Feature Histograms (FPFH)
// for 3D registration", ICRA 2009, eq. 1-3 with the Darboux frame of the pair).
struct PairFeatures {
  float phi;     // direction feature, in [-1, 1]
  float alpha;   // spread feature, in [-1, 1]
  float theta;   // angle feature, in [-pi, pi]
  float weight;  // |1 - b^2| with b = nj . u, whichever point is the source
};

namespace detail {

inline void Cross(const float* a, const float* b, float* out) {
  out[0] = a[1] * b[2] - a[2] * b[1];
  out[1] = a[2] * b[0] - a[0] * b[2];
  out[2] = a[0] * b[1] - a[1] * b[0];
}

inline float Dot(const float* a, const float* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// Divides by the length only when it is not 0: a zero vector stays zero.
inline void NormalizeInPlace(float* v) {
  const float length = std::sqrt(Dot(v, v));
  if (length != 0.0f) {
    v[0] /= length;
    v[1] /= length;
    v[2] /= length;
  }
}

}  // namespace detail

// Features of point s (position ps, normal ns) and its neighbour j (pj, nj) at distance d, which
// the caller has computed as sqrt of the squared distance and checked to be >= float epsilon.
// The frame's source is the point whose normal makes the smaller angle with the line between
// the points (s on ties). Single precision throughout; NaN normals give NaN features.
inline PairFeatures ComputePairFeatures(
    const float* ps, const float* ns, const float* pj, const float* nj, float d) {
  const float u[3] = {(pj[0] - ps[0]) / d, (pj[1] - ps[1]) / d, (pj[2] - ps[2]) / d};
  const float a = detail::Dot(ns, u);
  const float b = detail::Dot(nj, u);
  PairFeatures f;
  float v[3];
  float w[3];
  if (std::acos(std::fabs(a)) <= std::acos(std::fabs(b))) {
    f.phi = a;
    detail::Cross(u, ns, v);
    detail::NormalizeInPlace(v);
    detail::Cross(ns, v, w);
    detail::NormalizeInPlace(w);
    f.alpha = detail::Dot(v, nj);
    f.theta = std::atan2(detail::Dot(w, nj), detail::Dot(ns, nj));
  } else {
    const float negU[3] = {-u[0], -u[1], -u[2]};
    f.phi = -b;
    detail::Cross(negU, nj, v);
    detail::NormalizeInPlace(v);
    detail::Cross(nj, v, w);
    detail::NormalizeInPlace(w);
    f.alpha = detail::Dot(v, ns);
    f.theta = std::atan2(detail::Dot(w, ns), detail::Dot(nj, ns));
  }
  f.weight = std::fabs(1.0f - b * b);
  return f;
}

}  // namespace qorv
