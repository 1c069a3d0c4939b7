// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/compatibility.hpp"

#include <algorithm>
#include <cmath>

#include "runtime/parallel_for.hpp"

namespace qorv::engine {

bool CompatibilityGraph::linked(int32_t i, int32_t j) const {
  const int32_t* first = begin(i);
  const int32_t* last = first + degree(i);
  return std::binary_search(first, last, j);
}

CompatibilityGraph BuildCompatibility(const Cloud& source,
                                      const Cloud& target,
                                      const std::vector<Match>& matches,
                                      float tolerance,
                                      float minLength) {
  const int32_t m = static_cast<int32_t>(matches.size());
  Eigen::Matrix3Xf s(3, m), t(3, m);
  for (int32_t i = 0; i < m; ++i) {
    s.col(i) = source.points.col(matches[static_cast<size_t>(i)].source);
    t.col(i) = target.points.col(matches[static_cast<size_t>(i)].target);
  }
  // Matches a block; each match's list is its own, so the size only splits the work.
  constexpr int32_t kBlock = 32;
  const int32_t blocks = (m + kBlock - 1) / kBlock;
  std::vector<std::vector<int32_t>> lists(static_cast<size_t>(m));
  const float minSq = minLength * minLength;
  ForBlocks(blocks, [&](int32_t block) {
    for (int32_t i = block * kBlock; i < std::min(m, (block + 1) * kBlock); ++i) {
      std::vector<int32_t>& list = lists[static_cast<size_t>(i)];
      const Eigen::Vector3f si = s.col(i), ti = t.col(i);
      for (int32_t j = 0; j < m; ++j) {
        if (j == i) continue;
        const float ds = (s.col(j) - si).squaredNorm();
        const float dt = (t.col(j) - ti).squaredNorm();
        if (ds < minSq || dt < minSq) continue;
        if (std::abs(std::sqrt(ds) - std::sqrt(dt)) < tolerance) list.push_back(j);
      }
    }
  });
  CompatibilityGraph graph;
  graph.offsets.assign(static_cast<size_t>(m) + 1, 0);
  for (int32_t i = 0; i < m; ++i) {
    graph.offsets[static_cast<size_t>(i) + 1] =
        graph.offsets[static_cast<size_t>(i)] +
        static_cast<int64_t>(lists[static_cast<size_t>(i)].size());
  }
  graph.neighbours.reserve(static_cast<size_t>(graph.offsets.back()));
  for (std::vector<int32_t>& list : lists) {
    graph.neighbours.insert(graph.neighbours.end(), list.begin(), list.end());
    std::vector<int32_t>().swap(list);
  }
  return graph;
}

}  // namespace qorv::engine
