// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>

#include "runtime/parallel_for.hpp"
#include "search/kd_tree.hpp"

namespace qorv {

// Replaces every element of the tree's array by the average of the elements strictly inside
// radius around it (itself included), weighted by a Gaussian of sigma = radius / 3.46087178201605,
// and writes it to smoothed (tree.count() x 3 floats, which must not overlap the tree's points).
// A point finding nothing (a NaN point, radius 0 or NaN) comes out as NaN; a negative radius acts
// as its magnitude. Single- and multi-threaded executions give identical bits. Both tree index
// widths give the same result.
void GaussianFilter(const PointKdTree& tree, float radius, const Execution& exec, float* smoothed);
void GaussianFilter(const PointKdTree64& tree,
                    float radius,
                    const Execution& exec,
                    float* smoothed);

// Builds the tree over count points and runs the filter above.
void GaussianFilter(
    const float* points, int32_t count, float radius, const Execution& exec, float* smoothed);

}  // namespace qorv
