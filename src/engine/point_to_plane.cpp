// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include <Eigen/Cholesky>
#include <Eigen/Geometry>

#include "engine/refine.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv::engine {
namespace {

struct Normal6 {
  Eigen::Matrix<double, 6, 6> ata = Eigen::Matrix<double, 6, 6>::Zero();
  Eigen::Matrix<double, 6, 1> atb = Eigen::Matrix<double, 6, 1>::Zero();
  double weight = 0.0, weightedSq = 0.0;
  int32_t pairs = 0;
};

}  // namespace

IcpOutcome RefinePointToPlane(const Cloud& source,
                              const Cloud& target,
                              const PointKdTree& targetTree,
                              const Pose& initial,
                              const IcpParams& params) {
  IcpOutcome out;
  out.pose = initial;
  const int32_t n = source.size();
  if (n == 0 || targetTree.size() == 0) return out;
  // Points a block. The blocks' normal equations are added in block order, so this size, and not
  // the thread count, fixes the order of the floating-point sums: changing it changes the result
  // bits.
  constexpr int32_t kBlock = 1024;
  const int32_t blocks = (n + kBlock - 1) / kBlock;
  std::vector<Normal6> parts(static_cast<size_t>(blocks));
  const float maxSq = params.maxDistance * params.maxDistance;
  const double kernelSq = params.kernel * params.kernel;
  // Each source point's nearest target point in the last step: where this step's search starts.
  std::vector<int32_t> nearestOf(static_cast<size_t>(n), -1);
  for (int32_t iteration = 0; iteration < params.maxIterations; ++iteration) {
    const Eigen::Matrix3f r = out.pose.topLeftCorner<3, 3>().cast<float>();
    const Eigen::Vector3f shift = out.pose.topRightCorner<3, 1>().cast<float>();
    ForBlocks(blocks, [&](int32_t block) {
      Normal6 part;
      for (int32_t i = block * kBlock; i < std::min(n, (block + 1) * kBlock); ++i) {
        const Eigen::Vector3f p = r * source.points.col(i) + shift;
        float distSq = 0.0f;
        const int32_t nearest = NearestTarget(
            target, targetTree, p.data(), maxSq, nearestOf[static_cast<size_t>(i)], distSq);
        nearestOf[static_cast<size_t>(i)] = nearest;
        if (nearest < 0) continue;
        const Eigen::Vector3d q = target.points.col(nearest).cast<double>();
        const Eigen::Vector3d normal = target.normals.col(nearest).cast<double>();
        if (normal.squaredNorm() < 0.5) continue;
        const Eigen::Vector3d pd = p.cast<double>();
        const double residual = normal.dot(pd - q);
        const double e = kernelSq / (kernelSq + residual * residual);
        const double w = e * e;
        Eigen::Matrix<double, 6, 1> j;
        j.head<3>() = pd.cross(normal);
        j.tail<3>() = normal;
        part.ata.noalias() += w * j * j.transpose();
        part.atb.noalias() -= w * residual * j;
        part.weight += w;
        part.weightedSq += w * residual * residual;
        ++part.pairs;
      }
      parts[static_cast<size_t>(block)] = part;
    });
    Normal6 sum;
    for (const Normal6& part : parts) {
      sum.ata += part.ata;
      sum.atb += part.atb;
      sum.weight += part.weight;
      sum.weightedSq += part.weightedSq;
      sum.pairs += part.pairs;
    }
    out.pairs = sum.pairs;
    out.residualScale = sum.weight > 0.0 ? std::sqrt(sum.weightedSq / sum.weight) : 0.0;
    out.iterations = iteration + 1;
    if (sum.pairs < 6) break;
    // A touch of damping keeps directions the surfaces do not constrain (a plane's slide) still.
    const double damping = 1e-9 * std::max(1.0, sum.ata.trace());
    sum.ata.diagonal().array() += damping;
    const Eigen::Matrix<double, 6, 1> x = sum.ata.ldlt().solve(sum.atb);
    if (!x.allFinite()) break;
    out.pose = IncrementOf(x) * out.pose;
    if (x.head<3>().norm() < params.stopAngle && x.tail<3>().norm() < params.stopShift) break;
  }
  return out;
}

namespace {

class PointToPlaneRefiner final : public Refiner {
 public:
  IcpOutcome Refine(const RefineCloud& source,
                    const RefineCloud& target,
                    const Pose& initial,
                    const IcpParams& params) const override {
    return RefinePointToPlane(*source.cloud, *target.cloud, *target.tree, initial, params);
  }
};

}  // namespace

std::unique_ptr<Refiner> MakePointToPlaneRefiner() {
  return std::make_unique<PointToPlaneRefiner>();
}

}  // namespace qorv::engine
