// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "runtime/parallel_for.hpp"
#include "search/kd_tree.hpp"

namespace qorv {
namespace {

// An inner node's split bounds from its children's boxes, and its own box as their union.
template <int Dim, typename Node, typename Box, typename Feature>
void JoinChildren(Node* node, Feature divfeat, const Box& leftBox, const Box& rightBox, Box& box) {
  node->inner.divlow = leftBox[divfeat].high;
  node->inner.divhigh = rightBox[divfeat].low;
  for (int d = 0; d < Dim; ++d) {
    box[d].low = std::min(leftBox[d].low, rightBox[d].low);
    box[d].high = std::max(leftBox[d].high, rightBox[d].high);
  }
}

}  // namespace

// A subtree divided on a worker thread: its nodes in the order the calling thread's pool would
// have handed them out (each node before its first child's subtree, which precedes the second
// child's), children linked by position; a leaf links -1. Copied into pool nodes afterwards.
template <int Dim, typename Index>
struct KdTree<Dim, Index>::Subtree {
  Index left = 0;
  Index right = 0;
  int depth = 0;
  Box box{};  // the box handed down on entry, the subtree's bounding box on return
  std::vector<Node> nodes;
  std::vector<std::pair<int32_t, int32_t>> children;
  int deepest = 0;
};

// One of the top levels, split on the calling thread before the subtrees below it are divided.
template <int Dim, typename Index>
struct KdTree<Dim, Index>::TopSplit {
  int32_t task = -1;  // when >= 0, this place holds the subtree tasks[task]
  Index divfeat = 0;
  int32_t child1 = -1;
  int32_t child2 = -1;
};

template <int Dim, typename Index>
void KdTree<Dim, Index>::build(const float* data, int64_t count, Index leafMaxSize) {
  build(data, count, leafMaxSize, Execution{});
}

template <int Dim, typename Index>
void KdTree<Dim, Index>::build(const float* data,
                               int64_t count,
                               Index leafMaxSize,
                               const Execution& exec) {
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
  try {
    if constexpr (kMoveElements) {
      leafPoints_.resize(indices_.size() * Dim);
      for (size_t pos = 0; pos < indices_.size(); ++pos) {
        const float* e = element(indices_[pos]);
        std::copy(e, e + Dim, leafPoints_.data() + pos * Dim);
      }
    }
    computeBox(0, n, rootBox_);
    // Below this many elements the subtrees are too small to be worth a thread.
    constexpr int64_t kParallelMinimum = 32768;
    if (exec.multiThread && MaxThreads() > 1 && static_cast<int64_t>(n) >= kParallelMinimum) {
      root_ = divideOnThreads(n);
    } else {
      root_ = divideTree(0, n, rootBox_, 0);
    }
    if constexpr (!kMoveElements) {
      leafPoints_.resize(indices_.size() * Dim);
      for (size_t pos = 0; pos < indices_.size(); ++pos) {
        const float* e = element(indices_[pos]);
        std::copy(e, e + Dim, leafPoints_.data() + pos * Dim);
      }
    }
  } catch (...) {
    destroy();
    throw;
  }
}

template <int Dim, typename Index>
void KdTree<Dim, Index>::computeBox(Index left, Index right, Box& box) const {
  const float* first = atPosition(left);
  for (int d = 0; d < Dim; ++d) {
    box[d].low = first[d];
    box[d].high = first[d];
  }
  for (Index i = left + 1; i < right; ++i) {
    const float* e = atPosition(i);
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

    JoinChildren<Dim>(node, divfeat, leftBox, rightBox, box);
  } catch (...) {
    release(node);
    throw;
  }
  return node;
}

// divideTree on the calling thread down to taskDepth levels, then every subtree below as a task
// of its own: the splits, boxes and node order are those of divideTree.
template <int Dim, typename Index>
typename KdTree<Dim, Index>::Node* KdTree<Dim, Index>::divideOnThreads(Index count) {
  // Some four subtrees a thread, handed out as threads come free, absorb uneven splits.
  int taskDepth = 0;
  while ((int64_t{1} << taskDepth) < 4 * static_cast<int64_t>(MaxThreads())) ++taskDepth;
  std::vector<TopSplit> top;
  std::vector<Subtree> tasks;
  Box box = rootBox_;
  const int32_t rootId = planTop(0, count, box, 0, taskDepth, top, tasks);
  ForBlocks(static_cast<int32_t>(tasks.size()), [&](int32_t t) {
    Subtree& task = tasks[static_cast<size_t>(t)];
    task.deepest = task.depth;
    divideInto(task.left, task.right, task.box, task.depth, task);
  });
  for (const Subtree& task : tasks) depth_ = std::max(depth_, task.deepest);
  return assembleTop(rootId, top, tasks, rootBox_);
}

template <int Dim, typename Index>
int32_t KdTree<Dim, Index>::planTop(Index left,
                                    Index right,
                                    Box& box,
                                    int depth,
                                    int taskDepth,
                                    std::vector<TopSplit>& top,
                                    std::vector<Subtree>& tasks) {
  const auto id = static_cast<int32_t>(top.size());
  top.emplace_back();
  depth_ = std::max(depth_, depth);
  if (depth >= taskDepth || right - left <= leafMaxSize_) {
    top[static_cast<size_t>(id)].task = static_cast<int32_t>(tasks.size());
    tasks.emplace_back();
    Subtree& task = tasks.back();
    task.left = left;
    task.right = right;
    task.depth = depth;
    task.box = box;
    return id;
  }
  Index divfeat = 0;
  float cutval = 0.0f;
  const Index index = middleSplit(left, right, box, divfeat, cutval);
  top[static_cast<size_t>(id)].divfeat = divfeat;
  Box leftBox = box;
  leftBox[divfeat].high = cutval;
  const int32_t child1 = planTop(left, index, leftBox, depth + 1, taskDepth, top, tasks);
  Box rightBox = box;
  rightBox[divfeat].low = cutval;
  const int32_t child2 = planTop(index, right, rightBox, depth + 1, taskDepth, top, tasks);
  top[static_cast<size_t>(id)].child1 = child1;
  top[static_cast<size_t>(id)].child2 = child2;
  return id;
}

template <int Dim, typename Index>
int32_t KdTree<Dim, Index>::divideInto(Index left, Index right, Box& box, int depth, Subtree& out) {
  const auto id = static_cast<int32_t>(out.nodes.size());
  out.nodes.emplace_back();
  std::memset(static_cast<void*>(&out.nodes.back()), 0, sizeof(Node));
  out.children.emplace_back(-1, -1);
  out.deepest = std::max(out.deepest, depth);
  if (right - left <= leafMaxSize_) {
    out.nodes[static_cast<size_t>(id)].leaf.left = left;
    out.nodes[static_cast<size_t>(id)].leaf.right = right;
    computeBox(left, right, box);
    return id;
  }
  Index divfeat = 0;
  float cutval = 0.0f;
  const Index index = middleSplit(left, right, box, divfeat, cutval);
  Box leftBox = box;
  leftBox[divfeat].high = cutval;
  const int32_t child1 = divideInto(left, index, leftBox, depth + 1, out);
  Box rightBox = box;
  rightBox[divfeat].low = cutval;
  const int32_t child2 = divideInto(index, right, rightBox, depth + 1, out);
  Node& node = out.nodes[static_cast<size_t>(id)];
  node.inner.divfeat = divfeat;
  node.inner.divlow = leftBox[divfeat].high;
  node.inner.divhigh = rightBox[divfeat].low;
  out.children[static_cast<size_t>(id)] = {child1, child2};
  for (int d = 0; d < Dim; ++d) {
    box[d].low = std::min(leftBox[d].low, rightBox[d].low);
    box[d].high = std::max(leftBox[d].high, rightBox[d].high);
  }
  return id;
}

template <int Dim, typename Index>
typename KdTree<Dim, Index>::Node* KdTree<Dim, Index>::assembleTop(int32_t id,
                                                                   std::vector<TopSplit>& top,
                                                                   std::vector<Subtree>& tasks,
                                                                   Box& box) {
  const TopSplit& split = top[static_cast<size_t>(id)];
  if (split.task >= 0) {
    Subtree& task = tasks[static_cast<size_t>(split.task)];
    box = task.box;
    Node* node = assembleSubtree(task, 0);
    // The records are no longer needed: free them as the tree grows.
    std::vector<Node>().swap(task.nodes);
    std::vector<std::pair<int32_t, int32_t>>().swap(task.children);
    return node;
  }
  Node* node = Pool::Local().take();
  try {
    const Index divfeat = split.divfeat;
    node->inner.divfeat = divfeat;
    Box leftBox{};
    node->child1 = assembleTop(split.child1, top, tasks, leftBox);
    Box rightBox{};
    node->child2 = assembleTop(split.child2, top, tasks, rightBox);
    JoinChildren<Dim>(node, divfeat, leftBox, rightBox, box);
  } catch (...) {
    release(node);
    throw;
  }
  return node;
}

template <int Dim, typename Index>
typename KdTree<Dim, Index>::Node* KdTree<Dim, Index>::assembleSubtree(const Subtree& sub,
                                                                       int32_t id) {
  Node* node = Pool::Local().take();
  const Node& record = sub.nodes[static_cast<size_t>(id)];
  std::memcpy(static_cast<void*>(node), static_cast<const void*>(&record), sizeof(Node));
  const std::pair<int32_t, int32_t> children = sub.children[static_cast<size_t>(id)];
  if (children.first < 0) return node;
  try {
    node->child1 = assembleSubtree(sub, children.first);
    node->child2 = assembleSubtree(sub, children.second);
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
  const auto dim = static_cast<size_t>(divfeat);
  float lo = atPosition(left)[dim];
  float hi = lo;
  for (Index i = left + 1; i < right; ++i) {
    const float v = atPosition(i)[dim];
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

// Moves the elements of [begin, end) for which `left` holds to the front, exactly as the scan from
// both ends that swaps the first misplaced element from the front with the first from the back,
// then the second with the second, and so on, would: every element in front of the boundary that
// belongs behind it is paired, in order from the front, with one behind it that belongs in front,
// in order from the back. Finding the misplaced ones a block at a time keeps the scan free of
// data-dependent branches. `left` and its negation must split the elements (no NaN involved).
// Returns the boundary.
template <typename Index, typename Element, typename Belongs>
int64_t PartitionInPairs(Index* ind, Element element, int64_t begin, int64_t end, Belongs left) {
  int64_t boundary = begin;
  for (int64_t i = begin; i < end; ++i) boundary += left(i) ? 1 : 0;
  constexpr int64_t kBlock = 64;
  int64_t frontMisplaced[kBlock];
  int64_t backMisplaced[kBlock];
  int64_t frontCount = 0;
  int64_t frontTaken = 0;
  int64_t backCount = 0;
  int64_t backTaken = 0;
  int64_t front = begin;  // next position to look at in front of the boundary
  int64_t back = end;     // one past the next position to look at behind it, going down
  for (;;) {
    while (frontTaken == frontCount && front < boundary) {
      const int64_t stop = std::min(front + kBlock, boundary);
      frontCount = 0;
      frontTaken = 0;
      for (int64_t i = front; i < stop; ++i) {
        frontMisplaced[frontCount] = i;
        frontCount += left(i) ? 0 : 1;
      }
      front = stop;
    }
    while (backTaken == backCount && back > boundary) {
      const int64_t stop = std::max(back - kBlock, boundary);
      backCount = 0;
      backTaken = 0;
      for (int64_t i = back - 1; i >= stop; --i) {
        backMisplaced[backCount] = i;
        backCount += left(i) ? 1 : 0;
      }
      back = stop;
    }
    const int64_t pairs = std::min(frontCount - frontTaken, backCount - backTaken);
    if (pairs == 0) break;
    for (int64_t k = 0; k < pairs; ++k) {
      const int64_t a = frontMisplaced[frontTaken + k];
      const int64_t b = backMisplaced[backTaken + k];
      std::swap(ind[a], ind[b]);
      element.swap(a, b);
    }
    frontTaken += pairs;
    backTaken += pairs;
  }
  return boundary;
}

// Reorders positions left .. left+count-1 into [< cutval][== cutval][> cutval]; lim1 and lim2 are
// the absolute positions of the first element not below and the first above the cut.
template <int Dim, typename Index>
void KdTree<Dim, Index>::planeSplit(
    Index left, Index count, Index divfeat, float cutval, Index& lim1, Index& lim2) {
  Index* ind = indices_.data() + static_cast<size_t>(left);
  const auto dim = static_cast<size_t>(divfeat);
  float* pts = kMoveElements ? leafPoints_.data() + static_cast<size_t>(left) * Dim : nullptr;
  auto at = [&](int64_t i) {
    if constexpr (kMoveElements) return pts[static_cast<size_t>(i) * Dim + dim];
    return coord(ind[i], divfeat);
  };
  auto swapAt = [&](int64_t a, int64_t b) {
    std::swap(ind[a], ind[b]);
    if constexpr (kMoveElements) {
      std::swap_ranges(pts + static_cast<size_t>(a) * Dim,
                       pts + static_cast<size_t>(a + 1) * Dim,
                       pts + static_cast<size_t>(b) * Dim);
    }
  };
  if (cutval == cutval) {
    struct Elements {
      float* pts;
      void swap(int64_t a, int64_t b) const {
        if constexpr (kMoveElements) {
          std::swap_ranges(pts + static_cast<size_t>(a) * Dim,
                           pts + static_cast<size_t>(a + 1) * Dim,
                           pts + static_cast<size_t>(b) * Dim);
        }
      }
    };
    const auto n = static_cast<int64_t>(count);
    const int64_t below =
        PartitionInPairs(ind, Elements{pts}, 0, n, [&](int64_t i) { return at(i) < cutval; });
    const int64_t notAbove =
        PartitionInPairs(ind, Elements{pts}, below, n, [&](int64_t i) { return at(i) <= cutval; });
    lim1 = left + static_cast<Index>(below);
    lim2 = left + static_cast<Index>(notAbove);
    return;
  }
  // A NaN cut (from infinite coordinates) compares false both ways: the plain scan.
  int64_t lo = 0;
  int64_t hi = static_cast<int64_t>(count) - 1;
  for (;;) {
    while (lo <= hi && at(lo) < cutval) ++lo;
    while (lo <= hi && at(hi) >= cutval) --hi;
    if (lo > hi) break;
    swapAt(lo, hi);
    ++lo;
    --hi;
  }
  lim1 = left + static_cast<Index>(lo);
  hi = static_cast<int64_t>(count) - 1;
  for (;;) {
    while (lo <= hi && at(lo) <= cutval) ++lo;
    while (lo <= hi && at(hi) > cutval) --hi;
    if (lo > hi) break;
    swapAt(lo, hi);
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
template void KdTree<3, int32_t>::build(const float*, int64_t, int32_t, const Execution&);
template void KdTree<3, uint64_t>::build(const float*, int64_t, uint64_t, const Execution&);
template void KdTree<33, int32_t>::build(const float*, int64_t, int32_t, const Execution&);
template void KdTree<3, int32_t>::destroy() noexcept;
template void KdTree<3, uint64_t>::destroy() noexcept;
template void KdTree<33, int32_t>::destroy() noexcept;

}  // namespace qorv
