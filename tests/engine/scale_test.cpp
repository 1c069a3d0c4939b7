// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The engine's scales against counts made by hand: the median spacing against every point's
// nearest other point found by brute force, and the budget voxel against the voxels a cloud
// actually occupies at it.
#include "engine/scale.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "engine/voxel_grid.hpp"
#include "support/clouds.hpp"

namespace qorv::engine {
namespace {

// The median of the distances from each finite point to its nearest other point, as the range
// between the lower and the upper median (an even count has two).
std::pair<double, double> BruteMedianSpacing(const std::vector<float>& points) {
  std::vector<Eigen::Vector3d> p;
  for (size_t i = 0; i < points.size(); i += 3) {
    const Eigen::Vector3d q(points[i], points[i + 1], points[i + 2]);
    if (q.allFinite()) p.push_back(q);
  }
  std::vector<double> nearest;
  for (size_t i = 0; i < p.size(); ++i) {
    double best = std::numeric_limits<double>::infinity();
    for (size_t j = 0; j < p.size(); ++j) {
      if (j != i) best = std::min(best, (p[i] - p[j]).norm());
    }
    nearest.push_back(best);
  }
  std::sort(nearest.begin(), nearest.end());
  const size_t n = nearest.size();
  return {nearest[(n - 1) / 2], nearest[n / 2]};
}

double Spacing(const std::vector<float>& points) {
  const PointKdTree tree(points.data(), static_cast<int64_t>(points.size() / 3));
  return MedianSpacing(tree);
}

void ExpectMedianSpacing(const std::vector<float>& points) {
  const auto [low, high] = BruteMedianSpacing(points);
  const double spacing = Spacing(points);
  EXPECT_GE(spacing, low * (1 - 1e-5));
  EXPECT_LE(spacing, high * (1 + 1e-5));
}

// Voxels of edge v holding at least one point, counted on cells floor(p / v).
int64_t OccupiedVoxels(const Cloud& cloud, double v) {
  std::vector<std::array<int64_t, 3>> cells;
  for (Eigen::Index i = 0; i < cloud.points.cols(); ++i) {
    std::array<int64_t, 3> cell;
    for (int c = 0; c < 3; ++c)
      cell[static_cast<size_t>(c)] = static_cast<int64_t>(std::floor(cloud.points(c, i) / v));
    cells.push_back(cell);
  }
  std::sort(cells.begin(), cells.end());
  return std::unique(cells.begin(), cells.end()) - cells.begin();
}

Cloud CloudOf(const std::vector<float>& points) {
  Cloud cloud;
  cloud.points = Eigen::Map<const Eigen::Matrix3Xf>(
      points.data(), 3, static_cast<Eigen::Index>(points.size() / 3));
  return cloud;
}

void ExpectAboutTheBudget(const Cloud& cloud, int32_t budget) {
  const double voxel = VoxelForBudget(cloud, budget);
  ASSERT_GT(voxel, 0.0);
  const double kept = static_cast<double>(OccupiedVoxels(cloud, voxel));
  EXPECT_GT(kept, 0.75 * budget) << "voxel " << voxel;
  EXPECT_LT(kept, 1.25 * budget) << "voxel " << voxel;
}

TEST(Scale, MedianSpacingIsTheMedianDistanceToTheNearestOtherPoint) {
  std::mt19937 random(6);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  for (const int32_t count : {2, 3, 4, 7, 100, 2000}) {
    SCOPED_TRACE(count);
    ExpectMedianSpacing(test::RandomCloud(count, static_cast<uint32_t>(count)));
  }
  // Repeated points: the nearest other point of a repeat is at zero, whichever way the tree's ties
  // fall; with more than half the points repeated, so is the median.
  std::vector<float> repeats = test::RandomCloud(300, 1);
  for (size_t i = 0; i < 200 * 3; ++i) repeats.push_back(repeats[i]);
  ExpectMedianSpacing(repeats);
  EXPECT_EQ(Spacing(repeats), 0.0);
  for (size_t i = 0; i < 60 * 3; ++i) repeats.push_back(repeats[i]);
  ExpectMedianSpacing(repeats);
  // Tight clusters far apart, points on a line at uneven steps, and holes the tree leaves out.
  std::vector<float> clusters, line, holes;
  for (int i = 0; i < 400; ++i) {
    const float far = static_cast<float>(i % 4) * 100.0f;
    clusters.insert(clusters.end(), {far + 0.01f * unit(random), 0.01f * unit(random), far});
    line.insert(line.end(), {std::pow(unit(random), 3.0f), 0.0f, 0.0f});
    holes.insert(holes.end(), {unit(random), unit(random), unit(random)});
    if (i % 5 == 0) holes.insert(holes.end(), {std::nanf(""), 0.0f, 0.0f});
  }
  ExpectMedianSpacing(clusters);
  ExpectMedianSpacing(line);
  ExpectMedianSpacing(holes);

  // A single point has no neighbour; two coincident points are zero apart; two others are their
  // distance apart.
  EXPECT_EQ(Spacing({}), 0.0);
  EXPECT_EQ(Spacing({1, 2, 3}), 0.0);
  EXPECT_EQ(Spacing({1, 2, 3, 1, 2, 3}), 0.0);
  EXPECT_NEAR(Spacing({1, 2, 3, 1, 2, 3.5f}), 0.5, 1e-7);
}

TEST(Scale, MedianSpacingOfALargeCloudFollowsAllOfItNotItsFirstPoints) {
  // 2,000 points 10 cm apart listed first, then 3,000 points 1 cm apart: three fifths are dense,
  // so the median spacing is the dense one however the cloud is ordered.
  std::vector<float> sparse = test::GridCloud(50, 40, 0.1f);
  std::vector<float> dense = test::GridCloud(60, 50, 0.01f);
  for (size_t i = 2; i < dense.size(); i += 3) dense[i] = 50.0f;  // well away from the sparse grid
  std::vector<float> points = sparse;
  points.insert(points.end(), dense.begin(), dense.end());
  EXPECT_NEAR(Spacing(points), 0.01, 1e-6);
  points = dense;
  points.insert(points.end(), sparse.begin(), sparse.end());
  EXPECT_NEAR(Spacing(points), 0.01, 1e-6);
}

// A sphere of radius 2, and two 4 x 1 m panels 30 m apart whose points alternate between them when
// `alternate`, else fall on either at random.
std::vector<float> Sphere(uint32_t seed, int32_t count) {
  std::mt19937 random(seed);
  std::normal_distribution<float> gauss(0.0f, 1.0f);
  std::vector<float> out;
  for (int32_t i = 0; i < count; ++i) {
    Eigen::Vector3f p(gauss(random), gauss(random), gauss(random));
    p = 2.0f * p.normalized();
    out.insert(out.end(), {p.x(), p.y(), p.z()});
  }
  return out;
}

std::vector<float> Panels(uint32_t seed, int32_t count, bool alternate) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  std::vector<float> out;
  for (int32_t i = 0; i < count; ++i) {
    const bool far = alternate ? i % 2 == 1 : unit(random) < 0.5f;
    out.insert(out.end(), {4.0f * unit(random), unit(random), far ? 30.0f : 0.0f});
  }
  return out;
}

TEST(Scale, BudgetVoxelKeepsAboutTheBudgetOnCurvedAndSplitSurfaces) {
  const Cloud sphere = CloudOf(Sphere(10, 12000)), panels = CloudOf(Panels(11, 12000, false));
  for (const int32_t budget : {400, 2000}) {
    SCOPED_TRACE(budget);
    ExpectAboutTheBudget(sphere, budget);
    ExpectAboutTheBudget(panels, budget);
  }
  // Nothing to thin up to the budget itself.
  const Cloud small = CloudOf(test::RandomCloud(300, 2));
  EXPECT_EQ(VoxelForBudget(small, 300), 0.0);
  EXPECT_GT(VoxelForBudget(small, 299), 0.0);
  // All points in one place: any voxel keeps one, and the answer is still a length.
  const std::vector<float> same(3 * 1000, 0.25f);
  const double voxel = VoxelForBudget(CloudOf(same), 100);
  EXPECT_TRUE(std::isfinite(voxel));
  EXPECT_GE(voxel, 0.0);
}

TEST(Scale, VoxelLadderCountsTheOccupiedVoxelsOfEveryLevel) {
  // Cells of edge finest x 2^k from the cloud's lower corner, counted one by one.
  auto countLevel = [](const Cloud& cloud, double finest, int k) {
    const Eigen::Vector3f low = cloud.points.rowwise().minCoeff();
    std::vector<std::array<int64_t, 3>> cells;
    for (Eigen::Index i = 0; i < cloud.points.cols(); ++i) {
      std::array<int64_t, 3> cell;
      for (int c = 0; c < 3; ++c) {
        const double at = (static_cast<double>(cloud.points(c, i)) - low[c]) * (1.0 / finest);
        cell[static_cast<size_t>(c)] = static_cast<int64_t>(std::floor(at)) >> k;
      }
      cells.push_back(cell);
    }
    std::sort(cells.begin(), cells.end());
    return std::unique(cells.begin(), cells.end()) - cells.begin();
  };
  for (const Cloud& cloud : {CloudOf(Sphere(20, 5000)),
                             CloudOf(Panels(21, 5000, true)),
                             CloudOf(test::GridCloud(70, 70, 0.01f))}) {
    for (const double finest : {0.003, 0.02}) {
      const std::vector<int64_t> counts = OccupiedVoxelLadder(cloud, finest);
      ASSERT_FALSE(counts.empty());
      EXPECT_EQ(counts.back(), 1);  // up to the level where one voxel holds everything
      for (size_t k = 0; k < counts.size(); ++k)
        EXPECT_EQ(counts[k], countLevel(cloud, finest, static_cast<int>(k))) << "level " << k;
    }
  }
  EXPECT_TRUE(OccupiedVoxelLadder(Cloud{}, 0.1).empty());
}

TEST(Scale, BudgetVoxelOfACloudListedInARegularOrderKeepsAboutTheBudget) {
  // A 400 x 400 frame listed row by row, as a sensor writes it, and two panels whose points
  // alternate between them, as two merged scans or two returns of one beam may.
  ExpectAboutTheBudget(CloudOf(test::GridCloud(400, 400, 0.01f)), 1000);
  ExpectAboutTheBudget(CloudOf(Panels(11, 40000, true)), 500);
}

}  // namespace
}  // namespace qorv::engine
