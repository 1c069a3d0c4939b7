// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <algorithm>
#include <array>
#include <cfloat>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "search/node_pool.hpp"

namespace qorv {

// A node is a leaf when both children are null; then `leaf` holds the range [left, right) of
// positions in the tree's index array. An inner node splits dimension divfeat between divlow (the
// largest coordinate of the left subtree) and divhigh (the smallest of the right subtree).
template <typename Index>
struct KdNode {
  struct Leaf {
    Index left;
    Index right;
  };
  struct Inner {
    Index divfeat;
    float divlow;
    float divhigh;
  };
  union {
    Leaf leaf;
    Inner inner;
  };
  KdNode* child1;
  KdNode* child2;
};

// Squared distances of radius-search results, with the element positions beside them.
struct RadiusResult {
  std::vector<int32_t> indices;
  std::vector<float> distSq;

  void clear() {
    indices.clear();
    distSq.clear();
  }
  size_t size() const { return indices.size(); }
};

// KD-tree over `count` elements of Dim floats each, stored contiguously by the caller (the tree
// keeps a pointer; element() and data() read the caller's array). Searches read a copy of the
// indexed elements laid out in leaf order, taken at build, so that a leaf is one contiguous run
// of memory. Elements with a NaN coordinate are left out. Splits
// are at the middle of the widest side of the box; leaves hold at most leafMaxSize elements.
//
// Searches use squared Euclidean distances in float and are exact. A radius search accepts
// elements strictly inside the radius; a k-nearest search puts later finds first among equal
// distances. Any number of threads may search one built tree at once.
template <int Dim, typename Index>
class KdTree {
 public:
  using Node = KdNode<Index>;
  using Pool = KdTreeNodePool<Node>;
  struct Interval {
    float low;
    float high;
  };
  using Box = std::array<Interval, Dim>;
  static constexpr int kDim = Dim;
  // Searches in trees of at most kLoopMaxDepth levels of low-dimensional elements run without
  // recursion, carrying the per-dimension distances of every stacked far side.
  static constexpr int kLoopMaxDim = 4;
  static constexpr int kLoopMaxDepth = 64;

  KdTree() = default;
  KdTree(const float* data, int64_t count, Index leafMaxSize = 10) {
    build(data, count, leafMaxSize);
  }
  ~KdTree() { destroy(); }
  KdTree(const KdTree&) = delete;
  KdTree& operator=(const KdTree&) = delete;

  void build(const float* data, int64_t count, Index leafMaxSize = 10);
  void destroy() noexcept;

  bool empty() const { return root_ == nullptr; }
  const float* data() const { return data_; }
  int64_t count() const { return count_; }
  // Number of indexed (NaN-free) elements.
  size_t size() const { return indices_.size(); }
  const Box& rootBox() const { return rootBox_; }
  const Node* root() const { return root_; }
  const std::vector<Index>& indices() const { return indices_; }
  const float* element(Index i) const { return data_ + static_cast<size_t>(i) * Dim; }

  // Squared distance from query to the bounding box of all indexed elements.
  float boxDistSq(const float* query) const;

  // Appends every element strictly within sqrt(radiusSq) of the query, in traversal order, or by
  // ascending distance when sorted (equal distances keep traversal order, but for the nearest,
  // which is swapped to the front). result is not cleared.
  void radiusSearch(const float* query, float radiusSq, RadiusResult& result, bool sorted) const;

  // Fills the first found <= k slots with the nearest elements, ascending; returns how many.
  // distSq[k - 1] is set to FLT_MAX first and slots past the found ones keep what they held.
  size_t knnSearch(const float* query, size_t k, Index* indices, float* distSq) const;

  // Runs the exact traversal with a caller's result set, which offers
  //   float worstDist() const;             acceptance bound: offered only if distSq < bound
  //   void addPoint(Index index, float distSq);
  // The bound is read once per leaf, so addPoint may see elements no longer below it.
  template <typename ResultSet>
  void findNeighbors(const float* query, ResultSet& result) const;

 private:
  Node* divideTree(Index left, Index right, Box& box, int depth);
  void computeBox(Index left, Index right, Box& box) const;
  Index middleSplit(Index left, Index right, Box& box, Index& divfeat, float& cutval);
  void planeSplit(Index left, Index count, Index divfeat, float cutval, Index& lim1, Index& lim2);
  void release(Node* node) noexcept;

  template <typename ResultSet>
  void searchLoop(const float* query,
                  const float* perDimDist,
                  float minDistSq,
                  ResultSet& result) const;
  struct Split {
    const Node* nearChild;
    const Node* farChild;
    float cutDist;
  };
  Split splitFor(const Node* node, const float* query) const;
  template <typename ResultSet>
  void searchLeaf(const Node* node, const float* query, ResultSet& result) const;
  template <typename ResultSet>
  void searchLevel(const Node* node,
                   const float* query,
                   float* perDimDist,
                   float minDistSq,
                   ResultSet& result) const;

  float coord(Index element, Index dim) const {
    return data_[static_cast<size_t>(element) * Dim + static_cast<size_t>(dim)];
  }

  const float* data_ = nullptr;
  int64_t count_ = 0;
  Node* root_ = nullptr;
  Box rootBox_{};
  Index leafMaxSize_ = 10;
  int depth_ = 0;  // inner nodes on the longest root-to-leaf path
  std::vector<Index> indices_;
  // Coordinates of the element at each position of indices_, Dim floats per position.
  std::vector<float> leafPoints_;
};

using PointKdTree = KdTree<3, int32_t>;
using PointKdTree64 = KdTree<3, uint64_t>;
using DescriptorKdTree = KdTree<33, int32_t>;

// ---- Result sets ---------------------------------------------------------------------------------

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

// ---- Build ---------------------------------------------------------------------------------------

template <int Dim, typename Index>
void KdTree<Dim, Index>::build(const float* data, int64_t count, Index leafMaxSize) {
  destroy();
  data_ = data;
  count_ = count;
  leafMaxSize_ = leafMaxSize < 1 ? Index(1) : leafMaxSize;
  if (count < 1 || data == nullptr) return;
  indices_.reserve(static_cast<size_t>(count));
  for (int64_t i = 0; i < count; ++i) {
    const float* e = data + static_cast<size_t>(i) * Dim;
    bool finite = true;
    for (int d = 0; d < Dim; ++d) finite &= (e[d] == e[d]);
    if (finite) indices_.push_back(static_cast<Index>(i));
  }
  indices_.shrink_to_fit();
  if (indices_.empty()) return;
  const Index n = static_cast<Index>(indices_.size());
  computeBox(0, n, rootBox_);
  try {
    root_ = divideTree(0, n, rootBox_, 0);
    leafPoints_.resize(indices_.size() * Dim);
    for (size_t pos = 0; pos < indices_.size(); ++pos) {
      const float* e = element(indices_[pos]);
      std::copy(e, e + Dim, leafPoints_.data() + pos * Dim);
    }
  } catch (...) {
    destroy();
    throw;
  }
}

template <int Dim, typename Index>
void KdTree<Dim, Index>::computeBox(Index left, Index right, Box& box) const {
  for (int d = 0; d < Dim; ++d) {
    const float v = coord(indices_[static_cast<size_t>(left)], static_cast<Index>(d));
    box[d].low = v;
    box[d].high = v;
  }
  for (Index i = left + 1; i < right; ++i) {
    const float* e = element(indices_[static_cast<size_t>(i)]);
    for (int d = 0; d < Dim; ++d) {
      if (e[d] < box[d].low) box[d].low = e[d];
      if (e[d] > box[d].high) box[d].high = e[d];
    }
  }
}

template <int Dim, typename Index>
typename KdTree<Dim, Index>::Node* KdTree<Dim, Index>::divideTree(Index left,
                                                                  Index right,
                                                                  Box& box,
                                                                  int depth) {
  Node* node = Pool::Local().take();
  depth_ = std::max(depth_, depth);
  // Link the node in before recursing would complicate clean-up on failure; instead a failed
  // child is released here together with this node.
  if (right - left <= leafMaxSize_) {
    node->leaf.left = left;
    node->leaf.right = right;
    computeBox(left, right, box);
    return node;
  }
  try {
    Index divfeat = 0;
    float cutval = 0.0f;
    const Index index = middleSplit(left, right, box, divfeat, cutval);
    node->inner.divfeat = divfeat;

    Box leftBox = box;
    leftBox[divfeat].high = cutval;
    node->child1 = divideTree(left, index, leftBox, depth + 1);

    Box rightBox = box;
    rightBox[divfeat].low = cutval;
    node->child2 = divideTree(index, right, rightBox, depth + 1);

    node->inner.divlow = leftBox[divfeat].high;
    node->inner.divhigh = rightBox[divfeat].low;
    for (int d = 0; d < Dim; ++d) {
      box[d].low = std::min(leftBox[d].low, rightBox[d].low);
      box[d].high = std::max(leftBox[d].high, rightBox[d].high);
    }
  } catch (...) {
    release(node);
    throw;
  }
  return node;
}

template <int Dim, typename Index>
Index KdTree<Dim, Index>::middleSplit(Index left,
                                      Index right,
                                      Box& box,
                                      Index& divfeat,
                                      float& cutval) {
  divfeat = 0;
  float maxSpan = box[0].high - box[0].low;
  for (int d = 1; d < Dim; ++d) {
    const float span = box[d].high - box[d].low;
    if (span > maxSpan) {
      maxSpan = span;
      divfeat = static_cast<Index>(d);
    }
  }
  float lo = coord(indices_[static_cast<size_t>(left)], divfeat);
  float hi = lo;
  for (Index i = left + 1; i < right; ++i) {
    const float v = coord(indices_[static_cast<size_t>(i)], divfeat);
    if (v < lo) lo = v;
    if (v > hi) hi = v;
  }
  box[divfeat].low = lo;
  box[divfeat].high = hi;
  cutval = (lo + hi) * 0.5f;

  Index lim1 = 0;
  Index lim2 = 0;
  planeSplit(left, right - left, divfeat, cutval, lim1, lim2);
  const Index mid = (left + right) / 2;
  Index index;
  if (lim1 > mid) {
    index = lim1;
  } else if (lim2 < mid) {
    index = lim2;
  } else {
    index = mid;
  }
  // Both sides are non-empty for every finite input; infinite coordinates can give a NaN cut,
  // and an empty side would never end the recursion.
  if (index <= left || index >= right) index = mid;
  return index;
}

// Reorders positions left .. left+count-1 into [< cutval][== cutval][> cutval]; lim1 and lim2 are
// the absolute positions of the first element not below and the first above the cut.
template <int Dim, typename Index>
void KdTree<Dim, Index>::planeSplit(Index left,
                                    Index count,
                                    Index divfeat,
                                    float cutval,
                                    Index& lim1,
                                    Index& lim2) {
  Index* ind = indices_.data() + static_cast<size_t>(left);
  int64_t lo = 0;
  int64_t hi = static_cast<int64_t>(count) - 1;
  for (;;) {
    while (lo <= hi && coord(ind[lo], divfeat) < cutval) ++lo;
    while (lo <= hi && coord(ind[hi], divfeat) >= cutval) --hi;
    if (lo > hi) break;
    std::swap(ind[lo], ind[hi]);
    ++lo;
    --hi;
  }
  lim1 = left + static_cast<Index>(lo);
  hi = static_cast<int64_t>(count) - 1;
  for (;;) {
    while (lo <= hi && coord(ind[lo], divfeat) <= cutval) ++lo;
    while (lo <= hi && coord(ind[hi], divfeat) > cutval) --hi;
    if (lo > hi) break;
    std::swap(ind[lo], ind[hi]);
    ++lo;
    --hi;
  }
  lim2 = left + static_cast<Index>(lo);
}

// ---- Destroy -------------------------------------------------------------------------------------

template <int Dim, typename Index>
void KdTree<Dim, Index>::release(Node* node) noexcept {
  if (node == nullptr) return;
  release(node->child1);
  node->child1 = nullptr;
  release(node->child2);
  node->child2 = nullptr;
  Pool::Local().give(node);
}

template <int Dim, typename Index>
void KdTree<Dim, Index>::destroy() noexcept {
  if (root_ != nullptr) {
    release(root_);
    root_ = nullptr;
    Pool::Local().releaseIfIdle();
  }
  depth_ = 0;
  indices_.clear();
  indices_.shrink_to_fit();
  leafPoints_.clear();
  leafPoints_.shrink_to_fit();
}

// ---- Searches ------------------------------------------------------------------------------------

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
  for (Index i = node->leaf.left; i < node->leaf.right; ++i) {
    const float* e = leafPoints_.data() + static_cast<size_t>(i) * Dim;
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
  std::stable_sort(rest.begin(), rest.end(), [](const auto& a, const auto& b) {
    return a.first < b.first;
  });
  for (size_t i = 1; i < n; ++i) {
    dist[i] = rest[i - 1].first;
    idx[i] = rest[i - 1].second;
  }
}

template <int Dim, typename Index>
size_t KdTree<Dim, Index>::knnSearch(const float* query,
                                     size_t k,
                                     Index* indices,
                                     float* distSq) const {
  if (k == 0) return 0;  // no last slot to initialise
  distSq[k - 1] = FLT_MAX;
  KnnResultSet<Index> set{indices, distSq, k};
  findNeighbors(query, set);
  return set.count;
}

extern template class KdTree<3, int32_t>;
extern template class KdTree<3, uint64_t>;
extern template class KdTree<33, int32_t>;

}  // namespace qorv
