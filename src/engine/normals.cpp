// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/normals.hpp"

#include <algorithm>
#include <vector>

#include <Eigen/Eigenvalues>

#include "runtime/parallel_for.hpp"

namespace qorv::engine {

Eigen::Matrix3d NeighbourScatter(const Cloud& cloud, const int32_t* found, size_t count) {
  Eigen::Vector3d mean = Eigen::Vector3d::Zero();
  for (size_t j = 0; j < count; ++j) mean += cloud.points.col(found[j]).cast<double>();
  mean /= static_cast<double>(count);
  Eigen::Matrix3d scatter = Eigen::Matrix3d::Zero();
  for (size_t j = 0; j < count; ++j) {
    const Eigen::Vector3d d = cloud.points.col(found[j]).cast<double>() - mean;
    scatter.noalias() += d * d.transpose();
  }
  return scatter;
}

void EstimateNormals(const PointKdTree& tree, float radius, int32_t maxNeighbours, Cloud& cloud) {
  const int32_t n = cloud.size();
  cloud.normals.setZero(3, n);
  cloud.neighbourSlots = std::max(maxNeighbours - 1, 0);
  cloud.neighbours.assign(static_cast<size_t>(n) * static_cast<size_t>(cloud.neighbourSlots), -1);
  // Points a block; each normal is its point's own, so the size only splits the work.
  constexpr int32_t kBlock = 512;
  const float radiusSq = radius * radius;
  ForBlocks((n + kBlock - 1) / kBlock, [&](int32_t block) {
    std::vector<int32_t> found(static_cast<size_t>(maxNeighbours));
    std::vector<float> distSq(static_cast<size_t>(maxNeighbours));
    for (int32_t i = block * kBlock; i < std::min(n, (block + 1) * kBlock); ++i) {
      const size_t count = tree.knnSearchWithin(cloud.points.col(i).data(),
                                                static_cast<size_t>(maxNeighbours),
                                                radiusSq,
                                                found.data(),
                                                distSq.data());
      int32_t* slots = cloud.neighbours.data() + static_cast<size_t>(i) * cloud.neighbourSlots;
      int32_t kept = 0;
      for (size_t k = 0; k < count && kept < cloud.neighbourSlots; ++k) {
        if (found[k] != i) slots[kept++] = found[k];
      }
      if (count < 3) continue;
      Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver;
      solver.computeDirect(NeighbourScatter(cloud, found.data(), count));
      if (solver.info() != Eigen::Success) continue;
      cloud.normals.col(i) = solver.eigenvectors().col(0).cast<float>().normalized();
    }
  });
  OrientNormals(cloud);
}

void OrientNormals(Cloud& cloud) {
  const int32_t n = cloud.size();
  if (n == 0 || !cloud.hasNormals()) return;
  Eigen::Vector3f centre = cloud.viewpoint;
  float sign = 1.0f;  // toward the viewpoint
  if (!cloud.hasViewpoint) {
    centre = (cloud.points.cast<double>().rowwise().sum() / n).cast<float>();
    sign = -1.0f;  // away from the centroid
  }
  for (int32_t i = 0; i < n; ++i) {
    if (sign * cloud.normals.col(i).dot(centre - cloud.points.col(i)) < 0.0f) {
      cloud.normals.col(i) = -cloud.normals.col(i);
    }
  }
}

}  // namespace qorv::engine
