// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "surface/normal_estimation.hpp"

#include <cmath>
#include <vector>

#include <Eigen/Dense>
#include <gtest/gtest.h>

#include "support/clouds.hpp"
#include "surface/surface_test_support.hpp"

namespace qorv {
namespace {

using test::kParallel;
using test::kSerial;

std::vector<float> Normals(const std::vector<float>& points, float radius, const Execution& exec) {
  const auto count = static_cast<int32_t>(points.size() / 3);
  std::vector<float> normals(points.size(), -9.0f);
  ComputeNormals(points.data(), count, radius, exec, normals.data());
  return normals;
}

// Smallest eigenvector of the same uncentred scatter matrix, in double, turned to z >= 0.
Eigen::Vector3d OracleNormal(const std::vector<float>& points, int32_t i, float radius) {
  Eigen::Matrix3d scatter = Eigen::Matrix3d::Zero();
  const Eigen::Vector3d p(points[3 * i], points[3 * i + 1], points[3 * i + 2]);
  for (size_t j = 0; j < points.size() / 3; ++j) {
    if (static_cast<int32_t>(j) == i) continue;
    const Eigen::Vector3d q(points[3 * j], points[3 * j + 1], points[3 * j + 2]);
    if ((q - p).squaredNorm() >= static_cast<double>(radius) * radius) continue;
    scatter += (q - p) * (q - p).transpose();
  }
  Eigen::Vector3d n = Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d>(scatter).eigenvectors().col(0);
  return n.z() < 0 ? Eigen::Vector3d(-n) : n;
}

TEST(NormalEstimationTest, SphereMatchesAnEigenSolverAndNeverPointsDown) {
  std::vector<float> points;
  const int n = 1200;
  for (int i = 0; i < n; ++i) {  // Fibonacci sphere of radius 1
    const double z = 1.0 - (2.0 * i + 1.0) / n;
    const double r = std::sqrt(1.0 - z * z);
    const double phi = 2.399963229728653 * i;
    points.insert(points.end(),
                  {static_cast<float>(r * std::cos(phi)),
                   static_cast<float>(r * std::sin(phi)),
                   static_cast<float>(z)});
  }
  const float radius = 0.25f;
  const std::vector<float> normals = Normals(points, radius, kSerial);
  for (int32_t i = 0; i < n; ++i) {
    const Eigen::Vector3d got(normals[3 * i], normals[3 * i + 1], normals[3 * i + 2]);
    EXPECT_GE(got.z(), 0.0);
    if (got.isZero()) continue;
    EXPECT_NEAR(got.norm(), 1.0, 1e-5);
    const Eigen::Vector3d oracle = OracleNormal(points, i, radius);
    if (oracle.z() < 0.3) continue;  // z = 1 solve is ill-conditioned near the equator
    EXPECT_NEAR((got - oracle).norm(), 0.0, 5e-3) << "point " << i;
  }
}

TEST(NormalEstimationTest, SmallAndDegenerateNeighbourhoods) {
  // Two points: each has one neighbour only.
  EXPECT_EQ(Normals({0, 0, 0, 0.1f, 0, 0}, 1.0f, kSerial), std::vector<float>(6, 0.0f));
  // Three points: the plane through them, z up.
  const std::vector<float> three = Normals({0, 0, 0, 1, 0, 0, 0, 1, 1}, 2.0f, kSerial);
  const Eigen::Vector3d expected = Eigen::Vector3d(0, -1, 1).normalized();
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(
        (Eigen::Vector3d(three[3 * i], three[3 * i + 1], three[3 * i + 2]) - expected).norm(),
        0.0,
        1e-5);
  }
  // A duplicate counts towards the three points; a NaN point finds nothing and is not found.
  const std::vector<float> dup = Normals({0, 0, 0, 0, 0, 0, 1, 0, 0, NAN, 0, 0}, 2.0f, kSerial);
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(std::isnan(dup[3 * i])) << i;
  EXPECT_EQ(std::vector<float>(dup.begin() + 9, dup.end()), std::vector<float>(3, 0.0f));
  // Radius 0 and NaN find nothing; a negative radius is its magnitude.
  const std::vector<float> grid = test::GridCloud(6, 6, 0.1f);
  EXPECT_EQ(Normals(grid, 0.0f, kSerial), std::vector<float>(grid.size(), 0.0f));
  EXPECT_EQ(Normals(grid, NAN, kSerial), std::vector<float>(grid.size(), 0.0f));
  EXPECT_TRUE(test::SameBits(Normals(grid, -0.25f, kSerial), Normals(grid, 0.25f, kSerial)));
  // A vertical plane has no solution with z = 1: the result is zero or a unit vector lying in
  // the wall (x = 0 here), never one pointing down.
  std::vector<float> wall = test::RandomCloud(300, 5);
  for (size_t i = 0; i < wall.size(); i += 3) wall[i] = 0.5f;
  const std::vector<float> wallNormals = Normals(wall, 0.2f, kSerial);
  for (size_t i = 0; i < wallNormals.size(); i += 3) {
    EXPECT_EQ(wallNormals[i], 0.0f);
    EXPECT_GE(wallNormals[i + 2], 0.0f);
  }
}

TEST(NormalEstimationTest, ReComputeFlipsOnlyAgainstANegativeDotProduct) {
  // Plane z = 0: normals (0, 0, 1). Irregular, since repeated eigenvalues of a regular grid's
  // neighbourhoods can make the unclamped acos NaN and the normal zero.
  std::vector<float> grid = test::RandomCloud(40, 9);
  for (size_t i = 2; i < grid.size(); i += 3) grid[i] = 0.0f;
  const auto count = static_cast<int32_t>(grid.size() / 3);
  std::vector<float> caller(grid.size());
  for (int32_t i = 0; i < count; ++i) {
    const float choices[4][3] = {{0, 0, -1}, {0, 0, 0}, {1, 0, 0}, {0.2f, 0, 0.5f}};
    std::copy_n(choices[i % 4], 3, &caller[3 * i]);
  }
  std::vector<float> normals = caller;
  ReComputeNormals(grid.data(), count, 0.5f, kSerial, normals.data());
  for (int32_t i = 0; i < count; ++i) {
    const float z = i % 4 == 0 ? -1.0f : 1.0f;  // only the opposing normal is turned
    EXPECT_EQ(normals[3 * i + 2], z) << i;
  }
}

TEST(NormalEstimationTest, ParallelRunsGiveTheSerialBits) {
  const std::vector<float> bunny = test::LoadSample("bunny.asc");
  ASSERT_FALSE(bunny.empty());
  std::vector<float> noisy = bunny;
  noisy[30] = NAN;
  const std::vector<float> serial = Normals(noisy, 1.0f, kSerial);
  std::vector<float> serialRe = serial;
  for (float& v : serialRe) v = -v;
  const auto count = static_cast<int32_t>(noisy.size() / 3);
  ReComputeNormals(noisy.data(), count, 1.0f, kSerial, serialRe.data());
  for (int threads : {2, 3, 4}) {
    test::ScopedThreads scoped(threads);
    EXPECT_TRUE(test::SameBits(Normals(noisy, 1.0f, kParallel), serial)) << threads;
    std::vector<float> re = serial;
    for (float& v : re) v = -v;
    ReComputeNormals(noisy.data(), count, 1.0f, kParallel, re.data());
    EXPECT_TRUE(test::SameBits(re, serialRe)) << threads;
  }
}

}  // namespace
}  // namespace qorv
