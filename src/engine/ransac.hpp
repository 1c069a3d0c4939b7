// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "engine/cloud.hpp"
#include "engine/compatibility.hpp"
#include "engine/matching.hpp"
#include "engine/rigid_fit.hpp"

namespace qorv::engine {

struct RansacParams {
  float inlierDistance = 0.0f;  // a match is an inlier of a motion within this distance
  int32_t maxIterations = 100000;
  int32_t minIterations = 500;
  double confidence = 0.999;
  uint64_t seed = 1;
  int32_t keep = 4;              // distinct hypotheses returned
  double distinctAngle = 0.175;  // radians: hypotheses closer than this and
  double distinctShift = 0.0;    // this shift of the source's centre are one
  Eigen::Vector3d centre = Eigen::Vector3d::Zero();
};

struct Hypothesis {
  Pose pose = Pose::Identity();
  int32_t inliers = 0;
};

// Three-match RANSAC guided by the compatibility graph: draw d picks a match among the best-linked
// fifth, then two of its compatible matches that are compatible with each other, fits the motion of
// the three and counts the matches it carries within inlierDistance. Draws are numbered and each
// one's random choices depend only on (seed, d); they run in fixed batches whose results are
// merged in draw order, so the outcome does not depend on the thread count. Stops once the draws
// made exceed what the confidence asks for at the best inlier ratio found (or no better model came
// in the last three quarters of the draws), at maxIterations at the latest. Each returned
// hypothesis is refitted to its inliers; they come best first and are pairwise distinct.
std::vector<Hypothesis> EstimateByRansac(const Cloud& source,
                                         const Cloud& target,
                                         const std::vector<Match>& matches,
                                         const CompatibilityGraph& graph,
                                         const RansacParams& params,
                                         int32_t& iterations);

// The matches a pose carries within distance (indices into matches).
std::vector<int32_t> InlierMatches(const Cloud& source,
                                   const Cloud& target,
                                   const std::vector<Match>& matches,
                                   const Pose& pose,
                                   float distance);

// How many matches a pose would carry within distance if each source point were paired with a
// target point of the matches at random: the sum over matches of the matched target points within
// distance of the moved source point, over the number of matches. This chance level follows the
// scene: where a wrong motion keeps the ground on the ground, many matches land near some target
// point on it.
double ChanceMatches(const Cloud& source,
                     const Cloud& target,
                     const std::vector<Match>& matches,
                     const Pose& pose,
                     float distance);

}  // namespace qorv::engine
