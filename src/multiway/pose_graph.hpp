// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include <Eigen/Core>

namespace qorv::multiway {

using Pose = Eigen::Matrix4d;

// A measured relative motion: `motion` carries scan `to`'s points into scan `from`'s frame, so
// that pose[from] * motion ~ pose[to]. Its residual (rotation in radians over rotationSigma, shift
// over shiftSigma) is weighed by a robust Cauchy loss, so that a wrong edge pulls little.
struct Edge {
  int32_t from = 0, to = 0;
  Pose motion = Pose::Identity();
  double rotationSigma = 0.02;
  double shiftSigma = 0.01;
  bool rejected =
      false;  // set by Optimize: the settled poses disagree with it (normalised residual > 5)
};

// Poses (scan to world) minimising the robust sum over the edges, scan `fixed` held where it is;
// `poses` holds the start and receives the result. Marks the edges the result disagrees with.
// Returns false when the solver fails (the poses are then left as they were).
bool Optimize(std::vector<Pose>& poses, std::vector<Edge>& edges, int32_t fixed = 0);

// The normalised residual of an edge under the poses (about 1 for an edge that fits its sigmas).
double EdgeResidual(const std::vector<Pose>& poses, const Edge& edge);

}  // namespace qorv::multiway
