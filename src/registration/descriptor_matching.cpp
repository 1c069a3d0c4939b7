// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/descriptor_matching.hpp"

#include <cmath>
#include <vector>

#include "registration/descriptor_kernels.hpp"

namespace qorv {

void MatchDescriptorsExhaustive(const float* targets,
                                int32_t targetCount,
                                const float* queries,
                                int32_t queryCount,
                                bool crossCheck,
                                const Execution& exec,
                                int32_t* matchIndices,
                                float* matchDistances) {
  if (targetCount < 1 || queryCount < 1) return;
#if defined(__SSE2__)
  const std::vector<TargetBlock> blocks = PackTargets(targets, targetCount);
#endif
  const size_t columnCount =
      (static_cast<size_t>(targetCount) + kTargetLanes - 1) / kTargetLanes * kTargetLanes;
  std::vector<ColumnMinima> columns(crossCheck ? static_cast<size_t>(exec.slots()) : 0);
  for (ColumnMinima& slot : columns) slot.reset(columnCount);
  std::vector<float> bestDistSq(static_cast<size_t>(queryCount));

  RunFor(exec, 0, queryCount, [&](int32_t begin, int32_t end, int32_t slot) {
    ColumnMinima* minima = crossCheck ? &columns[static_cast<size_t>(slot)] : nullptr;
#if defined(__SSE2__)
    MatchQueriesSse(queries, begin, end, blocks, targets, minima, matchIndices, bestDistSq.data());
#else
    MatchQueriesPortable(
        queries, begin, end, targets, targetCount, minima, matchIndices, bestDistSq.data());
#endif
  });

  if (crossCheck) {
    for (size_t s = 1; s < columns.size(); ++s) columns[0].merge(columns[s]);
    for (int32_t q = 0; q < queryCount; ++q) {
      if (columns[0].otherQueryCloser(matchIndices[q], q, bestDistSq[static_cast<size_t>(q)])) {
        matchIndices[q] = -1;
      }
    }
  }
  if (matchDistances != nullptr) {
    for (int32_t q = 0; q < queryCount; ++q) {
      matchDistances[q] = std::sqrt(bestDistSq[static_cast<size_t>(q)]);
    }
  }
}

}  // namespace qorv
