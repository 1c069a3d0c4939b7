// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "geometry/rigid_transform.hpp"

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "support/clouds.hpp"
#include "support/floats.hpp"

namespace qorv {
namespace {

using test::SameBits;

// The per-point formulas, one point at a time, in float (the tests build without contraction too).
std::vector<float> Reference(const double* matrix, bool translate, const std::vector<float>& in) {
  float m[12] = {};
  for (int i = 0; i < (translate ? 12 : 9); ++i) m[i] = static_cast<float>(matrix[i]);
  std::vector<float> out(in.size());
  for (size_t i = 0; i < in.size(); i += 3) {
    const float x = in[i], y = in[i + 1], z = in[i + 2];
    for (int r = 0; r < 3; ++r) {
      float v = m[3 * r] * x + m[3 * r + 1] * y + m[3 * r + 2] * z;
      if (translate) v += m[9 + r];
      out[i + r] = v;
    }
  }
  return out;
}

void Apply(bool translate, const double* m, const float* in, float* out, int64_t n) {
  translate ? TransformPoints(m, in, out, n) : RotatePoints(m, in, out, n);
}

// Every split into 8-point, 4-point and single-point passes gives the formulas' bits, out of place
// and in place.
TEST(RigidTransformTest, AllPassesMatchTheFormulasBitForBit) {
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> uniform(-2.0, 2.0);
  for (const bool translate : {false, true}) {
    for (const int n : {1, 3, 4, 7, 8, 9, 17, 100}) {
      double m[12];
      for (double& v : m) v = uniform(rng);
      std::vector<float> in = test::RandomCloud(n, static_cast<uint32_t>(n), 50.0f);
      in[0] = -0.0f;
      const std::vector<float> expected = Reference(m, translate, in);
      std::vector<float> out(in.size(), NAN);
      Apply(translate, m, in.data(), out.data(), n);
      EXPECT_TRUE(SameBits(out, expected)) << "n = " << n << " translate " << translate;
      Apply(translate, m, in.data(), in.data(), n);
      EXPECT_TRUE(SameBits(in, expected)) << "in place, n = " << n << " translate " << translate;
    }
  }
}

TEST(RigidTransformTest, IdentityInPlaceTouchesNothing) {
  // -0 and a NaN payload would both change if the identity were applied.
  std::vector<float> points = {-0.0f, 1.0f, 2.0f, 3.0f, -0.0f, 5.0f};
  uint32_t payload = 0x7fc01234u;
  std::memcpy(&points[1], &payload, sizeof(float));
  for (int i = 0; i < 9 * 3; ++i) points.push_back(static_cast<float>(i) - 4.0f);
  const std::vector<float> before = points;
  const int64_t n = static_cast<int64_t>(points.size() / 3);
  const double identity[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
  const double nearIdentity[12] = {1 + 1e-12, 0, 0, 0, 1 - 1e-12, 0, 0, 0, 1 + 1e-12, 0, 1e-50, 0};
  for (const double* m : {identity, nearIdentity}) {
    RotatePoints(m, points.data(), points.data(), n);
    EXPECT_TRUE(SameBits(points, before));
    TransformPoints(m, points.data(), points.data(), n);
    EXPECT_TRUE(SameBits(points, before));
  }
  // Out of place the identity is applied like any matrix: a copy of ordinary values.
  const std::vector<float> ordinary = test::RandomCloud(13, 5);
  std::vector<float> copy(ordinary.size(), NAN);
  TransformPoints(identity, ordinary.data(), copy.data(), 13);
  EXPECT_EQ(copy, ordinary);
  // A translation breaks the shortcut even in place.
  const double shift[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0.5};
  std::vector<float> moved = ordinary;
  TransformPoints(shift, moved.data(), moved.data(), 13);
  EXPECT_TRUE(SameBits(moved, Reference(shift, true, ordinary)));
}

TEST(RigidTransformTest, TranslationComesLast) {
  const double transform[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 5, 6, 7};
  const std::vector<float> in = test::GridCloud(3, 3, 0.5f);
  std::vector<float> out(in.size());
  TransformPoints(transform, in.data(), out.data(), 9);
  for (size_t i = 0; i < in.size(); i += 3) {
    EXPECT_EQ(out[i], in[i] + 5.0f);
    EXPECT_EQ(out[i + 1], in[i + 1] + 6.0f);
    EXPECT_EQ(out[i + 2], in[i + 2] + 7.0f);
  }
  const double quarterTurn[9] = {0, -1, 0, 1, 0, 0, 0, 0, 1};  // 90 degrees about z
  const float p[3] = {1, 2, 3};
  float q[3];
  RotatePoints(quarterTurn, p, q, 1);
  EXPECT_EQ(q[0], -2.0f);
  EXPECT_EQ(q[1], 1.0f);
  EXPECT_EQ(q[2], 3.0f);
}

}  // namespace
}  // namespace qorv
