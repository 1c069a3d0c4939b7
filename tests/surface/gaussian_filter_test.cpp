// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "surface/gaussian_filter.hpp"

#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "support/clouds.hpp"
#include "surface/surface_test_support.hpp"

namespace qorv {
namespace {

using test::kParallel;
using test::kSerial;

std::vector<float> Smooth(const std::vector<float>& points,
                          float radius,
                          const Execution& exec = kSerial) {
  std::vector<float> out(points.size(), -7.0f);
  GaussianFilter(points.data(), static_cast<int32_t>(points.size() / 3), radius, exec, out.data());
  return out;
}

TEST(GaussianFilterTest, MatchesABruteForceWeightedMean) {
  const std::vector<float> points = test::RandomCloud(600, 12);
  const float radius = 0.15f;
  const std::vector<float> smoothed = Smooth(points, radius);
  const double sigma = radius / 3.46087178201605;
  for (size_t i = 0; i < points.size() / 3; ++i) {
    double sum[3] = {0, 0, 0};
    double weight = 0.0;
    for (size_t j = 0; j < points.size() / 3; ++j) {
      const float distSq = test::DistSq(&points[3 * i], &points[3 * j]);
      if (!(distSq < radius * radius)) continue;
      const double w = std::exp(-distSq / (2 * sigma * sigma));
      for (int d = 0; d < 3; ++d) sum[d] += w * points[3 * j + d];
      weight += w;
    }
    for (int d = 0; d < 3; ++d) EXPECT_NEAR(smoothed[3 * i + d], sum[d] / weight, 2e-6) << i;
  }
}

TEST(GaussianFilterTest, RadiusEdgeCases) {
  // Isolated, and at exactly the radius: only the point's own weight.
  const std::vector<float> pair = {0.25f, 0.5f, 1.0f, 1.25f, 0.5f, 1.0f};
  const std::vector<float> apart = Smooth(pair, 1.0f);
  for (size_t i = 0; i < pair.size(); ++i) EXPECT_FLOAT_EQ(apart[i], pair[i]);
  // Just inside: both move to the same distance from their midpoint.
  const std::vector<float> close = Smooth(pair, 1.01f);
  EXPECT_GT(close[0], 0.25f);
  EXPECT_NEAR(close[0] - 0.25f, 1.25f - close[3], 1e-6);
  // A negative radius is its magnitude; radius 0 or NaN finds nothing and gives NaN.
  const std::vector<float> cloud = test::RandomCloud(200, 4);
  EXPECT_TRUE(test::SameBits(Smooth(cloud, -0.2f), Smooth(cloud, 0.2f)));
  for (const float radius : {0.0f, NAN}) {
    for (const float v : Smooth(cloud, radius)) EXPECT_TRUE(std::isnan(v));
  }
  // A NaN point comes out NaN and is nobody's neighbour.
  std::vector<float> holed = cloud;
  holed[3 * 5 + 2] = NAN;
  const std::vector<float> a = Smooth(holed, 0.2f);
  const std::vector<float> b = Smooth(cloud, 0.2f);
  for (size_t i = 0; i < cloud.size(); ++i) {
    if (i / 3 == 5) {
      EXPECT_TRUE(std::isnan(a[i]));
    } else if (test::DistSq(&cloud[i - i % 3], &cloud[15]) >= 0.04f) {
      EXPECT_NEAR(a[i], b[i], 1e-6) << i;
    }
  }
}

TEST(GaussianFilterTest, ParallelAndWideIndexTreesGiveTheSerialBits) {
  std::vector<float> bunny = test::LoadSample("bunny.asc");
  ASSERT_FALSE(bunny.empty());
  bunny[40] = NAN;
  const std::vector<float> serial = Smooth(bunny, 0.9f);
  const PointKdTree64 wide(bunny.data(), static_cast<int64_t>(bunny.size() / 3));
  std::vector<float> viaWide(bunny.size());
  GaussianFilter(wide, 0.9f, kSerial, viaWide.data());
  EXPECT_TRUE(test::SameBits(viaWide, serial));
  for (const int threads : {2, 3, 4}) {
    test::ScopedThreads scoped(threads);
    EXPECT_TRUE(test::SameBits(Smooth(bunny, 0.9f, kParallel), serial)) << threads;
  }
}

}  // namespace
}  // namespace qorv
