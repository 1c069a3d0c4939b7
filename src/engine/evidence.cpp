// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// What the verdict judges an answer on: a coarse screening at the working scale, the evidence at
// the fine scale after dense refinement, and the best distinct rival. The rules are verdict.cpp's.
#include <algorithm>

#include <Eigen/LU>

#include "engine/steps.hpp"

namespace qorv::engine {
namespace {

// The verdict's inlier distance is kVerdictNoise x the refined residual, kept between
// kVerdictSpacing and kVerdictSpacingMax x the refinement clouds' spacing, so that it never grows
// with the working voxel.
// 3 residual scales take in nearly all of a right answer's noise, as three standard deviations do.
constexpr double kVerdictNoise = 3.0;
// Two clouds sample a surface at different places: on a right answer a point's nearest neighbour
// in the other cloud can lie about a spacing away, more across a slope. 2.5 spacings keep those
// pairs in when the residual of clean scans is near 0.
constexpr double kVerdictSpacing = 2.5;
// However noisy the sensor, a few spacings at most: a longer distance lets surfaces slid along
// each other count as overlap, which is how wrong motions used to pass.
constexpr double kVerdictSpacingMax = 5.0;
// x the spacing: the least distance off the target's plane that still agrees. Clean scans refine
// to a residual near 0, and their normals, estimated over sampled patches, are not exact either.
constexpr double kPlaneFloor = 0.5;
// x the inlier distance: structure this near counts as nearby, the constraint a right motion
// would have met. Near enough to belong to the overlap, far enough to see a post or a corner left
// standing beside what it should meet.
constexpr float kVerdictNear = 3.0f;
// x the inlier distance: a point counts as seen through only when it lies further than this in
// front of the surface the sensor saw, beyond what noise and the tangent-plane estimate of that
// surface's range put there.
constexpr float kFreeSpaceMargin = 2.0f;

// The smoother normals the fine-scale verdict judges a cloud with: its working-scale samples'.
SmoothNormals SmoothOf(const Working& working) {
  return {&working.level.cloud, working.level.tree.get()};
}

}  // namespace

// So that dense refinement is kept for answers that may pass.
Screening ScreenTry(const TryResult& tr, double tryVoxel, const VerdictRules& rules) {
  Screening out;
  Evidence& coarse = out.coarse;
  coarse.distance = kInlierDistance * tryVoxel;
  coarse.overlap = MeasureOverlap(tr.source->level.cloud,
                                  *tr.source->level.tree,
                                  tr.target->level.cloud,
                                  *tr.target->level.tree,
                                  tr.best.pose,
                                  static_cast<float>(coarse.distance),
                                  kVerdictNear * static_cast<float>(coarse.distance));
  coarse.consistentPairs = tr.consistentPairs;
  coarse.chancePairs = tr.chancePairs;
  out.refine = !tr.candidates.empty() && WorthRefining(coarse, rules);
  return out;
}

// Its lengths follow the refinement clouds' spacing and the residual noise the refinement
// measured, never the working voxel.
Evidence GatherEvidence(const TryResult& tr, const Refined& refined, const Registration& reg) {
  const double spacing = reg.scales.spacing;
  const Level& fineSource = reg.fineSource;
  const Level& fineTarget = reg.fineTarget;
  Evidence evidence;
  evidence.distance = std::clamp(
      kVerdictNoise * refined.residual, kVerdictSpacing * spacing, kVerdictSpacingMax * spacing);
  const float distance = static_cast<float>(evidence.distance);
  evidence.overlap = MeasureOverlap(
      fineSource.cloud,
      *fineSource.tree,
      fineTarget.cloud,
      *fineTarget.tree,
      refined.pose,
      distance,
      kVerdictNear * distance,
      SmoothOf(*tr.source),
      SmoothOf(*tr.target),
      static_cast<float>(
          std::clamp(kVerdictNoise * refined.residual, kPlaneFloor * spacing, evidence.distance)));
  evidence.consistentPairs = tr.consistentPairs;
  evidence.chancePairs = tr.chancePairs;
  const float margin = kFreeSpaceMargin * distance;
  evidence.freeSpaceConflict =
      std::max(reg.targetSight.Conflict(fineSource.cloud, refined.pose, margin),
               reg.sourceSight.Conflict(fineTarget.cloud, Pose(refined.pose.inverse()), margin));
  return evidence;
}

// Scored at the answer's scale (distance: the evidence's inlier distance).
bool FindRival(const TryResult& tr,
               const Pose& answer,
               double tryVoxel,
               double distance,
               const Registration& reg,
               Seen& rival) {
  for (const Candidate& c : tr.candidates) {
    if (!reg.Distinct(c.pose, answer, tryVoxel)) continue;
    const Pose pose =
        reg.refiner.Refine(reg.refineSource, reg.refineTarget, c.pose, DenseParams(reg)).pose;
    if (!reg.Distinct(pose, answer, tryVoxel)) return false;
    rival.pose = pose;
    rival.score = Score(MeasureOverlap(reg.fineSource.cloud,
                                       *reg.fineSource.tree,
                                       reg.fineTarget.cloud,
                                       *reg.fineTarget.tree,
                                       pose,
                                       static_cast<float>(distance),
                                       0.0f,
                                       SmoothOf(*tr.source),
                                       SmoothOf(*tr.target)));
    return true;
  }
  return false;
}

// Any try's answer may rival it (a symmetric object seen two ways).
double RivalShareAmong(const std::vector<Seen>& seen,
                       const Pose& answer,
                       double score,
                       double tryVoxel,
                       const Registration& reg) {
  double share = 0.0;
  for (const Seen& other : seen) {
    if (reg.Distinct(other.pose, answer, tryVoxel))
      share = std::max(share, RivalShare(score, other.score));
  }
  return share;
}

}  // namespace qorv::engine
