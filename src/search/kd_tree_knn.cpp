// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <cfloat>
#include <cstddef>

#include "search/kd_tree.hpp"
#include "search/kd_tree_traversal.hpp"

namespace qorv {
namespace {

// The k nearest, kept sorted in caller arrays of capacity k >= 1; among equal distances the later
// find is placed first. distSq[k - 1] must hold FLT_MAX before the search.
template <typename Index>
struct KnnResultSet {
  Index* indices;
  float* distSq;
  size_t capacity;
  size_t count = 0;

  float worstDist() const { return distSq[capacity - 1]; }
  void addPoint(Index index, float dist) {
    // The last slot's entry drops out of a full set, unless dist is beyond it; then entries
    // move up one until one below dist is reached.
    size_t i = count;
    if (i == capacity) {
      if (dist > distSq[i - 1]) return;
      --i;
    }
    for (; i > 0 && !(dist > distSq[i - 1]); --i) {
      distSq[i] = distSq[i - 1];
      indices[i] = indices[i - 1];
    }
    distSq[i] = dist;
    indices[i] = index;
    if (count != capacity) ++count;
  }
};

// The same set kept in one array of pairs on the stack, so that an entry moves in one step;
// copied out to the caller's arrays at the end, where it leaves the same contents.
template <typename Index, size_t Capacity>
struct PairedKnnResultSet {
  struct Entry {
    float distSq;
    Index index;
  };
  Entry entries[Capacity];
  size_t capacity;
  size_t count = 0;

  PairedKnnResultSet(size_t k, float boundSq) : capacity(k) { entries[k - 1].distSq = boundSq; }
  float worstDist() const { return entries[capacity - 1].distSq; }
  void addPoint(Index index, float dist) {
    size_t i = count;
    if (i == capacity) {
      if (dist > entries[i - 1].distSq) return;
      --i;
    }
    for (; i > 0 && !(dist > entries[i - 1].distSq); --i) entries[i] = entries[i - 1];
    entries[i].distSq = dist;
    entries[i].index = index;
    if (count != capacity) ++count;
  }
};

}  // namespace

template <int Dim, typename Index>
size_t KdTree<Dim, Index>::knnSearch(const float* query,
                                     size_t k,
                                     Index* indices,
                                     float* distSq) const {
  return knnSearchWithin(query, k, FLT_MAX, indices, distSq);
}

template <int Dim, typename Index>
size_t KdTree<Dim, Index>::knnSearchWithin(
    const float* query, size_t k, float boundSq, Index* indices, float* distSq) const {
  if (k == 0) return 0;  // no last slot to initialise
  distSq[k - 1] = boundSq;
  constexpr size_t kPairedMaximum = 64;
  if (k <= kPairedMaximum) {
    PairedKnnResultSet<Index, kPairedMaximum> set(k, boundSq);
    findNeighbors(query, set);
    for (size_t i = 0; i < set.count; ++i) {
      distSq[i] = set.entries[i].distSq;
      indices[i] = set.entries[i].index;
    }
    return set.count;
  }
  KnnResultSet<Index> set{indices, distSq, k};
  findNeighbors(query, set);
  return set.count;
}

template size_t KdTree<3, int32_t>::knnSearch(const float*, size_t, int32_t*, float*) const;
template size_t KdTree<3, int32_t>::knnSearchWithin(
    const float*, size_t, float, int32_t*, float*) const;
template size_t KdTree<3, uint64_t>::knnSearch(const float*, size_t, uint64_t*, float*) const;
template size_t KdTree<33, int32_t>::knnSearch(const float*, size_t, int32_t*, float*) const;

}  // namespace qorv
