// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/parallel.hpp"

#include <exception>
#include <mutex>

#include <omp.h>

namespace qorv::engine {

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

}  // namespace qorv::engine
