// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>

namespace qorv {

// The default generator of the GNU C library's srand/rand (the additive feedback generator with 31
// words of state and separation 3), held as a value so that every RANSAC worker owns one. The C
// library keeps a single process-wide state behind a lock, which makes the draws of concurrent
// workers interleave unpredictably; this class gives each worker the very sequence that
// srand(seed) followed by rand() calls produces in a single-threaded process, without any shared
// state. (rand_r is a different, much weaker generator and is not used.)
class LibcRandom {
 public:
  explicit LibcRandom(uint32_t seed) { seed_(seed); }

  // Same value as rand(): 0 .. 2^31 - 1.
  int32_t next() {
    state_[front_] += state_[rear_];
    const int32_t result = static_cast<int32_t>(state_[front_] >> 1);
    front_ = front_ + 1 == kDegree ? 0 : front_ + 1;
    rear_ = rear_ + 1 == kDegree ? 0 : rear_ + 1;
    return result;
  }

 private:
  static constexpr int kDegree = 31;
  static constexpr int kSeparation = 3;

  void seed_(uint32_t seed) {
    if (seed == 0) seed = 1;
    // The state words are 32-bit signed values and the seed is stored bit for bit, so seeds of
    // 2^31 and above start from a negative word. The Lehmer step (word = 16807 * word mod
    // (2^31 - 1) by Schrage's method) is evaluated in 64 bits and wrapped back to 32, which is what
    // the C library does and what makes those negative seeds come out the same.
    int32_t word = static_cast<int32_t>(seed);
    state_[0] = seed;
    for (int i = 1; i < kDegree; ++i) {
      const int64_t hi = word / 127773;
      const int64_t lo = word % 127773;
      word = static_cast<int32_t>(static_cast<uint32_t>(16807 * lo - 2836 * hi));
      if (word < 0) word += 2147483647;
      state_[i] = static_cast<uint32_t>(word);
    }
    front_ = kSeparation;
    rear_ = 0;
    for (int i = 0; i < 10 * kDegree; ++i) next();
  }

  uint32_t state_[kDegree];
  int front_ = 0;
  int rear_ = 0;
};

}  // namespace qorv
