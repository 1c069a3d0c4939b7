// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "runtime/parallel_for.hpp"

#include <algorithm>
#include <exception>
#include <mutex>
#include <vector>

#include <omp.h>

namespace qorv {

int32_t MaxThreads() { return std::max(1, omp_get_max_threads()); }

void ParallelFor(int32_t begin, int32_t end, RangeBody body) {
  if (!body) return;
  // Computed in 64 bits: end - begin of two int32 values can exceed the int32 range.
  const int64_t n = static_cast<int64_t>(end) - begin;
  if (n <= 1) {
    body(begin, end, 0);
    return;
  }
  const int64_t threads = omp_get_max_threads();
  const int64_t chunk = (n + threads - 1) / threads;
  // An exception must not leave the parallel region: keep the first one and rethrow it after the
  // join.
  std::vector<std::exception_ptr> failures(static_cast<size_t>(threads));
#pragma omp parallel
  {
    // The runtime may hand over a smaller team than asked for (a region nested in the host's own,
    // OMP_DYNAMIC, OMP_THREAD_LIMIT, max-active-levels): the threads it gives then take the chunks
    // of the missing ones in turn, so every item is still processed, each chunk with its own
    // threadIndex. With a full team, thread t takes exactly chunk t.
    const int64_t team = omp_get_num_threads();
    for (int64_t t = omp_get_thread_num(); t < threads; t += team) {
      const int64_t lo = begin + t * chunk;
      const int64_t hi = begin + std::min(n, (t + 1) * chunk);
      // An inverted range past the end is clamped to stay representable; bodies see lo >= hi.
      try {
        body(static_cast<int32_t>(std::min<int64_t>(lo, INT32_MAX)),
             static_cast<int32_t>(hi),
             static_cast<int32_t>(t));
      } catch (...) {
        failures[static_cast<size_t>(t)] = std::current_exception();
      }
    }
  }
  for (const std::exception_ptr& failure : failures) {
    if (failure) std::rethrow_exception(failure);
  }
}

void ForBlocks(int32_t blocks, const std::function<void(int32_t block)>& body) {
  if (blocks <= 0) return;
  if (blocks == 1 || omp_get_max_threads() == 1) {
    for (int32_t b = 0; b < blocks; ++b) body(b);
    return;
  }
  std::exception_ptr failure;
  std::mutex guard;
#pragma omp parallel for schedule(dynamic, 1)
  for (int32_t b = 0; b < blocks; ++b) {
    try {
      body(b);
    } catch (...) {
      std::lock_guard<std::mutex> lock(guard);
      if (!failure) failure = std::current_exception();
    }
  }
  if (failure) std::rethrow_exception(failure);
}

ThreadScope::ThreadScope(int32_t threads) : saved_(omp_get_max_threads()) {
  if (threads > 0) omp_set_num_threads(threads);
}

ThreadScope::~ThreadScope() { omp_set_num_threads(saved_); }

void SerialFor(int32_t begin, int32_t end, RangeBody body) {
  if (!body) return;
  body(begin, end, 0);
}

}  // namespace qorv
