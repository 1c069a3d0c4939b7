// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "features/descriptor_layout.hpp"

namespace qorv {

// Kernels of the exhaustive descriptor matcher. Both find, for every query of a range, the first
// target at the strictly smallest DescriptorDistanceSq, starting from target 0's distance with
// index 0 (so a NaN distance to target 0 keeps target 0), and feed the cross-check minima when
// given them. They agree bit for bit; MatchDescriptorsExhaustive runs the SSE one where the
// processor has it (every x86-64 does), the portable one elsewhere.

// The SSE kernel works on targets repacked into blocks of kTargetLanes descriptors stored component
// by component, so that one vector instruction handles the same component of several targets; each
// lane still sums its own target's components in the reference order of DescriptorDistanceSq, so
// every distance is bit-identical to the scalar one.
constexpr int kTargetLanes = 8;

struct alignas(32) TargetBlock {
  float c[kDescriptorSize][kTargetLanes];
};

// For the cross check: per target, the smallest squared distance from any query (and which query
// that was) and the smallest from any other query. "Some query other than q is strictly closer to
// T than d" is then (nearestQuery[T] == q ? secondSq[T] : nearestSq[T]) < d, an O(1) test that
// replaces a scan over all queries per match. The distances are those the matching pass computes
// anyway, and NaN distances are never recorded, as they never compare below anything.
struct ColumnMinima {
  std::vector<float> nearestSq;
  std::vector<float> secondSq;
  std::vector<int32_t> nearestQuery;

  void reset(size_t size) {
    const float inf = std::numeric_limits<float>::infinity();
    nearestSq.assign(size, inf);
    secondSq.assign(size, inf);
    nearestQuery.assign(size, -1);
  }

  void offer(size_t target, float distSq, int32_t query) {
    if (distSq < nearestSq[target]) {
      secondSq[target] = nearestSq[target];
      nearestSq[target] = distSq;
      nearestQuery[target] = query;
    } else if (distSq < secondSq[target]) {
      secondSq[target] = distSq;
    }
  }

  // Folds in the minima over another, disjoint set of queries.
  void merge(const ColumnMinima& other) {
    for (size_t t = 0; t < nearestSq.size(); ++t) {
      if (other.nearestSq[t] < nearestSq[t]) {
        secondSq[t] = std::min(nearestSq[t], other.secondSq[t]);
        nearestSq[t] = other.nearestSq[t];
        nearestQuery[t] = other.nearestQuery[t];
      } else {
        secondSq[t] = std::min(secondSq[t], other.nearestSq[t]);
      }
    }
  }

  bool otherQueryCloser(int32_t target, int32_t query, float distSq) const {
    const size_t t = static_cast<size_t>(target);
    const float other = nearestQuery[t] == query ? secondSq[t] : nearestSq[t];
    return other < distSq;
  }
};

// Padding lanes hold NaN: their distances compare below nothing and never win.
std::vector<TargetBlock> PackTargets(const float* targets, int32_t count);

// Best target index and squared distance of queries [begin, end), written at their query index.
// columns (null: no cross check) receives every distance computed; it holds at least targetCount
// entries.
void MatchQueriesPortable(const float* queries,
                          int32_t begin,
                          int32_t end,
                          const float* targets,
                          int32_t targetCount,
                          ColumnMinima* columns,
                          int32_t* bestIndex,
                          float* bestDistSq);

#if defined(__SSE2__)
// The same on the blocks of PackTargets(targets, targetCount); columns then holds one entry per
// lane of the blocks, padding included.
// wide: use the AVX2 form of the kernel (the same bits, about twice as fast) where the
// processor has AVX2.
void MatchQueriesSse(const float* queries,
                     int32_t begin,
                     int32_t end,
                     const std::vector<TargetBlock>& blocks,
                     const float* targets,
                     ColumnMinima* columns,
                     int32_t* bestIndex,
                     float* bestDistSq,
                     bool wide = true);
#endif

}  // namespace qorv
