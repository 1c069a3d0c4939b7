// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "geometry/absolute_orientation.hpp"

#include <array>
#include <cmath>
#include <random>
#include <vector>

#include <Eigen/Dense>
#include <gtest/gtest.h>

#include "support/clouds.hpp"

namespace qorv {
namespace {

using Motion = std::array<float, 12>;

Eigen::Matrix3d RotationOf(const Motion& m) {
  Eigen::Matrix3d r;
  for (int i = 0; i < 9; ++i) r(i / 3, i % 3) = m[i];
  return r;
}

// Oracle: the best proper rotation by SVD of the cross-covariance, in double (Kabsch/Umeyama).
Motion KabschMotion(const std::vector<float>& a, const std::vector<float>& b) {
  const Eigen::Index n = static_cast<Eigen::Index>(a.size() / 3);
  const Eigen::Map<const Eigen::Matrix<float, 3, Eigen::Dynamic>> ma(a.data(), 3, n),
      mb(b.data(), 3, n);
  const Eigen::MatrixXd da = ma.cast<double>(), db = mb.cast<double>();
  const Eigen::Vector3d ca = da.rowwise().mean(), cb = db.rowwise().mean();
  const Eigen::Matrix3d h = (db.colwise() - cb) * (da.colwise() - ca).transpose();
  const Eigen::JacobiSVD<Eigen::Matrix3d> svd(h, Eigen::ComputeFullU | Eigen::ComputeFullV);
  Eigen::Matrix3d d = Eigen::Matrix3d::Identity();
  d(2, 2) = (svd.matrixV() * svd.matrixU().transpose()).determinant() < 0 ? -1.0 : 1.0;
  const Eigen::Matrix3d r = svd.matrixV() * d * svd.matrixU().transpose();
  const Eigen::Vector3d t = ca - r * cb;
  Motion m;
  for (int i = 0; i < 9; ++i) m[i] = static_cast<float>(r(i / 3, i % 3));
  for (int i = 0; i < 3; ++i) m[9 + i] = static_cast<float>(t(i));
  return m;
}

std::vector<float> Moved(const std::vector<float>& points,
                         const Eigen::Matrix3f& r,
                         const Eigen::Vector3f& t) {
  std::vector<float> out(points.size());
  for (size_t i = 0; i < points.size(); i += 3) {
    const Eigen::Vector3f p = r * Eigen::Vector3f(points[i], points[i + 1], points[i + 2]) + t;
    for (int d = 0; d < 3; ++d) out[i + d] = p(d);
  }
  return out;
}

void ExpectProperRotation(const Motion& m) {
  const Eigen::Matrix3d r = RotationOf(m);
  EXPECT_TRUE((r * r.transpose()).isApprox(Eigen::Matrix3d::Identity(), 1e-5));
  EXPECT_NEAR(r.determinant(), 1.0, 1e-5);
}

void ExpectNear(const Motion& actual, const Motion& expected, float tolerance) {
  for (int i = 0; i < 12; ++i) EXPECT_NEAR(actual[i], expected[i], tolerance) << "element " << i;
}

TEST(AbsoluteOrientationTest, EqualSetsGiveTheIdentity) {
  const std::vector<float> points = test::RandomCloud(50, 1);
  const Motion m = AbsoluteOrientation(points.data(), points.data(), 50);
  ExpectNear(m, {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}, 1e-5f);
}

TEST(AbsoluteOrientationTest, RecoversAQuarterTurnAndShift) {
  const std::vector<float> b = test::RandomCloud(40, 2, 2.0f);
  Eigen::Matrix3f rz;
  rz << 0, -1, 0, 1, 0, 0, 0, 0, 1;
  const std::vector<float> a = Moved(b, rz, Eigen::Vector3f(1, 2, 3));
  const Motion m = AbsoluteOrientation(a.data(), b.data(), 40);
  ExpectNear(m, {0, -1, 0, 1, 0, 0, 0, 0, 1, 1, 2, 3}, 1e-5f);
}

TEST(AbsoluteOrientationTest, AgreesWithSvdOnNoisyAndMirroredSets) {
  std::mt19937 rng(11);
  std::normal_distribution<float> noise(0.0f, 0.01f);
  for (int trial = 0; trial < 10; ++trial) {
    const std::vector<float> b = test::RandomCloud(30 + trial, 100 + trial, 3.0f);
    const Eigen::Quaternionf q = Eigen::Quaternionf::UnitRandom();
    std::vector<float> a = Moved(b, q.toRotationMatrix(), Eigen::Vector3f(trial, -1, 0.5f));
    for (float& v : a) v += noise(rng);
    const Motion m = AbsoluteOrientation(a.data(), b.data(), static_cast<int32_t>(b.size() / 3));
    ExpectProperRotation(m);
    ExpectNear(m, KabschMotion(a, b), 2e-4f);

    // A mirror image has no rotation onto it: the best proper one, never a reflection.
    std::vector<float> mirrored = b;
    for (size_t i = 0; i < mirrored.size(); i += 3) mirrored[i] = -mirrored[i];
    const Motion mm =
        AbsoluteOrientation(mirrored.data(), b.data(), static_cast<int32_t>(b.size() / 3));
    ExpectProperRotation(mm);
    ExpectNear(mm, KabschMotion(mirrored, b), 1e-3f);
  }
}

TEST(AbsoluteOrientationTest, OnePairStillGivesARotationThatMatches) {
  const float a[3] = {4, 5, 6};
  const float b[3] = {1, -1, 2};
  const Motion m = AbsoluteOrientation(a, b, 1);
  ExpectProperRotation(m);
  const Eigen::Vector3d moved = RotationOf(m) * Eigen::Vector3d(1, -1, 2);
  for (int d = 0; d < 3; ++d) EXPECT_NEAR(moved(d) + m[9 + d], a[d], 1e-5);
}

}  // namespace
}  // namespace qorv
