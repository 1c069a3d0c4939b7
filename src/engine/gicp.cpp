// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/gicp.hpp"

#include <algorithm>
#include <cmath>
#include <memory>

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <Eigen/LU>

#include "engine/normals.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv::engine {
namespace {

// Points a block. GicpStep adds the blocks' systems in block order, so this size, and not the
// thread count, fixes the order of its floating-point sums: changing it changes the result bits.
// (The covariances are each a point's own.)
constexpr int32_t kBlock = 1024;

struct Covariances final : CloudExtras {
  std::vector<Eigen::Matrix3d> perPoint;
};

Eigen::Matrix3d Skew(const Eigen::Vector3d& v) {
  Eigen::Matrix3d m;
  m << 0.0, -v.z(), v.y(), v.z(), 0.0, -v.x(), -v.y(), v.x(), 0.0;
  return m;
}

// The covariances of a cloud: from its normals when it has them (the flattened covariance of a
// neighbourhood depends on its normal alone, so the neighbour search that made the normals serves),
// else from a search of their own.
std::vector<Eigen::Matrix3d> CovariancesFor(const Cloud& cloud, const PointKdTree& tree) {
  if (!cloud.hasNormals()) return GicpCovariances(cloud, tree);
  const int32_t n = cloud.size();
  std::vector<Eigen::Matrix3d> out(static_cast<size_t>(n));
  ForBlocks((n + kBlock - 1) / kBlock, [&](int32_t block) {
    for (int32_t i = block * kBlock; i < std::min(n, (block + 1) * kBlock); ++i)
      out[static_cast<size_t>(i)] = GicpCovarianceOfNormal(cloud.normals.col(i).cast<double>());
  });
  return out;
}

// The covariances of a refinement cloud: the ones Describe made, else made here for this call.
const std::vector<Eigen::Matrix3d>& CovariancesOf(const RefineCloud& in,
                                                  std::unique_ptr<Covariances>& own) {
  if (const auto* made = dynamic_cast<const Covariances*>(in.extras)) return made->perPoint;
  own = std::make_unique<Covariances>();
  if (in.tree != nullptr) {
    own->perPoint = CovariancesFor(*in.cloud, *in.tree);
  } else {
    const PointKdTree tree(in.cloud->points.data(), in.cloud->size());
    own->perPoint = CovariancesFor(*in.cloud, tree);
  }
  return own->perPoint;
}

class GeneralizedRefiner final : public Refiner {
 public:
  std::unique_ptr<CloudExtras> Describe(const Cloud& cloud,
                                        const PointKdTree& tree) const override {
    if (cloud.hasNormals()) return nullptr;  // a pair's weight comes from the normals themselves
    auto out = std::make_unique<Covariances>();
    out->perPoint = CovariancesFor(cloud, tree);
    return out;
  }

  bool Narrows() const override { return false; }

  IcpOutcome Refine(const RefineCloud& source,
                    const RefineCloud& target,
                    const Pose& initial,
                    const IcpParams& params) const override {
    IcpOutcome out;
    out.pose = initial;
    if (source.cloud->size() == 0 || target.tree->size() == 0) return out;
    // Each source point's nearest target point in the last step: where this step's search starts.
    std::vector<int32_t> nearestOf(static_cast<size_t>(source.cloud->size()), -1);
    // Clouds with normals weigh a pair by the two normals; others by covariances (kept or made).
    const bool normals = source.cloud->hasNormals() && target.cloud->hasNormals();
    std::unique_ptr<Covariances> ownSource, ownTarget;
    const std::vector<Eigen::Matrix3d>* cs = normals ? nullptr : &CovariancesOf(source, ownSource);
    const std::vector<Eigen::Matrix3d>* ct = normals ? nullptr : &CovariancesOf(target, ownTarget);
    auto step = [&](const Pose& pose) {
      const Cloud& s = *source.cloud;
      const Cloud& t = *target.cloud;
      return normals ? GicpStepOnNormals(s, t, *target.tree, pose, params, &nearestOf)
                     : GicpStep(s, *cs, t, *ct, *target.tree, pose, params, &nearestOf);
    };
    for (int32_t iteration = 0; iteration < params.maxIterations; ++iteration) {
      GicpSystem sum = step(out.pose);
      out.pairs = sum.pairs;
      out.residualScale = sum.weight > 0.0 ? std::sqrt(sum.weightedSq / sum.weight) : 0.0;
      out.iterations = iteration + 1;
      if (sum.pairs < 6) break;
      // As for point-to-plane: a touch of damping keeps unconstrained directions still.
      const double damping = 1e-9 * std::max(1.0, sum.hessian.trace());
      sum.hessian.diagonal().array() += damping;
      const Eigen::Matrix<double, 6, 1> x = sum.hessian.ldlt().solve(sum.gradient);
      if (!x.allFinite()) break;
      out.pose = IncrementOf(x) * out.pose;
      if (x.head<3>().norm() < params.stopAngle && x.tail<3>().norm() < params.stopShift) break;
    }
    return out;
  }
};

}  // namespace

Eigen::Matrix3d GicpCovarianceOfNormal(const Eigen::Vector3d& normal) {
  if (!(normal.squaredNorm() > 0.5)) return Eigen::Matrix3d::Identity();
  return Eigen::Matrix3d::Identity() - (1.0 - kGicpFlatness) * normal * normal.transpose();
}

std::vector<Eigen::Matrix3d> GicpCovariances(const Cloud& cloud, const PointKdTree& tree) {
  const int32_t n = cloud.size();
  std::vector<Eigen::Matrix3d> out(static_cast<size_t>(n), Eigen::Matrix3d::Identity());
  const Eigen::Vector3d flat(kGicpFlatness, 1.0, 1.0);  // eigenvalues in increasing order
  ForBlocks((n + kBlock - 1) / kBlock, [&](int32_t block) {
    int32_t found[kGicpNeighbours];
    float distSq[kGicpNeighbours];
    for (int32_t i = block * kBlock; i < std::min(n, (block + 1) * kBlock); ++i) {
      const size_t count =
          tree.knnSearch(cloud.points.col(i).data(), kGicpNeighbours, found, distSq);
      if (count < 3) continue;
      Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver;
      solver.computeDirect(NeighbourScatter(cloud, found, count));
      if (solver.info() != Eigen::Success) continue;
      const Eigen::Matrix3d& v = solver.eigenvectors();
      out[static_cast<size_t>(i)] = v * flat.asDiagonal() * v.transpose();
    }
  });
  return out;
}

namespace {

// One step's system, with weightOf(i, nearest, rotation) giving a pair's W.
template <typename WeightOf>
GicpSystem StepWith(const Cloud& source,
                    const Cloud& target,
                    const PointKdTree& targetTree,
                    const Pose& pose,
                    const IcpParams& params,
                    std::vector<int32_t>* nearestOf,
                    const WeightOf& weightOf) {
  const int32_t n = source.size();
  const int32_t blocks = (n + kBlock - 1) / kBlock;
  std::vector<GicpSystem> parts(static_cast<size_t>(blocks));
  const float maxSq = params.maxDistance * params.maxDistance;
  const double kernelSq = params.kernel * params.kernel;
  const Eigen::Matrix3d rd = pose.topLeftCorner<3, 3>();
  const Eigen::Matrix3f r = rd.cast<float>();
  const Eigen::Vector3f shift = pose.topRightCorner<3, 1>().cast<float>();
  ForBlocks(blocks, [&](int32_t block) {
    GicpSystem part;
    for (int32_t i = block * kBlock; i < std::min(n, (block + 1) * kBlock); ++i) {
      const Eigen::Vector3f p = r * source.points.col(i) + shift;
      float distSq = 0.0f;
      int32_t* hint = nearestOf != nullptr ? &(*nearestOf)[static_cast<size_t>(i)] : nullptr;
      const int32_t nearest =
          NearestTarget(target, targetTree, p.data(), maxSq, hint != nullptr ? *hint : -1, distSq);
      if (hint != nullptr) *hint = nearest;
      if (nearest < 0) continue;
      const Eigen::Vector3d pd = p.cast<double>();
      const Eigen::Vector3d d = target.points.col(nearest).cast<double>() - pd;
      const Eigen::Matrix3d w = weightOf(i, nearest, rd);
      const double rSq = d.dot(w * d);
      if (!std::isfinite(rSq)) continue;
      const double e = kernelSq / (kernelSq + rSq);
      const double robust = e * e;
      // d after the update x: d + [p]x omega - shift, so its Jacobian is J = [ S | -I ] with
      // S = [p]x, and J^T W J = [ S^T W S, -(W S)^T ; -W S, W ], J^T W d = [ S^T W d ; -W d ]
      // (W is symmetric): the blocks, not the 6 x 6 products.
      const Eigen::Matrix3d s = Skew(pd);
      const Eigen::Matrix3d ws = w * s;
      const Eigen::Vector3d wd = w * d;
      part.hessian.topLeftCorner<3, 3>().noalias() += robust * (s.transpose() * ws);
      part.hessian.topRightCorner<3, 3>().noalias() -= robust * ws.transpose();
      part.hessian.bottomLeftCorner<3, 3>().noalias() -= robust * ws;
      part.hessian.bottomRightCorner<3, 3>().noalias() += robust * w;
      part.gradient.head<3>().noalias() -= robust * (s.transpose() * wd);
      part.gradient.tail<3>() += robust * wd;
      part.weight += robust;
      part.weightedSq += robust * rSq;
      ++part.pairs;
    }
    parts[static_cast<size_t>(block)] = part;
  });
  GicpSystem sum;
  for (const GicpSystem& part : parts) {
    sum.hessian += part.hessian;
    sum.gradient += part.gradient;
    sum.weight += part.weight;
    sum.weightedSq += part.weightedSq;
    sum.pairs += part.pairs;
  }
  return sum;
}

Eigen::Matrix3d WeightOf(const Eigen::Matrix3d& targetCovariance,
                         const Eigen::Matrix3d& sourceCovariance,
                         const Eigen::Matrix3d& rotation) {
  const Eigen::Matrix3d combined =
      targetCovariance + rotation * sourceCovariance * rotation.transpose();
  return (2.0 * kGicpFlatness) * combined.inverse();
}

}  // namespace

Eigen::Matrix3d GicpWeightOfNormals(const Eigen::Vector3d& u, const Eigen::Vector3d& v) {
  // C_q + R C_p R^T = 2 (I - c U U^T) with U = [u v] and c = (1 - kGicpFlatness) / 2; by the
  // Woodbury identity its inverse is (I + c U (I - c U^T U)^-1 U^T) / 2, where U^T U = [1 k; k 1]
  // and the 2 x 2 inverse is [1 - c, c k; c k, 1 - c] / det. det is at least kGicpFlatness
  // (parallel normals), so it never vanishes.
  constexpr double c = (1.0 - kGicpFlatness) / 2.0;
  const double k = u.dot(v);
  const double det = (1.0 - c) * (1.0 - c) - c * c * k * k;
  const double same = c * (1.0 - c) / det, cross = c * c * k / det;
  Eigen::Matrix3d w = same * (u * u.transpose() + v * v.transpose()) +
                      cross * (u * v.transpose() + v * u.transpose());
  w.diagonal().array() += 1.0;
  return kGicpFlatness * w;
}

GicpSystem GicpStep(const Cloud& source,
                    const std::vector<Eigen::Matrix3d>& sourceCovariances,
                    const Cloud& target,
                    const std::vector<Eigen::Matrix3d>& targetCovariances,
                    const PointKdTree& targetTree,
                    const Pose& pose,
                    const IcpParams& params,
                    std::vector<int32_t>* nearestOf) {
  return StepWith(source,
                  target,
                  targetTree,
                  pose,
                  params,
                  nearestOf,
                  [&](int32_t i, int32_t nearest, const Eigen::Matrix3d& rotation) {
                    return WeightOf(targetCovariances[static_cast<size_t>(nearest)],
                                    sourceCovariances[static_cast<size_t>(i)],
                                    rotation);
                  });
}

GicpSystem GicpStepOnNormals(const Cloud& source,
                             const Cloud& target,
                             const PointKdTree& targetTree,
                             const Pose& pose,
                             const IcpParams& params,
                             std::vector<int32_t>* nearestOf) {
  return StepWith(source,
                  target,
                  targetTree,
                  pose,
                  params,
                  nearestOf,
                  [&](int32_t i, int32_t nearest, const Eigen::Matrix3d& rotation) {
                    const Eigen::Vector3d u = target.normals.col(nearest).cast<double>();
                    const Eigen::Vector3d n = source.normals.col(i).cast<double>();
                    if (!(u.squaredNorm() > 0.5 && n.squaredNorm() > 0.5)) {
                      return WeightOf(
                          GicpCovarianceOfNormal(u), GicpCovarianceOfNormal(n), rotation);
                    }
                    // In double and of unit length, as the closed form takes them: a float
                    // normal's length is off by up to 1e-7, which the flat direction's
                    // kGicpFlatness would feel.
                    return GicpWeightOfNormals(u.normalized(), rotation * n.normalized());
                  });
}

std::unique_ptr<Refiner> MakeGeneralizedRefiner() { return std::make_unique<GeneralizedRefiner>(); }

}  // namespace qorv::engine
