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

// Steps of a walk over the target's neighbours before the tree takes over: a walk this long has
// met a motion the neighbours do not follow well.
constexpr int32_t kMaxWalk = 4;

float DistSq(const float* a, const float* b) {
  float d = 0.0f;
  for (int c = 0; c < 3; ++c) d += (a[c] - b[c]) * (a[c] - b[c]);
  return d;
}

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
    const float d = DistSq(query, tree.element(hint));
    if (d < maxSq) nearest = {d, hint};
  }
  tree.findNeighbors(query, nearest);
  distSq = nearest.bound;
  return nearest.index;
}

int32_t NearestTarget(const Cloud& target,
                      const PointKdTree& tree,
                      const float* query,
                      float maxSq,
                      int32_t hint,
                      float& distSq) {
  const int32_t slots = target.neighbourSlots;
  if (hint < 0 || slots == 0 || target.neighbours.empty())
    return NearestWithin(tree, query, maxSq, hint, distSq);
  int32_t best = hint;
  float bestSq = DistSq(query, tree.element(hint));
  for (int32_t step = 0; step < kMaxWalk; ++step) {
    const int32_t* next = target.neighbours.data() + static_cast<size_t>(best) * slots;
    if (slots < 2 || next[1] < 0) break;  // too few neighbours to trust a walk
    int32_t to = -1;
    for (int32_t k = 0; k < slots && next[k] >= 0; ++k) {
      const float d = DistSq(query, tree.element(next[k]));
      if (d < bestSq) {
        bestSq = d;
        to = next[k];
      }
    }
    if (to < 0) {
      if (!(bestSq < maxSq)) return -1;
      distSq = bestSq;
      return best;
    }
    best = to;
  }
  return NearestWithin(tree, query, maxSq, best, distSq);
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
