// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "engine/cloud.hpp"

namespace qorv::engine {

// A voxel-averaged cloud: one point per occupied voxel, the mean of the points inside it (each
// input point weighted by weights[i], or 1), normals averaged and renormalised when the input has
// them. Voxels come out in the order their first point has in the input; voxelWeights receives the
// summed weight of each voxel. Deterministic: the points of a voxel are added in index order.
Cloud VoxelAverage(const Cloud& cloud,
                   const std::vector<float>& weights,
                   double voxel,
                   std::vector<float>& voxelWeights);

// Number of voxels of edge `voxel` that hold at least one of the points.
int64_t CountOccupiedVoxels(const Cloud& cloud, double voxel);

// Occupied voxels of edge finest x 2^k on the grid CountOccupiedVoxels uses, for k = 0, 1, ...
// until one voxel holds every point: counts[k]. One sort of the points' cell codes at the finest
// edge does for every level, since a coarser cell's code is a prefix of its points' codes.
// finest must be at least MinimumVoxelFor(cloud). Empty for an empty cloud.
std::vector<int64_t> OccupiedVoxelLadder(const Cloud& cloud, double finest);

// The smallest voxel edge that keeps the cells of the grid within 21 bits an axis over the cloud.
double MinimumVoxelFor(const Cloud& cloud);

}  // namespace qorv::engine
