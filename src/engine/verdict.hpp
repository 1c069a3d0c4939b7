// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>

#include "engine/cloud.hpp"
#include "engine/engine.hpp"
#include "engine/rigid_fit.hpp"
#include "search/kd_tree.hpp"

namespace qorv::engine {

// What a pose does to the two refinement clouds.
struct Overlap {
  double fitness = 0.0;          // source points with a target point within distance
  double targetOverlap = 0.0;    // target points with a moved source point within distance
  double rmse = 0.0;             // RMS distance of the source's inlier pairs
  double normalAgreement = 0.0;  // inlier pairs whose normals agree within 30 degrees (share)
  int32_t inliers = 0;
};

// Measures the pose both ways. Both clouds need normals; the trees index their points.
Overlap MeasureOverlap(const Cloud& source,
                       const PointKdTree& sourceTree,
                       const Cloud& target,
                       const PointKdTree& targetTree,
                       const Pose& pose,
                       float distance);

// The single number hypotheses are ranked by: overlap that the geometry agrees with.
double Score(const Overlap& overlap);

// The thresholds of the verdict (chosen on development pairs; see the header of the engine).
struct VerdictRules {
  double minOverlap = 0.2;    // min(fitness, targetOverlap) at least this
  double maxRmseShare = 0.6;  // inlier RMSE at most this share of the inlier distance
  double minNormalAgreement = 0.7;
  int32_t minConsistentPairs = 8;
  double maxRivalScore = 0.9;  // a distinct rival scoring above this share of the best: ambiguous
};

// Decides on a pose measured with the given inlier distance; returns "" when registered, else the
// reason in words.
std::string Decide(const Overlap& overlap,
                   double distance,
                   int32_t consistentPairs,
                   double rivalShare,
                   const VerdictRules& rules);

}  // namespace qorv::engine
