// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Inputs the C interface accepts but no scan would produce: NaN and infinite coordinates, clouds
// that are a point, a line or a plane, lengths that are zero, negative or NaN, counts and windows
// at the int32 limits, and clouds of millions of points. Every export must return its documented
// code and result without crashing, hanging or allocating in proportion to a neighbour count; where
// the thread setting is consulted, both variants must agree bit for bit.
#include <algorithm>
#include <array>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/qorv.h>

#include "geometry/vec3.hpp"
#include "support/clouds.hpp"
#include "support/depth_scenes.hpp"
#include "support/robust_calls.hpp"

namespace {

using qorv::HasNaN;
using qorv::test::CloudResults;
using qorv::test::IndexList;
using qorv::test::KeyPoints;
using qorv::test::Matches;
using qorv::test::ScopedInstance;

// The squared-distance bound of the KD-tree searches, as a distance: what a point without a k-th
// neighbour reports to the distance check.
const float kNoNeighbour = std::sqrt(FLT_MAX);

bool IsFinite(const float* p) {
  return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

struct NamedCloud {
  std::string name;
  std::vector<float> points;
  bool finite;  // every coordinate finite and small enough for squared distances
};

std::vector<NamedCloud> DegenerateClouds() {
  std::vector<NamedCloud> clouds;
  std::vector<float> nan = qorv::test::RandomCloud(300, 11);
  for (size_t i = 0; i < 300; i += 9) nan[3 * i + i % 3] = NAN;
  std::fill(nan.begin() + 30, nan.begin() + 33, NAN);
  clouds.push_back({"NaN coordinates", nan, false});

  std::vector<float> inf = qorv::test::RandomCloud(300, 12);
  for (size_t i = 0; i < 300; i += 11) inf[3 * i + i % 3] = i % 2 ? INFINITY : -INFINITY;
  clouds.push_back({"infinite coordinates", inf, false});

  std::vector<float> equal;
  for (int i = 0; i < 60; ++i) equal.insert(equal.end(), {0.5f, -0.25f, 1.0f});
  clouds.push_back({"all points equal", equal, true});

  std::vector<float> line;
  for (int i = 0; i < 80; ++i) {
    const float s = 0.02f * static_cast<float>(i);
    line.insert(line.end(), {s, 2.0f * s, 3.0f * s});
  }
  clouds.push_back({"collinear", line, true});

  std::vector<float> tilted = qorv::test::GridCloud(15, 15, 0.04f);
  for (size_t i = 0; i < tilted.size(); i += 3)
    tilted[i + 2] = 0.3f * tilted[i] + 0.2f * tilted[i + 1];
  clouds.push_back({"tilted plane", tilted, true});
  clouds.push_back({"horizontal grid", qorv::test::GridCloud(15, 15, 0.04f), true});
  clouds.push_back({"one point", {0.25f, 0.5f, 0.75f}, true});
  clouds.push_back({"two points", {0.0f, 0.0f, 0.0f, 0.05f, 0.0f, 0.0f}, true});

  std::vector<float> repeated;
  const std::vector<float> base = qorv::test::RandomCloud(100, 13);
  for (int copy = 0; copy < 3; ++copy) repeated.insert(repeated.end(), base.begin(), base.end());
  clouds.push_back({"every point three times", repeated, true});

  std::vector<float> extreme = qorv::test::RandomCloud(60, 14);
  const float values[] = {FLT_MAX, -FLT_MAX, 1e30f, -1e30f, FLT_MIN, 1e-40f, 0.0f, -0.0f};
  for (size_t i = 0; i < extreme.size(); i += 5) extreme[i] = values[(i / 5) % 8];
  clouds.push_back({"extreme magnitudes", extreme, false});

  std::vector<float> tiny = qorv::test::RandomCloud(50, 15);
  for (float& v : tiny) v *= 1e-30f;  // squared distances underflow to 0
  clouds.push_back({"tiny spread", tiny, true});
  return clouds;
}

void ExpectAscendingInRange(const IndexList& list, size_t count, const char* what) {
  EXPECT_EQ(list.calls, 1) << what;
  for (size_t i = 0; i < list.indices.size(); ++i) {
    EXPECT_GE(list.indices[i], 0) << what;
    EXPECT_LT(static_cast<size_t>(list.indices[i]), count) << what;
    if (i > 0) {
      EXPECT_GT(list.indices[i], list.indices[i - 1]) << what;
    }
  }
}

// R^T R = I and det R = 1.
void ExpectProperRotation(const std::vector<double>& m, double tolerance) {
  for (int a = 0; a < 3; ++a) {
    for (int b = 0; b < 3; ++b) {
      double dot = 0.0;
      for (int r = 0; r < 3; ++r) dot += m[4 * r + a] * m[4 * r + b];
      EXPECT_NEAR(dot, a == b ? 1.0 : 0.0, tolerance) << "columns " << a << ", " << b;
    }
  }
  const double det = m[0] * (m[5] * m[10] - m[6] * m[9]) - m[1] * (m[4] * m[10] - m[6] * m[8]) +
                     m[2] * (m[4] * m[9] - m[5] * m[8]);
  EXPECT_NEAR(det, 1.0, tolerance);
}

TEST(BadInputTest, DegenerateCloudsGiveDocumentedResultsInBothVariants) {
  const ScopedInstance serial(false), parallel(true);
  for (const NamedCloud& cloud : DegenerateClouds()) {
    SCOPED_TRACE(cloud.name);
    const size_t n = cloud.points.size() / 3;
    const CloudResults one = qorv::test::RunCloudExports(serial.get(), cloud.points);
    const CloudResults many = qorv::test::RunCloudExports(parallel.get(), cloud.points);
    EXPECT_EQ(one.codes, std::vector<QorvResult>(one.codes.size(), QORV_OK));
    EXPECT_EQ(one.differences(many), "");

    ExpectAscendingInRange(one.voxel, n, "voxel");
    ExpectAscendingInRange(one.outliers, n, "outliers");
    ExpectAscendingInRange(one.edges, n, "edges");
    for (const int32_t i : one.voxel.indices) EXPECT_TRUE(IsFinite(&cloud.points[3 * i])) << i;
    if (n == 1) {
      EXPECT_TRUE(one.voxel.indices.empty());
      EXPECT_TRUE(one.outliers.indices.empty());
      EXPECT_EQ(one.meanDistance[0], kNoNeighbour);
    }
    EXPECT_EQ(one.keyPoints.calls, 1);
    EXPECT_EQ(one.keyPoints.reserved, 0);
    ASSERT_GE(one.keyPoints.count, 0);
    EXPECT_LE(static_cast<size_t>(one.keyPoints.count), n);
    for (size_t k = 0; k < one.keyPoints.positions.size(); k += 3) {
      EXPECT_FALSE(HasNaN(&one.keyPoints.positions[k])) << "key point " << k / 3;
    }
    EXPECT_TRUE(one.meanDistance[0] >= 0.0f) << one.meanDistance[0];

    float lo[3] = {FLT_MAX, FLT_MAX, FLT_MAX}, hi[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
    for (size_t i = 0; i < n; ++i) {
      for (int d = 0; d < 3; ++d) {
        lo[d] = std::min(lo[d], cloud.points[3 * i + d]);
        hi[d] = std::max(hi[d], cloud.points[3 * i + d]);
      }
    }
    for (size_t i = 0; i < n; ++i) {
      const float* p = &cloud.points[3 * i];
      const float* normal = &one.normals[3 * i];
      const float* smooth = &one.smoothed[3 * i];
      if (HasNaN(p)) {  // never a neighbour, never given a normal, nothing to average
        EXPECT_EQ(normal[0] == 0.0f && normal[1] == 0.0f && normal[2] == 0.0f, true) << i;
        EXPECT_TRUE(std::isnan(smooth[0]) && std::isnan(smooth[1]) && std::isnan(smooth[2])) << i;
        continue;
      }
      if (!cloud.finite) continue;
      const float lengthSq = normal[0] * normal[0] + normal[1] * normal[1] + normal[2] * normal[2];
      EXPECT_TRUE(lengthSq == 0.0f || std::fabs(lengthSq - 1.0f) < 1e-4f) << i << ": " << lengthSq;
      EXPECT_GE(normal[2], 0.0f) << i;
      for (int d = 0; d < 3; ++d) {  // an average of neighbours stays inside their box
        const float slack = 1e-5f * std::max(1.0f, std::fabs(lo[d]) + std::fabs(hi[d]));
        EXPECT_GE(smooth[d], lo[d] - slack) << i;
        EXPECT_LE(smooth[d], hi[d] + slack) << i;
      }
    }
    // The transform of the cloud carried back onto it: a proper rotation, also for a point, a
    // line or one repeated point.
    if (cloud.finite) ExpectProperRotation(one.orientation, 1e-4);
    if (cloud.name == "NaN coordinates") {
      for (const int t : {3, 7, 11}) EXPECT_TRUE(std::isnan(one.orientation[t])) << t;
    }
  }
}

TEST(BadInputTest, LengthsThatAreZeroNegativeOrNaNFollowTheirRules) {
  const ScopedInstance inst(true);
  const std::vector<float> points = qorv::test::RandomCloud(200, 21);
  const int32_t n = 200;
  const std::vector<float> zeros(points.size(), 0.0f);

  // Normals and smoothing: radius 0 or NaN finds nothing; a negative radius acts as its magnitude.
  std::vector<float> normals(points.size()), reference(points.size());
  for (const float radius : {0.0f, NAN}) {
    normals.assign(points.size(), 7.0f);
    ASSERT_EQ(QorvComputeNormals(inst.get(), points.data(), normals.data(), n, 10, radius),
              QORV_OK);
    EXPECT_EQ(normals, zeros);
    ASSERT_EQ(QorvGaussianFilter(inst.get(), points.data(), normals.data(), n, radius), QORV_OK);
    EXPECT_TRUE(std::all_of(normals.begin(), normals.end(), [](float v) { return std::isnan(v); }));
  }
  ASSERT_EQ(QorvComputeNormals(inst.get(), points.data(), reference.data(), n, 10, 0.2f), QORV_OK);
  ASSERT_EQ(QorvComputeNormals(inst.get(), points.data(), normals.data(), n, 10, -0.2f), QORV_OK);
  EXPECT_TRUE(qorv::test::SameBits(normals, reference));
  ASSERT_EQ(QorvGaussianFilter(inst.get(), points.data(), reference.data(), n, 0.2f), QORV_OK);
  ASSERT_EQ(QorvGaussianFilter(inst.get(), points.data(), normals.data(), n, -0.2f), QORV_OK);
  EXPECT_TRUE(qorv::test::SameBits(normals, reference));
  // Radii that take in everything, or overflow when squared.
  for (const float radius : {INFINITY, FLT_MAX, 1e30f}) {
    ASSERT_EQ(QorvComputeNormals(inst.get(), points.data(), normals.data(), n, 10, radius),
              QORV_OK);
    ASSERT_EQ(QorvGaussianFilter(inst.get(), points.data(), normals.data(), n, radius), QORV_OK);
    IndexList edges;
    ASSERT_EQ(
        QorvEdgeFilter(inst.get(), points.data(), n, radius, qorv::test::CollectIndices, &edges),
        QORV_OK);
    ExpectAscendingInRange(edges, n, "edges");
  }

  // Voxel sizes that give no usable grid hand over an empty list, once.
  for (const float leaf : {0.0f, -0.1f, NAN, INFINITY, -INFINITY, 1e-30f, FLT_MAX}) {
    IndexList kept;
    ASSERT_EQ(
        QorvVoxelFilter(inst.get(), points.data(), n, leaf, qorv::test::CollectIndices, &kept),
        QORV_OK)
        << leaf;
    EXPECT_EQ(kept.calls, 1) << leaf;
    EXPECT_TRUE(kept.indices.empty()) << leaf;
  }

  // A NaN threshold keeps nothing; infinite multipliers keep everything or nothing, no crash.
  IndexList kept;
  ASSERT_EQ(QorvSORFilter(inst.get(), points.data(), n, 8, NAN, qorv::test::CollectIndices, &kept),
            QORV_OK);
  EXPECT_EQ(kept.calls, 1);
  EXPECT_TRUE(kept.indices.empty());
  for (const float mul : {INFINITY, -INFINITY, -5.0f, 0.0f}) {
    IndexList some;
    ASSERT_EQ(
        QorvSORFilter(inst.get(), points.data(), n, 8, mul, qorv::test::CollectIndices, &some),
        QORV_OK);
    ExpectAscendingInRange(some, n, "outliers");
  }

  // Key points with radii and ratios the export does not check: no crash, one callback, and the
  // same bits from the serial variant.
  const ScopedInstance serial(false);
  for (const float radius : {0.0f, -0.1f, NAN, INFINITY}) {
    for (const float ratio : {0.0f, -1.0f, NAN, 2.0f}) {
      KeyPoints many, one;
      const float r = std::isinf(radius) ? 0.3f : radius;  // keep the histogram radius bounded
      auto detect = [&](QorvInstance* on, KeyPoints& out) {
        return QorvDetectAndCompute(on,
                                    points.data(),
                                    reference.data(),
                                    n,
                                    radius,
                                    radius,
                                    r,
                                    r,
                                    ratio,
                                    ratio,
                                    0,
                                    qorv::test::CollectKeyPoints,
                                    &out);
      };
      ASSERT_EQ(detect(inst.get(), many), QORV_OK);
      ASSERT_EQ(detect(serial.get(), one), QORV_OK);
      EXPECT_EQ(many.calls, 1);
      EXPECT_EQ(many.count, one.count) << radius << " " << ratio;
      EXPECT_TRUE(qorv::test::SameBits(many.descriptors, one.descriptors));
    }
  }
}

TEST(BadInputTest, NeighbourCountsNearTheInt32LimitCostNoMoreThanTheCloud) {
  const ScopedInstance inst(true);
  const int32_t n = 300;
  const std::vector<float> points = qorv::test::RandomCloud(n, 31);

  // Asking for more neighbours than there are points is the same as asking for all of them.
  IndexList huge, enough;
  ASSERT_EQ(QorvSORFilter(
                inst.get(), points.data(), n, INT32_MAX, 1.0f, qorv::test::CollectIndices, &huge),
            QORV_OK);
  ASSERT_EQ(
      QorvSORFilter(inst.get(), points.data(), n, n + 3, 1.0f, qorv::test::CollectIndices, &enough),
      QORV_OK);
  EXPECT_EQ(huge.indices, enough.indices);

  // No point has an INT32_MAX-th neighbour: each counts as the search bound.
  float hugeK = 0.0f, pastEnd = 0.0f;
  ASSERT_EQ(QorvCheckDistance(inst.get(), points.data(), n, INT32_MAX, &hugeK), QORV_OK);
  ASSERT_EQ(QorvCheckDistance(inst.get(), points.data(), n, n + 1, &pastEnd), QORV_OK);
  EXPECT_EQ(hugeK, pastEnd);
  EXPECT_EQ(hugeK, kNoNeighbour);

  // A cap above the number of candidates keeps all of them (ranked by score instead of by index).
  std::vector<float> normals(points.size());
  ASSERT_EQ(QorvComputeNormals(inst.get(), points.data(), normals.data(), n, 10, 0.25f), QORV_OK);
  KeyPoints capped, uncapped;
  for (auto* out : {&capped, &uncapped}) {
    ASSERT_EQ(QorvDetectAndCompute(inst.get(),
                                   points.data(),
                                   normals.data(),
                                   n,
                                   0.25f,
                                   0.0f,
                                   0.2f,
                                   0.3f,
                                   0.95f,
                                   0.95f,
                                   out == &capped ? INT32_MAX : 0,
                                   qorv::test::CollectKeyPoints,
                                   out),
              QORV_OK);
  }
  ASSERT_EQ(capped.count, uncapped.count);
  const auto sorted = [](const std::vector<float>& flat) {
    std::vector<std::array<float, 3>> triples(flat.size() / 3);
    for (size_t i = 0; i < triples.size(); ++i) {
      triples[i] = {flat[3 * i], flat[3 * i + 1], flat[3 * i + 2]};
    }
    std::sort(triples.begin(), triples.end());
    return triples;
  };
  EXPECT_EQ(sorted(capped.positions), sorted(uncapped.positions));

  // k nearest descriptors with k far above the target count: the found ones, then the marker in
  // the last slot, every other slot as it was.
  const int32_t targets = 5, queries = 2, k = 1 << 20;
  std::vector<float> descriptors(static_cast<size_t>(targets) * 33);
  for (size_t i = 0; i < descriptors.size(); ++i) descriptors[i] = static_cast<float>(i % 7);
  std::vector<int32_t> indices(static_cast<size_t>(queries) * k, -5);
  std::vector<float> distances(indices.size(), -5.0f);
  ASSERT_EQ(QorvMatchDescriptor(inst.get(),
                                descriptors.data(),
                                targets,
                                descriptors.data(),
                                indices.data(),
                                distances.data(),
                                k,
                                queries),
            QORV_OK);
  for (int32_t q = 0; q < queries; ++q) {
    const size_t row = static_cast<size_t>(q) * k;
    EXPECT_EQ(indices[row], q);  // itself, at distance 0
    for (size_t j = 0; j < static_cast<size_t>(targets); ++j) {
      EXPECT_GE(indices[row + j], 0);
      EXPECT_LT(indices[row + j], targets);
    }
    EXPECT_EQ(distances[row + k - 1], FLT_MAX);
    const auto rest = static_cast<std::ptrdiff_t>(row + targets);
    EXPECT_TRUE(std::all_of(indices.begin() + rest,
                            indices.begin() + rest + (k - targets),
                            [](int32_t v) { return v == -5; }));
    EXPECT_TRUE(std::all_of(distances.begin() + rest,
                            distances.begin() + rest + (k - targets - 1),
                            [](float v) { return v == -5.0f; }));
  }
}

class OrganizedBadInputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    cam_.width = 40;
    cam_.height = 30;
    cam_.fx = cam_.fy = 40.0;
    cam_.cx = 19.5;
    cam_.cy = 14.5;
    qorv::test::BoxScene box;
    box.wallDepth = 5.0;
    const std::vector<float> depth = box.render(cam_);
    const std::array<double, 9> camera = cam_.matrix();
    vertices_.assign(depth.size() * 3, 0.0f);
    normals_.assign(depth.size() * 3, 0.0f);
    ASSERT_EQ(QorvDepthToVmapNmap(inst_.get(),
                                  camera.data(),
                                  depth.data(),
                                  vertices_.data(),
                                  normals_.data(),
                                  nullptr,
                                  cam_.width,
                                  cam_.height),
              QORV_OK);
  }

  KeyPoints Detect(QorvInstance* inst,
                   int32_t score,
                   int32_t suppression,
                   int32_t descriptorHalf,
                   int32_t histogram,
                   int32_t maxKeyPoints) {
    KeyPoints out;
    EXPECT_EQ(QorvDetectAndComputeVmapNmap(inst,
                                           vertices_.data(),
                                           normals_.data(),
                                           nullptr,
                                           cam_.width,
                                           cam_.height,
                                           score,
                                           suppression,
                                           descriptorHalf,
                                           histogram,
                                           0.975f,
                                           0.975f,
                                           maxKeyPoints,
                                           qorv::test::CollectKeyPoints,
                                           &out),
              QORV_OK);
    EXPECT_EQ(out.calls, 1);
    return out;
  }

  ScopedInstance inst_{true};
  qorv::test::DepthCamera cam_;
  std::vector<float> vertices_, normals_;
};

bool SameKeyPoints(const KeyPoints& a, const KeyPoints& b) {
  return a.count == b.count && qorv::test::SameBits(a.positions, b.positions) &&
         qorv::test::SameBits(a.normals, b.normals) &&
         qorv::test::SameBits(a.descriptors, b.descriptors);
}

TEST_F(OrganizedBadInputTest, WindowsBeyondTheImageOrBelowOneAreSafe) {
  const KeyPoints reference = Detect(inst_.get(), 5, 7, 3, 5, 0);
  ASSERT_GT(reference.count, 0);
  const ScopedInstance serial(false);
  EXPECT_TRUE(SameKeyPoints(Detect(serial.get(), 5, 7, 3, 5, 0), reference));

  // Score windows with no usable inner pixel find nothing.
  for (const int32_t window : {0, 1, -1, -9, INT32_MIN, INT32_MAX, 2 * cam_.width + 1}) {
    EXPECT_EQ(Detect(inst_.get(), window, 7, 3, 5, 0).count, 0) << window;
  }
  // The other windows at any value: a suppression window below 2 suppresses nothing, a negative
  // descriptor half-window or a histogram window below 2 leaves every descriptor zero, and a
  // window larger than the image acts as the image.
  const auto allZero = [](const std::vector<float>& v) {
    return std::all_of(v.begin(), v.end(), [](float x) { return x == 0.0f; });
  };
  const KeyPoints unsuppressed = Detect(inst_.get(), 5, 1, 3, 5, 0);
  EXPECT_GT(unsuppressed.count, reference.count);
  for (const int32_t window : {0, -1, INT32_MIN}) {
    EXPECT_TRUE(SameKeyPoints(Detect(inst_.get(), 5, window, 3, 5, 0), unsuppressed)) << window;
    const int32_t negativeHalf = window == 0 ? -3 : window;
    const KeyPoints noSum = Detect(inst_.get(), 5, 7, negativeHalf, 5, 0);
    EXPECT_EQ(noSum.count, reference.count);
    EXPECT_TRUE(allZero(noSum.descriptors)) << window;
    const KeyPoints noPairs = Detect(inst_.get(), 5, 7, 3, window, 0);
    EXPECT_EQ(noPairs.count, reference.count);
    EXPECT_TRUE(allZero(noPairs.descriptors)) << window;
  }
  EXPECT_TRUE(allZero(Detect(inst_.get(), 5, 7, 3, 1, 0).descriptors));
  for (const int32_t window : {INT32_MAX, 2 * cam_.width + 1}) {
    Detect(inst_.get(), 5, window, 3, 5, 0);
    Detect(inst_.get(), 5, 7, window, 5, 0);
    Detect(inst_.get(), 5, 7, 3, window, 0);
  }
  const int32_t whole = std::max(cam_.width, cam_.height);
  EXPECT_TRUE(SameKeyPoints(Detect(inst_.get(), 5, 7, INT32_MAX, 5, 0),
                            Detect(inst_.get(), 5, 7, whole, 5, 0)));
  EXPECT_TRUE(SameKeyPoints(Detect(inst_.get(), 5, 7, 3, INT32_MAX, 0),
                            Detect(inst_.get(), 5, 7, 3, 2 * whole + 1, 0)));
  // Any cap at or above the number of key pixels changes nothing: they come in pixel order.
  EXPECT_TRUE(SameKeyPoints(Detect(inst_.get(), 5, 7, 3, 5, INT32_MAX), reference));
  EXPECT_TRUE(SameKeyPoints(Detect(inst_.get(), 5, 7, 3, 5, INT32_MIN), reference));
}

TEST_F(OrganizedBadInputTest, BrokenCamerasAndDepthsGiveMapsWithoutCrashing) {
  const size_t pixels = static_cast<size_t>(cam_.width) * cam_.height;
  std::vector<float> depth(pixels);
  for (size_t i = 0; i < pixels; ++i) {
    const float special[] = {NAN, INFINITY, -INFINITY, -1.0f, 0.0f, FLT_MAX, 1e-40f, 2.0f};
    depth[i] = i % 5 == 0 ? special[(i / 5) % 8] : 2.0f + 0.01f * static_cast<float>(i % 13);
  }
  const std::array<std::array<double, 9>, 4> cameras = {{
      {0, 0, 0, 0, 0, 0, 0, 0, 0},
      {NAN, 0, NAN, 0, NAN, NAN, 0, 0, 1},
      {INFINITY, 0, -INFINITY, 0, 1e300, 1e-300, 0, 0, 1},
      cam_.matrix(),
  }};
  std::vector<float> vertices(pixels * 3), normals(pixels * 3);
  std::vector<unsigned char> mask(pixels);
  for (const auto& camera : cameras) {
    ASSERT_EQ(QorvDepthToVmapNmap(inst_.get(),
                                  camera.data(),
                                  depth.data(),
                                  vertices.data(),
                                  normals.data(),
                                  mask.data(),
                                  cam_.width,
                                  cam_.height),
              QORV_OK);
    for (size_t i = 0; i < pixels; ++i) {
      EXPECT_TRUE(mask[i] == 0 || mask[i] == 255) << i;
      const float* nrm = &normals[3 * i];
      const float lengthSq = nrm[0] * nrm[0] + nrm[1] * nrm[1] + nrm[2] * nrm[2];
      EXPECT_TRUE(lengthSq == 0.0f || std::fabs(lengthSq - 1.0f) < 1e-4f) << i << ": " << lengthSq;
    }
    // Whatever the maps hold, detection on them is safe and agrees across variants.
    KeyPoints many, one;
    const ScopedInstance serial(false);
    for (auto [inst, out] : {std::pair{inst_.get(), &many}, std::pair{serial.get(), &one}}) {
      ASSERT_EQ(QorvDetectAndComputeVmapNmap(inst,
                                             vertices.data(),
                                             normals.data(),
                                             mask.data(),
                                             cam_.width,
                                             cam_.height,
                                             5,
                                             5,
                                             3,
                                             5,
                                             0.99f,
                                             0.99f,
                                             0,
                                             qorv::test::CollectKeyPoints,
                                             out),
                QORV_OK);
    }
    EXPECT_TRUE(SameKeyPoints(many, one));
  }
}

TEST(BadInputTest, MatchersOnDegenerateKeyPointsKeepTheirDocumentedResults) {
  const ScopedInstance inst(true, false);
  const int32_t n = 40;
  std::vector<float> points = qorv::test::RandomCloud(n, 41);
  std::vector<float> descriptors(static_cast<size_t>(n) * 33);
  for (size_t i = 0; i < descriptors.size(); ++i) descriptors[i] = static_cast<float>((i * 7) % 11);

  // No iteration: nothing sampled, an all-zero transform and no pair.
  for (const int32_t iterations : {0, -1, INT32_MIN}) {
    std::vector<double> transform(12, 9.0);
    Matches pairs;
    ASSERT_EQ(QorvRansacMatchKeyPoints(inst.get(),
                                       points.data(),
                                       nullptr,
                                       descriptors.data(),
                                       n,
                                       points.data(),
                                       nullptr,
                                       descriptors.data(),
                                       n,
                                       transform.data(),
                                       iterations,
                                       0.9f,
                                       0.05f,
                                       qorv::test::CollectMatches,
                                       &pairs),
              QORV_OK);
    EXPECT_EQ(transform, std::vector<double>(12, 0.0));
    EXPECT_EQ(pairs.calls, 1);
    EXPECT_TRUE(pairs.pairs.empty() && pairs.nullWhenEmpty);
    // The iterative matcher takes no step: the starting pose comes back as it was.
    const std::vector<double> start = {1, 0, 0, 0.5, 0, 1, 0, 0, 0, 0, 1, 0};
    transform = start;
    ASSERT_EQ(QorvIterativeMatchKeyPoints(inst.get(),
                                          points.data(),
                                          descriptors.data(),
                                          n,
                                          points.data(),
                                          descriptors.data(),
                                          n,
                                          transform.data(),
                                          iterations,
                                          1.0f,
                                          0.1f,
                                          nullptr,
                                          nullptr),
              QORV_OK);
    EXPECT_EQ(transform, start);
  }

  // Key points that are NaN, all equal or on a line: both matchers run and report valid pairs.
  std::vector<float> nanPoints = points;
  for (size_t i = 0; i < nanPoints.size(); i += 4) nanPoints[i] = NAN;
  std::vector<float> equal(points.size(), 0.5f), line(points.size());
  for (size_t i = 0; i < line.size(); ++i) line[i] = 0.01f * static_cast<float>(i / 3 + i % 3);
  std::vector<float> nanDescriptors = descriptors;
  for (size_t i = 0; i < nanDescriptors.size(); i += 5) nanDescriptors[i] = NAN;
  for (const auto* set : {&nanPoints, &equal, &line}) {
    for (const auto* desc : {&descriptors, &nanDescriptors}) {
      std::vector<double> transform(12, 0.0);
      Matches pairs;
      ASSERT_EQ(QorvRansacMatchKeyPoints(inst.get(),
                                         set->data(),
                                         set->data(),
                                         desc->data(),
                                         n,
                                         set->data(),
                                         set->data(),
                                         desc->data(),
                                         n,
                                         transform.data(),
                                         50,
                                         0.9f,
                                         0.05f,
                                         qorv::test::CollectMatches,
                                         &pairs),
                QORV_OK);
      for (const QorvMatchPair& p : pairs.pairs) {
        if (p.indexInSecond == UINT32_MAX && p.indexInFirst == UINT32_MAX) continue;
        EXPECT_LT(p.indexInSecond, static_cast<uint32_t>(n));
        EXPECT_LT(p.indexInFirst, static_cast<uint32_t>(n));
      }
      const std::vector<double> identity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
      transform = identity;
      ASSERT_EQ(QorvIterativeMatchKeyPoints(inst.get(),
                                            set->data(),
                                            desc->data(),
                                            n,
                                            set->data(),
                                            desc->data(),
                                            n,
                                            transform.data(),
                                            30,
                                            1.0f,
                                            0.01f,
                                            qorv::test::CollectMatches,
                                            &pairs),
                QORV_OK);
      if (set == &nanPoints) {
        EXPECT_EQ(transform, identity);  // every step has a NaN system
      }
    }
  }

  // A NaN distance never wins, except that one to target 0 keeps target 0.
  std::vector<float> query(33, NAN);
  int32_t index = -9;
  float distance = 0.0f;
  ASSERT_EQ(
      QorvMatchDescriptor(inst.get(), descriptors.data(), n, query.data(), &index, &distance, 1, 1),
      QORV_OK);
  EXPECT_EQ(index, 0);
  EXPECT_TRUE(std::isnan(distance));
}

TEST(BadInputTest, PipelineOnDegenerateCloudsAndResolutions) {
  const ScopedInstance inst(true);
  const std::vector<double> identity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  std::vector<float> cloud = qorv::test::RandomCloud(400, 51);
  const int32_t n = 400;
  // No usable resolution: no key point, so RANSAC leaves zeros and the iterative path the start.
  for (const float resolution : {0.0f, -0.05f, NAN, INFINITY, 1e-30f}) {
    for (const float kernel : {0.0f, 1.0f}) {
      std::vector<double> transform = identity;
      Matches pairs;
      ASSERT_EQ(QorvMatchPairPointCloud(inst.get(),
                                        cloud.data(),
                                        nullptr,
                                        n,
                                        cloud.data(),
                                        nullptr,
                                        n,
                                        transform.data(),
                                        kernel,
                                        resolution,
                                        20,
                                        qorv::test::CollectMatches,
                                        &pairs),
                QORV_OK)
          << resolution;
      EXPECT_EQ(transform, kernel > 0.0f ? identity : std::vector<double>(12, 0.0)) << resolution;
      EXPECT_EQ(pairs.calls, 1);
      EXPECT_TRUE(pairs.pairs.empty());
    }
  }
  // Clouds that are NaN in places, infinite in places, one point, or one repeated point.
  for (size_t i = 0; i < cloud.size(); i += 17) cloud[i] = i % 2 ? NAN : INFINITY;
  const std::vector<float> one = {0.1f, 0.2f, 0.3f};
  const std::vector<float> same(300, 0.25f);
  for (const std::vector<float>* c :
       {static_cast<const std::vector<float>*>(&cloud), &one, &same}) {
    for (const float kernel : {0.0f, 0.5f}) {
      std::vector<double> transform = identity;
      const auto count = static_cast<int32_t>(c->size() / 3);
      ASSERT_EQ(QorvMatchPairPointCloud(inst.get(),
                                        c->data(),
                                        c->data(),
                                        count,
                                        cloud.data(),
                                        nullptr,
                                        n,
                                        transform.data(),
                                        kernel,
                                        0.05f,
                                        20,
                                        nullptr,
                                        nullptr),
                QORV_OK);
    }
  }
}

// Millions of points through the exports that build no tree. Each rotated point must carry the
// bits of the scalar formula, the vector passes and their tails included.
TEST(BadInputTest, MillionsOfPointsThroughTheCheapExports) {
  const ScopedInstance inst(true);
  const int32_t n = 3'000'001;
  std::vector<float> points = qorv::test::RandomCloud(n, 61, 2000.0f);
  for (float& v : points) v -= 1000.0f;
  const double motion[12] = {0.36, 0.48, -0.8, -0.8, 0.6, 0.0, 0.48, 0.64, 0.6, 0.5, -1.0, 2.0};
  std::vector<float> out(points.size());
  ASSERT_EQ(QorvTransformPoints(inst.get(), motion, points.data(), out.data(), n), QORV_OK);
  float m[12];
  for (int i = 0; i < 12; ++i) m[i] = static_cast<float>(motion[i]);
  size_t wrong = 0;
  for (size_t i = 0; i < static_cast<size_t>(n); ++i) {
    const float* p = &points[3 * i];
    for (int r = 0; r < 3; ++r) {
      const float expected = m[3 * r] * p[0] + m[3 * r + 1] * p[1] + m[3 * r + 2] * p[2] + m[9 + r];
      wrong += std::memcmp(&expected, &out[3 * i + r], sizeof(float)) != 0;
    }
  }
  EXPECT_EQ(wrong, 0u);
  ASSERT_EQ(QorvRotatePoints(inst.get(), motion, points.data(), out.data(), n), QORV_OK);
  EXPECT_EQ(out[3 * static_cast<size_t>(n) - 1],
            m[6] * points[3 * static_cast<size_t>(n) - 3] +
                m[7] * points[3 * static_cast<size_t>(n) - 2] +
                m[8] * points[3 * static_cast<size_t>(n) - 1]);

  // The motion is found again from all of them.
  ASSERT_EQ(QorvTransformPoints(inst.get(), motion, points.data(), out.data(), n), QORV_OK);
  std::vector<double> found(12);
  ASSERT_EQ(QorvAbsoluteOrientation(inst.get(), out.data(), points.data(), n, found.data()),
            QORV_OK);
  const double expected[12] = {0.36, 0.48, -0.8, 0.5, -0.8, 0.6, 0.0, -1.0, 0.48, 0.64, 0.6, 2.0};
  for (int i = 0; i < 12; ++i) EXPECT_NEAR(found[i], expected[i], 1e-3) << i;

  // The voxel filter keeps one point per occupied voxel of a 2000-unit cube, 20 voxels a side.
  IndexList kept;
  ASSERT_EQ(
      QorvVoxelFilter(inst.get(), points.data(), n, 100.0f, qorv::test::CollectIndices, &kept),
      QORV_OK);
  ExpectAscendingInRange(kept, static_cast<size_t>(n), "voxel");
  EXPECT_GT(kept.indices.size(), 7000u);
  EXPECT_LE(kept.indices.size(), 8000u);
}

}  // namespace
