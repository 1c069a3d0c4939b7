// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>

#include "engine/cloud.hpp"
#include "search/kd_tree.hpp"

namespace qorv::engine {

// The voxel edge at which the cloud keeps about `budget` occupied voxels, found by counting: a
// scanned surface holds N(v) ~ v^-2 voxels, so v <- v sqrt(N(v) / budget) converges in a few
// steps. 0 when the cloud has no more points than the budget (nothing to thin).
double VoxelForBudget(const Cloud& cloud, int32_t budget);

// Median distance from a point to its nearest other point, over an even sample of up to 2,000
// points of the tree's cloud: the data's own finest scale.
double MedianSpacing(const PointKdTree& tree);

}  // namespace qorv::engine
