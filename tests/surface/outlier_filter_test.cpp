// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "surface/outlier_filter.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "support/clouds.hpp"
#include "surface/surface_test_support.hpp"

namespace qorv {
namespace {

using test::kParallel;
using test::kSerial;

// Brute-force scores of a NaN-free cloud: the meanK + 1 smallest squared distances ascending,
// unreachable slots zero and the last one FLT_MAX (each point finds the same number, so no slot
// carries over from an earlier point). Only `slots` of the meanK + 1 slots are materialised,
// which matters only for their zeros.
std::vector<float> ReferenceScores(const std::vector<float>& points,
                                   int32_t meanK,
                                   size_t slots = 0) {
  const size_t count = points.size() / 3;
  if (slots == 0) slots = static_cast<size_t>(meanK) + 1;
  std::vector<float> scores;
  for (size_t i = 0; i < count; ++i) {
    std::vector<float> distSq;
    for (size_t j = 0; j < count; ++j)
      distSq.push_back(test::DistSq(&points[3 * i], &points[3 * j]));
    std::sort(distSq.begin(), distSq.end());
    distSq.resize(std::min(distSq.size(), slots));
    distSq.resize(slots, 0.0f);
    if (count < static_cast<size_t>(meanK) + 1) distSq.back() = FLT_MAX;
    float sum = 0.0f;
    for (const float d : distSq) sum += std::sqrt(d);
    scores.push_back(sum / static_cast<float>(meanK));
  }
  return scores;
}

// Number of scores strictly below the trimmed mean + stdMul * deviation.
int32_t ReferencePassCount(std::vector<float> scores, float stdMul) {
  std::sort(scores.begin(), scores.end());
  const size_t trim = scores.size() / 16;
  double s = 0.0;
  double ss = 0.0;
  for (size_t i = trim; i < scores.size() - trim; ++i) {
    s += scores[i];
    ss += static_cast<double>(scores[i]) * scores[i];
  }
  const auto n = static_cast<double>(scores.size() - 2 * trim);
  const double mean = s / n;
  const auto threshold = static_cast<float>(std::sqrt((ss - mean * s) / (n - 1.0)) * stdMul + mean);
  return static_cast<int32_t>(
      std::count_if(scores.begin(), scores.end(), [&](float v) { return v < threshold; }));
}

std::vector<int32_t> Prefix(int32_t m) {
  std::vector<int32_t> prefix(static_cast<size_t>(m));
  std::iota(prefix.begin(), prefix.end(), 0);
  return prefix;
}

std::vector<int32_t> Filter(const std::vector<float>& points, int32_t meanK, float stdMul) {
  return OutlierFilter(
      points.data(), static_cast<int32_t>(points.size() / 3), meanK, stdMul, kSerial);
}

std::vector<float> Scores(const std::vector<float>& points, int32_t meanK, const Execution& exec) {
  const PointKdTree tree(points.data(), static_cast<int64_t>(points.size() / 3));
  return OutlierScores(tree, meanK, exec);
}

// A unit cube of points with a few far outliers at the end.
std::vector<float> CloudWithOutliers(int32_t count, uint32_t seed) {
  std::vector<float> points = test::RandomCloud(count, seed);
  for (int32_t i = std::max(0, count - 4); i < count; ++i)
    points[3 * i] += 3.0f + static_cast<float>(i % 3);
  return points;
}

TEST(OutlierFilterTest, ScoresAndPassCountMatchBruteForce) {
  for (const int32_t count : {2, 5, 15, 32, 33, 400}) {
    for (const int32_t meanK : {1, 6, 40}) {
      const std::vector<float> points = CloudWithOutliers(count, static_cast<uint32_t>(count));
      const std::vector<float> expected = ReferenceScores(points, meanK);
      // Summation order is ascending distance in both, so the scores agree to the bit.
      EXPECT_EQ(Scores(points, meanK, kSerial), expected) << count << " " << meanK;
      for (const float stdMul : {0.0f, 1.0f, 3.4f}) {
        EXPECT_EQ(Filter(points, meanK, stdMul), Prefix(ReferencePassCount(expected, stdMul)))
            << count << " " << meanK << " " << stdMul;
      }
    }
  }
}

TEST(OutlierFilterTest, KeptListIsAPrefixWhateverTheOrderOfThePoints) {
  std::vector<float> points = CloudWithOutliers(300, 17);
  const std::vector<int32_t> kept = Filter(points, 8, 1.0f);
  ASSERT_FALSE(kept.empty());
  EXPECT_LT(kept.size(), 300u);  // the outliers are counted out
  std::rotate(
      points.begin(), points.begin() + 3 * 150, points.end());  // outliers now in the middle
  EXPECT_EQ(Filter(points, 8, 1.0f), kept);
}

TEST(OutlierFilterTest, DegenerateCountsAndThresholds) {
  EXPECT_EQ(Filter({1, 2, 3}, 1, 1.0f), std::vector<int32_t>{});  // variance 0 / 0
  EXPECT_EQ(Filter({1, 2, 3}, 50, 1.0f), std::vector<int32_t>{});
  // Duplicates: the two copies score 0 with meanK 1, the lone point does not.
  EXPECT_EQ(Filter({0, 0, 0, 0, 0, 0, 1, 0, 0}, 1, 0.0f), (std::vector<int32_t>{0, 1}));
  // A huge meanK needs scratch for the indexed points only and scores as if it had it all.
  const std::vector<float> points = test::RandomCloud(20, 2);
  EXPECT_EQ(Scores(points, 2000000000, kSerial), ReferenceScores(points, 2000000000, 1001));
}

TEST(OutlierFilterTest, ParallelScoresEqualSerialScoresEvenWhenSlotsCarryOver) {
  // NaN points find nothing, so their slots hold what the previous point of the run left; with
  // distances of 1e13 those values survive next to FLT_MAX. Sparse clouds (count <= meanK)
  // leave slots unfilled as well.
  std::vector<float> far = test::RandomCloud(97, 5, 1e13f);
  for (const int32_t nanAt : {0, 24, 25, 33, 48, 49, 50, 66, 74, 75, 96}) far[3 * nanAt + 1] = NAN;
  const std::vector<float> sparse = test::RandomCloud(7, 6);
  for (const auto& points : {far, sparse, CloudWithOutliers(500, 9)}) {
    for (const int32_t meanK : {3, 10}) {
      const std::vector<float> serial = Scores(points, meanK, kSerial);
      for (const int threads : {2, 3, 4}) {
        test::ScopedThreads scoped(threads);
        EXPECT_TRUE(test::SameBits(Scores(points, meanK, kParallel), serial)) << threads;
        const auto count = static_cast<int32_t>(points.size() / 3);
        EXPECT_EQ(OutlierFilter(points.data(), count, meanK, 0.0f, kParallel),
                  Filter(points, meanK, 0.0f));
      }
    }
  }
}

}  // namespace
}  // namespace qorv
