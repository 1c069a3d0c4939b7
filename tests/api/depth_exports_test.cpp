// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <array>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/qorv.h>

#include "support/depth_scenes.hpp"

namespace {

struct Captured {
  int calls = 0;
  int32_t reserved = -1;
  std::vector<float> descriptors;
  std::vector<float> positions;
  std::vector<float> normals;
};

void Capture(const QorvKeyPointResult* result, void* user) {
  auto* out = static_cast<Captured*>(user);
  ++out->calls;
  out->reserved = result->reserved;
  const size_t n = static_cast<size_t>(result->count);
  out->descriptors.assign(result->descriptors, result->descriptors + n * 33);
  out->positions.assign(result->positions, result->positions + n * 3);
  out->normals.assign(result->normals, result->normals + n * 3);
}

class DepthExportsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(QorvCreateInstance(&inst_), QORV_OK);
    qorv::test::BoxScene box;
    box.wallDepth = 5.0;
    depth_ = box.render(cam_);
    const size_t n = depth_.size();
    vertices_.assign(n * 3, 0.0f);
    normals_.assign(n * 3, 0.0f);
    mask_.assign(n, 0);
    ASSERT_EQ(QorvDepthToVmapNmap(inst_,
                                  camera_.data(),
                                  depth_.data(),
                                  vertices_.data(),
                                  normals_.data(),
                                  mask_.data(),
                                  cam_.width,
                                  cam_.height),
              QORV_OK);
  }
  void TearDown() override { QorvDestroyInstance(inst_); }

  QorvResult Detect(const unsigned char* mask,
                    int32_t scoreWindow,
                    int32_t maxKeyPoints,
                    Captured* out) {
    return QorvDetectAndComputeVmapNmap(inst_,
                                        vertices_.data(),
                                        normals_.data(),
                                        mask,
                                        cam_.width,
                                        cam_.height,
                                        scoreWindow,
                                        15,
                                        5,
                                        7,
                                        0.975f,
                                        0.975f,
                                        maxKeyPoints,
                                        Capture,
                                        out);
  }

  QorvInstance* inst_ = nullptr;
  qorv::test::DepthCamera cam_;
  std::array<double, 9> camera_ = cam_.matrix();
  std::vector<float> depth_, vertices_, normals_;
  std::vector<unsigned char> mask_;
};

TEST_F(DepthExportsTest, DepthToVmapNmapChecksInOrderAndWritesNothingOnFailure) {
  const int32_t w = cam_.width, h = cam_.height;
  std::vector<float> v(vertices_.size(), 9.0f), n(vertices_.size(), 9.0f);
  std::vector<unsigned char> m(mask_.size(), 9);
  const double* k = camera_.data();
  const float* d = depth_.data();
  EXPECT_EQ(QorvDepthToVmapNmap(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0),
            QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(QorvDepthToVmapNmap(nullptr, k, d, v.data(), n.data(), m.data(), w, h),
            QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(QorvDepthToVmapNmap(inst_, nullptr, d, v.data(), n.data(), m.data(), w, h),
            QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(QorvDepthToVmapNmap(inst_, k, nullptr, v.data(), n.data(), m.data(), w, h),
            QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(QorvDepthToVmapNmap(inst_, k, d, nullptr, n.data(), m.data(), w, h),
            QORV_ERROR_INVALID_ARGUMENT);
  for (int32_t bad : {0, -1, INT_MIN}) {
    EXPECT_EQ(QorvDepthToVmapNmap(inst_, k, d, v.data(), n.data(), m.data(), bad, h),
              QORV_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(QorvDepthToVmapNmap(inst_, k, d, v.data(), n.data(), m.data(), w, bad),
              QORV_ERROR_INVALID_ARGUMENT);
  }
  for (float x : v) ASSERT_EQ(x, 9.0f);
  for (float x : n) ASSERT_EQ(x, 9.0f);
  for (unsigned char x : m) ASSERT_EQ(x, 9);

  // Both optional outputs may be left out; the vertex map does not depend on them.
  EXPECT_EQ(QorvDepthToVmapNmap(inst_, k, d, v.data(), nullptr, nullptr, w, h), QORV_OK);
  EXPECT_EQ(v, vertices_);
  // Without normals the mask marks every pixel of non-zero depth.
  EXPECT_EQ(QorvDepthToVmapNmap(inst_, k, d, v.data(), nullptr, m.data(), w, h), QORV_OK);
  for (size_t i = 0; i < m.size(); ++i) ASSERT_EQ(m[i], depth_[i] != 0.0f ? 255 : 0);
  for (float x : n) ASSERT_EQ(x, 9.0f);
}

TEST_F(DepthExportsTest, DetectAndComputeVmapNmapChecksInOrder) {
  Captured out;
  const float* v = vertices_.data();
  const float* n = normals_.data();
  const int32_t w = cam_.width, h = cam_.height;
  const auto call =
      [&](QorvInstance* inst, const float* vm, const float* nm, int32_t ww, int32_t hh) {
        return QorvDetectAndComputeVmapNmap(
            inst, vm, nm, nullptr, ww, hh, 9, 15, 5, 7, 0.975f, 0.975f, 0, Capture, &out);
      };
  EXPECT_EQ(call(nullptr, nullptr, nullptr, 0, 0), QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(call(inst_, nullptr, n, w, h), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(call(inst_, v, nullptr, w, h), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(call(inst_, v, n, 0, h), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(call(inst_, v, n, w, -3), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(out.calls, 0);
  // More pixels than the internal images can address: reported, nothing read, no callback.
  EXPECT_EQ(call(inst_, v, n, INT32_MAX, INT32_MAX), QORV_ERROR_ALLOCATION);
  EXPECT_EQ(out.calls, 0);
  // Window sizes are not checked; a null callback is allowed.
  EXPECT_EQ(QorvDetectAndComputeVmapNmap(
                inst_, v, n, nullptr, w, h, -1, -1, -1, -1, 0.0f, 0.0f, -1, nullptr, nullptr),
            QORV_OK);
}

TEST_F(DepthExportsTest, KeyPixelsComeInPixelOrderWithTheirMapValues) {
  Captured out;
  testing::internal::CaptureStdout();
  ASSERT_EQ(Detect(mask_.data(), 9, 10, &out), QORV_OK);
  const std::string log = testing::internal::GetCapturedStdout();
  EXPECT_EQ(log.find("Check detect condition"), std::string::npos);
  ASSERT_EQ(out.calls, 1);
  EXPECT_EQ(out.reserved, 0);
  const size_t count = out.positions.size() / 3;
  EXPECT_EQ(count, 10u);
  ASSERT_EQ(out.descriptors.size(), count * 33);
  size_t previous = 0;
  for (size_t k = 0; k < count; ++k) {
    size_t pixel = 0;
    while (pixel < depth_.size() &&
           std::memcmp(&vertices_[pixel * 3], &out.positions[k * 3], 12) != 0) {
      ++pixel;
    }
    ASSERT_LT(pixel, depth_.size());
    if (k > 0) {
      EXPECT_GT(pixel, previous);
    }
    previous = pixel;
    EXPECT_EQ(0, std::memcmp(&normals_[pixel * 3], &out.normals[k * 3], 12));
    for (int block = 0; block < 3; ++block) {
      float sum = 0.0f;
      for (int b = 0; b < 11; ++b) sum += out.descriptors[k * 33 + block * 11 + b];
      EXPECT_NEAR(sum, 100.0f, 1e-3f);
    }
  }
}

TEST_F(DepthExportsTest, MaskFromTheMapsAndThreadingDoNotChangeTheResult) {
  Captured given, computed, threaded;
  ASSERT_EQ(Detect(mask_.data(), 9, 0, &given), QORV_OK);
  ASSERT_EQ(Detect(nullptr, 9, 0, &computed), QORV_OK);
  ASSERT_EQ(QorvEnableMultiThread(inst_), QORV_OK);
  ASSERT_EQ(Detect(nullptr, 9, 0, &threaded), QORV_OK);
  ASSERT_GT(given.positions.size(), 0u);
  for (const Captured* other : {&computed, &threaded}) {
    ASSERT_EQ(other->positions.size(), given.positions.size());
    ASSERT_EQ(other->descriptors.size(), given.descriptors.size());
    EXPECT_EQ(
        0,
        std::memcmp(other->positions.data(), given.positions.data(), given.positions.size() * 4));
    EXPECT_EQ(
        0,
        std::memcmp(
            other->descriptors.data(), given.descriptors.data(), given.descriptors.size() * 4));
  }
}

TEST_F(DepthExportsTest, WindowLargerThanTheImageGivesAnEmptyResult) {
  Captured out;
  ASSERT_EQ(Detect(nullptr, 2 * cam_.width + 1, 0, &out), QORV_OK);
  EXPECT_EQ(out.calls, 1);
  EXPECT_TRUE(out.positions.empty());
  EXPECT_TRUE(out.descriptors.empty());
}

}  // namespace
