// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/free_space.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

#include "engine/scale.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv::engine {

SensorView::SensorView(const Cloud& cloud) : cloud_(cloud) {
  if (!cloud.hasViewpoint || !cloud.hasNormals() || cloud.size() < 50) return;
  directions_ = cloud.points.colwise() - cloud.viewpoint;
  for (Eigen::Index i = 0; i < directions_.cols(); ++i) {
    const float length = directions_.col(i).norm();
    // A point at the sensor has no ray: park it far from the unit sphere.
    if (length > 0.0f) {
      directions_.col(i) /= length;
    } else {
      directions_.col(i).setConstant(10.0f);
    }
  }
  tree_ = std::make_unique<PointKdTree>(directions_.data(), directions_.cols());
  // Rays of neighbouring points sit about one angular spacing apart; two spacings still share a
  // surface patch with its normal.
  tolerance_ = static_cast<float>(2.0 * MedianSpacing(*tree_));
  if (!(tolerance_ > 0.0f)) tree_.reset();
}

SensorView::~SensorView() = default;

double SensorView::Conflict(const Cloud& other, const Pose& pose, float margin) const {
  if (!usable() || other.size() == 0) return -1.0;
  const int32_t n = other.size();
  // Points a block; the blocks' counts are integers, so the size only splits the work.
  constexpr int32_t kBlock = 2048, kRays = 4;
  const int32_t blocks = (n + kBlock - 1) / kBlock;
  std::vector<int64_t> checked(static_cast<size_t>(blocks), 0), seenThrough(checked);
  const Eigen::Matrix3f r = pose.topLeftCorner<3, 3>().cast<float>();
  const Eigen::Vector3f shift = pose.topRightCorner<3, 1>().cast<float>();
  const float toleranceSq = tolerance_ * tolerance_;
  ForBlocks(blocks, [&](int32_t block) {
    int32_t found[kRays];
    float distSq[kRays];
    for (int32_t i = block * kBlock; i < std::min(n, (block + 1) * kBlock); ++i) {
      const Eigen::Vector3f ray = r * other.points.col(i) + shift - cloud_.viewpoint;
      const float range = ray.norm();
      if (!(range > margin)) continue;
      const Eigen::Vector3f u = ray / range;
      const size_t count = tree_->knnSearchWithin(u.data(), kRays, toleranceSq, found, distSq);
      // Where along this ray the sensor saw its nearest surface: each neighbouring ray's point
      // extended over its tangent plane (at grazing incidence, the point's own range).
      float seen = INFINITY;
      bool measured = false;
      for (size_t k = 0; k < count; ++k) {
        const Eigen::Vector3f q = cloud_.points.col(found[k]) - cloud_.viewpoint;
        const Eigen::Vector3f normal = cloud_.normals.col(found[k]);
        const float facing = normal.dot(u);
        float along = q.norm();
        if (std::abs(facing) > 0.25f)
          along = std::clamp(normal.dot(q) / facing, 0.5f * along, 2.0f * along);
        seen = std::min(seen, along);
        measured = true;
      }
      if (!measured) continue;
      ++checked[static_cast<size_t>(block)];
      if (range < seen - margin - 0.03f * seen) ++seenThrough[static_cast<size_t>(block)];
    }
  });
  int64_t total = 0, through = 0;
  for (int32_t b = 0; b < blocks; ++b) {
    total += checked[static_cast<size_t>(b)];
    through += seenThrough[static_cast<size_t>(b)];
  }
  if (total < 50) return -1.0;
  return static_cast<double>(through) / static_cast<double>(total);
}

}  // namespace qorv::engine
