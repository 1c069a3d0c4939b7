// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/parallel_for.hpp"
#include "search/kd_tree.hpp"

namespace qorv {

// Boundary points of a surface: positions, ascending, of the points whose neighbours strictly
// inside radius leave an angular gap wider than one radian around them in the plane of the two
// dominant eigenvectors of their offset scatter matrix. Neighbours within radius / 10 shape that
// matrix but give no angle; a point needs at least two farther neighbours to be considered.
// NaN points are never edges. Single- and multi-threaded executions give the same list.
std::vector<int32_t> EdgeFilter(const PointKdTree& tree, float radius, const Execution& exec);

// Builds the tree over count points and runs the filter above.
std::vector<int32_t> EdgeFilter(const float* points,
                                int32_t count,
                                float radius,
                                const Execution& exec);

}  // namespace qorv
