// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include <Eigen/Core>

#include "engine/refine.hpp"

namespace qorv::engine {

// Generalized ICP (plane-to-plane). Each point carries the covariance of its neighbourhood with the
// spread along its normal flattened to kGicpFlatness and the spread along the surface set to 1, so
// a pair weighs the residual d = q - T p by (C_q + R C_p R^T)^-1: across both surfaces strongly,
// along them hardly at all.
constexpr int32_t kGicpNeighbours = 20;
constexpr double kGicpFlatness = 1e-3;

// Per-point covariances of a cloud, from its kGicpNeighbours nearest points (the point itself
// among them); tree indexes cloud.points. A point with fewer than 3 neighbours gets the identity.
std::vector<Eigen::Matrix3d> GicpCovariances(const Cloud& cloud, const PointKdTree& tree);

// The same covariance for a point whose neighbourhood has this unit normal (the spread along the
// surface is 1 in every direction, so the normal fixes it): I - (1 - kGicpFlatness) n n^T; the
// identity for a zero normal. The refiner makes its covariances so from clouds that carry normals.
Eigen::Matrix3d GicpCovarianceOfNormal(const Eigen::Vector3d& normal);

// The Gauss-Newton system of one step at `pose`: for every source point whose nearest target
// point lies within maxDistance, the residual d = q - T p is measured by
// r^2 = d^T W d, W = 2 kGicpFlatness (C_q + R C_p R^T)^-1 (scaled so that two coplanar patches
// give r = their distance along the normal: the kernel is a length, as for point-to-plane), and
// weighed by Geman-McClure w = (k^2 / (k^2 + r^2))^2. The update x = (rotation vector, shift)
// applied as Increment(x) * pose solves hessian x = gradient. Summed in fixed blocks of source
// points, so the same bits for any thread count. nearestOf, when given, holds each source point's
// nearest target point of the previous step (or -1), where its search starts, and receives this
// step's.
struct GicpSystem {
  Eigen::Matrix<double, 6, 6> hessian = Eigen::Matrix<double, 6, 6>::Zero();
  Eigen::Matrix<double, 6, 1> gradient = Eigen::Matrix<double, 6, 1>::Zero();
  double weight = 0.0;      // sum of w
  double weightedSq = 0.0;  // sum of w r^2
  int32_t pairs = 0;
};
GicpSystem GicpStep(const Cloud& source,
                    const std::vector<Eigen::Matrix3d>& sourceCovariances,
                    const Cloud& target,
                    const std::vector<Eigen::Matrix3d>& targetCovariances,
                    const PointKdTree& targetTree,
                    const Pose& pose,
                    const IcpParams& params,
                    std::vector<int32_t>* nearestOf = nullptr);
// The same step for clouds that carry normals, each point's covariance that of its normal
// (GicpCovarianceOfNormal): the pair's W in closed form (GicpWeightOfNormals), no covariance kept.
GicpSystem GicpStepOnNormals(const Cloud& source,
                             const Cloud& target,
                             const PointKdTree& targetTree,
                             const Pose& pose,
                             const IcpParams& params,
                             std::vector<int32_t>* nearestOf = nullptr);
// W = 2 kGicpFlatness (C_u + C_v)^-1 for the covariances of two unit normals u and v (v already
// rotated into the target's frame).
Eigen::Matrix3d GicpWeightOfNormals(const Eigen::Vector3d& u, const Eigen::Vector3d& v);

}  // namespace qorv::engine
