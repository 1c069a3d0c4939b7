// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/descriptor_kernels.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace qorv {
namespace {

std::vector<uint32_t> Bits(const std::vector<float>& values) {
  std::vector<uint32_t> bits(values.size());
  std::memcpy(bits.data(), values.data(), values.size() * sizeof(float));
  return bits;
}

// The SSE kernel, and its AVX2 form where the processor has it, against the portable one: best
// targets, distance bits and cross-check minima. Target and query counts off the lane and tile
// widths exercise the padding lanes and the single-query tail; half the trials draw from three
// values, so that equal distances (ties) are everywhere, and some hold duplicated targets or NaN
// components (target 0's among them).
TEST(DescriptorKernels, SseAndPortableAgreeBitForBitIncludingTies) {
#if !defined(__SSE2__)
  GTEST_SKIP() << "no SSE kernel on this processor";
#else
  constexpr size_t kD = kDescriptorSize;
  std::mt19937 rng(23);
  std::uniform_real_distribution<float> any(0.0f, 10.0f);
  for (int trial = 0; trial < 60; ++trial) {
    const auto targetCount = static_cast<int32_t>(1 + rng() % 45);
    const auto queryCount = static_cast<int32_t>(1 + rng() % 15);
    const bool tied = trial % 2 == 0;
    const auto draw = [&] { return tied ? 0.5f * static_cast<float>(rng() % 3) : any(rng); };
    std::vector<float> targets(static_cast<size_t>(targetCount) * kD);
    std::vector<float> queries(static_cast<size_t>(queryCount) * kD);
    for (float& v : targets) v = draw();
    for (float& v : queries) v = draw();
    if (trial % 3 == 1 && targetCount > 1) {
      const size_t copy = 1 + rng() % static_cast<size_t>(targetCount - 1);
      std::copy_n(targets.begin(), kD, targets.begin() + static_cast<std::ptrdiff_t>(copy * kD));
    }
    if (trial % 5 == 3) targets[rng() % (trial % 10 == 3 ? kD : targets.size())] = std::nanf("");

    const std::vector<TargetBlock> blocks = PackTargets(targets.data(), targetCount);
    const size_t columnCount = blocks.size() * kTargetLanes;
    for (const bool wide : {false, true})
      for (const bool crossCheck : {false, true}) {
        ColumnMinima portableColumns;
        ColumnMinima sseColumns;
        portableColumns.reset(columnCount);
        sseColumns.reset(columnCount);
        std::vector<int32_t> portableIndex(static_cast<size_t>(queryCount), -7);
        std::vector<int32_t> sseIndex(static_cast<size_t>(queryCount), -7);
        std::vector<float> portableSq(static_cast<size_t>(queryCount));
        std::vector<float> sseSq(static_cast<size_t>(queryCount));
        MatchQueriesPortable(queries.data(),
                             0,
                             queryCount,
                             targets.data(),
                             targetCount,
                             crossCheck ? &portableColumns : nullptr,
                             portableIndex.data(),
                             portableSq.data());
        MatchQueriesSse(queries.data(),
                        0,
                        queryCount,
                        blocks,
                        targets.data(),
                        crossCheck ? &sseColumns : nullptr,
                        sseIndex.data(),
                        sseSq.data(),
                        wide);
        SCOPED_TRACE(testing::Message()
                     << "trial " << trial << " crossCheck " << crossCheck << " wide " << wide);
        EXPECT_EQ(sseIndex, portableIndex);
        EXPECT_EQ(Bits(sseSq), Bits(portableSq));
        EXPECT_EQ(Bits(sseColumns.nearestSq), Bits(portableColumns.nearestSq));
        EXPECT_EQ(Bits(sseColumns.secondSq), Bits(portableColumns.secondSq));
        EXPECT_EQ(sseColumns.nearestQuery, portableColumns.nearestQuery);
      }
  }
#endif
}

}  // namespace
}  // namespace qorv
