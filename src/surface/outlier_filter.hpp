// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/parallel_for.hpp"
#include "search/kd_tree.hpp"

namespace qorv {

// Statistical outlier removal over the elements of the tree's array. Each point is scored by the
// sum of the roots of its meanK + 1 nearest squared distances (itself included, at 0) divided by
// meanK; the threshold is mean + stdMul * deviation of the scores with the smallest and the
// largest count / 16 left out, in double. The result is the prefix 0, 1, ..., m - 1 of positions,
// m being the number of scores strictly below the threshold: it says how many points pass, not
// which. A single point, or a negative variance, gives a NaN threshold and an empty result.
//
// When fewer than meanK + 1 points are indexed, the slots a search cannot fill keep what the
// previous point of the same run left there (zero at first) and the last one holds FLT_MAX, whose
// root dominates the score. Single- and multi-threaded executions give identical scores: a worker
// starting inside the range first recreates the slots that the points before it would have left.
// Scratch per worker is min(meanK + 1, indexed points + 1) entries, which yields the same sums.
// meanK must be at least 1.
std::vector<int32_t> OutlierFilter(const PointKdTree& tree,
                                   int32_t meanK,
                                   float stdMul,
                                   const Execution& exec);

// The unsorted score of every element, as used by OutlierFilter.
std::vector<float> OutlierScores(const PointKdTree& tree, int32_t meanK, const Execution& exec);

// Builds the tree over count points and runs the filter above.
std::vector<int32_t> OutlierFilter(
    const float* points, int32_t count, int32_t meanK, float stdMul, const Execution& exec);

}  // namespace qorv
