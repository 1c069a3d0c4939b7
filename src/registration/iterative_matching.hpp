// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "registration/correspondences.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv {

struct IterativeParams {
  int32_t iterations = 0;    // at most this many Gauss-Newton steps
  float kernelScale = 0.0f;  // initial kernel scale mu, in squared-distance units
  float maxDistance = 0.0f;  // delta: annealing ends once delta^2 > mu; survivors lie below delta
};

// Refines pose (rotation row after row, then translation; R * p2 + t ~ p1) over the pairs by
// Gauss-Newton steps on the Geman-McClure weighted point-to-point error: weight
// (mu / (|r|^2 + mu))^2 per pair, small-angle update R <- dR * R, t <- dR * t + tau with
// dR = Rz * Ry * Rx. mu is halved after steps 8, 16, 24, ... (counting from 0), and the loop stops
// before a step once maxDistance^2 > mu. A step whose 6 x 6 system is singular or not finite
// (fewer than three non-collinear pairs, every weight zero, a NaN coordinate among the pairs)
// leaves the pose as it is; the annealing goes on. Returns the number of steps taken.
int32_t RefinePose(const Correspondences& pairs, const IterativeParams& params, float pose[12]);

// Matches the second set's key points into the first by descriptor (exhaustive, crossCheck as
// given), logs "IterativeMatch: <correspondences>", refines transform (3 x 4 [R | t], read as the
// starting pose and overwritten with the result) and keeps in matches (size second.count) the pairs
// left strictly closer than maxDistance (-1 elsewhere). Returns their number.
int32_t IterativeMatch(const KeyPointSet& first,
                       const KeyPointSet& second,
                       const IterativeParams& params,
                       bool crossCheck,
                       const Execution& exec,
                       double* transform,
                       std::vector<int32_t>& matches);

}  // namespace qorv
