// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/distance_check.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/clouds.hpp"

namespace qorv {
namespace {

// Brute force: k-th smallest squared distance per point (FLT_MAX when fewer than k finite
// neighbours), sorted, trimmed by an eighth on each side, float square roots summed in double.
float BruteForce(const std::vector<float>& points, int32_t k) {
  const size_t n = points.size() / 3;
  auto hasNaN = [&](size_t i) {
    return std::isnan(points[3 * i]) || std::isnan(points[3 * i + 1]) ||
           std::isnan(points[3 * i + 2]);
  };
  std::vector<float> values(n, FLT_MAX);
  for (size_t i = 0; i < n; ++i) {
    if (hasNaN(i)) continue;
    std::vector<float> d;
    for (size_t j = 0; j < n; ++j) {
      if (!hasNaN(j)) d.push_back(test::DistSq(&points[3 * i], &points[3 * j]));
    }
    std::sort(d.begin(), d.end());
    if (d.size() >= static_cast<size_t>(k)) values[i] = d[static_cast<size_t>(k) - 1];
  }
  std::sort(values.begin(), values.end());
  const size_t lo = n >> 3;
  const size_t hi = n - lo;
  double sum = 0.0;
  for (size_t i = lo; i < hi; ++i) sum += std::sqrt(values[i]);
  return static_cast<float>(sum / static_cast<double>(hi - lo));
}

float Check(const std::vector<float>& points, int32_t k, bool multiThread, std::string* log) {
  testing::internal::CaptureStdout();
  const float mean = CheckDistance(
      points.data(), static_cast<int32_t>(points.size() / 3), k, Execution{multiThread});
  const std::string out = testing::internal::GetCapturedStdout();
  if (log != nullptr) *log = out;
  return mean;
}

TEST(DistanceCheckTest, GridSpacing) {
  const std::vector<float> grid = test::GridCloud(20, 15, 0.25f);
  std::string log;
  EXPECT_EQ(Check(grid, 2, false, &log), 0.25f);
  EXPECT_EQ(log, "[QORV INFO] checkDistance: 37-263\n");
  EXPECT_EQ(Check(grid, 1, true, nullptr), 0.0f);
  EXPECT_NEAR(Check(test::GridCloud(12, 12, 0.1f), 2, true, nullptr), 0.1f, 1e-6f);
}

TEST(DistanceCheckTest, TrimmedMeanEqualsBruteForceInBothVariants) {
  std::vector<float> cloud = test::RandomCloud(500, 51);
  cloud[3 * 17 + 1] = NAN;
  std::copy_n(&cloud[3 * 40], 3, &cloud[3 * 41]);  // a duplicate
  for (int32_t k : {1, 2, 5, 17}) {
    const float expected = BruteForce(cloud, k);
    EXPECT_EQ(Check(cloud, k, false, nullptr), expected) << k;
    EXPECT_EQ(Check(cloud, k, true, nullptr), expected) << k;
  }
}

TEST(DistanceCheckTest, SixteenPointsKeepTheMiddleTwelve) {
  // Points on a line with gaps 1, 2, ..., 15: the k = 2 values are the smaller adjacent gaps.
  std::vector<float> line;
  float x = 0.0f;
  for (int i = 0; i < 16; ++i) {
    line.insert(line.end(), {x, 0.0f, 0.0f});
    x += static_cast<float>(i + 1);
  }
  std::string log;
  const float mean = Check(line, 2, false, &log);
  EXPECT_EQ(log, "[QORV INFO] checkDistance: 2-14\n");
  // Values: 1, 1, 2, ..., 14, 15 with gaps min(i, i+1): {1,1,2,3,...,14,15}; the middle twelve are
  // 2 .. 13, mean 7.5.
  EXPECT_EQ(mean, 7.5f);
  EXPECT_EQ(mean, BruteForce(line, 2));
}

TEST(DistanceCheckTest, MoreNeighboursThanPointsGiveTheFloatMaximum) {
  const std::vector<float> cloud = test::RandomCloud(6, 52);
  std::string log;
  EXPECT_EQ(Check(cloud, 7, true, &log), std::sqrt(FLT_MAX));
  EXPECT_EQ(log, "[QORV INFO] checkDistance: 0-6\n");
  EXPECT_EQ(Check(cloud, 2000000000, false, nullptr), std::sqrt(FLT_MAX));
  EXPECT_EQ(Check(cloud, 6, false, nullptr), BruteForce(cloud, 6));
}

}  // namespace
}  // namespace qorv
