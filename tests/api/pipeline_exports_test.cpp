// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/qorv.h>

#include "support/clouds.hpp"

namespace {

struct Instance {
  QorvInstance* inst = nullptr;
  Instance() { QorvCreateInstance(&inst); }
  ~Instance() { QorvDestroyInstance(inst); }
};

struct Received {
  int calls = 0;
  bool nullPairs = false;
  uint32_t count = 0;
};

void Collect(const QorvMatchPair* pairs, uint32_t count, void* user) {
  auto* received = static_cast<Received*>(user);
  ++received->calls;
  received->nullPairs = pairs == nullptr;
  received->count = count;
}

int32_t CountOf(const std::vector<float>& points) {
  return static_cast<int32_t>(points.size() / 3);
}

// A matrix whose values survive the round trip through float.
const double kStart[12] = {0.0, -1.0, 0.0, 0.5, 1.0, 0.0, 0.0, -0.25, 0.0, 0.0, 1.0, 2.0};

struct Call {
  QorvResult result;
  double transform[12];
  Received received;
  std::string log;
};

Call MatchPair(QorvInstance* inst,
               const std::vector<float>& first,
               const std::vector<float>& second,
               float kernelScale,
               float resolution,
               const float* normals1 = nullptr,
               const float* normals2 = nullptr) {
  Call call;
  std::copy(kStart, kStart + 12, call.transform);
  testing::internal::CaptureStdout();
  call.result = QorvMatchPairPointCloud(inst,
                                        first.data(),
                                        normals1,
                                        CountOf(first),
                                        second.data(),
                                        normals2,
                                        CountOf(second),
                                        call.transform,
                                        kernelScale,
                                        resolution,
                                        200,
                                        Collect,
                                        &call.received);
  call.log = testing::internal::GetCapturedStdout();
  return call;
}

TEST(PipelineExportsTest, ChecksInOrderAndLeavesOutputsUntouched) {
  Instance i;
  const std::vector<float> cloud = qorv::test::RandomCloud(50, 1);
  const float* p = cloud.data();
  double transform[12];
  std::copy(kStart, kStart + 12, transform);
  Received received;
  testing::internal::CaptureStdout();
  // The handle comes first, whatever else is wrong.
  EXPECT_EQ(
      QorvMatchPairPointCloud(
          nullptr, nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr, 0, 0, 0, nullptr, nullptr),
      QORV_ERROR_NULL_INSTANCE);
  // Then the second cloud, the first cloud and the matrix.
  EXPECT_EQ(
      QorvMatchPairPointCloud(
          i.inst, p, nullptr, 50, nullptr, nullptr, 50, transform, 0, 0.1f, 10, Collect, &received),
      3);
  EXPECT_EQ(QorvMatchPairPointCloud(
                i.inst, p, nullptr, 50, p, nullptr, 0, transform, 0, 0.1f, 10, Collect, &received),
            3);
  EXPECT_EQ(
      QorvMatchPairPointCloud(
          i.inst, nullptr, nullptr, 50, p, nullptr, 50, transform, 0, 0.1f, 10, Collect, &received),
      3);
  EXPECT_EQ(QorvMatchPairPointCloud(
                i.inst, p, nullptr, -3, p, nullptr, 50, transform, 0, 0.1f, 10, Collect, &received),
            3);
  EXPECT_EQ(QorvMatchPairPointCloud(
                i.inst, p, nullptr, 50, p, nullptr, 50, nullptr, 0, 0.1f, 10, Collect, &received),
            3);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(received.calls, 0);
  for (int k = 0; k < 12; ++k) EXPECT_EQ(transform[k], kStart[k]);
}

// Its detector bounds find no key point on a smooth scan: RANSAC (kernelScale <= 0, 0 included)
// then writes the all-zero matrix, the iterative matcher (kernelScale > 0) hands the caller's
// matrix back, and the callback receives no pair, once.
TEST(PipelineExportsTest, SmoothScanGivesNoModelOnEitherPath) {
  const std::vector<float> scan = qorv::test::LoadSample("dragon_res4.asc");
  ASSERT_FALSE(scan.empty());
  const std::vector<float> part(scan.begin(), scan.begin() + 3 * (CountOf(scan) * 2 / 3));
  Instance i;
  float spacing = 0.0f;
  testing::internal::CaptureStdout();
  const QorvResult measured = QorvCheckDistance(i.inst, scan.data(), CountOf(scan), 2, &spacing);
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(measured, QORV_OK);

  // RANSAC on one thread with kernelScale 0, on several with a negative one.
  for (const auto& [multiThread, kernelScale] :
       {std::make_pair(false, 0.0f), std::make_pair(true, -1.0f)}) {
    multiThread ? QorvEnableMultiThread(i.inst) : QorvDisableMultiThread(i.inst);
    const Call call = MatchPair(i.inst, scan, part, kernelScale, spacing);
    EXPECT_EQ(call.result, QORV_OK);
    for (double v : call.transform) EXPECT_EQ(v, 0.0);
    EXPECT_EQ(call.log, "[QORV INFO] RansacMatch: 0\n");
    EXPECT_EQ(call.received.calls, 1);
    EXPECT_TRUE(call.received.nullPairs);
    EXPECT_EQ(call.received.count, 0u);
  }
  const Call call = MatchPair(i.inst, scan, part, 1e-6f, spacing);
  EXPECT_EQ(call.result, QORV_OK);
  for (int k = 0; k < 12; ++k) EXPECT_EQ(call.transform[k], kStart[k]);
  EXPECT_EQ(call.log, "[QORV INFO] IterativeMatch: 0\n");
  EXPECT_EQ(call.received.calls, 1);
  EXPECT_TRUE(call.received.nullPairs);
}

// Caller normals are never read (every cloud gets fresh normals after thinning): a three-float
// array stands in for thousands of normals, which the sanitizers would catch if it were read.
// Degenerate clouds and resolutions run through and find no model.
TEST(PipelineExportsTest, AcceptsAnyCloudAndResolution) {
  Instance i;
  const std::vector<float> cloud = qorv::test::RandomCloud(2000, 4);
  const float oneNormal[3] = {0.0f, 0.0f, 1.0f};
  const Call withNormals = MatchPair(i.inst, cloud, cloud, 0.0f, 0.05f, oneNormal, nullptr);
  EXPECT_EQ(withNormals.result, QORV_OK);
  EXPECT_EQ(withNormals.received.calls, 1);

  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<float> single = {0.5f, 0.5f, 0.5f};
  const std::vector<float> allNaN(30, nan);
  for (const std::vector<float>* c : {&single, &allNaN, &cloud}) {
    for (float resolution : {0.05f, 0.0f, -0.05f, nan, std::numeric_limits<float>::infinity()}) {
      const Call call = MatchPair(i.inst, *c, single, 0.0f, resolution);
      EXPECT_EQ(call.result, QORV_OK);
      for (double v : call.transform) EXPECT_EQ(v, 0.0);
      EXPECT_EQ(call.received.count, 0u);
    }
  }
  // No callback: the matrix is still written.
  double transform[12];
  std::copy(kStart, kStart + 12, transform);
  testing::internal::CaptureStdout();
  EXPECT_EQ(QorvMatchPairPointCloud(i.inst,
                                    single.data(),
                                    nullptr,
                                    1,
                                    single.data(),
                                    nullptr,
                                    1,
                                    transform,
                                    0,
                                    0.1f,
                                    5,
                                    nullptr,
                                    nullptr),
            QORV_OK);
  testing::internal::GetCapturedStdout();
  for (double v : transform) EXPECT_EQ(v, 0.0);
}

}  // namespace
