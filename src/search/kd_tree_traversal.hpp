// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <algorithm>

#include "search/kd_tree.hpp"

namespace qorv {

// The exact traversal behind every search of KdTree: included by the radius and k-nearest searches
// and by code that runs findNeighbors with a result set of its own.

template <int Dim, typename Index>
template <typename ResultSet>
void KdTree<Dim, Index>::findNeighbors(const float* query, ResultSet& result) const {
  if (root_ == nullptr) return;
  float perDimDist[Dim];
  float minDistSq = 0.0f;
  for (int d = 0; d < Dim; ++d) {
    perDimDist[d] = 0.0f;
    if (query[d] < rootBox_[d].low) {
      const float diff = query[d] - rootBox_[d].low;
      perDimDist[d] = diff * diff;
    } else if (query[d] > rootBox_[d].high) {
      const float diff = query[d] - rootBox_[d].high;
      perDimDist[d] = diff * diff;
    }
    minDistSq += perDimDist[d];
  }
  if constexpr (Dim <= kLoopMaxDim) {
    if (depth_ <= kLoopMaxDepth) {
      searchLoop(query, perDimDist, minDistSq, result);
      return;
    }
  }
  searchLevel(root_, query, perDimDist, minDistSq, result);
}

// The traversal of searchLevel without recursion: the far side of every inner node on the way
// down is stacked with the bound it would be entered with, and is taken up (or skipped, by the
// same test against the result's bound at that moment) once the near side is done, so nodes are
// visited and elements offered in the same order.
template <int Dim, typename Index>
template <typename ResultSet>
void KdTree<Dim, Index>::searchLoop(const float* query,
                                    const float* rootPerDimDist,
                                    float rootMinDistSq,
                                    ResultSet& result) const {
  struct Pending {
    const Node* node;
    float minDistSq;
    float perDimDist[Dim];
  };
  Pending stack[kLoopMaxDepth];
  int top = 0;
  float perDimDist[Dim];
  std::copy(rootPerDimDist, rootPerDimDist + Dim, perDimDist);
  float minDistSq = rootMinDistSq;
  const Node* node = root_;
  for (;;) {
    while (node->child1 != nullptr || node->child2 != nullptr) {
      const Split split = splitFor(node, query);
      const Index divfeat = node->inner.divfeat;
      Pending& far = stack[top++];
      far.node = split.farChild;
      far.minDistSq = minDistSq + split.cutDist - perDimDist[divfeat];
      std::copy(perDimDist, perDimDist + Dim, far.perDimDist);
      far.perDimDist[divfeat] = split.cutDist;
      node = split.nearChild;
    }
    searchLeaf(node, query, result);
    for (;;) {
      if (top == 0) return;
      const Pending& far = stack[--top];
      if (result.worstDist() >= far.minDistSq) {
        node = far.node;
        minDistSq = far.minDistSq;
        std::copy(far.perDimDist, far.perDimDist + Dim, perDimDist);
        break;
      }
    }
  }
}

// The side of an inner node's cut the query lies on is searched first (ties go to the right),
// and the far side lies cutDist away along the split dimension.
template <int Dim, typename Index>
typename KdTree<Dim, Index>::Split KdTree<Dim, Index>::splitFor(const Node* node,
                                                                const float* query) const {
  const float val = query[node->inner.divfeat];
  const float cut = (node->inner.divlow + node->inner.divhigh) * 0.5f;
  if (cut > val) {
    const float diff = val - node->inner.divhigh;
    return Split{node->child1, node->child2, diff * diff};
  }
  const float diff = val - node->inner.divlow;
  return Split{node->child2, node->child1, diff * diff};
}

template <int Dim, typename Index>
template <typename ResultSet>
void KdTree<Dim, Index>::searchLeaf(const Node* node, const float* query, ResultSet& result) const {
  const float worst = result.worstDist();
  const Index left = node->leaf.left;
  const Index right = node->leaf.right;
  const float* e = leafPoints_.data() + static_cast<size_t>(left) * Dim;
  if constexpr (Dim <= kLoopMaxDim) {
    // A leaf's distances first, without branches, then the offers.
    constexpr Index kChunk = 16;
    float dist[kChunk];
    for (Index start = left; start < right; start += kChunk) {
      const Index n = std::min<Index>(kChunk, right - start);
      for (Index j = 0; j < n; ++j) {
        float distSq = 0.0f;
        for (int d = 0; d < Dim; ++d) {
          const float diff = query[d] - e[static_cast<size_t>(j) * Dim + static_cast<size_t>(d)];
          distSq += diff * diff;
        }
        dist[j] = distSq;
      }
      for (Index j = 0; j < n; ++j) {
        if (worst > dist[j]) result.addPoint(indices_[static_cast<size_t>(start + j)], dist[j]);
      }
      e += static_cast<size_t>(n) * Dim;
    }
    return;
  }
  for (Index i = left; i < right; ++i, e += Dim) {
    float distSq = 0.0f;
    for (int d = 0; d < Dim; ++d) {
      const float diff = query[d] - e[d];
      distSq += diff * diff;
    }
    if (worst > distSq) result.addPoint(indices_[static_cast<size_t>(i)], distSq);
  }
}

template <int Dim, typename Index>
template <typename ResultSet>
void KdTree<Dim, Index>::searchLevel(const Node* node,
                                     const float* query,
                                     float* perDimDist,
                                     float minDistSq,
                                     ResultSet& result) const {
  if (node->child1 == nullptr && node->child2 == nullptr) {
    searchLeaf(node, query, result);
    return;
  }
  const Split split = splitFor(node, query);
  const Index divfeat = node->inner.divfeat;
  searchLevel(split.nearChild, query, perDimDist, minDistSq, result);
  const float saved = perDimDist[divfeat];
  const float newMin = minDistSq + split.cutDist - saved;
  perDimDist[divfeat] = split.cutDist;
  if (result.worstDist() >= newMin) {
    searchLevel(split.farChild, query, perDimDist, newMin, result);
  }
  perDimDist[divfeat] = saved;
}

}  // namespace qorv
