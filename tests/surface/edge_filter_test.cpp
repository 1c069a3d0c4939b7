// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "surface/edge_filter.hpp"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include <Eigen/Dense>
#include <gtest/gtest.h>

#include "support/clouds.hpp"
#include "surface/surface_test_support.hpp"

namespace qorv {
namespace {

using Indices = std::vector<int32_t>;
using test::kParallel;
using test::kSerial;

Indices Edges(const std::vector<float>& points, float radius, const Execution& exec = kSerial) {
  return EdgeFilter(points.data(), static_cast<int32_t>(points.size() / 3), radius, exec);
}

// Tangent directions are eigenvectors solved with z fixed at 1, so the test surfaces are tilted:
// a horizontal plane has no finite in-plane solution.
std::vector<float> OnTiltedPlane(const std::vector<std::pair<double, double>>& uv) {
  const Eigen::Vector3d u = Eigen::Vector3d(1, 0, 0.5).normalized();
  const Eigen::Vector3d v = Eigen::Vector3d(-0.5, -0.3, 1).normalized().cross(u);
  std::vector<float> points;
  for (const auto& [a, b] : uv) {
    const Eigen::Vector3d p = a * u + b * v;
    points.insert(
        points.end(),
        {static_cast<float>(p.x()), static_cast<float>(p.y()), static_cast<float>(p.z())});
  }
  return points;
}

// A point with eight neighbours on a ring of radius ringRadius and four at distance 0.5 inside a
// 80-degree wedge.
std::vector<std::pair<double, double>> RingAndWedge(double ringRadius) {
  std::vector<std::pair<double, double>> uv = {{0, 0}};
  for (int k = 0; k < 8; ++k) {
    uv.emplace_back(ringRadius * std::cos(k * 0.7853981633974483),
                    ringRadius * std::sin(k * 0.7853981633974483));
  }
  for (int k = 0; k < 4; ++k)
    uv.emplace_back(0.5 * std::cos(-0.7 + 0.45 * k), 0.5 * std::sin(-0.7 + 0.45 * k));
  return uv;
}

TEST(EdgeFilterTest, BorderOfAGridIsExactlyTheEdgeSet) {
  const int32_t side = 15;
  std::vector<float> grid = test::GridCloud(side, side, 1.0f);
  for (size_t i = 0; i < grid.size(); i += 3) grid[i + 2] = 0.5f * grid[i] + 0.15f * grid[i + 1];
  Indices border;
  for (int32_t y = 0; y < side; ++y) {
    for (int32_t x = 0; x < side; ++x) {
      if (x == 0 || y == 0 || x == side - 1 || y == side - 1) border.push_back(y * side + x);
    }
  }
  EXPECT_EQ(Edges(grid, 2.5f), border);
}

TEST(EdgeFilterTest, NeighboursWithinATenthOfTheRadiusGiveNoAngle) {
  // With radius 1 the ring at 0.05 is ignored for the angles and the wedge leaves a wide gap;
  // at 0.2 the ring closes it.
  const Indices open = Edges(OnTiltedPlane(RingAndWedge(0.05)), 1.0f);
  ASSERT_FALSE(open.empty());
  EXPECT_EQ(open[0], 0);
  const Indices closed = Edges(OnTiltedPlane(RingAndWedge(0.2)), 1.0f);
  EXPECT_TRUE(closed.empty() || closed[0] != 0);
  // A single far neighbour is not enough, however many near ones there are.
  std::vector<std::pair<double, double>> oneFar = RingAndWedge(0.05);
  oneFar.resize(10);
  const Indices lone = Edges(OnTiltedPlane(oneFar), 1.0f);
  EXPECT_TRUE(lone.empty() || lone[0] != 0);
}

TEST(EdgeFilterTest, DegenerateInputsAreNeverEdges) {
  std::vector<float> grid = test::GridCloud(5, 5, 1.0f);
  for (size_t i = 0; i < grid.size(); i += 3) grid[i + 2] = 0.5f * grid[i] + 0.15f * grid[i + 1];
  ASSERT_EQ(Edges(grid, 2.5f)[0], 0);
  grid[3 * 0 + 1] = NAN;  // a corner that would be an edge
  const Indices edges = Edges(grid, 2.5f);
  EXPECT_TRUE(std::find(edges.begin(), edges.end(), 0) == edges.end());
  EXPECT_EQ(Edges(grid, NAN), Indices{});
  EXPECT_EQ(Edges({0, 0, 0, 1, 0, 0, 2, 0, 0}, 5.0f), Indices{});  // collinear: no tangent plane
}

TEST(EdgeFilterTest, ParallelListEqualsSerialList) {
  const std::vector<float> bunny = test::LoadSample("bunny.asc");
  ASSERT_FALSE(bunny.empty());
  const Indices serial = Edges(bunny, 0.8f);
  EXPECT_FALSE(serial.empty());
  EXPECT_LT(serial.size(), bunny.size() / 3);
  for (const int threads : {2, 3, 4}) {
    test::ScopedThreads scoped(threads);
    EXPECT_EQ(Edges(bunny, 0.8f, kParallel), serial) << threads;
  }
}

}  // namespace
}  // namespace qorv
