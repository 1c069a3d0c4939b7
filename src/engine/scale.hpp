// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>

#include "engine/cloud.hpp"
#include "search/kd_tree.hpp"

namespace qorv::engine {

// The voxel edge at which the cloud keeps about `budget` occupied voxels, found by counting every
// point: the occupied voxels at every power-of-two multiple of a fine edge (one sort), the
// budget's place on that log-log curve, and one count there to correct it. Deterministic,
// whatever the order of the points or the thread count. 0 when the cloud has no more points than
// the budget (nothing to thin).
double VoxelForBudget(const Cloud& cloud, int32_t budget);

// Median distance from a point to its nearest other point, over an even sample of up to 2,000
// points of the tree's cloud: the data's own finest scale.
double MedianSpacing(const PointKdTree& tree);

}  // namespace qorv::engine
