// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>

#include "engine/cloud.hpp"
#include "engine/rigid_fit.hpp"
#include "search/kd_tree.hpp"

namespace qorv::engine {

struct IcpParams {
  float maxDistance = 0.0f;  // pairs farther apart are not used
  double kernel = 0.0;       // Geman-McClure scale of the point-to-plane residual
  int32_t maxIterations = 20;
  double stopAngle = 1e-4;  // radians: an update smaller than this and
  double stopShift = 0.0;   // this shift ends the loop
};

struct IcpOutcome {
  Pose pose = Pose::Identity();
  int32_t iterations = 0;
  int32_t pairs = 0;           // pairs used in the last step
  double residualScale = 0.0;  // weighted RMS point-to-plane residual of the last step
};

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
