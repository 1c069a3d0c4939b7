// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <algorithm>
#include <vector>

#include "registration/descriptor_matching.hpp"
#include "search/kd_tree.hpp"

namespace qorv {

void MatchDescriptorsKnn(const float* targets,
                         int32_t targetCount,
                         const float* queries,
                         int32_t queryCount,
                         int32_t k,
                         const Execution& exec,
                         int32_t* matchIndices,
                         float* matchDistances) {
  if (targetCount < 1 || queryCount < 1 || k < 1) return;
  const DescriptorKdTree tree(targets, targetCount, 10);
  const size_t width = static_cast<size_t>(k);
  // Without caller distances, the search keeps its distances in a scratch row. More slots than
  // indexed targets can never be filled, and a row of that many slots yields the same indices
  // (the bound stays FLT_MAX until every target is in), so the scratch never exceeds the target
  // count whatever k is.
  const size_t scratchWidth = std::min(width, tree.size());
  std::vector<std::vector<float>> scratch(matchDistances ? 0 : static_cast<size_t>(exec.slots()));

  RunFor(exec, 0, queryCount, [&](int32_t begin, int32_t end, int32_t slot) {
    for (int32_t q = begin; q < end; ++q) {
      const float* query = queries + static_cast<size_t>(q) * kDescriptorSize;
      int32_t* indices = matchIndices + static_cast<size_t>(q) * width;
      if (matchDistances != nullptr) {
        tree.knnSearch(query, width, indices, matchDistances + static_cast<size_t>(q) * width);
      } else if (scratchWidth > 0) {
        std::vector<float>& distSq = scratch[static_cast<size_t>(slot)];
        distSq.resize(scratchWidth);
        tree.knnSearch(query, scratchWidth, indices, distSq.data());
      }
    }
  });
}

}  // namespace qorv
