// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/qorv.h>

#include "support/clouds.hpp"
#include "support/registration_data.hpp"
#include "support/robust_calls.hpp"

namespace {

using qorv::test::Matches;
using qorv::test::ScopedInstance;
using KeyPoints = qorv::test::RigidKeyPoints;

void ExpectTransform(const double* transform, const float* truth, double tolerance) {
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(transform[4 * r + c], truth[3 * r + c], tolerance);
    EXPECT_NEAR(transform[4 * r + 3], truth[9 + r], tolerance);
  }
}

// Every key point of the second set, in order, with its partner.
void ExpectAllPairs(const Matches& received, const KeyPoints& kp) {
  ASSERT_EQ(received.pairs.size(), static_cast<size_t>(kp.count()));
  for (int32_t j = 0; j < kp.count(); ++j) {
    EXPECT_EQ(received.pairs[j].indexInSecond, static_cast<uint32_t>(j));
    EXPECT_EQ(received.pairs[j].indexInFirst, static_cast<uint32_t>(kp.firstIndexOf[j]));
  }
}

// RANSAC on the whole of both key-point sets, with or without normals; returns the log.
std::string Ransac(QorvInstance* inst,
                   const KeyPoints& kp,
                   bool normals,
                   double* t,
                   int32_t iterations,
                   float edgeRatio,
                   float inlierDistance,
                   Matches* received) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(QorvRansacMatchKeyPoints(inst,
                                     kp.points1.data(),
                                     normals ? kp.normals1.data() : nullptr,
                                     kp.descriptors1.data(),
                                     kp.count(),
                                     kp.points2.data(),
                                     normals ? kp.normals2.data() : nullptr,
                                     kp.descriptors2.data(),
                                     kp.count(),
                                     t,
                                     iterations,
                                     edgeRatio,
                                     inlierDistance,
                                     received ? qorv::test::CollectMatches : nullptr,
                                     received),
            QORV_OK);
  return testing::internal::GetCapturedStdout();
}

TEST(RegistrationExportsTest, MatchDescriptorChecksInOrderAndLeavesOutputs) {
  ScopedInstance i;
  const std::vector<float> d = qorv::test::RandomDescriptors(4, 1);
  int32_t idx[8] = {-5, -5, -5, -5, -5, -5, -5, -5};
  float dist[8] = {};
  EXPECT_EQ(QorvMatchDescriptor(nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, 0),
            QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(QorvMatchDescriptor(i.get(), nullptr, 4, d.data(), idx, dist, 1, 4), 3);
  EXPECT_EQ(QorvMatchDescriptor(i.get(), d.data(), 0, d.data(), idx, dist, 1, 4), 3);
  EXPECT_EQ(QorvMatchDescriptor(i.get(), d.data(), 4, nullptr, idx, dist, 1, 4), 3);
  EXPECT_EQ(QorvMatchDescriptor(i.get(), d.data(), 4, d.data(), nullptr, dist, 1, 4), 3);
  EXPECT_EQ(QorvMatchDescriptor(i.get(), d.data(), 4, d.data(), idx, dist, 0, 4), 3);
  EXPECT_EQ(QorvMatchDescriptor(i.get(), d.data(), 4, d.data(), idx, dist, 1, 0), 3);
  for (int32_t v : idx) EXPECT_EQ(v, -5);
  for (float v : dist) EXPECT_EQ(v, 0.0f);
  // k = 1 without distances is accepted; matching a set against itself finds every descriptor.
  EXPECT_EQ(QorvMatchDescriptor(i.get(), d.data(), 4, d.data(), idx, nullptr, 1, 4), QORV_OK);
  EXPECT_EQ(std::vector<int32_t>(idx, idx + 4), (std::vector<int32_t>{0, 1, 2, 3}));
}

TEST(RegistrationExportsTest, MatchDescriptorFollowsTheSettings) {
  ScopedInstance i;
  const std::vector<float> targets = qorv::test::RandomDescriptors(50, 2);
  const std::vector<float> queries = qorv::test::RandomDescriptors(30, 3);
  auto match = [&](int32_t k, bool crossCheck, bool multiThread) {
    crossCheck ? QorvEnableCrossCheck(i.get()) : QorvDisableCrossCheck(i.get());
    multiThread ? QorvEnableMultiThread(i.get()) : QorvDisableMultiThread(i.get());
    std::pair<std::vector<int32_t>, std::vector<float>> out{std::vector<int32_t>(30 * k),
                                                            std::vector<float>(30 * k)};
    EXPECT_EQ(QorvMatchDescriptor(i.get(),
                                  targets.data(),
                                  50,
                                  queries.data(),
                                  out.first.data(),
                                  out.second.data(),
                                  k,
                                  30),
              QORV_OK);
    return out;
  };
  const auto plain = match(1, false, false);
  const auto checked = match(1, true, false);
  EXPECT_EQ(match(1, true, true), checked);
  EXPECT_EQ(match(1, false, true), plain);
  int rejected = 0;
  for (int q = 0; q < 30; ++q) {
    if (checked.first[q] == -1) {
      ++rejected;
    } else {
      EXPECT_EQ(checked.first[q], plain.first[q]);
    }
    EXPECT_EQ(checked.second[q], plain.second[q]);  // distances also for rejected matches
  }
  EXPECT_GT(rejected, 0);
  // k = 2 ignores the cross check and reports squared distances.
  const auto two = match(2, true, true);
  EXPECT_EQ(match(2, false, false), two);
  for (int q = 0; q < 30; ++q) {
    EXPECT_EQ(two.first[2 * q], plain.first[q]);
    EXPECT_NEAR(two.second[2 * q], plain.second[q] * plain.second[q], 1e-2f);
  }
}

TEST(RegistrationExportsTest, RansacChecksInOrder) {
  ScopedInstance i;
  const KeyPoints kp(10, 61);
  const float* p = kp.points1.data();
  const float* d = kp.descriptors1.data();
  double t[12];
  std::fill_n(t, 12, 5.0);
  Matches received;
  QorvInstance* inst = nullptr;
  auto call = [&](const float* p1,
                  const float* d1,
                  int32_t c1,
                  const float* p2,
                  const float* d2,
                  int32_t c2,
                  double* out) {
    return QorvRansacMatchKeyPoints(inst,
                                    p1,
                                    nullptr,
                                    d1,
                                    c1,
                                    p2,
                                    nullptr,
                                    d2,
                                    c2,
                                    out,
                                    10,
                                    0.5f,
                                    0.1f,
                                    qorv::test::CollectMatches,
                                    &received);
  };
  EXPECT_EQ(call(nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr), QORV_ERROR_NULL_INSTANCE);
  inst = i.get();
  EXPECT_EQ(call(nullptr, d, 10, p, d, 10, t), 3);
  EXPECT_EQ(call(p, nullptr, 10, p, d, 10, t), 3);
  EXPECT_EQ(call(p, d, 0, p, d, 10, t), 3);
  EXPECT_EQ(call(p, d, 10, nullptr, d, 10, t), 3);
  EXPECT_EQ(call(p, d, 10, p, nullptr, 10, t), 3);
  EXPECT_EQ(call(p, d, 10, p, d, -1, t), 3);
  EXPECT_EQ(call(p, d, 10, p, d, 10, nullptr), 3);
  for (double v : t) EXPECT_EQ(v, 5.0);
  EXPECT_EQ(received.calls, 0);
}

TEST(RegistrationExportsTest, RansacRegistersAndReportsPairsInSecondCloudOrder) {
  ScopedInstance i;
  const KeyPoints kp(150, 61);
  for (bool multiThread : {false, true}) {
    multiThread ? QorvEnableMultiThread(i.get()) : QorvDisableMultiThread(i.get());
    double t[12] = {};
    Matches received;
    EXPECT_EQ(Ransac(i.get(), kp, true, t, 3000, 0.9f, 0.01f, &received),
              "[QORV INFO] RansacMatch: 150\n");
    EXPECT_EQ(received.calls, 1);
    ExpectAllPairs(received, kp);
    ExpectTransform(t, kp.truth, 1e-4);
  }
  // Without a callback the transform is still written.
  double t[12] = {};
  Ransac(i.get(), kp, false, t, 3000, 0.9f, 0.01f, nullptr);
  ExpectTransform(t, kp.truth, 1e-4);
}

TEST(RegistrationExportsTest, RansacWithoutInliersCallsBackWithNothing) {
  ScopedInstance i;
  const KeyPoints kp(20, 61);
  // edgeRatio 1 rejects every triangle; with normals on both sides the zero motion keeps none.
  // Without normals it keeps the first cloud's points near the origin: the count passed stays 0
  // (the best found while sampling), the disagreement is logged.
  const std::string plain = "[QORV INFO] RansacMatch: 20\n";
  const std::string error = "[QORV INFO] Match condition error.\n";
  struct Case {
    bool normals;
    int32_t iterations;
    float inlierDistance;
    std::string log;
  };
  for (const Case& c : {Case{true, 0, 0.5f, plain},
                        Case{true, 100, 0.5f, plain},
                        Case{false, 0, 100.0f, plain + error + error}}) {
    double t[12];
    Matches received;
    received.pairs.resize(1);
    EXPECT_EQ(Ransac(i.get(), kp, c.normals, t, c.iterations, 1.0f, c.inlierDistance, &received),
              c.log);
    EXPECT_EQ(received.calls, 1);
    EXPECT_TRUE(received.nullWhenEmpty && received.pairs.empty());
    if (c.normals) {
      for (double v : t) EXPECT_EQ(v, 0.0);
    }
  }
}

TEST(RegistrationExportsTest, IterativeChecksInOrderAndRefines) {
  ScopedInstance i;
  const KeyPoints kp(80, 61);
  const float* p = kp.points1.data();
  const float* d = kp.descriptors1.data();
  double t[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  Matches received;
  QorvInstance* inst = nullptr;
  auto call = [&](const float* p1,
                  const float* d1,
                  int32_t c1,
                  const float* p2,
                  const float* d2,
                  int32_t c2,
                  double* out) {
    return QorvIterativeMatchKeyPoints(
        inst, p1, d1, c1, p2, d2, c2, out, 30, 1.0f, 0.01f, qorv::test::CollectMatches, &received);
  };
  EXPECT_EQ(call(nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr), QORV_ERROR_NULL_INSTANCE);
  inst = i.get();
  EXPECT_EQ(call(nullptr, d, 80, p, d, 80, t), 3);
  EXPECT_EQ(call(p, nullptr, 80, p, d, 80, t), 3);
  EXPECT_EQ(call(p, d, 0, p, d, 80, t), 3);
  EXPECT_EQ(call(p, d, 80, nullptr, d, 80, t), 3);
  EXPECT_EQ(call(p, d, 80, p, nullptr, 80, t), 3);
  EXPECT_EQ(call(p, d, 80, p, d, 0, t), 3);
  EXPECT_EQ(call(p, d, 80, p, d, 80, nullptr), 3);
  EXPECT_EQ(t[0], 1.0);
  EXPECT_EQ(t[3], 0.0);
  EXPECT_EQ(received.calls, 0);

  testing::internal::CaptureStdout();
  EXPECT_EQ(call(p, d, 80, kp.points2.data(), kp.descriptors2.data(), 80, t), QORV_OK);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[QORV INFO] IterativeMatch: 80\n");
  ExpectTransform(t, kp.truth, 1e-5);
  EXPECT_EQ(received.calls, 1);
  ExpectAllPairs(received, kp);
}

TEST(RegistrationExportsTest, CheckDistanceChecksInOrderAndAgreesAcrossVariants) {
  ScopedInstance i;
  const std::vector<float> bunny = qorv::test::LoadSample("bunny.asc");
  ASSERT_FALSE(bunny.empty());
  const int32_t n = static_cast<int32_t>(bunny.size() / 3);
  float mean = -1.0f;
  EXPECT_EQ(QorvCheckDistance(nullptr, nullptr, 0, 0, nullptr), QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(QorvCheckDistance(i.get(), nullptr, n, 2, &mean), 3);
  EXPECT_EQ(QorvCheckDistance(i.get(), bunny.data(), 0, 2, &mean), 3);
  EXPECT_EQ(QorvCheckDistance(i.get(), bunny.data(), n, 0, &mean), 3);
  EXPECT_EQ(QorvCheckDistance(i.get(), bunny.data(), n, 2, nullptr), 3);
  EXPECT_EQ(mean, -1.0f);
  testing::internal::CaptureStdout();
  EXPECT_EQ(QorvCheckDistance(i.get(), bunny.data(), n, 4, &mean), QORV_OK);
  QorvEnableMultiThread(i.get());
  float parallel = -1.0f;
  EXPECT_EQ(QorvCheckDistance(i.get(), bunny.data(), n, 4, &parallel), QORV_OK);
  const std::string line = "[QORV INFO] checkDistance: " + std::to_string(n >> 3) + "-" +
                           std::to_string(n - (n >> 3)) + "\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), line + line);
  EXPECT_EQ(parallel, mean);
  EXPECT_GT(mean, 0.0f);
}

}  // namespace
