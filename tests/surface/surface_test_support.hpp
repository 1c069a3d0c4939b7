// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cmath>
#include <cstring>
#include <vector>

#include <omp.h>

#include "runtime/parallel_for.hpp"

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

// Bit-for-bit equality of two float arrays (NaN payloads included).
inline bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

inline bool HasNaN(const float* p) {
  return std::isnan(p[0]) || std::isnan(p[1]) || std::isnan(p[2]);
}

}  // namespace qorv::test
