// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <functional>

namespace qorv::engine {

// Runs body(block) for block = 0 .. blocks - 1 on the calling thread's OpenMP team. Each block
// writes only its own outputs, so results do not depend on the number of threads; reductions keep
// one partial per block and add them in block order.
void ForBlocks(int32_t blocks, const std::function<void(int32_t block)>& body);

// Sets the OpenMP thread count of the calling thread (0 keeps it) and restores it on destruction.
class ThreadScope {
 public:
  explicit ThreadScope(int32_t threads);
  ~ThreadScope();
  ThreadScope(const ThreadScope&) = delete;
  ThreadScope& operator=(const ThreadScope&) = delete;

 private:
  int32_t saved_;
};

}  // namespace qorv::engine
