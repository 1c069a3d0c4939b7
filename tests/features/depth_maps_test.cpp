// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "features/depth_maps.hpp"

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

namespace qorv {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// Packed maps of one depth image, outputs pre-filled with garbage to show they are overwritten.
struct Maps {
  int32_t width;
  int32_t height;
  std::vector<float> vertices;
  std::vector<float> normals;
  std::vector<uint8_t> mask;

  Maps(const std::vector<float>& depth,
       int32_t w,
       int32_t h,
       const Intrinsics& k,
       bool withNormals = true)
      : width(w),
        height(h),
        vertices(depth.size() * 3, 7.0f),
        normals(depth.size() * 3, 7.0f),
        mask(depth.size(), 0xAB) {
    DepthToVertexMap({depth.data(), 0, w, h}, k, {vertices.data(), 0, w, h});
    if (withNormals) VertexToNormalMap({vertices.data(), 0, w, h}, {normals.data(), 0, w, h});
    validCount = ComputeValidMask({vertices.data(), 0, w, h},
                                  {withNormals ? normals.data() : nullptr, 0, w, h},
                                  {mask.data(), 0, w, h});
  }
  const float* vertex(int32_t r, int32_t c) const { return &vertices[(size_t(r) * width + c) * 3]; }
  const float* normal(int32_t r, int32_t c) const { return &normals[(size_t(r) * width + c) * 3]; }
  uint8_t valid(int32_t r, int32_t c) const { return mask[size_t(r) * width + c]; }
  int64_t validCount = 0;
};

bool IsZero(const float* n) { return n[0] == 0.0f && n[1] == 0.0f && n[2] == 0.0f; }
float Length(const float* n) { return std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]); }

const Intrinsics kCamera{100.0f, 110.0f, 4.5f, 3.0f};

TEST(DepthMapsTest, PlaneSeenHeadOnGivesExactVerticesAndNormalsEverywhere) {
  const int32_t w = 9, h = 7;
  const Maps maps(std::vector<float>(w * h, 2.5f), w, h, kCamera);
  EXPECT_EQ(maps.validCount, w * h);
  for (int32_t r = 0; r < h; ++r) {
    for (int32_t c = 0; c < w; ++c) {
      const float* v = maps.vertex(r, c);
      EXPECT_EQ(v[0], 2.5f * ((static_cast<float>(c) - kCamera.cx) / kCamera.fx));
      EXPECT_EQ(v[1], 2.5f * ((static_cast<float>(r) - kCamera.cy) / kCamera.fy));
      EXPECT_EQ(v[2], 2.5f);
      // Also the last row and column, which only the blocks before them reach.
      const float* n = maps.normal(r, c);
      EXPECT_EQ(n[0], 0.0f);
      EXPECT_EQ(n[1], 0.0f);
      EXPECT_EQ(n[2], -1.0f) << r << "," << c;
      EXPECT_EQ(maps.valid(r, c), 255);
    }
  }
}

TEST(DepthMapsTest, TiltedPlaneGetsUnitNormalsFacingTheCamera) {
  // Plane z = 3 + 0.8 x + 0.3 y: a pixel ray (xs, ys, 1) meets it at z = 3 / (1 - 0.8 xs - 0.3 ys).
  const int32_t w = 40, h = 30;
  std::vector<float> depth(w * h);
  for (int32_t r = 0; r < h; ++r) {
    for (int32_t c = 0; c < w; ++c) {
      const double xs = (c - kCamera.cx) / kCamera.fx, ys = (r - kCamera.cy) / kCamera.fy;
      depth[r * w + c] = static_cast<float>(3.0 / (1.0 - 0.8 * xs - 0.3 * ys));
    }
  }
  const Maps maps(depth, w, h, kCamera);
  const double norm = std::sqrt(0.8 * 0.8 + 0.3 * 0.3 + 1.0);
  for (int32_t r = 0; r < h; ++r) {
    for (int32_t c = 0; c < w; ++c) {
      const float* n = maps.normal(r, c);
      EXPECT_NEAR(Length(n), 1.0f, 1e-6f);
      EXPECT_NEAR(n[0], 0.8 / norm, 2e-4);
      EXPECT_NEAR(n[1], 0.3 / norm, 2e-4);
      EXPECT_NEAR(n[2], -1.0 / norm, 2e-4);
      const float* v = maps.vertex(r, c);
      EXPECT_LT(n[0] * v[0] + n[1] * v[1] + n[2] * v[2], 0.0f);
    }
  }
}

TEST(DepthMapsTest, AllZeroDepthClearsEveryOutput) {
  const int32_t w = 6, h = 5;
  const Maps maps(std::vector<float>(w * h, 0.0f), w, h, kCamera);
  EXPECT_EQ(maps.validCount, 0);
  for (float v : maps.vertices) EXPECT_EQ(v, 0.0f);
  for (float n : maps.normals) EXPECT_EQ(n, 0.0f);
  for (uint8_t m : maps.mask) EXPECT_EQ(m, 0);
}

TEST(DepthMapsTest, ZeroNaNAndNegativeDepthsFollowTheMaskRules) {
  const int32_t w = 7, h = 6;
  std::vector<float> depth(w * h, 2.0f);
  depth[1 * w + 1] = 0.0f;
  depth[2 * w + 4] = kNaN;
  depth[4 * w + 2] = -2.0f;
  for (bool withNormals : {true, false}) {
    const Maps maps(depth, w, h, kCamera, withNormals);
    // A negative depth is back-projected as it is; NaN gives a NaN vertex.
    EXPECT_EQ(maps.vertex(4, 2)[2], -2.0f);
    EXPECT_EQ(maps.vertex(4, 2)[0], -2.0f * ((2.0f - kCamera.cx) / kCamera.fx));
    EXPECT_TRUE(std::isnan(maps.vertex(2, 4)[0]) && std::isnan(maps.vertex(2, 4)[2]));
    EXPECT_TRUE(IsZero(maps.vertex(1, 1)));
    for (int32_t r = 0; r < h; ++r) {
      for (int32_t c = 0; c < w; ++c) {
        const float z = depth[r * w + c];
        bool expected = z != 0.0f;
        if (withNormals) {
          expected = expected && !IsZero(maps.normal(r, c));
          // None of the three takes part in a triangle; every other pixel keeps one.
          const bool special = z != 2.0f;
          EXPECT_EQ(IsZero(maps.normal(r, c)), special) << r << "," << c;
        }
        EXPECT_EQ(maps.valid(r, c), expected ? 255 : 0) << r << "," << c << " " << withNormals;
      }
    }
    EXPECT_EQ(maps.validCount, withNormals ? w * h - 3 : w * h - 1);
  }
}

TEST(DepthMapsTest, CornerPixelsDependOnTheirSingleTriangle) {
  // (0, 0) lies only in the first triangle of block (0, 0), (h-1, w-1) only in the second one of
  // block (h-2, w-2). Zeroing a vertex of that triangle that the pixel does not own leaves the
  // corner without a normal while its neighbours keep theirs.
  const int32_t w = 5, h = 4;
  std::vector<float> depth(w * h, 1.5f);
  depth[1 * w + 0] = 0.0f;              // C of the first triangle of block (0, 0)
  depth[(h - 2) * w + (w - 1)] = 0.0f;  // A of the second triangle of block (h-2, w-2)
  const Maps maps(depth, w, h, kCamera);
  EXPECT_TRUE(IsZero(maps.normal(0, 0)));
  EXPECT_TRUE(IsZero(maps.normal(h - 1, w - 1)));
  EXPECT_FALSE(IsZero(maps.normal(0, 1)));
  EXPECT_FALSE(IsZero(maps.normal(h - 1, w - 2)));
  EXPECT_EQ(maps.valid(0, 0), 0);
  EXPECT_EQ(maps.valid(h - 1, w - 1), 0);
}

TEST(DepthMapsTest, SurfacesFacingAwayOrEdgeOnGetNoNormal) {
  const int32_t w = 6, h = 5;
  // A mirrored camera (negative fx) turns every triangle away from the origin.
  Intrinsics mirrored = kCamera;
  mirrored.fx = -mirrored.fx;
  const Maps away(std::vector<float>(w * h, 2.0f), w, h, mirrored);
  for (float n : away.normals) EXPECT_EQ(n, 0.0f);
  EXPECT_EQ(away.validCount, 0);

  // The plane x = 0 contains the camera centre: seen edge-on.
  std::vector<float> vertices(w * h * 3);
  for (int32_t r = 0; r < h; ++r) {
    for (int32_t c = 0; c < w; ++c) {
      float* v = &vertices[(r * w + c) * 3];
      v[0] = 0.0f;
      v[1] = static_cast<float>(r);
      v[2] = 1.0f + static_cast<float>(c);
    }
  }
  std::vector<float> normals(vertices.size(), 5.0f);
  VertexToNormalMap({vertices.data(), 0, w, h}, {normals.data(), 0, w, h});
  for (float n : normals) EXPECT_EQ(n, 0.0f);
}

TEST(DepthMapsTest, MaskIgnoresMissingOrMismatchedNormals) {
  const int32_t w = 4, h = 3;
  std::vector<float> vertices(w * h * 3, 1.0f);
  vertices[2] = 0.0f;          // pixel 0: z = 0
  vertices[5 * 3 + 2] = kNaN;  // pixel 5: NaN z is valid
  std::vector<float> normals(vertices.size(), 0.0f);
  normals[3 * 3 + 1] = kNaN;   // pixel 3: NaN normal counts as non-zero
  normals[7 * 3 + 2] = -1.0f;  // pixel 7: ordinary normal
  std::vector<uint8_t> mask(w * h);
  const ImageView<const float, 3> v{vertices.data(), 0, w, h};
  const ImageView<uint8_t> m{mask.data(), 0, w, h};
  EXPECT_EQ(ComputeValidMask(v, {normals.data(), 0, w, h}, m), 2);
  EXPECT_EQ(mask[3], 255);
  EXPECT_EQ(mask[7], 255);
  EXPECT_EQ(mask[5], 0);
  for (const ImageView<const float, 3>& ignored :
       {ImageView<const float, 3>{nullptr, 0, w, h},
        ImageView<const float, 3>{normals.data(), 0, w, h - 1},
        ImageView<const float, 3>{normals.data(), 0, w - 1, h}}) {
    EXPECT_EQ(ComputeValidMask(v, ignored, m), w * h - 1);
    EXPECT_EQ(mask[0], 0);
    EXPECT_EQ(mask[5], 255);
  }
}

TEST(DepthMapsTest, RowStepAddressesPaddedRows) {
  const int32_t w = 5, h = 4, padded = 8;  // depth rows of 8 floats, vertex rows of 7 triples
  std::vector<float> packedDepth(w * h), paddedDepth(padded * h, -9.0f);
  for (int32_t i = 0; i < w * h; ++i) {
    packedDepth[i] = 1.0f + 0.1f * static_cast<float>(i % 7);
    paddedDepth[(i / w) * padded + i % w] = packedDepth[i];
  }
  const Maps packed(packedDepth, w, h, kCamera);
  std::vector<float> vertices(7 * 3 * h, 3.0f), normals(7 * 3 * h, 3.0f);
  const int32_t vertexStep = 7 * 3 * 4;
  DepthToVertexMap(
      {paddedDepth.data(), padded * 4, w, h}, kCamera, {vertices.data(), vertexStep, w, h});
  VertexToNormalMap({vertices.data(), vertexStep, w, h}, {normals.data(), vertexStep, w, h});
  for (int32_t r = 0; r < h; ++r) {
    EXPECT_EQ(0, std::memcmp(&vertices[r * 21], packed.vertex(r, 0), w * 3 * sizeof(float)));
    EXPECT_EQ(0, std::memcmp(&normals[r * 21], packed.normal(r, 0), w * 3 * sizeof(float)));
    EXPECT_EQ(vertices[r * 21 + 15], 3.0f);  // padding untouched
  }
}

}  // namespace
}  // namespace qorv
