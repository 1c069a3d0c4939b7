// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/qorv.h>

#include "support/clouds.hpp"
#include "support/robust_calls.hpp"

#include <dlfcn.h>

namespace {

constexpr QorvResult kBad = QORV_ERROR_INVALID_ARGUMENT;
constexpr QorvResult kNull = QORV_ERROR_NULL_INSTANCE;

using qorv::test::CollectIndices;
using Calls = qorv::test::IndexList;

// The library's OpenMP runtime, reached without linking it into the test.
int MaxThreads() {
  using GetFn = int (*)();
  auto get = reinterpret_cast<GetFn>(dlsym(RTLD_DEFAULT, "omp_get_max_threads"));
  return get == nullptr ? 1 : get();
}

bool SetThreads(int n) {
  using SetFn = void (*)(int);
  auto set = reinterpret_cast<SetFn>(dlsym(RTLD_DEFAULT, "omp_set_num_threads"));
  if (set == nullptr) return false;
  set(n);
  return true;
}

class SurfaceExportsTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(QorvCreateInstance(&inst_), QORV_OK); }
  void TearDown() override { QorvDestroyInstance(inst_); }

  QorvInstance* inst_ = nullptr;
  std::vector<float> points_ = qorv::test::RandomCloud(50, 1);
  const int32_t count_ = 50;
};

TEST_F(SurfaceExportsTest, NormalsCheckTheHandleThenTheirArgumentsInOrder) {
  std::vector<float> normals(points_.size(), 5.0f);
  const std::vector<float> untouched = normals;
  float* out = normals.data();
  const float* in = points_.data();
  EXPECT_EQ(QorvComputeNormals(nullptr, nullptr, nullptr, 0, 0, NAN), kNull);
  EXPECT_EQ(QorvComputeNormals(inst_, nullptr, out, count_, 10, 0.2f), kBad);
  EXPECT_EQ(QorvComputeNormals(inst_, in, nullptr, count_, 10, 0.2f), kBad);
  EXPECT_EQ(QorvComputeNormals(inst_, in, out, 0, 10, 0.2f), kBad);
  EXPECT_EQ(QorvReComputeNormals(nullptr, nullptr, nullptr, 0, NAN), kNull);
  EXPECT_EQ(QorvReComputeNormals(inst_, nullptr, out, count_, 0.2f), kBad);
  EXPECT_EQ(QorvReComputeNormals(inst_, in, nullptr, count_, 0.2f), kBad);
  EXPECT_EQ(QorvReComputeNormals(inst_, in, out, -1, 0.2f), kBad);
  for (const float radius : {0.0f, -0.2f, NAN}) {
    EXPECT_EQ(QorvReComputeNormals(inst_, in, out, count_, radius), kBad);
  }
  EXPECT_EQ(normals, untouched);
  // The radius of ComputeNormals is not checked; orientNeighbors changes nothing.
  EXPECT_EQ(QorvComputeNormals(inst_, in, out, count_, 0, 0.0f), QORV_OK);
  EXPECT_EQ(normals, std::vector<float>(points_.size(), 0.0f));
  std::vector<float> other(points_.size());
  EXPECT_EQ(QorvComputeNormals(inst_, in, out, count_, -5, 0.4f), QORV_OK);
  EXPECT_EQ(QorvComputeNormals(inst_, in, other.data(), count_, 1 << 30, 0.4f), QORV_OK);
  EXPECT_EQ(normals, other);
}

TEST_F(SurfaceExportsTest, IndexFiltersCheckTheHandleThenTheirArgumentsInOrder) {
  Calls calls;
  const float* in = points_.data();
  EXPECT_EQ(QorvVoxelFilter(nullptr, nullptr, 0, NAN, CollectIndices, &calls), kNull);
  EXPECT_EQ(QorvVoxelFilter(inst_, nullptr, count_, 0.1f, CollectIndices, &calls), kBad);
  EXPECT_EQ(QorvVoxelFilter(inst_, in, 0, 0.1f, CollectIndices, &calls), kBad);
  EXPECT_EQ(QorvSORFilter(nullptr, nullptr, 0, 0, NAN, CollectIndices, &calls), kNull);
  EXPECT_EQ(QorvSORFilter(inst_, nullptr, count_, 5, 1.0f, CollectIndices, &calls), kBad);
  EXPECT_EQ(QorvSORFilter(inst_, in, 0, 5, 1.0f, CollectIndices, &calls), kBad);
  EXPECT_EQ(QorvSORFilter(inst_, in, count_, 0, 1.0f, CollectIndices, &calls), kBad);
  EXPECT_EQ(QorvEdgeFilter(nullptr, nullptr, 0, NAN, CollectIndices, &calls), kNull);
  EXPECT_EQ(QorvEdgeFilter(inst_, nullptr, count_, 0.2f, CollectIndices, &calls), kBad);
  EXPECT_EQ(QorvEdgeFilter(inst_, in, 0, 0.2f, CollectIndices, &calls), kBad);
  for (const float radius : {0.0f, -0.2f, NAN}) {
    EXPECT_EQ(QorvEdgeFilter(inst_, in, count_, radius, CollectIndices, &calls), kBad);
  }
  EXPECT_EQ(calls.calls, 0);

  // Unchecked values still call back once, possibly with nothing; a null callback is fine.
  EXPECT_EQ(QorvVoxelFilter(inst_, in, count_, -1.0f, CollectIndices, &calls), QORV_OK);
  EXPECT_EQ(QorvSORFilter(inst_, in, count_, 5, NAN, CollectIndices, &calls), QORV_OK);
  EXPECT_EQ(calls.calls, 2);
  EXPECT_TRUE(calls.indices.empty());
  EXPECT_EQ(QorvVoxelFilter(inst_, in, count_, 0.3f, nullptr, nullptr), QORV_OK);
  EXPECT_EQ(QorvSORFilter(inst_, in, count_, 5, 1.0f, nullptr, nullptr), QORV_OK);
  EXPECT_EQ(QorvEdgeFilter(inst_, in, count_, 0.3f, nullptr, nullptr), QORV_OK);
}

TEST_F(SurfaceExportsTest, GaussianRefusesOverlappingOutput) {
  std::vector<float> buffer(2 * points_.size());
  std::copy(points_.begin(), points_.end(), buffer.begin());
  const std::vector<float> untouched = buffer;
  float* in = buffer.data();
  EXPECT_EQ(QorvGaussianFilter(nullptr, nullptr, nullptr, 0, NAN), kNull);
  EXPECT_EQ(QorvGaussianFilter(inst_, nullptr, in + 150, count_, 0.2f), kBad);
  EXPECT_EQ(QorvGaussianFilter(inst_, in, nullptr, count_, 0.2f), kBad);
  EXPECT_EQ(QorvGaussianFilter(inst_, in, in + 150, 0, 0.2f), kBad);
  EXPECT_EQ(QorvGaussianFilter(inst_, in, in, count_, 0.2f), kBad);
  EXPECT_EQ(QorvGaussianFilter(inst_, in, in + 3, count_, 0.2f), kBad);
  EXPECT_EQ(QorvGaussianFilter(inst_, in + 3, in, count_ - 1, 0.2f), kBad);
  EXPECT_EQ(buffer, untouched);
  EXPECT_EQ(QorvGaussianFilter(inst_, in, in + 150, count_, 0.2f), QORV_OK);
  EXPECT_NE(buffer, untouched);
}

TEST_F(SurfaceExportsTest, MultiThreadedExportsGiveTheSingleThreadedResults) {
  const std::vector<float> cloud = qorv::test::LoadSample("bunny.asc");
  ASSERT_FALSE(cloud.empty());
  qorv::test::CloudLengths len;  // bunny units
  len.normalRadius = 1.0f;
  len.leafSize = 0.5f;
  len.meanK = 20;
  len.edgeRadius = 0.8f;
  len.gaussianRadius = 0.9f;
  const qorv::test::CloudResults serial = qorv::test::RunCloudExports(inst_, cloud, len);
  EXPECT_FALSE(serial.voxel.indices.empty() || serial.outliers.indices.empty() ||
               serial.edges.indices.empty());
  ASSERT_EQ(QorvEnableMultiThread(inst_), QORV_OK);
  const int defaultThreads = MaxThreads();
  for (const int threads : {2, 3, 4}) {
    ASSERT_TRUE(SetThreads(threads));
    EXPECT_EQ(qorv::test::RunCloudExports(inst_, cloud, len).differences(serial), "") << threads;
  }
  SetThreads(defaultThreads);
}

}  // namespace
