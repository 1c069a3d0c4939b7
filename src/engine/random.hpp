// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>

namespace qorv::engine {

// Counter-based random numbers: draw i of a run seeded with s is a pure function of (s, i), so the
// draws do not depend on which thread makes them or in what order.
inline uint64_t Mix64(uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

class CounterRandom {
 public:
  CounterRandom(uint64_t seed, uint64_t stream) : state_(Mix64(seed ^ Mix64(stream))) {}

  uint64_t next() { return Mix64(state_++); }

  // Uniform in [0, n) (n > 0), by multiply-shift; the bias is below 2^-32 for our sizes.
  uint32_t below(uint32_t n) {
    return static_cast<uint32_t>(((next() >> 32) * static_cast<uint64_t>(n)) >> 32);
  }

 private:
  uint64_t state_;
};

}  // namespace qorv::engine
