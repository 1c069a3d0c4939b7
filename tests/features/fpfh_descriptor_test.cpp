// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "features/fpfh_descriptor.hpp"

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "features/pair_features.hpp"
#include "runtime/parallel_for.hpp"
#include "support/features_shapes.hpp"
#include "support/floats.hpp"

namespace qorv {
namespace {

using test::SameBits;

constexpr float kEps = 1.1920929e-07f;

std::vector<float> Descriptors(const test::OrientedCloud& cloud,
                               const std::vector<int32_t>& keyPoints,
                               float featureRadius,
                               float histogramRadius,
                               bool multiThread) {
  const PointKdTree tree(cloud.points.data(), cloud.count());
  std::vector<float> out(keyPoints.size() * 33, -1.0f);
  ComputeDescriptors(tree,
                     cloud.normals.data(),
                     keyPoints.data(),
                     static_cast<int32_t>(keyPoints.size()),
                     featureRadius,
                     histogramRadius,
                     Execution{multiThread},
                     out.data());
  return out;
}

std::vector<float> PointHistogram(const test::OrientedCloud& cloud, int32_t point, float radius) {
  const PointKdTree tree(cloud.points.data(), cloud.count());
  RadiusResult scratch;
  std::vector<float> h(33, -1.0f);
  ComputePairHistograms(tree, cloud.normals.data(), point, radius * radius, scratch, h.data());
  return h;
}

// Oracles: the point histogram binned by the plain formulas, and descriptors that recompute every
// neighbour's histogram for every key point.

void LiteralSoftBin(float* h, float x, float w) {
  if (x < 0.0f) x += 11.0f;
  const int b = static_cast<int>(x);
  const float t = x - static_cast<float>(b);
  h[b % 11] += (1.0f - t) * w;
  h[(b + 1) % 11] += t * w;
}

std::vector<float> LiteralPointHistogram(const PointKdTree& tree,
                                         const float* normals,
                                         int32_t s,
                                         float radiusSq) {
  std::vector<float> h(33, 0.0f);
  RadiusResult found;
  const float* ps = tree.element(s);
  tree.radiusSearch(ps, radiusSq, found, false);
  for (size_t n = 0; n < found.size(); ++n) {
    const int32_t j = found.indices[n];
    const float d = std::sqrt(found.distSq[n]);
    if (j == s || d < kEps) continue;
    const PairFeatures f =
        ComputePairFeatures(ps, normals + s * 3, tree.element(j), normals + j * 3, d);
    LiteralSoftBin(&h[11], (f.alpha + 1.0f) * 5.5f, f.weight);
    LiteralSoftBin(&h[0], f.theta * 1.7507044f + 5.5f, f.weight);
    LiteralSoftBin(&h[22], (f.phi + 1.0f) * 5.5f, f.weight);
  }
  return h;
}

std::vector<float> LiteralDescriptors(const test::OrientedCloud& cloud,
                                      const std::vector<int32_t>& keyPoints,
                                      float featureRadius,
                                      float histogramRadius) {
  const PointKdTree tree(cloud.points.data(), cloud.count());
  const float* normals = cloud.normals.data();
  const float featureSq = featureRadius * featureRadius;
  const float scale = featureSq / 9.0f;
  const float histogramSq = histogramRadius * histogramRadius;
  std::vector<float> out(keyPoints.size() * 33, 0.0f);
  RadiusResult found;
  for (size_t k = 0; k < keyPoints.size(); ++k) {
    float* d = &out[k * 33];
    const int32_t s = keyPoints[k];
    found.clear();
    if (tree.boxDistSq(tree.element(s)) <= featureSq)
      tree.radiusSearch(tree.element(s), featureSq, found, false);
    float total = 0.0f;
    for (size_t n = 0; n < found.size(); ++n) {
      if (found.indices[n] == s) continue;
      const std::vector<float> h =
          LiteralPointHistogram(tree, normals, found.indices[n], histogramSq);
      if (found.distSq[n] < kEps) continue;
      const float w = std::sqrt(scale / (scale + found.distSq[n]));
      for (int b = 0; b < 33; ++b) d[b] += w * h[static_cast<size_t>(b)];
      total += w;
    }
    const std::vector<float> own = LiteralPointHistogram(tree, normals, s, histogramSq);
    if (total <= 0.0f) total = 1.0f;
    for (int b = 0; b < 33; ++b) d[b] += total * own[static_cast<size_t>(b)];
    for (int block = 0; block < 33; block += 11) {
      float sum = 0.0f;
      for (int b = 0; b < 11; ++b) sum += d[block + b];
      const float factor = sum <= kEps ? 0.0f : 100.0f / sum;
      for (int b = 0; b < 11; ++b) d[block + b] *= factor;
    }
  }
  return out;
}

void ExpectBlocksOf100OrZero(const std::vector<float>& descriptors) {
  for (size_t block = 0; block < descriptors.size(); block += 11) {
    double sum = 0.0;
    bool allZero = true;
    for (size_t b = 0; b < 11; ++b) {
      ASSERT_TRUE(std::isfinite(descriptors[block + b]));
      ASSERT_GE(descriptors[block + b], 0.0f);
      sum += descriptors[block + b];
      allZero &= descriptors[block + b] == 0.0f;
    }
    if (!allZero) {
      ASSERT_NEAR(sum, 100.0, 1e-3) << "block " << block / 11;
    }
  }
}

// A surface cloud with awkward members: duplicated points and points with a NaN coordinate.
test::OrientedCloud AwkwardSurface() {
  test::OrientedCloud cloud = test::WavySurface(30, 30, 0.05f);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (int32_t i = 0; i < 900; i += 97) {
    const size_t o = static_cast<size_t>(i) * 3;
    cloud.add(cloud.points[o],
              cloud.points[o + 1],
              cloud.points[o + 2],
              cloud.normals[o],
              cloud.normals[o + 1],
              cloud.normals[o + 2]);
    cloud.add(nan, cloud.points[o + 1], cloud.points[o + 2], 0.0f, 0.0f, 1.0f);
  }
  return cloud;
}

// Key points in clusters, so that feature neighbourhoods overlap, plus duplicates of the list.
std::vector<int32_t> ClusteredKeyPoints() {
  std::vector<int32_t> keyPoints;
  for (int32_t c = 31; c < 900; c += 113) {
    for (int32_t i = c; i < c + 4 && i < 900; ++i) keyPoints.push_back(i);
  }
  keyPoints.push_back(97);   // has a coincident duplicate
  keyPoints.push_back(31);   // listed twice
  keyPoints.push_back(900);  // the duplicate itself
  return keyPoints;
}

TEST(PairFeatures, AnalyticFrameAndSourceChoice) {
  const float beta = 0.3f;
  const float origin[3] = {0, 0, 0}, along[3] = {1, 0, 0};
  const float tilted[3] = {std::sin(beta), 0, std::cos(beta)}, up[3] = {0, 0, 1};
  // Source s (|a| = sin beta > |b| = 0): phi = a, alpha = 0, theta = -beta, weight 1.
  PairFeatures f = ComputePairFeatures(origin, tilted, along, up, 1.0f);
  EXPECT_FLOAT_EQ(f.phi, std::sin(beta));
  EXPECT_NEAR(f.alpha, 0.0f, 1e-7f);
  EXPECT_NEAR(f.theta, -beta, 1e-6f);
  EXPECT_FLOAT_EQ(f.weight, 1.0f);
  // Roles swapped: j is now the source, phi = -b keeps the value, the weight is |1 - b^2| of the
  // new b = tilted . (-u).
  f = ComputePairFeatures(along, up, origin, tilted, 1.0f);
  EXPECT_FLOAT_EQ(f.phi, std::sin(beta));
  EXPECT_NEAR(f.theta, -beta, 1e-6f);
  EXPECT_FLOAT_EQ(f.weight, 1.0f - std::sin(beta) * std::sin(beta));
  // A normal along the line: the cross products vanish and stay zero, no NaN.
  f = ComputePairFeatures(origin, along, along, up, 1.0f);
  EXPECT_EQ(f.phi, 1.0f);
  EXPECT_EQ(f.alpha, 0.0f);
  EXPECT_EQ(f.theta, 0.0f);
  EXPECT_EQ(f.weight, 1.0f);
  // Invariant under a rotation of the whole pair.
  const test::OrientedCloud pair = [&] {
    test::OrientedCloud c;
    c.add(0.1f, 0.2f, 0.3f, 0.36f, 0.48f, 0.8f);
    c.add(0.4f, 0.1f, 0.35f, -0.6f, 0.0f, 0.8f);
    return c;
  }();
  const float t[3] = {1.0f, -2.0f, 0.5f};
  const test::OrientedCloud moved = test::RigidlyMoved(pair, 1.1f, t);
  const float d = std::sqrt(0.09f + 0.01f + 0.0025f);
  const PairFeatures a =
      ComputePairFeatures(&pair.points[0], &pair.normals[0], &pair.points[3], &pair.normals[3], d);
  const PairFeatures b = ComputePairFeatures(
      &moved.points[0], &moved.normals[0], &moved.points[3], &moved.normals[3], d);
  EXPECT_NEAR(a.phi, b.phi, 1e-5f);
  EXPECT_NEAR(a.alpha, b.alpha, 1e-5f);
  EXPECT_NEAR(a.theta, b.theta, 1e-5f);
  EXPECT_NEAR(a.weight, b.weight, 1e-5f);
}

TEST(PointHistogram, TopOfEachRangeWrapsToBinZero) {
  // theta = pi: opposite normals across the line, which is perpendicular to both.
  test::OrientedCloud opposite;
  opposite.add(0, 0, 0, 0, 0, 1);
  opposite.add(1, 0, 0, 0, 0, -1);
  std::vector<float> h = PointHistogram(opposite, 0, 2.0f);
  EXPECT_NEAR(h[0], 1.0f, 1e-6f);  // angle block
  EXPECT_NEAR(h[10], 0.0f, 1e-6f);
  EXPECT_FLOAT_EQ(h[11 + 5], 0.5f);  // alpha = 0: halfway between bins 5 and 6
  EXPECT_FLOAT_EQ(h[11 + 6], 0.5f);
  // phi = 1: the source normal along the line.
  test::OrientedCloud along;
  along.add(0, 0, 0, 1, 0, 0);
  along.add(1, 0, 0, 0, 0, 1);
  h = PointHistogram(along, 0, 2.0f);
  EXPECT_EQ(h[22], 1.0f);
  for (int b = 23; b < 33; ++b) EXPECT_EQ(h[static_cast<size_t>(b)], 0.0f);
  // The neighbour itself outside the radius: nothing at all.
  EXPECT_EQ(PointHistogram(along, 0, 1.0f), std::vector<float>(33, 0.0f));
}

TEST(PointHistogram, MatchesThePlainBinningFormulas) {
  const test::OrientedCloud cloud = AwkwardSurface();
  const PointKdTree tree(cloud.points.data(), cloud.count());
  RadiusResult scratch;
  std::vector<float> h(33);
  for (int32_t s = 0; s < cloud.count(); s += 7) {
    ComputePairHistograms(tree, cloud.normals.data(), s, 0.04f, scratch, h.data());
    ASSERT_TRUE(SameBits(h, LiteralPointHistogram(tree, cloud.normals.data(), s, 0.04f))) << s;
  }
}

TEST(Descriptors, SharedHistogramsGiveTheLiteralResultBitForBitInBothVariants) {
  const test::OrientedCloud cloud = AwkwardSurface();
  const std::vector<int32_t> keyPoints = ClusteredKeyPoints();
  for (const float featureRadius : {0.06f, 0.12f}) {
    const std::vector<float> expected = LiteralDescriptors(cloud, keyPoints, featureRadius, 0.15f);
    EXPECT_TRUE(SameBits(Descriptors(cloud, keyPoints, featureRadius, 0.15f, false), expected));
    for (const int threads : {2, 3, 4}) {
      const ThreadScope scope(threads);
      EXPECT_TRUE(SameBits(Descriptors(cloud, keyPoints, featureRadius, 0.15f, true), expected));
    }
    ExpectBlocksOf100OrZero(expected);
  }
}

TEST(Descriptors, InvariantUnderARigidMotion) {
  const test::OrientedCloud cloud = test::WavySurface(30, 30, 0.05f);
  const float t[3] = {3.0f, -1.0f, 2.0f};
  const test::OrientedCloud moved = test::RigidlyMoved(cloud, 0.8f, t);
  std::vector<int32_t> keyPoints;
  for (int32_t i = 100; i < 800; i += 23) keyPoints.push_back(i);
  const std::vector<float> a = Descriptors(cloud, keyPoints, 0.1f, 0.15f, false);
  const std::vector<float> b = Descriptors(moved, keyPoints, 0.1f, 0.15f, false);
  ExpectBlocksOf100OrZero(a);
  ExpectBlocksOf100OrZero(b);
  float worst = 0.0f;
  for (size_t i = 0; i < a.size(); ++i) worst = std::max(worst, std::fabs(a[i] - b[i]));
  EXPECT_LT(worst, 0.01f);
}

TEST(Descriptors, VanishingBlocksAreZerosNotNaN) {
  // Points on a line with normals along it: every pair weight |1 - b^2| is 0.
  test::OrientedCloud line;
  for (int i = 0; i < 10; ++i) line.add(static_cast<float>(i) * 0.1f, 0, 0, 1, 0, 0);
  EXPECT_EQ(Descriptors(line, {0, 4, 9}, 0.25f, 0.35f, true), std::vector<float>(99, 0.0f));
  // A lone point: W = 1 and an empty own histogram.
  test::OrientedCloud lone;
  lone.add(0, 0, 0, 0, 0, 1);
  lone.add(5, 0, 0, 0, 0, 1);
  EXPECT_EQ(Descriptors(lone, {0}, 1.0f, 1.0f, false), std::vector<float>(33, 0.0f));
  // Without feature neighbours the descriptor is the point's own histogram, normalised.
  const test::OrientedCloud cloud = test::WavySurface(10, 10, 0.05f);
  const std::vector<float> own = PointHistogram(cloud, 55, 0.12f);
  const std::vector<float> d = Descriptors(cloud, {55}, 0.01f, 0.12f, false);
  for (size_t block = 0; block < 33; block += 11) {
    float sum = 0.0f;
    for (size_t b = 0; b < 11; ++b) sum += own[block + b];
    for (size_t b = 0; b < 11; ++b) EXPECT_FLOAT_EQ(d[block + b], own[block + b] * (100.0f / sum));
  }
}

TEST(Descriptors, NaNNormalsDoNotDisturbOtherKeyPoints) {
  test::OrientedCloud cloud = test::WavySurface(30, 30, 0.05f);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (int32_t i = 0; i < 30; ++i) {  // the first row: y near 0
    std::fill(cloud.normals.begin() + i * 90, cloud.normals.begin() + i * 90 + 3, nan);
  }
  const std::vector<int32_t> keyPoints = {0, 1, 30, 450, 451, 899};
  const std::vector<float> serial = Descriptors(cloud, keyPoints, 0.1f, 0.15f, false);
  EXPECT_TRUE(SameBits(serial, Descriptors(cloud, keyPoints, 0.1f, 0.15f, true)));
  // Key points far from every NaN normal are untouched by them.
  const std::vector<float> far(serial.begin() + 3 * 33, serial.end());
  ExpectBlocksOf100OrZero(far);
}

}  // namespace
}  // namespace qorv
