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
