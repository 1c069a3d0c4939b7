// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/refine.hpp"

#include <cmath>

#include <Eigen/Geometry>

#include "engine/listing.hpp"
#include "search/kd_tree_traversal.hpp"

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

namespace {

// The one nearest element below a bound that shrinks as nearer ones are offered.
struct NearestBelow {
  float bound;
  int32_t index;
  float worstDist() const { return bound; }
  void addPoint(int32_t i, float distSq) {
    if (distSq < bound) {
      bound = distSq;
      index = i;
    }
  }
};

}  // namespace

int32_t NearestWithin(
    const PointKdTree& tree, const float* query, float maxSq, int32_t hint, float& distSq) {
  NearestBelow nearest{maxSq, -1};
  if (hint >= 0) {
    const float* q = tree.element(hint);
    float d = 0.0f;
    for (int c = 0; c < 3; ++c) d += (query[c] - q[c]) * (query[c] - q[c]);
    if (d < maxSq) nearest = {d, hint};
  }
  tree.findNeighbors(query, nearest);
  distSq = nearest.bound;
  return nearest.index;
}

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
