// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "features/organized_keypoints.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "features/depth_maps.hpp"
#include "runtime/parallel_for.hpp"
#include "support/depth_scenes.hpp"
#include "surface/scatter_eigen.hpp"

namespace qorv {
namespace {

constexpr float kEpsilon = 1.1920929e-07f;

// Vertex, normal and mask maps of a rendered depth image.
struct Scene {
  test::DepthCamera camera;
  std::vector<float> vertices;
  std::vector<float> normals;
  std::vector<uint8_t> mask;

  explicit Scene(const std::vector<float>& depth, const test::DepthCamera& cam = {}) : camera(cam) {
    const int32_t w = cam.width, h = cam.height;
    vertices.resize(depth.size() * 3);
    normals.resize(depth.size() * 3);
    mask.resize(depth.size());
    const Intrinsics k{static_cast<float>(cam.fx),
                       static_cast<float>(cam.fy),
                       static_cast<float>(cam.cx),
                       static_cast<float>(cam.cy)};
    DepthToVertexMap({depth.data(), 0, w, h}, k, {vertices.data(), 0, w, h});
    VertexToNormalMap({vertices.data(), 0, w, h}, {normals.data(), 0, w, h});
    ComputeValidMask({vertices.data(), 0, w, h}, {normals.data(), 0, w, h}, {mask.data(), 0, w, h});
  }
  OrganizedMaps maps() const {
    return {vertices.data(), normals.data(), mask.data(), camera.width, camera.height};
  }
};

struct Detection {
  std::vector<uint8_t> flags;
  std::vector<float> scores;
  std::vector<size_t> keys;  // flagged pixels in pixel order
};

OrganizedKeyPointParams DefaultParams() {
  OrganizedKeyPointParams p;
  p.scoreWindow = 9;
  p.suppressionWindow = 15;
  p.descriptorHalfWindow = 4;
  p.histogramWindow = 7;
  p.ratio21 = 0.975f;
  p.ratio32 = 0.975f;
  p.maxKeyPoints = 0;
  return p;
}

Detection Detect(const OrganizedMaps& maps,
                 const OrganizedKeyPointParams& params,
                 bool multiThread = false) {
  Detection d;
  d.flags.assign(maps.pixelCount(), 0x11);
  d.scores.assign(maps.pixelCount(), 3.0f);
  DetectKeyPixels(maps, params, Execution{multiThread}, d.flags.data(), d.scores.data());
  for (size_t i = 0; i < d.flags.size(); ++i) {
    EXPECT_TRUE(d.flags[i] == 0 || d.flags[i] == 255);
    if (d.flags[i] != 0) d.keys.push_back(i);
  }
  return d;
}

test::BoxScene BoxBeforeWall() {
  test::BoxScene box;
  box.wallDepth = 5.0;
  return box;
}

// Descriptors recomputed per key pixel, every pixel histogram afresh.
std::vector<float> ReferenceDescriptors(const OrganizedMaps& maps,
                                        const std::vector<size_t>& keys,
                                        int32_t h,
                                        int32_t histogramWindow) {
  std::vector<float> out(keys.size() * 33, 0.0f);
  int32_t counts[33];
  for (size_t k = 0; k < keys.size(); ++k) {
    const int32_t row = static_cast<int32_t>(keys[k] / maps.width);
    const int32_t col = static_cast<int32_t>(keys[k] % maps.width);
    if (row < h || row >= maps.height - h || col < h || col >= maps.width - h) continue;
    float* d = &out[k * 33];
    const float* vp = maps.vertices + 3 * keys[k];
    for (int32_t r = row - h; r <= row + h; ++r) {
      for (int32_t c = col - h; c <= col + h; ++c) {
        const size_t q = static_cast<size_t>(r) * maps.width + c;
        if (maps.mask[q] == 0) continue;
        const float* vq = maps.vertices + 3 * q;
        const float root = std::sqrt(vq[0] * vp[0] + vq[1] * vp[1] + vq[2] * vp[2]);
        if (!(root >= kEpsilon)) continue;
        ComputePixelHistogram(maps, r, c, histogramWindow, counts);
        for (int b = 0; b < 33; ++b) d[b] += static_cast<float>(counts[b]) * (1.0f / root);
      }
    }
    for (int block = 0; block < 3; ++block) {
      float sum = 0.0f;
      for (int b = 0; b < 11; ++b) sum += d[block * 11 + b];
      const float factor = sum <= kEpsilon ? 0.0f : 100.0f / sum;
      for (int b = 0; b < 11; ++b) d[block * 11 + b] *= factor;
    }
  }
  return out;
}

// Score image computed pixel by pixel, straight from the definition.
std::vector<float> ReferenceScores(const OrganizedMaps& maps,
                                   const OrganizedKeyPointParams& params) {
  std::vector<float> scores(maps.pixelCount(), std::numeric_limits<float>::quiet_NaN());
  const int32_t h = params.scoreWindow >> 1;
  for (int32_t row = h; row < maps.height - h; ++row) {
    for (int32_t col = h; col < maps.width - h; ++col) {
      const size_t i = static_cast<size_t>(row) * maps.width + col;
      if (maps.mask[i] == 0) continue;
      const float* p = maps.vertices + 3 * i;
      float c[6] = {0, 0, 0, 0, 0, 0};  // c00 c11 c22 c01 c02 c12
      int count = 0;
      for (int32_t qr = row - h; qr <= row + h; ++qr) {
        for (int32_t qc = col - h; qc <= col + h; ++qc) {
          const size_t q = static_cast<size_t>(qr) * maps.width + qc;
          if (maps.mask[q] == 0) continue;
          const float* v = maps.vertices + 3 * q;
          const float d[3] = {v[0] - p[0], v[1] - p[1], v[2] - p[2]};
          const float length = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
          if (length < kEpsilon) continue;
          ++count;
          const float u[3] = {d[0] / length, d[1] / length, d[2] / length};
          c[0] += u[0] * u[0], c[3] += u[0] * u[1], c[4] += u[0] * u[2];
          c[1] += u[1] * u[1], c[5] += u[1] * u[2], c[2] += u[2] * u[2];
        }
      }
      if (count < params.scoreWindow) continue;
      const ScatterEigenvalues e = ComputeScatterEigenvalues(c[0], c[1], c[2], c[3], c[4], c[5]);
      if (std::signbit(e.e0) != std::signbit(e.e1)) continue;
      float l[3] = {e.e0, e.e1, e.e2};
      std::sort(l, l + 3, [](float a, float b) { return a > b; });
      if (l[1] / l[0] < params.ratio21 && l[2] / l[1] < params.ratio32) scores[i] = l[2];
    }
  }
  return scores;
}

double SegmentDistance(double px,
                       double py,
                       const std::array<double, 3>& a,
                       const std::array<double, 3>& b) {
  const double dx = b[0] - a[0], dy = b[1] - a[1];
  double t = ((px - a[0]) * dx + (py - a[1]) * dy) / (dx * dx + dy * dy);
  t = std::clamp(t, 0.0, 1.0);
  return std::hypot(px - a[0] - t * dx, py - a[1] - t * dy);
}

TEST(OrganizedKeyPointsTest, FlatWallSeenHeadOnHasNoKeyPixel) {
  const test::DepthCamera cam;
  const Scene wall(std::vector<float>(static_cast<size_t>(cam.width) * cam.height, 4.0f));
  const Detection d = Detect(wall.maps(), DefaultParams());
  EXPECT_TRUE(d.keys.empty());
  for (float s : d.scores) EXPECT_TRUE(std::isnan(s));
}

TEST(OrganizedKeyPointsTest, ScoresEqualAPerPixelReference) {
  const test::DepthCamera cam;
  std::vector<float> depth = BoxBeforeWall().render(cam);
  std::mt19937 rng(3);
  std::normal_distribution<float> noise(0.0f, 0.002f);
  for (float& z : depth) z += noise(rng);
  depth[30 * cam.width + 90] = 0.0f;
  Scene scene(depth);
  scene.vertices[(50 * cam.width + 60) * 3] = std::numeric_limits<float>::quiet_NaN();
  for (int32_t window : {2, 3, 9, 10}) {
    OrganizedKeyPointParams p = DefaultParams();
    p.scoreWindow = window;
    const std::vector<float> reference = ReferenceScores(scene.maps(), p);
    const Detection d = Detect(scene.maps(), p);
    EXPECT_EQ(0, std::memcmp(d.scores.data(), reference.data(), reference.size() * 4)) << window;
  }
}

TEST(OrganizedKeyPointsTest, BoxCornerIsTheBestKeyPixelAndStrongOnesLieOnEdges) {
  const test::DepthCamera cam;
  const test::BoxScene box;
  const Scene scene(box.render(cam));
  const auto corners = box.projectedCorners(cam);
  const auto apex = *std::min_element(
      corners.begin(), corners.end(), [](const auto& a, const auto& b) { return a[2] < b[2]; });

  OrganizedKeyPointParams params = DefaultParams();
  params.maxKeyPoints = 1;
  const Detection best = Detect(scene.maps(), params);
  ASSERT_EQ(best.keys.size(), 1u);
  EXPECT_LT(std::hypot(static_cast<double>(best.keys[0] % cam.width) - apex[0],
                       static_cast<double>(best.keys[0] / cam.width) - apex[1]),
            3.0);

  // Without a cap the faces give key pixels too, but only with scores at rounding level.
  params.maxKeyPoints = 0;
  const Detection all = Detect(scene.maps(), params);
  const float top = best.scores[best.keys[0]];
  size_t strong = 0;
  for (size_t key : all.keys) {
    if (all.scores[key] < 0.01f * top) continue;
    ++strong;
    double nearest = 1e9;
    for (int a = 0; a < 8; ++a) {
      for (int bit : {1, 2, 4}) {
        if ((a & bit) == 0) {
          nearest = std::min(nearest,
                             SegmentDistance(static_cast<double>(key % cam.width),
                                             static_cast<double>(key / cam.width),
                                             corners[a],
                                             corners[a | bit]));
        }
      }
    }
    EXPECT_LT(nearest, 4.0) << key / cam.width << "," << key % cam.width;
  }
  EXPECT_GE(strong, 3u);
}

TEST(OrganizedKeyPointsTest, SuppressionAndCapMatchABruteForceReference) {
  const test::DepthCamera cam;
  const Scene scene(BoxBeforeWall().render(cam));
  OrganizedKeyPointParams params = DefaultParams();
  const Detection uncapped = Detect(scene.maps(), params);
  const int32_t h = params.suppressionWindow / 2;
  std::vector<std::pair<float, size_t>> ranked;
  for (int32_t r = 0; r < cam.height; ++r) {
    for (int32_t c = 0; c < cam.width; ++c) {
      const size_t i = static_cast<size_t>(r) * cam.width + c;
      bool expected = false;
      if (r >= h && r < cam.height - h && c >= h && c < cam.width - h &&
          !std::isnan(uncapped.scores[i])) {
        expected = true;
        for (int32_t qr = r - h; qr <= r + h; ++qr) {
          for (int32_t qc = c - h; qc <= c + h; ++qc) {
            if (uncapped.scores[static_cast<size_t>(qr) * cam.width + qc] > uncapped.scores[i]) {
              expected = false;
            }
          }
        }
      }
      EXPECT_EQ(uncapped.flags[i] != 0, expected) << r << "," << c;
      if (expected) ranked.push_back({-uncapped.scores[i], i});
    }
  }
  ASSERT_GT(ranked.size(), 12u);
  std::sort(ranked.begin(), ranked.end());  // best score first, then lower pixel index
  // Also a cap that splits a run of equal scores: the lower pixel indices are kept.
  int32_t splitsTie = 0;
  for (size_t k = 1; k < ranked.size() && splitsTie == 0; ++k) {
    if (ranked[k - 1].first == ranked[k].first) splitsTie = static_cast<int32_t>(k);
  }
  ASSERT_GT(splitsTie, 0);
  for (int32_t cap : {1, 5, 12, splitsTie, static_cast<int32_t>(ranked.size()), 100000}) {
    params.maxKeyPoints = cap;
    const Detection capped = Detect(scene.maps(), params);
    std::vector<size_t> expected;
    for (size_t k = 0; k < std::min<size_t>(cap, ranked.size()); ++k)
      expected.push_back(ranked[k].second);
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(capped.keys, expected) << cap;
    EXPECT_EQ(
        0, std::memcmp(capped.scores.data(), uncapped.scores.data(), cam.width * cam.height * 4));
  }
}

TEST(OrganizedKeyPointsTest, DegenerateAndOversizedWindowsAreSafe) {
  const test::DepthCamera cam;
  const Scene scene(BoxBeforeWall().render(cam));
  const OrganizedMaps maps = scene.maps();
  const Detection reference = Detect(maps, DefaultParams());
  ASSERT_FALSE(reference.keys.empty());
  size_t scored = 0;
  for (float s : reference.scores) scored += std::isnan(s) ? 0 : 1;

  for (int32_t window : {INT32_MIN, -5, 0, 1, 2 * cam.width + 1, INT32_MAX}) {
    OrganizedKeyPointParams p = DefaultParams();
    p.scoreWindow = window;
    EXPECT_TRUE(Detect(maps, p).keys.empty()) << window;
    p = DefaultParams();
    p.suppressionWindow = window;
    const Detection d = Detect(maps, p);
    // Up to one pixel the window is the pixel itself: nothing is suppressed.
    EXPECT_EQ(d.keys.size(), window <= 1 ? scored : 0u) << window;
  }
  // Descriptor windows that reach no pixel, or lie outside the image, give all-zero descriptors;
  // so do pixel histograms of at most one pixel.
  const auto allZero = [](const std::vector<float>& v) {
    return std::all_of(v.begin(), v.end(), [](float x) { return x == 0.0f; });
  };
  for (int32_t half : {INT32_MIN, -1, cam.height / 2, INT32_MAX}) {
    const std::vector<float> d =
        ComputeKeyPixelDescriptors(maps, reference.flags.data(), half, 7, Execution{});
    EXPECT_EQ(d.size(), reference.keys.size() * 33);
    EXPECT_TRUE(allZero(d)) << half;
  }
  for (int32_t window : {INT32_MIN, -7, 0, 1}) {
    const std::vector<float> d =
        ComputeKeyPixelDescriptors(maps, reference.flags.data(), 4, window, Execution{});
    EXPECT_TRUE(allZero(d)) << window;
  }
  // A histogram window wider than the image is clipped to it.
  OrganizedKeyPointParams few = DefaultParams();
  few.maxKeyPoints = 2;
  const Detection two = Detect(maps, few);
  EXPECT_EQ(ComputeKeyPixelDescriptors(maps, two.flags.data(), 1, INT32_MAX, Execution{}),
            ReferenceDescriptors(maps, two.keys, 1, INT32_MAX));
}

TEST(OrganizedKeyPointsTest, DescriptorsEqualPerKeyRecomputationAndNormalise) {
  const test::DepthCamera cam;
  const Scene scene(BoxBeforeWall().render(cam));
  const OrganizedMaps maps = scene.maps();
  const Detection d = Detect(maps, DefaultParams());
  // Half-window 40 leaves some key pixels outside the descriptor border: they get zeros.
  for (int32_t half : {0, 4, 40}) {
    const std::vector<float> descriptors =
        ComputeKeyPixelDescriptors(maps, d.flags.data(), half, 7, Execution{});
    const std::vector<float> reference = ReferenceDescriptors(maps, d.keys, half, 7);
    ASSERT_EQ(descriptors.size(), reference.size());
    EXPECT_EQ(0, std::memcmp(descriptors.data(), reference.data(), descriptors.size() * 4)) << half;
    size_t zeroBlocks = 0;
    for (size_t block = 0; block < descriptors.size() / 11; ++block) {
      float sum = 0.0f;
      for (int b = 0; b < 11; ++b) sum += descriptors[block * 11 + b];
      if (sum == 0.0f) {
        ++zeroBlocks;
      } else {
        EXPECT_NEAR(sum, 100.0f, 1e-3f);
      }
    }
    if (half == 40) {
      EXPECT_GT(zeroBlocks, 0u);
    }
    if (half == 4) {
      EXPECT_EQ(zeroBlocks, 0u);
    }
  }
}

TEST(OrganizedKeyPointsTest, PixelHistogramOfAPlaneFillsTheMiddleBins) {
  // Head-on plane, normals (0, 0, -1): phi = alpha = theta = 0 for every pair, bin 5 everywhere.
  const test::DepthCamera cam;
  Scene plane(std::vector<float>(static_cast<size_t>(cam.width) * cam.height, 2.0f));
  plane.mask[5 * cam.width + 6] = 0;  // an invalid pixel is not counted
  const OrganizedMaps maps = plane.maps();
  int32_t counts[33];
  struct Case {
    int32_t row, col, window, pairs;
  };
  for (const Case& k : {Case{0, 0, 5, 8},
                        Case{5, 5, 5, 23},
                        Case{60, 80, 7, 48},
                        Case{60, 80, 6, 48},
                        Case{cam.height - 1, cam.width - 1, 3, 3}}) {
    ComputePixelHistogram(maps, k.row, k.col, k.window, counts);
    for (int b = 0; b < 33; ++b) {
      EXPECT_EQ(counts[b], b % 11 == 5 ? k.pairs : 0) << k.row << "," << k.col << " bin " << b;
    }
  }
}

TEST(OrganizedKeyPointsTest, SerialAndParallelAreBitIdentical) {
  const ThreadScope scope(3);
  const test::DepthCamera cam;
  std::vector<float> depth = BoxBeforeWall().render(cam);
  std::mt19937 rng(7);
  std::normal_distribution<float> noise(0.0f, 0.002f);
  for (float& z : depth) z += noise(rng);
  depth[40 * cam.width + 70] = std::numeric_limits<float>::quiet_NaN();
  const Scene scene(depth);
  const OrganizedMaps maps = scene.maps();
  for (int32_t cap : {0, 10}) {
    OrganizedKeyPointParams p = DefaultParams();
    p.maxKeyPoints = cap;
    const Detection serial = Detect(maps, p, false);
    const Detection parallel = Detect(maps, p, true);
    EXPECT_EQ(0,
              std::memcmp(serial.scores.data(), parallel.scores.data(), serial.scores.size() * 4));
    EXPECT_EQ(serial.flags, parallel.flags);
    ASSERT_FALSE(serial.keys.empty());
    const std::vector<float> a =
        ComputeKeyPixelDescriptors(maps, serial.flags.data(), 5, 7, Execution{false});
    const std::vector<float> b =
        ComputeKeyPixelDescriptors(maps, serial.flags.data(), 5, 7, Execution{true});
    ASSERT_EQ(a.size(), b.size());
    EXPECT_EQ(0, std::memcmp(a.data(), b.data(), a.size() * 4));
  }
}

TEST(OrganizedKeyPointsTest, NaNVertexSpoilsOnlyTheScoresAroundIt) {
  const test::DepthCamera cam;
  Scene scene(BoxBeforeWall().render(cam));
  const int32_t row = 60, col = 80;
  float* v = &scene.vertices[(static_cast<size_t>(row) * cam.width + col) * 3];
  v[0] = v[1] = v[2] = std::numeric_limits<float>::quiet_NaN();
  ASSERT_EQ(scene.mask[static_cast<size_t>(row) * cam.width + col], 255);
  const OrganizedKeyPointParams p = DefaultParams();
  const Detection d = Detect(scene.maps(), p);
  const int32_t h = p.scoreWindow >> 1;
  for (int32_t r = row - h; r <= row + h; ++r) {
    for (int32_t c = col - h; c <= col + h; ++c) {
      EXPECT_TRUE(std::isnan(d.scores[static_cast<size_t>(r) * cam.width + c]));
    }
  }
  ASSERT_FALSE(d.keys.empty());
  std::vector<uint8_t> flags = d.flags;
  flags[static_cast<size_t>(row) * cam.width + col] = 255;  // even as a key pixel itself
  const std::vector<float> descriptors =
      ComputeKeyPixelDescriptors(scene.maps(), flags.data(), 6, 9, Execution{});
  for (float x : descriptors) EXPECT_TRUE(std::isfinite(x));
}

}  // namespace
}  // namespace qorv
