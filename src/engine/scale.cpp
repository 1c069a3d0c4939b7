// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/scale.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "engine/voxel_grid.hpp"

namespace qorv::engine {

double VoxelForBudget(const Cloud& full, int32_t budget) {
  if (full.size() <= budget) return 0.0;
  // Counting on every k-th point is as good as counting on all while a voxel at the budget still
  // holds about 8 of them: large clouds are counted on such a sample.
  const int64_t stride = std::max<int64_t>(1, full.size() / (8 * static_cast<int64_t>(budget)));
  Cloud sample;
  if (stride > 1) {
    sample.points.resize(3, (full.size() + stride - 1) / stride);
    for (Eigen::Index i = 0; i < sample.points.cols(); ++i)
      sample.points.col(i) = full.points.col(i * stride);
  }
  const Cloud& cloud = stride > 1 ? sample : full;
  const Eigen::Vector3f extentF =
      cloud.points.rowwise().maxCoeff() - cloud.points.rowwise().minCoeff();
  std::array<double, 3> extent = {extentF[0], extentF[1], extentF[2]};
  std::sort(extent.begin(), extent.end());
  double voxel = std::sqrt(std::max(extent[2] * extent[1], extent[2] * extent[2] * 1e-4) / budget);
  voxel = std::max(voxel, MinimumVoxelFor(cloud));
  if (!(voxel > 0.0)) return 0.0;
  for (int step = 0; step < 5; ++step) {
    const double count = static_cast<double>(CountOccupiedVoxels(cloud, voxel));
    const double ratio = count / budget;
    if (ratio > 0.9 && ratio < 1.1) break;
    // Never grow or shrink by more than 4x a step: the v^-2 law is only a guide.
    voxel *= std::clamp(std::sqrt(ratio), 0.25, 4.0);
  }
  return voxel;
}

double MedianSpacing(const PointKdTree& tree) {
  const std::vector<int32_t>& indexed = tree.indices();
  if (indexed.size() < 2) return 0.0;
  const size_t samples = std::min<size_t>(indexed.size(), 2000);
  std::vector<float> nearest;
  nearest.reserve(samples);
  for (size_t s = 0; s < samples; ++s) {
    const int32_t i = indexed[s * indexed.size() / samples];
    int32_t found[2];
    float distSq[2];
    if (tree.knnSearch(tree.element(i), 2, found, distSq) == 2) nearest.push_back(distSq[1]);
  }
  if (nearest.empty()) return 0.0;
  std::nth_element(
      nearest.begin(), nearest.begin() + static_cast<long>(nearest.size() / 2), nearest.end());
  return std::sqrt(static_cast<double>(nearest[nearest.size() / 2]));
}

}  // namespace qorv::engine
