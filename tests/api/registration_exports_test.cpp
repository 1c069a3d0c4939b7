// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/qorv.h>

#include "support/clouds.hpp"
#include "support/registration_data.hpp"

namespace {

struct Instance {
  QorvInstance* inst = nullptr;
  Instance() { QorvCreateInstance(&inst); }
  ~Instance() { QorvDestroyInstance(inst); }
};

struct Received {
  int calls = 0;
  bool nullPairs = false;
  uint32_t count = 0;
  std::vector<QorvMatchPair> pairs;
};

void Collect(const QorvMatchPair* pairs, uint32_t count, void* user) {
  auto* received = static_cast<Received*>(user);
  ++received->calls;
  received->nullPairs = pairs == nullptr;
  received->count = count;
  if (pairs != nullptr) received->pairs.assign(pairs, pairs + count);
}

using KeyPoints = qorv::test::RigidKeyPoints;

void ExpectTransform(const double* transform, const float* truth, double tolerance) {
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(transform[4 * r + c], truth[3 * r + c], tolerance);
    EXPECT_NEAR(transform[4 * r + 3], truth[9 + r], tolerance);
  }
}

// Every key point of the second set, in order, with its partner.
void ExpectAllPairs(const Received& received, const KeyPoints& kp) {
  ASSERT_EQ(received.pairs.size(), static_cast<size_t>(kp.count()));
  for (int32_t j = 0; j < kp.count(); ++j) {
    EXPECT_EQ(received.pairs[j].indexInSecond, static_cast<uint32_t>(j));
    EXPECT_EQ(received.pairs[j].indexInFirst, static_cast<uint32_t>(kp.firstIndexOf[j]));
  }
}

TEST(RegistrationExportsTest, MatchDescriptorChecksInOrderAndLeavesOutputs) {
  Instance i;
  const std::vector<float> d = qorv::test::RandomDescriptors(4, 1);
  int32_t idx[8] = {-5, -5, -5, -5, -5, -5, -5, -5};
  float dist[8] = {};
  EXPECT_EQ(QorvMatchDescriptor(nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, 0),
            QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(QorvMatchDescriptor(i.inst, nullptr, 4, d.data(), idx, dist, 1, 4), 3);
  EXPECT_EQ(QorvMatchDescriptor(i.inst, d.data(), 0, d.data(), idx, dist, 1, 4), 3);
  EXPECT_EQ(QorvMatchDescriptor(i.inst, d.data(), 4, nullptr, idx, dist, 1, 4), 3);
  EXPECT_EQ(QorvMatchDescriptor(i.inst, d.data(), 4, d.data(), nullptr, dist, 1, 4), 3);
  EXPECT_EQ(QorvMatchDescriptor(i.inst, d.data(), 4, d.data(), idx, dist, 0, 4), 3);
  EXPECT_EQ(QorvMatchDescriptor(i.inst, d.data(), 4, d.data(), idx, dist, 1, 0), 3);
  for (int32_t v : idx) EXPECT_EQ(v, -5);
  for (float v : dist) EXPECT_EQ(v, 0.0f);
  // k = 1 without distances is accepted; matching a set against itself finds every descriptor.
  EXPECT_EQ(QorvMatchDescriptor(i.inst, d.data(), 4, d.data(), idx, nullptr, 1, 4), QORV_OK);
  EXPECT_EQ(std::vector<int32_t>(idx, idx + 4), (std::vector<int32_t>{0, 1, 2, 3}));
}

TEST(RegistrationExportsTest, MatchDescriptorFollowsTheSettings) {
  Instance i;
  const std::vector<float> targets = qorv::test::RandomDescriptors(50, 2);
  const std::vector<float> queries = qorv::test::RandomDescriptors(30, 3);
  auto match = [&](int32_t k, bool crossCheck, bool multiThread) {
    crossCheck ? QorvEnableCrossCheck(i.inst) : QorvDisableCrossCheck(i.inst);
    multiThread ? QorvEnableMultiThread(i.inst) : QorvDisableMultiThread(i.inst);
    std::pair<std::vector<int32_t>, std::vector<float>> out{std::vector<int32_t>(30 * k),
                                                            std::vector<float>(30 * k)};
    EXPECT_EQ(
        QorvMatchDescriptor(
            i.inst, targets.data(), 50, queries.data(), out.first.data(), out.second.data(), k, 30),
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
  Instance i;
  const KeyPoints kp(10, 61);
  const float* p = kp.points1.data();
  const float* d = kp.descriptors1.data();
  double t[12];
  std::fill_n(t, 12, 5.0);
  Received received;
  EXPECT_EQ(QorvRansacMatchKeyPoints(nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     0,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     0,
                                     nullptr,
                                     0,
                                     0,
                                     0,
                                     nullptr,
                                     nullptr),
            QORV_ERROR_NULL_INSTANCE);
  auto call = [&](const float* p1,
                  const float* d1,
                  int32_t c1,
                  const float* p2,
                  const float* d2,
                  int32_t c2,
                  double* out) {
    return QorvRansacMatchKeyPoints(
        i.inst, p1, nullptr, d1, c1, p2, nullptr, d2, c2, out, 10, 0.5f, 0.1f, Collect, &received);
  };
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
  Instance i;
  const KeyPoints kp(150, 61);
  for (bool multiThread : {false, true}) {
    multiThread ? QorvEnableMultiThread(i.inst) : QorvDisableMultiThread(i.inst);
    double t[12] = {};
    Received received;
    testing::internal::CaptureStdout();
    EXPECT_EQ(QorvRansacMatchKeyPoints(i.inst,
                                       kp.points1.data(),
                                       kp.normals1.data(),
                                       kp.descriptors1.data(),
                                       150,
                                       kp.points2.data(),
                                       kp.normals2.data(),
                                       kp.descriptors2.data(),
                                       150,
                                       t,
                                       3000,
                                       0.9f,
                                       0.01f,
                                       Collect,
                                       &received),
              QORV_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[QORV INFO] RansacMatch: 150\n");
    EXPECT_EQ(received.calls, 1);
    EXPECT_EQ(received.count, 150u);
    ExpectAllPairs(received, kp);
    ExpectTransform(t, kp.truth, 1e-4);
  }
  // Without a callback the transform is still written.
  double t[12] = {};
  testing::internal::CaptureStdout();
  EXPECT_EQ(QorvRansacMatchKeyPoints(i.inst,
                                     kp.points1.data(),
                                     nullptr,
                                     kp.descriptors1.data(),
                                     150,
                                     kp.points2.data(),
                                     nullptr,
                                     kp.descriptors2.data(),
                                     150,
                                     t,
                                     3000,
                                     0.9f,
                                     0.01f,
                                     nullptr,
                                     nullptr),
            QORV_OK);
  testing::internal::GetCapturedStdout();
  ExpectTransform(t, kp.truth, 1e-4);
}

TEST(RegistrationExportsTest, RansacWithoutInliersCallsBackWithNothing) {
  Instance i;
  const KeyPoints kp(20, 61);
  for (int32_t iterations : {0, 100}) {
    double t[12];
    Received received;
    testing::internal::CaptureStdout();
    // edgeRatio 1 rejects every triangle; with normals on both sides the zero motion keeps none.
    EXPECT_EQ(QorvRansacMatchKeyPoints(i.inst,
                                       kp.points1.data(),
                                       kp.normals1.data(),
                                       kp.descriptors1.data(),
                                       20,
                                       kp.points2.data(),
                                       kp.normals2.data(),
                                       kp.descriptors2.data(),
                                       20,
                                       t,
                                       iterations,
                                       1.0f,
                                       0.5f,
                                       Collect,
                                       &received),
              QORV_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[QORV INFO] RansacMatch: 20\n");
    EXPECT_EQ(received.calls, 1);
    EXPECT_TRUE(received.nullPairs);
    EXPECT_EQ(received.count, 0u);
    for (double v : t) EXPECT_EQ(v, 0.0);
  }
  // Without normals the zero motion keeps the first cloud's points near the origin: the count
  // passed stays 0 (the best found while sampling), the disagreement is logged.
  double t[12];
  Received received;
  testing::internal::CaptureStdout();
  EXPECT_EQ(QorvRansacMatchKeyPoints(i.inst,
                                     kp.points1.data(),
                                     nullptr,
                                     kp.descriptors1.data(),
                                     20,
                                     kp.points2.data(),
                                     nullptr,
                                     kp.descriptors2.data(),
                                     20,
                                     t,
                                     0,
                                     1.0f,
                                     100.0f,
                                     Collect,
                                     &received),
            QORV_OK);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[QORV INFO] RansacMatch: 20\n[QORV INFO] Match condition error.\n"
            "[QORV INFO] Match condition error.\n");
  EXPECT_TRUE(received.nullPairs);
  EXPECT_EQ(received.count, 0u);
}

TEST(RegistrationExportsTest, IterativeChecksInOrderAndRefines) {
  Instance i;
  const KeyPoints kp(80, 61);
  const float* p = kp.points1.data();
  const float* d = kp.descriptors1.data();
  double t[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  Received received;
  EXPECT_EQ(
      QorvIterativeMatchKeyPoints(
          nullptr, nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr, 0, 0, 0, nullptr, nullptr),
      QORV_ERROR_NULL_INSTANCE);
  auto call = [&](const float* p1,
                  const float* d1,
                  int32_t c1,
                  const float* p2,
                  const float* d2,
                  int32_t c2,
                  double* out) {
    return QorvIterativeMatchKeyPoints(
        i.inst, p1, d1, c1, p2, d2, c2, out, 30, 1.0f, 0.01f, Collect, &received);
  };
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
  EXPECT_EQ(call(kp.points1.data(),
                 kp.descriptors1.data(),
                 80,
                 kp.points2.data(),
                 kp.descriptors2.data(),
                 80,
                 t),
            QORV_OK);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[QORV INFO] IterativeMatch: 80\n");
  ExpectTransform(t, kp.truth, 1e-5);
  EXPECT_EQ(received.calls, 1);
  EXPECT_EQ(received.count, 80u);
  ExpectAllPairs(received, kp);
}

TEST(RegistrationExportsTest, CheckDistanceChecksInOrderAndAgreesAcrossVariants) {
  Instance i;
  const std::vector<float> bunny = qorv::test::LoadSample("bunny.asc");
  ASSERT_FALSE(bunny.empty());
  const int32_t n = static_cast<int32_t>(bunny.size() / 3);
  float mean = -1.0f;
  EXPECT_EQ(QorvCheckDistance(nullptr, nullptr, 0, 0, nullptr), QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(QorvCheckDistance(i.inst, nullptr, n, 2, &mean), 3);
  EXPECT_EQ(QorvCheckDistance(i.inst, bunny.data(), 0, 2, &mean), 3);
  EXPECT_EQ(QorvCheckDistance(i.inst, bunny.data(), n, 0, &mean), 3);
  EXPECT_EQ(QorvCheckDistance(i.inst, bunny.data(), n, 2, nullptr), 3);
  EXPECT_EQ(mean, -1.0f);
  testing::internal::CaptureStdout();
  EXPECT_EQ(QorvCheckDistance(i.inst, bunny.data(), n, 4, &mean), QORV_OK);
  QorvEnableMultiThread(i.inst);
  float parallel = -1.0f;
  EXPECT_EQ(QorvCheckDistance(i.inst, bunny.data(), n, 4, &parallel), QORV_OK);
  const std::string log = testing::internal::GetCapturedStdout();
  const std::string line = "[QORV INFO] checkDistance: " + std::to_string(n >> 3) + "-" +
                           std::to_string(n - (n >> 3)) + "\n";
  EXPECT_EQ(log, line + line);
  EXPECT_EQ(parallel, mean);
  EXPECT_GT(mean, 0.0f);
}

}  // namespace
