// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include <Eigen/Core>

namespace qorv::engine {

using Pose = Eigen::Matrix4d;

// Weighted least-squares rigid motion carrying from[i] onto to[i] (Kabsch, SVD in double, the
// reflection removed). weights may be empty (all 1). Identity when the total weight is zero.
Pose FitRigid(const std::vector<Eigen::Vector3d>& from,
              const std::vector<Eigen::Vector3d>& to,
              const std::vector<double>& weights);

// Rotation angle (radians) of a * b^-1, and how far apart the two motions carry the point `at`
// (a cloud's centre: far from the origin a small turn moves the translations a lot, not the cloud).
double RotationBetween(const Pose& a, const Pose& b);
double ShiftBetween(const Pose& a, const Pose& b, const Eigen::Vector3d& at);

}  // namespace qorv::engine
