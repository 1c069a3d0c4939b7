// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/qorv.h>

#include "support/clouds.hpp"
#include "support/robust_calls.hpp"

namespace {

using qorv::test::Matches;
using qorv::test::ScopedInstance;

int32_t CountOf(const std::vector<float>& points) {
  return static_cast<int32_t>(points.size() / 3);
}

// A matrix whose values survive the round trip through float.
const double kStart[12] = {0.0, -1.0, 0.0, 0.5, 1.0, 0.0, 0.0, -0.25, 0.0, 0.0, 1.0, 2.0};

struct Call {
  QorvResult result;
  double transform[12];
  Matches received;
  std::string log;
};

Call MatchPair(QorvInstance* inst,
               const std::vector<float>& first,
               const std::vector<float>& second,
               float kernelScale,
               float resolution,
               const float* normals1 = nullptr,
               bool callback = true) {
  Call call;
  std::copy(kStart, kStart + 12, call.transform);
  call.received.pairs.resize(1);
  testing::internal::CaptureStdout();
  call.result = QorvMatchPairPointCloud(inst,
                                        first.data(),
                                        normals1,
                                        CountOf(first),
                                        second.data(),
                                        nullptr,
                                        CountOf(second),
                                        call.transform,
                                        kernelScale,
                                        resolution,
                                        200,
                                        callback ? qorv::test::CollectMatches : nullptr,
                                        &call.received);
  call.log = testing::internal::GetCapturedStdout();
  return call;
}

TEST(PipelineExportsTest, ChecksInOrderAndLeavesOutputsUntouched) {
  ScopedInstance i;
  const std::vector<float> cloud = qorv::test::RandomCloud(50, 1);
  const float* p = cloud.data();
  double transform[12];
  std::copy(kStart, kStart + 12, transform);
  Matches received;
  testing::internal::CaptureStdout();
  auto call = [&](QorvInstance* inst,
                  const float* p1,
                  int32_t c1,
                  const float* p2,
                  int32_t c2,
                  double* out) {
    return QorvMatchPairPointCloud(inst,
                                   p1,
                                   nullptr,
                                   c1,
                                   p2,
                                   nullptr,
                                   c2,
                                   out,
                                   0,
                                   0.1f,
                                   10,
                                   qorv::test::CollectMatches,
                                   &received);
  };
  // The handle comes first, whatever else is wrong; then the second cloud, the first, the matrix.
  EXPECT_EQ(call(nullptr, nullptr, 0, nullptr, 0, nullptr), QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(call(i.get(), p, 50, nullptr, 50, transform), 3);
  EXPECT_EQ(call(i.get(), p, 50, p, 0, transform), 3);
  EXPECT_EQ(call(i.get(), nullptr, 50, p, 50, transform), 3);
  EXPECT_EQ(call(i.get(), p, -3, p, 50, transform), 3);
  EXPECT_EQ(call(i.get(), p, 50, p, 50, nullptr), 3);
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
  ScopedInstance i;
  float spacing = 0.0f;
  testing::internal::CaptureStdout();
  const QorvResult measured = QorvCheckDistance(i.get(), scan.data(), CountOf(scan), 2, &spacing);
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(measured, QORV_OK);
  struct Case {
    bool multiThread;
    float kernelScale;
  };
  for (const Case& c : {Case{false, 0.0f}, Case{true, -1.0f}, Case{false, 1e-6f}}) {
    c.multiThread ? QorvEnableMultiThread(i.get()) : QorvDisableMultiThread(i.get());
    const Call call = MatchPair(i.get(), scan, part, c.kernelScale, spacing);
    const bool ransac = c.kernelScale <= 0.0f;
    EXPECT_EQ(call.result, QORV_OK);
    for (int k = 0; k < 12; ++k) EXPECT_EQ(call.transform[k], ransac ? 0.0 : kStart[k]);
    EXPECT_EQ(call.log,
              ransac ? "[QORV INFO] RansacMatch: 0\n" : "[QORV INFO] IterativeMatch: 0\n");
    EXPECT_EQ(call.received.calls, 1);
    EXPECT_TRUE(call.received.nullWhenEmpty && call.received.pairs.empty());
  }
}

// Caller normals are never read (every cloud gets fresh normals after thinning): a three-float
// array stands in for thousands of normals, which the sanitizers would catch if it were read.
// Without a callback the matrix is still written. (Degenerate clouds and resolutions: bad_input.)
TEST(PipelineExportsTest, IgnoresCallerNormalsAndWritesWithoutCallback) {
  ScopedInstance i;
  const std::vector<float> cloud = qorv::test::RandomCloud(2000, 4);
  const float oneNormal[3] = {0.0f, 0.0f, 1.0f};
  const Call withNormals = MatchPair(i.get(), cloud, cloud, 0.0f, 0.05f, oneNormal);
  EXPECT_EQ(withNormals.result, QORV_OK);
  EXPECT_EQ(withNormals.received.calls, 1);
  const std::vector<float> single = {0.5f, 0.5f, 0.5f};
  const Call silent = MatchPair(i.get(), single, single, 0.0f, 0.1f, nullptr, false);
  EXPECT_EQ(silent.result, QORV_OK);
  for (double v : silent.transform) EXPECT_EQ(v, 0.0);
}

}  // namespace
