// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cmath>

#include "geometry/vec3.hpp"

namespace qorv {

// Angular features of one oriented point pair (Rusu et al., "Fast Point Feature Histograms (FPFH)
// for 3D registration", ICRA 2009, eq. 1-3 with the Darboux frame of the pair).
struct PairFeatures {
  float phi;     // direction feature, in [-1, 1]
  float alpha;   // spread feature, in [-1, 1]
  float theta;   // angle feature, in [-pi, pi]
  float weight;  // |1 - b^2| with b = nj . u, whichever point is the source
};

// Spread and angle of the other point's normal nOther in the Darboux frame of the source (normal
// nSource, direction u from the source to the other point).
inline void SetFrameFeatures(const float* u,
                             const float* nSource,
                             const float* nOther,
                             PairFeatures& f) {
  float v[3];
  float w[3];
  Cross(u, nSource, v);
  NormalizeInPlace(v);
  Cross(nSource, v, w);
  NormalizeInPlace(w);
  f.alpha = Dot(v, nOther);
  f.theta = std::atan2(Dot(w, nOther), Dot(nSource, nOther));
}

// Features of point s (position ps, normal ns) and its neighbour j (pj, nj) at distance d, which
// the caller has computed as sqrt of the squared distance and checked to be >= float epsilon.
// The frame's source is the point whose normal makes the smaller angle with the line between
// the points (s on ties). Single precision throughout; NaN normals give NaN features.
inline PairFeatures ComputePairFeatures(
    const float* ps, const float* ns, const float* pj, const float* nj, float d) {
  const float u[3] = {(pj[0] - ps[0]) / d, (pj[1] - ps[1]) / d, (pj[2] - ps[2]) / d};
  const float a = Dot(ns, u);
  const float b = Dot(nj, u);
  PairFeatures f;
  if (std::acos(std::fabs(a)) <= std::acos(std::fabs(b))) {
    f.phi = a;
    SetFrameFeatures(u, ns, nj, f);
  } else {
    const float negU[3] = {-u[0], -u[1], -u[2]};
    f.phi = -b;
    SetFrameFeatures(negU, nj, ns, f);
  }
  f.weight = std::fabs(1.0f - b * b);
  return f;
}

}  // namespace qorv
