// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <cmath>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/qorv.h>

#include "support/clouds.hpp"

#include <dlfcn.h>

namespace {

constexpr QorvResult kBad = QORV_ERROR_INVALID_ARGUMENT;
constexpr QorvResult kNull = QORV_ERROR_NULL_INSTANCE;

struct Calls {
  int count = 0;
  std::vector<int32_t> indices;
};

void Collect(const int32_t* indices, int32_t n, void* user) {
  auto* calls = static_cast<Calls*>(user);
  ++calls->count;
  calls->indices.assign(indices, indices + n);
}

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
  EXPECT_EQ(QorvVoxelFilter(nullptr, nullptr, 0, NAN, Collect, &calls), kNull);
  EXPECT_EQ(QorvVoxelFilter(inst_, nullptr, count_, 0.1f, Collect, &calls), kBad);
  EXPECT_EQ(QorvVoxelFilter(inst_, in, 0, 0.1f, Collect, &calls), kBad);
  EXPECT_EQ(QorvSORFilter(nullptr, nullptr, 0, 0, NAN, Collect, &calls), kNull);
  EXPECT_EQ(QorvSORFilter(inst_, nullptr, count_, 5, 1.0f, Collect, &calls), kBad);
  EXPECT_EQ(QorvSORFilter(inst_, in, 0, 5, 1.0f, Collect, &calls), kBad);
  EXPECT_EQ(QorvSORFilter(inst_, in, count_, 0, 1.0f, Collect, &calls), kBad);
  EXPECT_EQ(QorvEdgeFilter(nullptr, nullptr, 0, NAN, Collect, &calls), kNull);
  EXPECT_EQ(QorvEdgeFilter(inst_, nullptr, count_, 0.2f, Collect, &calls), kBad);
  EXPECT_EQ(QorvEdgeFilter(inst_, in, 0, 0.2f, Collect, &calls), kBad);
  for (const float radius : {0.0f, -0.2f, NAN}) {
    EXPECT_EQ(QorvEdgeFilter(inst_, in, count_, radius, Collect, &calls), kBad);
  }
  EXPECT_EQ(calls.count, 0);

  // Unchecked values still call back once, possibly with nothing; a null callback is fine.
  EXPECT_EQ(QorvVoxelFilter(inst_, in, count_, -1.0f, Collect, &calls), QORV_OK);
  EXPECT_EQ(QorvSORFilter(inst_, in, count_, 5, NAN, Collect, &calls), QORV_OK);
  EXPECT_EQ(calls.count, 2);
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
  const auto n = static_cast<int32_t>(cloud.size() / 3);
  struct Run {
    std::vector<float> normals, renormals, smoothed;
    Calls voxel, sor, edge;
  };
  auto runAll = [&](Run& r) {
    r.normals.assign(cloud.size(), 0.0f);
    r.smoothed.assign(cloud.size(), 0.0f);
    ASSERT_EQ(QorvComputeNormals(inst_, cloud.data(), r.normals.data(), n, 10, 1.0f), QORV_OK);
    r.renormals.assign(cloud.size(), 0.0f);
    for (size_t i = 2; i < r.renormals.size(); i += 3) r.renormals[i] = -1.0f;  // all turned down
    ASSERT_EQ(QorvReComputeNormals(inst_, cloud.data(), r.renormals.data(), n, 1.0f), QORV_OK);
    ASSERT_EQ(QorvGaussianFilter(inst_, cloud.data(), r.smoothed.data(), n, 0.9f), QORV_OK);
    ASSERT_EQ(QorvVoxelFilter(inst_, cloud.data(), n, 0.5f, Collect, &r.voxel), QORV_OK);
    ASSERT_EQ(QorvSORFilter(inst_, cloud.data(), n, 20, 1.0f, Collect, &r.sor), QORV_OK);
    ASSERT_EQ(QorvEdgeFilter(inst_, cloud.data(), n, 0.8f, Collect, &r.edge), QORV_OK);
  };
  Run serial;
  runAll(serial);
  EXPECT_FALSE(serial.voxel.indices.empty());
  EXPECT_FALSE(serial.sor.indices.empty());
  EXPECT_FALSE(serial.edge.indices.empty());
  for (size_t i = 2; i < serial.renormals.size(); i += 3) EXPECT_LE(serial.renormals[i], 0.0f);
  ASSERT_EQ(QorvEnableMultiThread(inst_), QORV_OK);
  const int defaultThreads = MaxThreads();
  for (const int threads : {2, 3, 4}) {
    ASSERT_TRUE(SetThreads(threads));
    Run parallel;
    runAll(parallel);
    auto bits = [](const std::vector<float>& a, const std::vector<float>& b) {
      return std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
    };
    EXPECT_TRUE(bits(parallel.normals, serial.normals)) << threads;
    EXPECT_TRUE(bits(parallel.renormals, serial.renormals)) << threads;
    EXPECT_TRUE(bits(parallel.smoothed, serial.smoothed)) << threads;
    EXPECT_EQ(parallel.voxel.indices, serial.voxel.indices) << threads;
    EXPECT_EQ(parallel.sor.indices, serial.sor.indices) << threads;
    EXPECT_EQ(parallel.edge.indices, serial.edge.indices) << threads;
  }
  SetThreads(defaultThreads);
}

}  // namespace
