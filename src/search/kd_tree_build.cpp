// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <algorithm>
#include <utility>
#include <vector>

#include "search/kd_tree.hpp"

namespace qorv {

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
Index KdTree<Dim, Index>::middleSplit(
    Index left, Index right, Box& box, Index& divfeat, float& cutval) {
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
void KdTree<Dim, Index>::planeSplit(
    Index left, Index count, Index divfeat, float cutval, Index& lim1, Index& lim2) {
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

template void KdTree<3, int32_t>::build(const float*, int64_t, int32_t);
template void KdTree<3, uint64_t>::build(const float*, int64_t, uint64_t);
template void KdTree<33, int32_t>::build(const float*, int64_t, int32_t);
template void KdTree<3, int32_t>::destroy() noexcept;
template void KdTree<3, uint64_t>::destroy() noexcept;
template void KdTree<33, int32_t>::destroy() noexcept;

}  // namespace qorv
