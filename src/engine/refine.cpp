// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/refine.hpp"

#include <cmath>

#include <Eigen/Geometry>

#include "engine/listing.hpp"

namespace qorv::engine {
namespace {

// Every refiner the engine knows. A new one is a file defining its factory and a line here.
const Listed<Refiner, RefineMethod> kRefiners[] = {
    {RefineMethod::kPointToPlane, "plane", &MakePointToPlaneRefiner},
    {RefineMethod::kGeneralized, "gicp", &MakeGeneralizedRefiner},
};

}  // namespace

const Refiner* FindRefiner(RefineMethod method) { return FindListed(kRefiners, method); }

const char* RefineName(RefineMethod method) { return ListedName(kRefiners, method); }

Pose IncrementOf(const Eigen::Matrix<double, 6, 1>& x) {
  Pose step = Pose::Identity();
  const Eigen::Vector3d omega = x.head<3>();
  const double angle = omega.norm();
  if (angle > 0.0)
    step.topLeftCorner<3, 3>() = Eigen::AngleAxisd(angle, omega / angle).toRotationMatrix();
  step.topRightCorner<3, 1>() = x.tail<3>();
  return step;
}

}  // namespace qorv::engine
