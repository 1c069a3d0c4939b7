// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/ransac_matching.hpp"

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "registration/libc_random.hpp"
#include "support/registration_data.hpp"

namespace qorv {
namespace {

TEST(LibcRandomTest, ReproducesTheCLibraryGenerator) {
  for (uint32_t seed : {0u, 1u, 42u, 1700000000u, 2147483647u, 2147483648u, 4294967295u}) {
    std::srand(seed);
    LibcRandom random(seed);
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(random.next(), std::rand()) << seed << " #" << i;
  }
}

TEST(ThreePointSolverTest, RecoversAnExactMotion) {
  const float axis[3] = {0.48f, -0.6f, 0.64f};
  const float shift[3] = {0.5f, -1.25f, 2.0f};
  for (float angle : {0.0f, 0.3f, 2.5f, -1.2f}) {
    float truth[12];
    test::MakePose(axis, angle, shift, truth);
    const std::vector<float> source = {0.1f, 0.2f, 0.3f, 1.1f, 0.4f, -0.2f, 0.3f, 0.9f, 0.7f};
    const std::vector<float> target = test::ApplyPose(truth, source);
    const float* s[3] = {&source[0], &source[3], &source[6]};
    const float* d[3] = {&target[0], &target[3], &target[6]};
    float pose[12];
    SolveThreePoints(s, d, pose);
    for (int i = 0; i < 12; ++i) EXPECT_NEAR(pose[i], truth[i], 2e-5f) << angle << " #" << i;
  }
}

// The fixture's sets as the matcher takes them, with or without normals.
struct RigidPair : test::RigidKeyPoints {
  explicit RigidPair(int32_t count) : RigidKeyPoints(count, 21) {}
  KeyPointSet first(bool withNormals = true) const {
    return {points1.data(), withNormals ? normals1.data() : nullptr, descriptors1.data(), count()};
  }
  KeyPointSet second(bool withNormals = true) const {
    return {points2.data(), withNormals ? normals2.data() : nullptr, descriptors2.data(), count()};
  }
};

struct RansacRun {
  int32_t count;
  double transform[12];
  std::vector<int32_t> matches;
  std::string log;
};

RansacRun RunRansac(const KeyPointSet& first,
                    const KeyPointSet& second,
                    const RansacParams& params,
                    bool multiThread,
                    uint32_t seed = 1234) {
  RansacRun run;
  std::fill_n(run.transform, 12, -7.0);
  testing::internal::CaptureStdout();
  run.count = RansacMatch(
      first, second, params, true, Execution{multiThread}, seed, run.transform, run.matches);
  run.log = testing::internal::GetCapturedStdout();
  return run;
}

void ExpectPose(const double* transform, const float* pose, double tolerance) {
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(transform[4 * r + c], pose[3 * r + c], tolerance);
    EXPECT_NEAR(transform[4 * r + 3], pose[9 + r], tolerance);
  }
}

TEST(RansacMatchTest, ARigidCopyGivesTheMotionAndKeepsEveryMatch) {
  const RigidPair pair(200);
  for (bool multiThread : {false, true}) {
    const RansacRun run = RunRansac(pair.first(), pair.second(), {2000, 0.9, 0.01}, multiThread);
    EXPECT_EQ(run.count, 200);
    EXPECT_EQ(run.matches, pair.firstIndexOf);
    ExpectPose(run.transform, pair.truth, 1e-4);
    EXPECT_EQ(run.log, "[QORV INFO] RansacMatch: 200\n");
  }
}

TEST(RansacMatchTest, WithoutSamplesTheZeroMotionDecides) {
  RigidPair pair(40);
  // Key points 0..4 of the first set lie within the inlier distance of the origin.
  for (int32_t i = 0; i < 5; ++i) {
    for (int c = 0; c < 3; ++c) pair.points1[3 * i + c] = 0.01f * static_cast<float>(c + i);
  }
  for (int32_t iterations : {0, -5}) {
    const RansacRun run =
        RunRansac(pair.first(false), pair.second(false), {iterations, 0.9, 0.1}, true);
    EXPECT_EQ(run.count, 0);
    for (double v : run.transform) EXPECT_EQ(v, 0.0);
    int32_t kept = 0;
    for (size_t j = 0; j < run.matches.size(); ++j) {
      if (run.matches[j] != -1) {
        ++kept;
        EXPECT_LT(run.matches[j], 5);
        EXPECT_EQ(run.matches[j], pair.firstIndexOf[j]);
      }
    }
    EXPECT_EQ(kept, 5);
    EXPECT_EQ(run.log, "[QORV INFO] RansacMatch: 40\n[QORV INFO] Match condition error.\n");
  }
  // With normals on both sides the zero rotation turns every normal to zero: nothing survives.
  const RansacRun run = RunRansac(pair.first(), pair.second(), {0, 0.9, 0.1}, false);
  for (int32_t m : run.matches) EXPECT_EQ(m, -1);
  EXPECT_EQ(run.log, "[QORV INFO] RansacMatch: 40\n");
}

TEST(RansacMatchTest, EdgeRatioZeroAcceptsAndOneRejectsEveryTriangle) {
  const RigidPair pair(50);
  const RansacRun open = RunRansac(pair.first(), pair.second(), {500, 0.0, 0.01}, false);
  EXPECT_EQ(open.count, 50);
  ExpectPose(open.transform, pair.truth, 1e-4);
  for (double ratio : {1.0, 1.5}) {
    const RansacRun closed = RunRansac(pair.first(), pair.second(), {500, ratio, 0.01}, false);
    EXPECT_EQ(closed.count, 0);
    for (double v : closed.transform) EXPECT_EQ(v, 0.0);
  }
}

TEST(RansacMatchTest, TheNormalTestNeedsNormalsOnBothSides) {
  RigidPair pair(50);
  for (float& v : pair.normals1) v = -v;  // every moved normal now disagrees with its partner
  const RansacRun both = RunRansac(pair.first(), pair.second(), {300, 0.5, 0.01}, false);
  EXPECT_EQ(both.count, 0);
  const RansacRun firstOnly =
      RunRansac(pair.first(true), pair.second(false), {300, 0.5, 0.01}, false);
  EXPECT_EQ(firstOnly.count, 50);
  const RansacRun secondOnly =
      RunRansac(pair.first(false), pair.second(true), {300, 0.5, 0.01}, false);
  EXPECT_EQ(secondOnly.count, 50);
}

TEST(RansacMatchTest, OutliersAreDroppedFromTheMatches) {
  RigidPair pair(120);
  // Move a quarter of the first set's points away: their matches must not survive.
  std::vector<bool> moved(120, false);
  for (int32_t j = 0; j < 120; j += 4) {
    const int32_t i = pair.firstIndexOf[j];
    pair.points1[3 * i] += 0.5f;
    moved[j] = true;
  }
  for (bool multiThread : {false, true}) {
    const RansacRun run = RunRansac(pair.first(), pair.second(), {5000, 0.9, 0.01}, multiThread);
    EXPECT_EQ(run.count, 90);
    ExpectPose(run.transform, pair.truth, 1e-4);
    for (int32_t j = 0; j < 120; ++j)
      EXPECT_EQ(run.matches[j], moved[j] ? -1 : pair.firstIndexOf[j]);
  }
}

TEST(RansacMatchTest, FewerThanThreeCorrespondencesDrawNothing) {
  const RigidPair pair(2);
  const RansacRun run = RunRansac(pair.first(), pair.second(), {100, 0.0, 10.0}, true);
  EXPECT_EQ(run.count, 0);
  for (double v : run.transform) EXPECT_EQ(v, 0.0);
  EXPECT_EQ(run.log, "[QORV INFO] RansacMatch: 2\n");
}

}  // namespace
}  // namespace qorv
