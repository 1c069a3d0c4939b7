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

// Rotation angle (radians) of a * b^-1 and the distance of their translations.
double RotationBetween(const Pose& a, const Pose& b);
double TranslationBetween(const Pose& a, const Pose& b);

}  // namespace qorv::engine
