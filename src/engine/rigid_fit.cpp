// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/rigid_fit.hpp"

#include <algorithm>
#include <cmath>

#include <Eigen/LU>
#include <Eigen/SVD>

namespace qorv::engine {

Pose FitRigid(const std::vector<Eigen::Vector3d>& from,
              const std::vector<Eigen::Vector3d>& to,
              const std::vector<double>& weights) {
  Pose pose = Pose::Identity();
  double total = 0.0;
  Eigen::Vector3d meanFrom = Eigen::Vector3d::Zero(), meanTo = Eigen::Vector3d::Zero();
  for (size_t i = 0; i < from.size(); ++i) {
    const double w = weights.empty() ? 1.0 : weights[i];
    total += w;
    meanFrom += w * from[i];
    meanTo += w * to[i];
  }
  if (!(total > 0.0)) return pose;
  meanFrom /= total;
  meanTo /= total;
  Eigen::Matrix3d cross = Eigen::Matrix3d::Zero();
  for (size_t i = 0; i < from.size(); ++i) {
    const double w = weights.empty() ? 1.0 : weights[i];
    cross.noalias() += w * (to[i] - meanTo) * (from[i] - meanFrom).transpose();
  }
  Eigen::JacobiSVD<Eigen::Matrix3d> svd(cross, Eigen::ComputeFullU | Eigen::ComputeFullV);
  Eigen::Matrix3d fix = Eigen::Matrix3d::Identity();
  if ((svd.matrixU() * svd.matrixV().transpose()).determinant() < 0.0) fix(2, 2) = -1.0;
  const Eigen::Matrix3d rotation = svd.matrixU() * fix * svd.matrixV().transpose();
  pose.topLeftCorner<3, 3>() = rotation;
  pose.topRightCorner<3, 1>() = meanTo - rotation * meanFrom;
  return pose;
}

double RotationBetween(const Pose& a, const Pose& b) {
  const Eigen::Matrix3d r = a.topLeftCorner<3, 3>() * b.topLeftCorner<3, 3>().transpose();
  return std::acos(std::clamp((r.trace() - 1.0) / 2.0, -1.0, 1.0));
}

double ShiftBetween(const Pose& a, const Pose& b, const Eigen::Vector3d& at) {
  return ((a - b).topLeftCorner<3, 3>() * at + (a - b).topRightCorner<3, 1>()).norm();
}

}  // namespace qorv::engine
