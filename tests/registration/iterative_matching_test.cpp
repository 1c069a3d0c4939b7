// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/iterative_matching.hpp"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/clouds.hpp"
#include "support/registration_data.hpp"

namespace qorv {
namespace {

const float kIdentity[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};

Correspondences RigidPairs(int32_t count, const float truth[12]) {
  Correspondences pairs;
  pairs.second = test::RandomCloud(count, 31);
  pairs.first = test::ApplyPose(truth, pairs.second);
  return pairs;
}

void TruthPose(float angle, float pose[12]) {
  const float axis[3] = {0.6f, 0.0f, 0.8f};
  const float shift[3] = {0.05f, -0.1f, 0.08f};
  test::MakePose(axis, angle, shift, pose);
}

TEST(RefinePoseTest, ConvergesFromIdentityOnARigidCopy) {
  float truth[12];
  TruthPose(0.2f, truth);
  const Correspondences pairs = RigidPairs(300, truth);
  float pose[12];
  std::copy_n(kIdentity, 12, pose);
  EXPECT_EQ(RefinePose(pairs, {60, 1.0f, 0.001f}, pose), 60);
  for (int i = 0; i < 12; ++i) EXPECT_NEAR(pose[i], truth[i], 1e-5f) << i;
}

TEST(RefinePoseTest, HalvesTheKernelAfterEveryEighthStep) {
  float truth[12];
  TruthPose(0.1f, truth);
  const Correspondences pairs = RigidPairs(20, truth);
  float pose[12];
  // mu = 1 is halved after steps 8, 16, 24, 32, 40; delta^2 = 0.0625 stops the loop once mu is
  // strictly below it: steps 0 .. 40 run, 41 of them.
  std::copy_n(kIdentity, 12, pose);
  EXPECT_EQ(RefinePose(pairs, {1000, 1.0f, 0.25f}, pose), 41);
  std::copy_n(kIdentity, 12, pose);
  EXPECT_EQ(RefinePose(pairs, {5, 1.0f, 0.25f}, pose), 5);
  // kernelScale below maxDistance^2, or no iterations: no step, the pose is untouched.
  for (const IterativeParams& params : {IterativeParams{100, 0.0624f, 0.25f},
                                        IterativeParams{0, 1.0f, 0.25f},
                                        IterativeParams{-3, 1.0f, 0.25f}}) {
    std::copy_n(kIdentity, 12, pose);
    EXPECT_EQ(RefinePose(pairs, params, pose), 0);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(pose[i], kIdentity[i]);
  }
  // A kernel that can never weigh anything again ends the loop early without changing the result.
  std::copy_n(kIdentity, 12, pose);
  EXPECT_EQ(RefinePose(pairs, {1000000, 0.0f, 0.0f}, pose), 0);
}

TEST(RefinePoseTest, ASingularSystemLeavesThePose) {
  float truth[12];
  TruthPose(0.3f, truth);
  for (int32_t count : {0, 1, 2}) {
    const Correspondences pairs = RigidPairs(count, truth);
    float pose[12];
    std::copy_n(kIdentity, 12, pose);
    EXPECT_EQ(RefinePose(pairs, {10, 1.0f, 0.01f}, pose), 10);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(pose[i], kIdentity[i]) << count;
  }
}

struct Sets {
  std::vector<float> points1, descriptors1, points2, descriptors2;
  KeyPointSet first() const {
    return {points1.data(), nullptr, descriptors1.data(), static_cast<int32_t>(points1.size() / 3)};
  }
  KeyPointSet second() const {
    return {points2.data(), nullptr, descriptors2.data(), static_cast<int32_t>(points2.size() / 3)};
  }
};

TEST(IterativeMatchTest, RefinesTheTransformAndKeepsCloseMatches) {
  float truth[12];
  TruthPose(0.15f, truth);
  Sets sets;
  sets.points2 = test::RandomCloud(100, 41);
  sets.points1 = test::ApplyPose(truth, sets.points2);
  sets.descriptors1 = sets.descriptors2 = test::RandomDescriptors(100, 42);
  sets.points1[3 * 7] += 1.0f;  // one outlier
  std::vector<std::vector<double>> results;
  for (bool multiThread : {false, true}) {
    double transform[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    std::vector<int32_t> matches;
    testing::internal::CaptureStdout();
    const int32_t kept = IterativeMatch(sets.first(),
                                        sets.second(),
                                        {50, 1.0f, 0.01f},
                                        true,
                                        Execution{multiThread},
                                        transform,
                                        matches);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[QORV INFO] IterativeMatch: 100\n");
    EXPECT_EQ(kept, 99);
    for (int32_t j = 0; j < 100; ++j) EXPECT_EQ(matches[j], j == 7 ? -1 : j);
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) EXPECT_NEAR(transform[4 * r + c], truth[3 * r + c], 1e-5);
      EXPECT_NEAR(transform[4 * r + 3], truth[9 + r], 1e-5);
    }
    results.emplace_back(transform, transform + 12);
  }
  EXPECT_EQ(results[0], results[1]);
}

TEST(IterativeMatchTest, APairExactlyAtMaxDistanceIsDropped) {
  Sets sets;
  sets.points2 = {0, 0, 0, 1, 1, 1, 2, 0, 0};
  sets.points1 = {0.5f, 0, 0, 1, 1.25f, 1, 2, 0, 0.4999f};  // offsets 0.5, 0.25 and 0.4999
  sets.descriptors1 = sets.descriptors2 = test::RandomDescriptors(3, 43);
  double transform[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  std::vector<int32_t> matches;
  testing::internal::CaptureStdout();
  const int32_t kept = IterativeMatch(
      sets.first(), sets.second(), {0, 1.0f, 0.5f}, true, Execution{}, transform, matches);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(kept, 2);
  EXPECT_EQ(matches, (std::vector<int32_t>{-1, 1, 2}));
  const double identity[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  for (int i = 0; i < 12; ++i) EXPECT_EQ(transform[i], identity[i]);
}

}  // namespace
}  // namespace qorv
