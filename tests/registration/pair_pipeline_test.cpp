// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/pair_pipeline.hpp"

#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "registration/distance_check.hpp"
#include "search/kd_tree.hpp"
#include "support/clouds.hpp"
#include "support/registration_data.hpp"
#include "surface/normal_estimation.hpp"
#include "surface/outlier_filter.hpp"
#include "surface/voxel_filter.hpp"

namespace qorv {
namespace {

const Execution kSerial{false};
const Execution kParallel{true};
constexpr uint32_t kSeed = 12345;

std::vector<float> Gather(const std::vector<float>& points, const std::vector<int32_t>& kept) {
  std::vector<float> out;
  for (int32_t i : kept) out.insert(out.end(), &points[3 * i], &points[3 * i + 3]);
  return out;
}

int32_t CountOf(const std::vector<float>& points) {
  return static_cast<int32_t>(points.size() / 3);
}

// The smoothing pass written out from its definition: neighbours strictly within s found by a
// 64-bit-index tree, weights c * expf(d^2 / e) with sigma = s / 3.46087178201605,
// c = 0.3989422804014327 / sigma and e = -2 sigma^2 rounded to float, sums in float in search
// order.
std::vector<float> ReferenceSmoothing(const std::vector<float>& points, float s) {
  const PointKdTree64 tree(points.data(), CountOf(points));
  const double sigma = static_cast<double>(s) / 3.46087178201605;
  const auto c = static_cast<float>(0.3989422804014327 / sigma);
  const auto e = static_cast<float>(-2.0 * (sigma * sigma));
  std::vector<float> out(points.size());
  RadiusResult found;
  for (size_t i = 0; i < points.size(); i += 3) {
    found.clear();
    tree.radiusSearch(&points[i], s * s, found, false);
    float sum[3] = {0.0f, 0.0f, 0.0f};
    float weights = 0.0f;
    for (size_t k = 0; k < found.size(); ++k) {
      const float w = c * std::exp(found.distSq[k] / e);
      for (int d = 0; d < 3; ++d)
        sum[d] += w * points[3 * static_cast<size_t>(found.indices[k]) + d];
      weights += w;
    }
    for (int d = 0; d < 3; ++d) out[i + d] = sum[d] / weights;
  }
  return out;
}

float Spacing(const std::vector<float>& points) {
  testing::internal::CaptureStdout();
  const float spacing = CheckDistance(points.data(), CountOf(points), 2, kSerial);
  testing::internal::GetCapturedStdout();
  return spacing;
}

TEST(PairPipelineTest, PrepareCloudComposesTheChainBitForBit) {
  const std::vector<float> scan = test::LoadSample("dragon_res4.asc");
  ASSERT_FALSE(scan.empty());
  const float s = 2.0f * Spacing(scan);

  std::vector<float> expected =
      Gather(scan, OutlierFilter(scan.data(), CountOf(scan), 50, 3.4f, kSerial));
  expected = ReferenceSmoothing(expected, s);
  expected = Gather(expected, VoxelFilter(expected.data(), CountOf(expected), s));
  std::vector<float> expectedNormals(expected.size());
  ComputeNormals(expected.data(), CountOf(expected), s + s, kSerial, expectedNormals.data());
  ASSERT_GT(CountOf(expected), 500);

  // NaN points anywhere in the input are left out before the chain, so they change nothing.
  std::vector<float> withNaN(scan);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (size_t at : {size_t{0}, size_t{1777}, scan.size() / 3}) {
    withNaN.insert(withNaN.begin() + static_cast<std::ptrdiff_t>(3 * at), {nan, 1.0f, 2.0f});
  }
  const std::vector<float>* noNaN = &scan;
  const std::vector<float>* someNaN = &withNaN;
  for (const auto& [input, exec] : {std::make_pair(noNaN, kSerial),
                                    std::make_pair(noNaN, kParallel),
                                    std::make_pair(someNaN, kSerial),
                                    std::make_pair(someNaN, kParallel)}) {
    const PreparedCloud prepared = PrepareCloud(input->data(), CountOf(*input), s, exec);
    EXPECT_EQ(prepared.points, expected);
    EXPECT_EQ(prepared.normals, expectedNormals);
  }
}

TEST(PairPipelineTest, ResolutionsThatAreNotPositiveLeaveNoPoints) {
  const std::vector<float> cloud = test::RandomCloud(300, 3);
  for (float s : {0.0f,
                  -0.1f,
                  std::numeric_limits<float>::quiet_NaN(),
                  std::numeric_limits<float>::infinity()}) {
    const PreparedCloud prepared = PrepareCloud(cloud.data(), CountOf(cloud), s, kSerial);
    EXPECT_EQ(prepared.count(), 0) << s;
    EXPECT_EQ(PipelineKeyPoints(prepared, s, kSerial).count(), 0);
  }
  const std::vector<float> allNaN(30, std::numeric_limits<float>::quiet_NaN());
  EXPECT_EQ(PrepareCloud(allNaN.data(), 10, 0.1f, kSerial).count(), 0);
}

// The detector bounds of 0.01 ask for nearly linear neighbourhoods at 2s; a smooth scan has none,
// although the same prepared cloud is rich in key points under surface-friendly bounds.
TEST(PairPipelineTest, SmoothScanYieldsNoKeyPoints) {
  const std::vector<float> scan = test::LoadSample("dragon_res3.asc");
  ASSERT_FALSE(scan.empty());
  const float s = Spacing(scan);
  EXPECT_NEAR(s, 0.00136f, 0.00002f);
  const PreparedCloud prepared = PrepareCloud(scan.data(), CountOf(scan), s, kParallel);
  ASSERT_GT(prepared.count(), 10000);
  EXPECT_EQ(PipelineKeyPoints(prepared, s, kParallel).count(), 0);

  const PointKdTree tree(prepared.points.data(), prepared.count());
  const KeyPointParams loose{s + s, s / 3.0f, 0.8f, 0.8f, 0};
  EXPECT_GT(DetectAndCompute(tree, prepared.normals.data(), loose, s, 5.0f * s, kParallel).count(),
            1000);

  // Hence the whole pipeline finds no model.
  const std::vector<float> half(scan.begin(), scan.begin() + 3 * (CountOf(scan) / 2));
  double transform[12];
  std::fill(transform, transform + 12, 0.25);
  std::vector<int32_t> matches;
  const PairPipelineParams ransac{0.0f, s, 1000};
  testing::internal::CaptureStdout();
  const int32_t count = MatchPairPointCloud(scan.data(),
                                            CountOf(scan),
                                            half.data(),
                                            CountOf(half),
                                            ransac,
                                            true,
                                            kParallel,
                                            kSeed,
                                            transform,
                                            matches);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[QORV INFO] RansacMatch: 0\n");
  EXPECT_EQ(count, 0);
  for (double v : transform) EXPECT_EQ(v, 0.0);
  EXPECT_TRUE(matches.empty());
}

// ---- The matching stage on key points with a known motion ---------------------------------------

struct Features : test::RigidKeyPoints {
  KeyPointFeatures first, second;

  Features(int32_t count, uint32_t seed) : RigidKeyPoints(count, seed) {
    first = Wrap(points1, normals1, descriptors1);
    second = Wrap(points2, normals2, descriptors2);
  }
  static KeyPointFeatures Wrap(const std::vector<float>& p,
                               const std::vector<float>& n,
                               const std::vector<float>& d) {
    KeyPointFeatures f;
    f.indices.resize(p.size() / 3);
    std::iota(f.indices.begin(), f.indices.end(), 0);
    f.positions = p;
    f.normals = n;
    f.descriptors = d;
    return f;
  }
  // Moves first-set partner of second-set key point j by `offset` along x.
  void displacePartner(int32_t j, float offset) {
    first.positions[3 * static_cast<size_t>(firstIndexOf[static_cast<size_t>(j)])] += offset;
  }
};

struct MatchRun {
  int32_t count = 0;
  double transform[12];
  std::vector<int32_t> matches;
};

MatchRun Match(const Features& f,
               const PairPipelineParams& params,
               const Execution& exec,
               double start) {
  MatchRun run;
  std::fill(run.transform, run.transform + 12, start);
  if (params.kernelScale > 0.0f) {
    // Identity start for the iterative matcher.
    std::fill(run.transform, run.transform + 12, 0.0);
    run.transform[0] = run.transform[5] = run.transform[10] = 1.0;
  }
  testing::internal::CaptureStdout();
  run.count = MatchPipelineKeyPoints(
      f.first, f.second, params, true, exec, kSeed, run.transform, run.matches);
  testing::internal::GetCapturedStdout();
  return run;
}

void ExpectTruth(const MatchRun& run, const float* truth, double tolerance) {
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(run.transform[4 * r + c], truth[3 * r + c], tolerance);
    EXPECT_NEAR(run.transform[4 * r + 3], truth[9 + r], tolerance);
  }
}

// kernelScale <= 0 (0 included) is RANSAC: it ignores the matrix passed in, keeps pairs strictly
// within s of the model and rejects every triangle whose edges disagree by more than 0.995.
TEST(PairPipelineTest, RansacPathUsesResolutionAndEdgeRatio) {
  Features f(60, 5);
  const float s = 0.02f;
  f.displacePartner(3, 1.5f * s);   // beyond s: dropped
  f.displacePartner(10, 0.5f * s);  // within s: kept
  for (float kernelScale : {0.0f, -1.0f}) {
    const MatchRun run = Match(f, {kernelScale, s, 2000}, kSerial, 7.0);
    ExpectTruth(run, f.truth, 1e-4);
    EXPECT_EQ(run.count, 59);
    ASSERT_EQ(run.matches.size(), 60u);
    for (int32_t j = 0; j < 60; ++j) EXPECT_EQ(run.matches[j], j == 3 ? -1 : f.firstIndexOf[j]);
  }

  // A copy shrunk by 1% has edge ratios 0.99 < 0.995: no sample passes and the model is all zeros.
  // Shrunk by 0.2% it passes and the model stays close to the motion.
  for (const auto& [scale, passes] : {std::make_pair(0.99f, false), std::make_pair(0.998f, true)}) {
    Features scaled(60, 5);
    for (float& v : scaled.second.positions) v *= scale;
    const MatchRun run = Match(scaled, {0.0f, 0.05f, 2000}, kSerial, 7.0);
    EXPECT_EQ(run.count > 0, passes) << scale;
    EXPECT_EQ(run.transform[0] != 0.0, passes) << scale;
  }

  // The normal test uses both sets' key-point normals: flipped normals agree with no model.
  Features flipped(60, 5);
  for (float& v : flipped.second.normals) v = -v;
  const MatchRun none = Match(flipped, {0.0f, s, 2000}, kSerial, 7.0);
  EXPECT_EQ(none.count, 0);
  for (double v : none.transform) EXPECT_EQ(v, 0.0);
}

// kernelScale > 0 is the iterative matcher from the caller's pose, with distance bound s; it runs
// the same on one thread as on several.
TEST(PairPipelineTest, IterativePathRefinesFromCallersPose) {
  Features f(80, 9);
  const float s = 0.05f;
  f.displacePartner(4, 1.2f * s);
  f.displacePartner(20, 0.3f * s);
  const MatchRun serial = Match(f, {1.0f, s, 100}, kSerial, 0.0);
  ExpectTruth(serial, f.truth, 5e-3);
  EXPECT_EQ(serial.count, 79);
  EXPECT_EQ(serial.matches[4], -1);
  EXPECT_EQ(serial.matches[20], f.firstIndexOf[20]);
  const MatchRun parallel = Match(f, {1.0f, s, 100}, kParallel, 0.0);
  EXPECT_EQ(parallel.count, serial.count);
  EXPECT_EQ(parallel.matches, serial.matches);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(parallel.transform[i], serial.transform[i]);
}

// With no key point on one side nothing is matched: RANSAC writes zeros, the iterative matcher
// gives the starting pose back.
TEST(PairPipelineTest, EmptyKeyPointSetMatchesNothing) {
  Features f(20, 2);
  for (bool emptyFirst : {true, false}) {
    Features g = f;
    (emptyFirst ? g.first : g.second) = KeyPointFeatures{};
    const MatchRun ransac = Match(g, {0.0f, 0.1f, 100}, kSerial, 7.0);
    EXPECT_EQ(ransac.count, 0);
    EXPECT_TRUE(ransac.matches.empty());
    for (double v : ransac.transform) EXPECT_EQ(v, 0.0);

    MatchRun iterative;
    const double start[12] = {0.0, -1.0, 0.0, 0.5, 1.0, 0.0, 0.0, -0.25, 0.0, 0.0, 1.0, 2.0};
    std::copy(start, start + 12, iterative.transform);
    testing::internal::CaptureStdout();
    iterative.count = MatchPipelineKeyPoints(g.first,
                                             g.second,
                                             {4.0f, 0.1f, 50},
                                             true,
                                             kSerial,
                                             kSeed,
                                             iterative.transform,
                                             iterative.matches);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[QORV INFO] IterativeMatch: 0\n");
    EXPECT_EQ(iterative.count, 0);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(iterative.transform[i], start[i]);
  }
}

}  // namespace
}  // namespace qorv
