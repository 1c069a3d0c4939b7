// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "runtime/parallel_for.hpp"

#include <mutex>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <omp.h>

namespace qorv {
namespace {

using Call = std::tuple<int32_t, int32_t, int32_t>;  // begin, end, threadIndex

std::vector<Call> Record(int32_t begin, int32_t end, int threads, bool parallel) {
  const int saved = omp_get_max_threads();
  omp_set_num_threads(threads);
  std::mutex mutex;
  std::vector<Call> calls;
  auto body = [&](int32_t lo, int32_t hi, int32_t t) {
    std::lock_guard<std::mutex> lock(mutex);
    calls.emplace_back(lo, hi, t);
  };
  if (parallel) {
    ParallelFor(begin, end, body);
  } else {
    SerialFor(begin, end, body);
  }
  omp_set_num_threads(saved);
  std::sort(calls.begin(), calls.end(), [](const Call& a, const Call& b) {
    return std::get<2>(a) < std::get<2>(b);
  });
  return calls;
}

TEST(ParallelForTest, SplitsIntoCeilingChunksInThreadOrder) {
  EXPECT_EQ(Record(0, 5, 4, true), (std::vector<Call>{{0, 2, 0}, {2, 4, 1}, {4, 5, 2}, {6, 5, 3}}));
  const std::vector<Call> hundred = Record(0, 100, 8, true);
  ASSERT_EQ(hundred.size(), 8u);
  EXPECT_EQ(hundred[0], Call(0, 13, 0));
  EXPECT_EQ(hundred[7], Call(91, 100, 7));
  EXPECT_EQ(Record(10, 15, 2, true), (std::vector<Call>{{10, 13, 0}, {13, 15, 1}}));
}

TEST(ParallelForTest, SmallAndInvertedRangesRunOnceOnTheCaller) {
  for (const auto& range : {std::pair<int32_t, int32_t>{3, 3}, {3, 4}, {7, 2}}) {
    EXPECT_EQ(Record(range.first, range.second, 4, true),
              (std::vector<Call>{{range.first, range.second, 0}}));
  }
}

TEST(ParallelForTest, SerialForCallsOnceWithTheWholeRange) {
  EXPECT_EQ(Record(0, 1000, 4, false), (std::vector<Call>{{0, 1000, 0}}));
}

TEST(ParallelForTest, EmptyBodyIsIgnoredAndExceptionsReachTheCaller) {
  ParallelFor(0, 10, RangeBody());
  SerialFor(0, 10, RangeBody());
  EXPECT_THROW(ParallelFor(0,
                           100,
                           [](int32_t lo, int32_t, int32_t) {
                             if (lo == 0) throw std::bad_alloc();
                           }),
               std::bad_alloc);
}

TEST(ParallelForTest, ExtremeRangesDoNotOverflow) {
  const std::vector<Call> calls = Record(INT32_MIN, INT32_MAX, 2, true);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(std::get<0>(calls[0]), INT32_MIN);
  EXPECT_EQ(std::get<1>(calls[1]), INT32_MAX);
  EXPECT_EQ(std::get<1>(calls[0]), std::get<0>(calls[1]));
}

}  // namespace
}  // namespace qorv
