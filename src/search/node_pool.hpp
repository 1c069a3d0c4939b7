// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace qorv {

// Node storage of one tree type. Nodes are carved from 16 KiB blocks and recycled through a free
// list (last returned, first taken); when every carved node is back, all blocks are released.
// Each thread has its own pool (see Local()), so trees built on different threads never share
// state and no lock is needed; a tree must be destroyed on the thread that built it.
template <typename Node>
class KdTreeNodePool {
 public:
  static constexpr size_t kBlockBytes = 16384;
  static constexpr size_t kNodesPerBlock = kBlockBytes / sizeof(Node);

  KdTreeNodePool() = default;
  KdTreeNodePool(const KdTreeNodePool&) = delete;
  KdTreeNodePool& operator=(const KdTreeNodePool&) = delete;
  ~KdTreeNodePool() { releaseAll(); }

  static KdTreeNodePool& Local() {
    static thread_local KdTreeNodePool pool;
    return pool;
  }

  // A zero-filled node.
  Node* take() {
    Node* node;
    if (!free_.empty()) {
      node = free_.back();
      free_.pop_back();
    } else {
      // Room on the free list for every carved node, so that give() never allocates.
      if (free_.capacity() < carved_ + 1) free_.reserve(2 * carved_ + kNodesPerBlock);
      if (blocks_.empty() || usedInBlock_ == kNodesPerBlock) {
        blocks_.reserve(blocks_.size() + 1);
        void* block = std::malloc(kBlockBytes);
        if (block == nullptr) throw std::bad_alloc();
        blocks_.push_back(static_cast<Node*>(block));
        usedInBlock_ = 0;
      }
      node = blocks_.back() + usedInBlock_++;
      ++carved_;
    }
    std::memset(static_cast<void*>(node), 0, sizeof(Node));
    return node;
  }

  // Returns a node taken from this pool; never allocates.
  void give(Node* node) noexcept { free_.push_back(node); }

  // Releases all blocks when no node is in use any more.
  void releaseIfIdle() {
    if (free_.size() == carved_) releaseAll();
  }

  size_t carved() const { return carved_; }
  size_t freeCount() const { return free_.size(); }
  size_t blockCount() const { return blocks_.size(); }

 private:
  void releaseAll() {
    for (Node* block : blocks_) std::free(block);
    blocks_.clear();
    blocks_.shrink_to_fit();
    free_.clear();
    free_.shrink_to_fit();
    carved_ = 0;
    usedInBlock_ = 0;
  }

  std::vector<Node*> blocks_;
  std::vector<Node*> free_;
  size_t carved_ = 0;
  size_t usedInBlock_ = 0;
};

}  // namespace qorv
