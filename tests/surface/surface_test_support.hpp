// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cmath>
#include <cstring>
#include <vector>

#include <omp.h>

#include "geometry/vec3.hpp"
#include "runtime/parallel_for.hpp"
#include "support/floats.hpp"

namespace qorv::test {

inline const Execution kSerial{false};
inline const Execution kParallel{true};

// Gives ParallelFor exactly n threads until the end of the scope.
class ScopedThreads {
 public:
  explicit ScopedThreads(int n) : saved_(omp_get_max_threads()) { omp_set_num_threads(n); }
  ~ScopedThreads() { omp_set_num_threads(saved_); }
  ScopedThreads(const ScopedThreads&) = delete;
  ScopedThreads& operator=(const ScopedThreads&) = delete;

 private:
  int saved_;
};

}  // namespace qorv::test
