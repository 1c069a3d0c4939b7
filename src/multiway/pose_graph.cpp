// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "multiway/pose_graph.hpp"

#include <array>
#include <cmath>

#include <Eigen/Geometry>
#include <Eigen/LU>

#include <ceres/ceres.h>
#include <ceres/rotation.h>

namespace qorv::multiway {
namespace {

// The normalised residual of an edge that fits has 6 degrees of freedom: beyond 4.74 (chi-square
// 99.9 %) it is an outlier. A little more margin still: 5.
constexpr double kRejectSigmas = 5.0;

// Pose parameters: angle-axis rotation, then translation (scan to world).
using Parameters = std::array<double, 6>;

Parameters ToParameters(const Pose& pose) {
  Parameters p;
  const Eigen::Matrix3d r = pose.topLeftCorner<3, 3>();
  ceres::RotationMatrixToAngleAxis(ceres::ColumnMajorAdapter3x3(r.data()), p.data());
  for (int i = 0; i < 3; ++i) p[static_cast<size_t>(3 + i)] = pose(i, 3);
  return p;
}

Pose FromParameters(const Parameters& p) {
  Eigen::Matrix3d r;
  ceres::AngleAxisToRotationMatrix(p.data(), ceres::ColumnMajorAdapter3x3(r.data()));
  Pose pose = Pose::Identity();
  pose.topLeftCorner<3, 3>() = r;
  pose.topRightCorner<3, 1>() = Eigen::Vector3d(p[3], p[4], p[5]);
  return pose;
}

// Residual of an edge: the motion from `from` to `to` the poses imply, against the measured one,
// as the angle-axis of the rotation error and the translation error, each over its sigma.
struct EdgeCost {
  EdgeCost(const Pose& motion, double rotationSigma, double shiftSigma)
      : inverseRotation(motion.topLeftCorner<3, 3>().transpose()),
        shift(motion.topRightCorner<3, 1>()),
        rotationWeight(1.0 / rotationSigma),
        shiftWeight(1.0 / shiftSigma) {}

  template <typename T>
  bool operator()(const T* from, const T* to, T* residual) const {
    // Relative motion implied: R_from^T (R_to p + t_to - t_from).
    T rFrom[9], rTo[9];
    ceres::AngleAxisToRotationMatrix(from, ceres::ColumnMajorAdapter3x3(rFrom));
    ceres::AngleAxisToRotationMatrix(to, ceres::ColumnMajorAdapter3x3(rTo));
    T relative[9];  // R_from^T R_to, column major
    for (int c = 0; c < 3; ++c) {
      for (int r = 0; r < 3; ++r) {
        T sum = T(0);
        for (int k = 0; k < 3; ++k) sum += rFrom[r * 3 + k] * rTo[c * 3 + k];
        relative[c * 3 + r] = sum;
      }
    }
    // Rotation error: measured^T relative.
    T error[9];
    for (int c = 0; c < 3; ++c) {
      for (int r = 0; r < 3; ++r) {
        T sum = T(0);
        for (int k = 0; k < 3; ++k) sum += T(inverseRotation(r, k)) * relative[c * 3 + k];
        error[c * 3 + r] = sum;
      }
    }
    T angleAxis[3];
    ceres::RotationMatrixToAngleAxis(static_cast<const T*>(error), angleAxis);  // column major
    for (int i = 0; i < 3; ++i) residual[i] = angleAxis[i] * T(rotationWeight);
    for (int r = 0; r < 3; ++r) {
      T sum = T(0);
      for (int k = 0; k < 3; ++k) sum += rFrom[r * 3 + k] * (to[3 + k] - from[3 + k]);
      residual[3 + r] = (sum - T(shift[r])) * T(shiftWeight);
    }
    return true;
  }

  Eigen::Matrix3d inverseRotation;
  Eigen::Vector3d shift;
  double rotationWeight, shiftWeight;
};

}  // namespace

double EdgeResidual(const std::vector<Pose>& poses, const Edge& edge) {
  const Pose implied =
      poses[static_cast<size_t>(edge.from)].inverse() * poses[static_cast<size_t>(edge.to)];
  const Pose error = edge.motion.inverse() * implied;
  const Eigen::AngleAxisd turn(Eigen::Matrix3d(error.topLeftCorner<3, 3>()));
  const double rotation = std::abs(turn.angle()) / edge.rotationSigma;
  const double shift = error.topRightCorner<3, 1>().norm() / edge.shiftSigma;
  return std::sqrt(rotation * rotation + shift * shift);
}

bool Optimize(std::vector<Pose>& poses, std::vector<Edge>& edges, int32_t fixed) {
  if (poses.size() < 2) return true;
  std::vector<Parameters> parameters;
  for (const Pose& pose : poses) parameters.push_back(ToParameters(pose));
  ceres::Problem problem;
  for (const Edge& edge : edges) {
    auto* cost = new ceres::AutoDiffCostFunction<EdgeCost, 6, 6, 6>(
        new EdgeCost(edge.motion, edge.rotationSigma, edge.shiftSigma));
    problem.AddResidualBlock(cost,
                             new ceres::CauchyLoss(1.0),
                             parameters[static_cast<size_t>(edge.from)].data(),
                             parameters[static_cast<size_t>(edge.to)].data());
  }
  for (Parameters& p : parameters) {
    if (!problem.HasParameterBlock(p.data())) problem.AddParameterBlock(p.data(), 6);
  }
  problem.SetParameterBlockConstant(parameters[static_cast<size_t>(fixed)].data());
  ceres::Solver::Options options;
  options.linear_solver_type = ceres::SPARSE_NORMAL_CHOLESKY;
  options.max_num_iterations = 100;
  options.num_threads = 1;  // the same bits on every run
  options.logging_type = ceres::SILENT;
  ceres::Solver::Summary summary;
  ceres::Solve(options, &problem, &summary);
  if (!summary.IsSolutionUsable()) return false;
  for (size_t i = 0; i < poses.size(); ++i) poses[i] = FromParameters(parameters[i]);
  for (Edge& edge : edges) edge.rejected = EdgeResidual(poses, edge) > kRejectSigmas;
  return true;
}

}  // namespace qorv::multiway
