// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <cmath>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/qorv.h>

#include "support/clouds.hpp"
#include "support/features_shapes.hpp"

namespace {

struct Captured {
  int calls = 0;
  int32_t count = -1;
  int32_t reserved = -1;
  std::vector<float> descriptors, positions, normals;
};

void Capture(const QorvKeyPointResult* result, void* user) {
  auto* c = static_cast<Captured*>(user);
  ++c->calls;
  c->count = result->count;
  c->reserved = result->reserved;
  const size_t n = static_cast<size_t>(result->count);
  if (n == 0) return;
  c->descriptors.assign(result->descriptors, result->descriptors + n * 33);
  c->positions.assign(result->positions, result->positions + n * 3);
  c->normals.assign(result->normals, result->normals + n * 3);
}

class DetectAndComputeExport : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(QorvCreateInstance(&inst_), QORV_OK); }
  void TearDown() override { QorvDestroyInstance(inst_); }

  Captured Run(const qorv::test::OrientedCloud& cloud,
               float nonMaxRadius,
               int32_t maxKeyPoints,
               float ratio = 0.9f) {
    Captured c;
    EXPECT_EQ(QorvDetectAndCompute(inst_,
                                   cloud.points.data(),
                                   cloud.normals.data(),
                                   cloud.count(),
                                   0.15f,
                                   nonMaxRadius,
                                   0.1f,
                                   0.2f,
                                   ratio,
                                   ratio,
                                   maxKeyPoints,
                                   Capture,
                                   &c),
              QORV_OK);
    EXPECT_EQ(c.calls, 1);
    return c;
  }

  QorvInstance* inst_ = nullptr;
};

TEST_F(DetectAndComputeExport, ChecksTheHandleFirstThenArgumentsInOrder) {
  const qorv::test::OrientedCloud box = qorv::test::BoxSurface(4);
  const float* p = box.points.data();
  const float* n = box.normals.data();
  Captured c;
  auto call = [&](QorvInstance* inst, const float* points, const float* normals, int32_t count) {
    return QorvDetectAndCompute(
        inst, points, normals, count, 0.5f, 0.1f, 0.2f, 0.3f, 0.9f, 0.9f, 0, Capture, &c);
  };
  EXPECT_EQ(call(nullptr, nullptr, nullptr, 0), QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(call(inst_, nullptr, n, box.count()), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(call(inst_, p, nullptr, box.count()), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(call(inst_, p, n, 0), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(call(inst_, p, n, -3), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(c.calls, 0);
  // Radii and ratios are not checked; a null callback is fine.
  EXPECT_EQ(QorvDetectAndCompute(
                inst_, p, n, box.count(), -1.0f, -1.0f, -1.0f, -1.0f, NAN, NAN, -5, Capture, &c),
            QORV_OK);
  EXPECT_EQ(c.calls, 1);
  EXPECT_EQ(c.count, 0);
  EXPECT_EQ(QorvDetectAndCompute(
                inst_, p, n, box.count(), 0.5f, 0.1f, 0.2f, 0.3f, 1.0f, 1.0f, 3, nullptr, nullptr),
            QORV_OK);
}

TEST_F(DetectAndComputeExport, RecordHoldsPositionsNormalsAndDescriptorsOfTheKeyPoints) {
  const qorv::test::OrientedCloud box = qorv::test::BoxSurface(20);
  const Captured c = Run(box, 0.4f, 0);
  ASSERT_EQ(c.count, 8);  // one per corner
  EXPECT_EQ(c.reserved, 0);
  for (int32_t k = 0; k < c.count; ++k) {
    const float* position = &c.positions[static_cast<size_t>(k) * 3];
    int32_t found = -1;
    for (int32_t i = 0; i < box.count() && found < 0; ++i) {
      if (std::memcmp(position, &box.points[static_cast<size_t>(i) * 3], 12) == 0) found = i;
    }
    ASSERT_GE(found, 0) << "key point " << k << " is not a point of the cloud";
    EXPECT_EQ(std::memcmp(&c.normals[static_cast<size_t>(k) * 3],
                          &box.normals[static_cast<size_t>(found) * 3],
                          12),
              0);
    for (int block = 0; block < 3; ++block) {
      float sum = 0.0f;
      for (int b = 0; b < 11; ++b)
        sum += c.descriptors[static_cast<size_t>(k * 33 + block * 11 + b)];
      EXPECT_NEAR(sum, 100.0f, 1e-3f);
    }
  }
  // No key point on a plane: the callback still runs, with count 0.
  qorv::test::OrientedCloud plane;
  const std::vector<float> grid = qorv::test::GridCloud(20, 20, 0.05f);
  for (size_t i = 0; i < grid.size(); i += 3) plane.add(grid[i], grid[i + 1], grid[i + 2], 0, 0, 1);
  const Captured none = Run(plane, 0.4f, 0, 0.01f);
  EXPECT_EQ(none.count, 0);
  EXPECT_EQ(none.reserved, 0);
}

TEST_F(DetectAndComputeExport, MultiThreadedVariantGivesTheSameBits) {
  const qorv::test::OrientedCloud cloud = qorv::test::WavySurface(30, 30, 0.05f);
  for (const int32_t maxKeyPoints : {0, 30}) {
    ASSERT_EQ(QorvDisableMultiThread(inst_), QORV_OK);
    const Captured serial = Run(cloud, 0.05f, maxKeyPoints);
    ASSERT_EQ(QorvEnableMultiThread(inst_), QORV_OK);
    const Captured parallel = Run(cloud, 0.05f, maxKeyPoints);
    ASSERT_GT(serial.count, 0);
    EXPECT_EQ(serial.count, parallel.count);
    EXPECT_EQ(serial.positions, parallel.positions);
    EXPECT_EQ(serial.normals, parallel.normals);
    EXPECT_EQ(std::memcmp(serial.descriptors.data(),
                          parallel.descriptors.data(),
                          serial.descriptors.size() * sizeof(float)),
              0);
  }
}

}  // namespace
