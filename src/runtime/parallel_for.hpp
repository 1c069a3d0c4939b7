// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <functional>

namespace qorv {

// body(begin, end, threadIndex): processes items begin <= i < end; must do nothing when begin >=
// end.
using RangeBody = std::function<void(int32_t begin, int32_t end, int32_t threadIndex)>;

// Splits [begin, end) into contiguous ceiling-division chunks, one per thread of a single OpenMP
// parallel region, thread t taking the t-th chunk. Every thread is called, also with an empty or
// inverted range. A range of at most one item runs on the calling thread with threadIndex 0.
void ParallelFor(int32_t begin, int32_t end, RangeBody body);

// Calls body(begin, end, 0) once on the calling thread.
void SerialFor(int32_t begin, int32_t end, RangeBody body);

// Runs body(block) for block = 0 .. blocks - 1, handed out one at a time to the threads of one
// OpenMP team (dynamic schedule, for blocks of uneven cost). Each block writes only its own
// outputs, so results do not depend on the number of threads; reductions keep one partial per
// block and add them in block order. The first exception a block throws reaches the caller.
void ForBlocks(int32_t blocks, const std::function<void(int32_t block)>& body);

// Sets the OpenMP thread count of the calling thread (0 keeps it) and restores it on destruction:
// the one way the engine and the tests choose how many threads run.
class ThreadScope {
 public:
  explicit ThreadScope(int32_t threads);
  ~ThreadScope();
  ThreadScope(const ThreadScope&) = delete;
  ThreadScope& operator=(const ThreadScope&) = delete;

 private:
  int32_t saved_;
};

// Number of per-thread scratch slots a body may index: omp_get_max_threads().
int32_t MaxThreads();

// Which variant an export runs.
struct Execution {
  bool multiThread = false;

  // Scratch slots a body run under this execution may index.
  int32_t slots() const { return multiThread ? MaxThreads() : 1; }
};

inline void RunFor(const Execution& exec, int32_t begin, int32_t end, RangeBody body) {
  if (exec.multiThread) {
    ParallelFor(begin, end, std::move(body));
  } else {
    SerialFor(begin, end, std::move(body));
  }
}

}  // namespace qorv
