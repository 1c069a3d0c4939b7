// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "runtime/parallel_for.hpp"
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
  // The bounds of a cell in every dimension, indexed by any integer type (dimensions and split
  // features are ints or the tree's Index).
  struct Box {
    Interval bounds[Dim];
    template <typename I>
    Interval& operator[](I d) {
      return bounds[d];
    }
    template <typename I>
    const Interval& operator[](I d) const {
      return bounds[d];
    }
  };
  static constexpr int kDim = Dim;
  // Searches in trees of at most kLoopMaxDepth levels of low-dimensional elements run without
  // recursion, carrying the per-dimension distances of every stacked far side.
  static constexpr int kLoopMaxDim = 4;
  static constexpr int kLoopMaxDepth = 64;

  KdTree() = default;
  KdTree(const float* data, int64_t count, Index leafMaxSize = 10) {
    build(data, count, leafMaxSize);
  }
  KdTree(const float* data, int64_t count, Index leafMaxSize, const Execution& exec) {
    build(data, count, leafMaxSize, exec);
  }
  ~KdTree() { destroy(); }
  KdTree(const KdTree&) = delete;
  KdTree& operator=(const KdTree&) = delete;

  void build(const float* data, int64_t count, Index leafMaxSize = 10);
  // The same tree, node for node; under a multi-thread execution the subtrees below the top
  // levels are split on all threads. Nodes still come from the calling thread's pool.
  void build(const float* data, int64_t count, Index leafMaxSize, const Execution& exec);
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
  // The same among the elements strictly within sqrt(boundSq) of the query: fewer than k when
  // fewer lie that close, found with the bound pruning from the start. distSq[k - 1] is set to
  // boundSq first.
  size_t knnSearchWithin(
      const float* query, size_t k, float boundSq, Index* indices, float* distSq) const;

  // Runs the exact traversal with a caller's result set, which offers
  //   float worstDist() const;             acceptance bound: offered only if distSq < bound
  //   void addPoint(Index index, float distSq);
  // The bound is read once per leaf, so addPoint may see elements no longer below it. Defined in
  // search/kd_tree_traversal.hpp.
  template <typename ResultSet>
  void findNeighbors(const float* query, ResultSet& result) const;

 private:
  struct Subtree;
  struct TopSplit;
  Node* divideTree(Index left, Index right, Box& box, int depth);
  Node* divideOnThreads(Index count);
  int32_t planTop(Index left,
                  Index right,
                  Box& box,
                  int depth,
                  int taskDepth,
                  std::vector<TopSplit>& top,
                  std::vector<Subtree>& tasks);
  int32_t divideInto(Index left, Index right, Box& box, int depth, Subtree& out);
  Node* assembleTop(int32_t id, std::vector<TopSplit>& top, std::vector<Subtree>& tasks, Box& box);
  Node* assembleSubtree(const Subtree& sub, int32_t id);
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
  // During the build, small elements move with their index through leafPoints_, so that the
  // splits read memory in order; larger ones are read through the index and gathered at the end.
  static constexpr bool kMoveElements = Dim <= kLoopMaxDim;
  const float* atPosition(Index pos) const {
    if constexpr (kMoveElements) return leafPoints_.data() + static_cast<size_t>(pos) * Dim;
    return element(indices_[static_cast<size_t>(pos)]);
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

// The members are defined, and instantiated for the three trees above, in kd_tree_build.cpp,
// kd_tree_radius.cpp and kd_tree_knn.cpp; findNeighbors and the traversal it runs are in
// kd_tree_traversal.hpp, for searches with a result set of their own.

}  // namespace qorv
