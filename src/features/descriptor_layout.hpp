// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cfloat>
#include <cstdint>

namespace qorv {

// Floats per descriptor: three 11-bin blocks, angle theta (0-10), spread alpha (11-21) and
// direction phi (22-32). Every descriptor of the library, point or pixel, has this layout.
constexpr int32_t kHistogramBins = 11;
constexpr int32_t kDescriptorSize = 3 * kHistogramBins;

// Scales each 11-bin block of a descriptor to sum to 100, or zeroes it when its sum is at most
// float epsilon; a block holding a NaN becomes all NaN.
inline void NormaliseBlocks(float* descriptor) {
  for (int32_t block = 0; block < kDescriptorSize; block += kHistogramBins) {
    float* bins = descriptor + block;
    float sum = 0.0f;
    for (int32_t b = 0; b < kHistogramBins; ++b) sum += bins[b];
    const float factor = sum <= FLT_EPSILON ? 0.0f : 100.0f / sum;
    for (int32_t b = 0; b < kHistogramBins; ++b) bins[b] *= factor;
  }
}

}  // namespace qorv
