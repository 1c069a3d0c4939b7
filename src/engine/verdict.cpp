// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/verdict.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include <Eigen/LU>

#include "engine/parallel.hpp"

namespace qorv::engine {
namespace {

struct Tally {
  int64_t inliers = 0;
  int64_t agreeing = 0;
  double sumSq = 0.0;
};

// Pairs every point of `from` (moved by pose) with its nearest point of `to` within distance.
Tally Pair(const Cloud& from,
           const Cloud& to,
           const PointKdTree& toTree,
           const Pose& pose,
           float distance) {
  const int32_t n = from.size();
  constexpr int32_t kBlock = 2048;
  const int32_t blocks = (n + kBlock - 1) / kBlock;
  std::vector<Tally> parts(static_cast<size_t>(blocks));
  const Eigen::Matrix3f r = pose.topLeftCorner<3, 3>().cast<float>();
  const Eigen::Vector3f shift = pose.topRightCorner<3, 1>().cast<float>();
  const float limit = distance * distance;
  const float cosLimit = std::cos(30.0f * 3.14159265f / 180.0f);
  const bool normals = from.hasNormals() && to.hasNormals();
  ForBlocks(blocks, [&](int32_t block) {
    Tally part;
    for (int32_t i = block * kBlock; i < std::min(n, (block + 1) * kBlock); ++i) {
      const Eigen::Vector3f p = r * from.points.col(i) + shift;
      int32_t nearest = -1;
      float distSq = 0.0f;
      if (toTree.knnSearch(p.data(), 1, &nearest, &distSq) != 1 || !(distSq < limit)) continue;
      ++part.inliers;
      part.sumSq += distSq;
      if (normals && std::abs((r * from.normals.col(i)).dot(to.normals.col(nearest))) > cosLimit)
        ++part.agreeing;
    }
    parts[static_cast<size_t>(block)] = part;
  });
  Tally sum;
  for (const Tally& part : parts) {
    sum.inliers += part.inliers;
    sum.agreeing += part.agreeing;
    sum.sumSq += part.sumSq;
  }
  return sum;
}

}  // namespace

Overlap MeasureOverlap(const Cloud& source,
                       const PointKdTree& sourceTree,
                       const Cloud& target,
                       const PointKdTree& targetTree,
                       const Pose& pose,
                       float distance) {
  Overlap out;
  if (source.size() == 0 || target.size() == 0) return out;
  const Tally forward = Pair(source, target, targetTree, pose, distance);
  const Pose inverse = pose.inverse();
  const Tally backward = Pair(target, source, sourceTree, inverse, distance);
  out.inliers = static_cast<int32_t>(forward.inliers);
  out.fitness = static_cast<double>(forward.inliers) / source.size();
  out.targetOverlap = static_cast<double>(backward.inliers) / target.size();
  if (forward.inliers > 0) {
    out.rmse = std::sqrt(forward.sumSq / static_cast<double>(forward.inliers));
    out.normalAgreement =
        static_cast<double>(forward.agreeing) / static_cast<double>(forward.inliers);
  }
  return out;
}

double Score(const Overlap& overlap) {
  return std::min(overlap.fitness, overlap.targetOverlap) * overlap.normalAgreement;
}

std::string Decide(const Overlap& overlap,
                   double distance,
                   int32_t consistentPairs,
                   double rivalShare,
                   const VerdictRules& rules) {
  char text[160];
  const double shared = std::min(overlap.fitness, overlap.targetOverlap);
  if (shared < rules.minOverlap) {
    std::snprintf(text, sizeof(text), "overlap %.2f is below %.2f", shared, rules.minOverlap);
  } else if (overlap.rmse > rules.maxRmseShare * distance) {
    std::snprintf(text,
                  sizeof(text),
                  "inlier RMSE %.3g is above %.2f of the inlier distance %.3g",
                  overlap.rmse,
                  rules.maxRmseShare,
                  distance);
  } else if (overlap.normalAgreement < rules.minNormalAgreement) {
    std::snprintf(text,
                  sizeof(text),
                  "surface normals agree on %.2f of the overlap, below %.2f",
                  overlap.normalAgreement,
                  rules.minNormalAgreement);
  } else if (consistentPairs < rules.minConsistentPairs) {
    std::snprintf(text,
                  sizeof(text),
                  "%d consistent feature matches, below %d",
                  consistentPairs,
                  rules.minConsistentPairs);
  } else if (rivalShare > rules.maxRivalScore) {
    std::snprintf(
        text, sizeof(text), "ambiguous: a distinct motion scores %.2f of the best", rivalShare);
  } else {
    return {};
  }
  return text;
}

}  // namespace qorv::engine
