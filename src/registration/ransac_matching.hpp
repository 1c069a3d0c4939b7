// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "registration/correspondences.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv {

struct RansacParams {
  int32_t iterations = 0;       // samples drawn (over all workers); <= 0 draws none
  double edgeRatio = 0.0;       // sample triangles must agree: a > r^2 b and b > r^2 a per edge
  double inlierDistance = 0.0;  // inliers lie strictly closer than this after the motion
};

// Matches the second set's key points into the first by descriptor (exhaustive, crossCheck as
// given), logs "RansacMatch: <correspondences>", then samples triples of correspondences whose
// triangles have similar edges, solves each for a rigid motion and keeps the one with the most
// inliers (a correspondence is an inlier when its first-set point lies strictly within
// inlierDistance of the moved second-set point and, when both sets have normals, the moved normal
// points to the same side as its partner). Sampling stops early once more than
// max(3n/4, 6) correspondences agree.
//
// Worker w (thread index, 0 when serial) draws from its own generator seeded with
// w * 8 + timeSeed (see LibcRandom); runs with several workers are not reproducible. With fewer
// than 3 correspondences or iterations <= 0 nothing is sampled and the motion is all zeros.
//
// Writes the motion to transform (3 x 4 [R | t], R * p2 + t ~ p1), leaves in matches (size
// second.count) the first-set index of every second-set key point that is an inlier of it (-1
// elsewhere), and returns the best inlier count found while sampling. Logs
// "Match condition error." when the final classification counts a different number.
int32_t RansacMatch(const KeyPointSet& first,
                    const KeyPointSet& second,
                    const RansacParams& params,
                    bool crossCheck,
                    const Execution& exec,
                    uint32_t timeSeed,
                    double* transform,
                    std::vector<int32_t>& matches);

// Rigid motion (pose: rotation row after row, then translation) carrying the triangle
// source[0..2] onto target[0..2]: the rotation that turns the source plane's normal onto the
// target's, then the in-plane angle refined by three Gauss-Newton steps on the summed squared
// vertex distances. Collinear triangles give a meaningless, possibly non-finite pose (such a
// pose has no inliers when non-finite: every comparison with NaN fails).
void SolveThreePoints(const float* const source[3], const float* const target[3], float pose[12]);

}  // namespace qorv
