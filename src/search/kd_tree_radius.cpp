// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <algorithm>
#include <utility>
#include <vector>

#include "search/kd_tree.hpp"
#include "search/kd_tree_traversal.hpp"

namespace qorv {
namespace {

// Collects every offered element: the radius bound never tightens.
struct RadiusResultSet {
  float radiusSq;
  RadiusResult& out;

  float worstDist() const { return radiusSq; }
  template <typename Index>
  void addPoint(Index index, float distSq) {
    out.indices.push_back(static_cast<int32_t>(index));
    out.distSq.push_back(distSq);
  }
};

}  // namespace

template <int Dim, typename Index>
float KdTree<Dim, Index>::boxDistSq(const float* query) const {
  float distSq = 0.0f;
  for (int d = 0; d < Dim; ++d) {
    if (query[d] < rootBox_[d].low) {
      const float diff = query[d] - rootBox_[d].low;
      distSq += diff * diff;
    } else if (query[d] > rootBox_[d].high) {
      const float diff = query[d] - rootBox_[d].high;
      distSq += diff * diff;
    }
  }
  return distSq;
}

template <int Dim, typename Index>
void KdTree<Dim, Index>::radiusSearch(const float* query,
                                      float radiusSq,
                                      RadiusResult& result,
                                      bool sorted) const {
  if (root_ == nullptr) return;
  if (boxDistSq(query) > radiusSq) return;
  const size_t first = result.size();
  RadiusResultSet set{radiusSq, result};
  findNeighbors(query, set);
  const size_t n = result.size() - first;
  if (!sorted || n < 2) return;
  // The nearest (first among equals) goes to the front; the rest are ordered by distance with
  // equal distances keeping their order, as an insertion sort moving past strictly greater
  // entries would leave them.
  int32_t* idx = result.indices.data() + first;
  float* dist = result.distSq.data() + first;
  size_t minPos = 0;
  for (size_t i = 1; i < n; ++i) {
    if (dist[i] < dist[minPos]) minPos = i;
  }
  std::swap(idx[0], idx[minPos]);
  std::swap(dist[0], dist[minPos]);
  std::vector<std::pair<float, int32_t>> rest(n - 1);
  for (size_t i = 1; i < n; ++i) rest[i - 1] = {dist[i], idx[i]};
  std::stable_sort(
      rest.begin(), rest.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  for (size_t i = 1; i < n; ++i) {
    dist[i] = rest[i - 1].first;
    idx[i] = rest[i - 1].second;
  }
}

template float KdTree<3, int32_t>::boxDistSq(const float*) const;
template float KdTree<3, uint64_t>::boxDistSq(const float*) const;
template float KdTree<33, int32_t>::boxDistSq(const float*) const;
template void KdTree<3, int32_t>::radiusSearch(const float*, float, RadiusResult&, bool) const;
template void KdTree<3, uint64_t>::radiusSearch(const float*, float, RadiusResult&, bool) const;
template void KdTree<33, int32_t>::radiusSearch(const float*, float, RadiusResult&, bool) const;

}  // namespace qorv
