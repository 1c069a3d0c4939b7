// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <memory>

#include <Eigen/Core>

#include "engine/cloud.hpp"
#include "engine/rigid_fit.hpp"
#include "search/kd_tree.hpp"

namespace qorv::engine {

// How dense refinement pairs and weighs points. Each method is one refiner, listed in refine.cpp.
enum class RefineMethod : int32_t {
  kPointToPlane = 0,  // residual along the target's normal
  kGeneralized = 1,   // plane-to-plane: both clouds' local covariances (generalized ICP)
};

struct IcpParams {
  float maxDistance = 0.0f;  // pairs farther apart are not used
  double kernel = 0.0;       // Geman-McClure scale of the residual (a length)
  int32_t maxIterations = 20;
  double stopAngle = 1e-4;  // radians: an update smaller than this and
  double stopShift = 0.0;   // this shift ends the loop
};

struct IcpOutcome {
  Pose pose = Pose::Identity();
  int32_t iterations = 0;
  int32_t pairs = 0;           // pairs used in the last step
  double residualScale = 0.0;  // weighted RMS residual (a length) of the last step
};

// What a refiner keeps about one cloud between its calls (the per-point covariances of generalized
// ICP), made once per cloud by Refiner::Describe.
class CloudExtras {
 public:
  virtual ~CloudExtras() = default;
};

// A cloud as refinement reads it: points (and normals when the engine made them), the tree that
// indexes the points, and what the refiner's Describe made of it (null when nothing yet).
struct RefineCloud {
  const Cloud* cloud = nullptr;
  const PointKdTree* tree = nullptr;
  const CloudExtras* extras = nullptr;
};

// Pulls a source cloud onto a target cloud from an initial pose. Implementations are stateless and
// may be called from several threads at once.
class Refiner {
 public:
  virtual ~Refiner() = default;

  // What Refine wants of a cloud beyond its points, tree and normals, made once so that every call
  // on the cloud shares it; null when the refiner needs nothing (then calling it costs nothing).
  virtual std::unique_ptr<CloudExtras> Describe(const Cloud& cloud, const PointKdTree& tree) const {
    (void)cloud;
    (void)tree;
    return nullptr;
  }

  // Whether dense refinement follows this refiner's pass with a second one narrowed to the
  // residual it measured. A refiner that weighs every pair by both surfaces settles on its own;
  // narrowing it only follows noise both scans share (a depth camera's, fixed in its frame).
  virtual bool Narrows() const { return true; }

  // The pose carrying source onto target. A refiner given clouds without its extras makes them for
  // the call.
  virtual IcpOutcome Refine(const RefineCloud& source,
                            const RefineCloud& target,
                            const Pose& initial,
                            const IcpParams& params) const = 0;
};

// The refiner of a method (one instance each, shared); null for a value no refiner is listed for.
const Refiner* FindRefiner(RefineMethod method);
// Its short name ("plane", "gicp"), as the tools and bindings spell it; "" for an unknown method.
const char* RefineName(RefineMethod method);

// Factories of the listed refiners, each defined in its own file.
std::unique_ptr<Refiner> MakePointToPlaneRefiner();
std::unique_ptr<Refiner> MakeGeneralizedRefiner();

// The nearest target point to a moved source point strictly within sqrt(maxSq), or -1 (distSq
// then unset), by the exact traversal of the tree. `hint` is a target point that was nearest in the
// previous step (or -1): its distance bounds the search from the start, so that most of the tree
// is pruned; an equally near point found later does not replace it.
int32_t NearestWithin(
    const PointKdTree& tree, const float* query, float maxSq, int32_t hint, float& distSq);

// The same answer found from the last step's nearest point by a walk over the neighbours the
// target's normals were estimated from (target.neighbours), to a point none of whose neighbours is
// nearer; NearestWithin when there is no last point, no neighbours to walk, or the walk is long.
// The walk's answer is the nearest point near the last one, not always the tree's.
int32_t NearestTarget(const Cloud& target,
                      const PointKdTree& tree,
                      const float* query,
                      float maxSq,
                      int32_t hint,
                      float& distSq);

// Shared by the refiners: the rigid motion of a small update x = (rotation vector, shift).
Pose IncrementOf(const Eigen::Matrix<double, 6, 1>& x);

// Robust point-to-plane ICP: each step pairs every moved source point with its nearest target point
// within maxDistance, weights the residual n . (T p - q) by Geman-McClure and solves the linearised
// 6 x 6 system (summed in fixed blocks, so the same bits for any thread count). targetTree indexes
// target.points; target must have normals.
IcpOutcome RefinePointToPlane(const Cloud& source,
                              const Cloud& target,
                              const PointKdTree& targetTree,
                              const Pose& initial,
                              const IcpParams& params);

}  // namespace qorv::engine
