// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>

#include "runtime/parallel_for.hpp"
#include "search/kd_tree.hpp"

namespace qorv {

// One unit normal per element of the tree's array, written to normals (tree.count() x 3 floats).
// Each normal comes from the 3 x 3 scatter matrix of the offsets p_j - p_i of the neighbours
// strictly inside radius (not centred on their mean): its smallest-magnitude eigenvalue by the
// closed trigonometric form, and the eigenvector solved with z fixed at 1, so every normal has
// z > 0. Fewer than two neighbours, a NaN point or a degenerate neighbourhood give (0, 0, 0).
// Only radius * radius is used: 0 or NaN finds nothing, a negative radius acts as its magnitude.
// Single- and multi-threaded executions give identical bits. normals must not alias the points.
void EstimateNormals(const PointKdTree& tree, float radius, const Execution& exec, float* normals);

// Builds the tree over count points and runs EstimateNormals. No orientation is propagated
// between neighbours: the estimated normals all face +z.
void ComputeNormals(
    const float* points, int32_t count, float radius, const Execution& exec, float* normals);

// Fresh normals turned to agree with the caller's: normals holds the caller's normals on entry;
// each new normal is negated when its dot product with the caller's normal at the same index is
// below 0 (0 and NaN products keep it), then replaces it.
void ReComputeNormals(
    const float* points, int32_t count, float radius, const Execution& exec, float* normals);

}  // namespace qorv
