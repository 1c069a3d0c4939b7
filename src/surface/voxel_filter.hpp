// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

namespace qorv {

// Thins count points on a grid of cubes of edge leafSize anchored at the cloud's minimum corner:
// from each occupied voxel the point nearest to the voxel's centre is kept, and the voxel with the
// largest key (x fastest, then y, then z) contributes nothing, so the result holds one point fewer
// than there are occupied voxels. Returns the kept positions in ascending order. A point on a
// voxel face belongs to the higher cell. Among points equally near a centre, the one with the
// lowest index is kept. Runs on the calling thread.
//
// Limits: points with a NaN or infinite coordinate are ignored (never kept, no influence on the
// grid). The result is empty when leafSize is not a positive finite number, when no point is
// finite, or when the grid cannot be represented: (max - min) / leafSize must stay below 2^31
// along x and y, and the number of cells nx * ny * nz must fit in 64 bits.
// Memory: 17 bytes a point (33 when the grid has more than 2^32 cells) plus the result.
std::vector<int32_t> VoxelFilter(const float* points, int32_t count, float leafSize);

}  // namespace qorv
