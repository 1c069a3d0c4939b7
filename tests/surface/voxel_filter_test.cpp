// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "surface/voxel_filter.hpp"

#include <cfloat>
#include <cmath>
#include <map>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/clouds.hpp"
#include "surface/surface_test_support.hpp"

namespace qorv {
namespace {

using Indices = std::vector<int32_t>;

Indices Filter(const std::vector<float>& points, float leafSize) {
  return VoxelFilter(points.data(), static_cast<int32_t>(points.size() / 3), leafSize);
}

// The same rules written plainly: cells in a map, nearest point per cell, largest key dropped.
// Finite points only; assumes no two points of a cell are equally near its centre.
Indices ReferenceFilter(const std::vector<float>& points, float leaf) {
  float lo[3] = {FLT_MAX, FLT_MAX, FLT_MAX};
  float hi[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
  const auto count = static_cast<int32_t>(points.size() / 3);
  for (int32_t i = 0; i < count; ++i) {
    if (!std::isfinite(points[3 * i]) || !std::isfinite(points[3 * i + 1]) ||
        !std::isfinite(points[3 * i + 2])) {
      continue;
    }
    for (int d = 0; d < 3; ++d) {
      lo[d] = std::min(lo[d], points[3 * i + d]);
      hi[d] = std::max(hi[d], points[3 * i + d]);
    }
  }
  const auto nx = static_cast<uint64_t>(static_cast<int32_t>((hi[0] - lo[0]) / leaf)) + 1;
  const auto ny = static_cast<uint64_t>(static_cast<int32_t>((hi[1] - lo[1]) / leaf)) + 1;
  std::map<uint64_t, std::pair<double, int32_t>> best;
  for (int32_t i = 0; i < count; ++i) {
    const float* p = &points[3 * i];
    if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) continue;
    uint64_t cell[3];
    double distSq = 0.0;
    for (int d = 0; d < 3; ++d) {
      cell[d] = static_cast<uint64_t>((p[d] - lo[d]) / leaf);
      const float centre = (static_cast<float>(cell[d]) + 0.5f) * leaf;
      const auto diff = static_cast<double>((p[d] - lo[d]) - centre);
      distSq += diff * diff;
    }
    const uint64_t key = cell[0] + cell[1] * nx + cell[2] * nx * ny;
    auto found = best.find(key);
    if (found == best.end() || distSq < found->second.first) best[key] = {distSq, i};
  }
  Indices kept;
  if (!best.empty()) best.erase(std::prev(best.end()));
  for (const auto& cell : best) kept.push_back(cell.second.second);
  std::sort(kept.begin(), kept.end());
  return kept;
}

TEST(VoxelFilterTest, SmallCloudsFollowTheGridRules) {
  EXPECT_EQ(Filter({0.3f, 0.3f, 0.3f}, 1.0f), Indices{});           // one voxel, never settled
  EXPECT_EQ(Filter({0, 0, 0, 0.5f, 0.5f, 0.9f}, 1.0f), Indices{});  // all in one voxel
  EXPECT_EQ(Filter({0, 0, 0, 1.5f, 0, 0}, 1.0f), Indices{0});       // smaller key kept
  EXPECT_EQ(Filter({0, 0, 1.5f, 0, 1.5f, 0}, 1.0f), Indices{1});    // y cell before z cell
  // x = 1 lies on a face: it opens cell 1 instead of joining cell 0; cell 3 is the last.
  EXPECT_EQ(Filter({0, 0, 0, 1, 0, 0, 3.5f, 0, 0}, 1.0f), (Indices{0, 1}));
  // Nearest to the centre of cell 0, (0.6, 0.6, 0.6) with the origin at the minimum 0.1.
  EXPECT_EQ(Filter({0.1f, 0.1f, 0.1f, 0.45f, 0.4f, 0.6f, 0.9f, 0.9f, 0.9f, 5, 5, 5}, 1.0f),
            Indices{1});
}

TEST(VoxelFilterTest, RandomCloudMatchesTheReference) {
  for (const float leaf : {0.05f, 0.13f, 0.4f}) {
    std::vector<float> points = test::RandomCloud(4000, 21, 2.0f);
    // Rows of equal coordinates put points on shared faces; NaN and infinite points are ignored.
    for (size_t i = 0; i < points.size(); i += 39) points[i] = 0.4f;
    points[7] = NAN;
    points[3 * 100 + 2] = INFINITY;
    points[3 * 200] = -INFINITY;
    const Indices kept = Filter(points, leaf);
    EXPECT_EQ(kept, ReferenceFilter(points, leaf)) << "leaf " << leaf;
    EXPECT_EQ(Filter(points, leaf), kept);  // run to run
  }
}

TEST(VoxelFilterTest, LargeButRepresentableGridsKeepExactKeys) {
  // About 2^24 cells along x and y and 2^10 along z: keys near 2^58.
  std::vector<float> points = test::RandomCloud(500, 8, 1.0f);
  for (size_t i = 0; i < points.size(); i += 3) points[i + 2] *= 1.0f / 16384.0f;
  EXPECT_EQ(Filter(points, 1.0f / 16777216.0f), ReferenceFilter(points, 1.0f / 16777216.0f));
}

TEST(VoxelFilterTest, EquallyNearPointsKeepTheLowestIndex) {
  // A second copy of the cloud after the first: every voxel's nearest point has an equally near
  // twin at a higher index, and the copy in front must win. Fine leaves give keys of more than 32
  // bits; the others fit beside the index.
  for (const float leaf : {0.02f, 0.13f, 1.0f / 65536.0f}) {
    std::vector<float> points = test::RandomCloud(3000, 33, 2.0f);
    for (float& v : points) v -= 1.5f;  // negative and positive coordinates
    std::vector<float> twice = points;
    twice.insert(twice.end(), points.begin(), points.end());
    const Indices kept = Filter(points, leaf);
    EXPECT_EQ(kept, ReferenceFilter(points, leaf)) << "leaf " << leaf;
    EXPECT_EQ(Filter(twice, leaf), kept) << "leaf " << leaf;
  }
}

TEST(VoxelFilterTest, AFirstKeyEqualToTheWalkSentinelIsMeasuredFromItsOwnCentre) {
  // Cell (2^24 - 1, 127, 0) has key 2^31 - 1, the walk's starting key. Point 1 is nearer to
  // that cell's centre than point 0; both are in that cell, the smallest key of the cloud.
  const std::vector<float> points = {
      16777215.0f, 127.0f, 0.0f, 16777215.0f, 127.5f, 0.5f, 0.0f, 0.0f, 1.0f, 3.0f, 5.0f, 1.0f};
  EXPECT_EQ(Filter(points, 1.0f), (Indices{1, 2}));
}

TEST(VoxelFilterTest, OpenCasesGiveAnEmptyList) {
  const std::vector<float> points = test::RandomCloud(200, 4);
  for (const float leaf : {0.0f, -0.1f, NAN, INFINITY, -INFINITY, 1e-30f}) {
    EXPECT_EQ(Filter(points, leaf), Indices{}) << leaf;
  }
  // x and y fit, but the z cells do not: their number times nx * ny passes 2^64, or the z
  // quotient itself does.
  for (const float top : {1000.0f, 1e12f}) {
    std::vector<float> tall = points;
    tall[2] = top;
    EXPECT_EQ(Filter(tall, 1e-9f), Indices{}) << top;
  }
  // Extents that overflow float.
  EXPECT_EQ(Filter({-3e38f, 0, 0, 3e38f, 0, 0}, 1.0f), Indices{});
  // No finite point at all.
  EXPECT_EQ(Filter({NAN, 0, 0, INFINITY, 1, 1}, 1.0f), Indices{});
}

}  // namespace
}  // namespace qorv
