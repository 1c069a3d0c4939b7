// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The engine's C interface: argument checks, bad input, and the result record.
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/engine.h>

#include "support/clouds.hpp"

namespace {

QorvEngineCloud CloudOf(const std::vector<float>& points) {
  QorvEngineCloud c{};
  c.points = points.data();
  c.count = static_cast<int64_t>(points.size() / 3);
  return c;
}

QorvEngineOptions Defaults() {
  QorvEngineOptions o;
  QorvEngineDefaultOptions(&o);
  return o;
}

// Runs a call expected to fail; checks the code, a message, and that the result was not touched.
void ExpectRefused(int32_t expected,
                   const QorvEngineCloud* target,
                   const QorvEngineCloud* source,
                   const QorvEngineOptions* options,
                   const char* what) {
  QorvEngineResult result;
  std::memset(&result, 0x5a, sizeof(result));
  result.struct_size = sizeof(result);
  QorvEngineResult before = result;
  EXPECT_EQ(QorvEngineRegister(target, source, options, &result), expected) << what;
  EXPECT_NE(std::string(QorvEngineLastError()), "") << what;
  EXPECT_EQ(0, std::memcmp(&before, &result, sizeof(result))) << what << ": result written";
}

TEST(EngineApi, VersionAndDefaults) {
  EXPECT_EQ(QorvEngineApiVersion(), QORV_ENGINE_API_VERSION);
  EXPECT_STREQ(QorvEngineVersion(), QORV_VERSION_TEXT);
  const QorvEngineOptions o = Defaults();
  EXPECT_EQ(o.struct_size, sizeof(QorvEngineOptions));
  EXPECT_EQ(o.mode, QORV_ENGINE_MODE_GLOBAL);
  EXPECT_GE(o.point_budget, 1000);
  EXPECT_EQ(o.refine, QORV_ENGINE_REFINE_GICP);
  EXPECT_EQ(o.initial[0] * o.initial[5] * o.initial[10] * o.initial[15], 1.0);
  QorvEngineDefaultOptions(nullptr);  // no crash
}

TEST(EngineApi, RefusesBadArgumentsWithAMessageAndLeavesTheResult) {
  const std::vector<float> points = qorv::test::RandomCloud(200, 7);
  const QorvEngineCloud good = CloudOf(points);
  const QorvEngineOptions defaults = Defaults();
  constexpr int32_t kInvalid = QORV_ENGINE_ERROR_INVALID_ARGUMENT;
  ExpectRefused(kInvalid, nullptr, &good, &defaults, "null target");
  ExpectRefused(kInvalid, &good, nullptr, &defaults, "null source");
  QorvEngineCloud bad = good;
  bad.count = -1;
  ExpectRefused(kInvalid, &bad, &good, &defaults, "negative count");
  bad = good;
  bad.points = nullptr;
  ExpectRefused(kInvalid, &good, &bad, &defaults, "null points");
  bad = good;
  bad.width = 7;
  bad.height = 3;
  ExpectRefused(kInvalid, &bad, &good, &defaults, "width x height != count");
  EXPECT_EQ(QorvEngineRegister(&good, &good, &defaults, nullptr), kInvalid);

  auto refusedOption = [&](void (*change)(QorvEngineOptions&), const char* what) {
    QorvEngineOptions o = defaults;
    change(o);
    ExpectRefused(kInvalid, &good, &good, &o, what);
  };
  refusedOption([](QorvEngineOptions& o) { o.struct_size = 0; }, "options not initialised");
  refusedOption([](QorvEngineOptions& o) { o.mode = 7; }, "unknown mode");
  refusedOption([](QorvEngineOptions& o) { o.voxel = -1.0; }, "negative voxel");
  refusedOption([](QorvEngineOptions& o) { o.voxel = std::nan(""); }, "NaN voxel");
  refusedOption([](QorvEngineOptions& o) { o.point_budget = 3; }, "tiny budget");
  refusedOption([](QorvEngineOptions& o) { o.max_tries = 0; }, "no tries");
  refusedOption([](QorvEngineOptions& o) { o.ransac_confidence = 1.0; }, "confidence 1");
  refusedOption([](QorvEngineOptions& o) { o.mode = QORV_ENGINE_MODE_LOCAL; },
                "local without a guess");
  refusedOption(
      [](QorvEngineOptions& o) {
        o.has_initial = 1;
        o.initial[0] = 2.0;  // a scaling, not a rotation
      },
      "non-rigid guess");
  QorvEngineOptions unknownRefine = defaults;
  unknownRefine.refine = 2;
  ExpectRefused(kInvalid, &good, &good, &unknownRefine, "unknown refinement");
  EXPECT_NE(std::string(QorvEngineLastError()).find("refine must be"), std::string::npos)
      << QorvEngineLastError();
}

TEST(EngineApi, CloudsWithoutEnoughFinitePointsAreErrors) {
  const std::vector<float> points = qorv::test::RandomCloud(200, 7);
  const QorvEngineCloud good = CloudOf(points);
  const QorvEngineOptions defaults = Defaults();
  const std::vector<float> empty;
  const std::vector<float> one = {1.0f, 2.0f, 3.0f};
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const std::vector<float> allNaN(300, nan);
  std::vector<float> mostlyBad(300, inf);  // one finite point among infinities
  mostlyBad[0] = mostlyBad[1] = mostlyBad[2] = 0.0f;
  const std::vector<float> coincident(600, 0.5f);
  for (const std::vector<float>* cloud : std::initializer_list<const std::vector<float>*>{
           &empty, &one, &allNaN, &mostlyBad, &coincident}) {
    const QorvEngineCloud c = CloudOf(*cloud);
    ExpectRefused(QORV_ENGINE_ERROR_TOO_FEW_POINTS, &good, &c, &defaults, "unusable source");
    ExpectRefused(QORV_ENGINE_ERROR_TOO_FEW_POINTS, &c, &good, &defaults, "unusable target");
  }
}

TEST(EngineApi, IdenticalAndOrganizedCloudsRegisterAtTheIdentity) {
  std::vector<float> scan = qorv::test::LoadSample("dragon_res4.asc");
  ASSERT_FALSE(scan.empty());
  const QorvEngineCloud c = CloudOf(scan);
  QorvEngineResult result{};
  result.struct_size = sizeof(result);
  ASSERT_EQ(QorvEngineRegister(&c, &c, nullptr, &result), QORV_ENGINE_OK) << QorvEngineLastError();
  EXPECT_EQ(result.registered, 1) << result.reason;
  for (int i = 0; i < 16; ++i) EXPECT_NEAR(result.transform[i], i % 5 == 0 ? 1.0 : 0.0, 1e-5) << i;
  EXPECT_GT(result.fitness, 0.99);
  EXPECT_EQ(result.target_points, static_cast<int32_t>(scan.size() / 3));
  EXPECT_GT(result.stage_count, 3);
  EXPECT_STREQ(QorvEngineLastError(), "");

  // The same scan as an organized 'frame' with NaN holes gives the same answer.
  const int32_t width = 50;
  const int32_t height = static_cast<int32_t>(scan.size() / 3 / width) + 1;
  std::vector<float> frame(static_cast<size_t>(width) * height * 3, std::nanf(""));
  std::copy(scan.begin(), scan.end(), frame.begin());
  QorvEngineCloud organized = CloudOf(frame);
  organized.width = width;
  organized.height = height;
  ASSERT_EQ(QorvEngineRegister(&organized, &c, nullptr, &result), QORV_ENGINE_OK)
      << QorvEngineLastError();
  EXPECT_EQ(result.registered, 1) << result.reason;
  EXPECT_EQ(result.target_points, static_cast<int32_t>(scan.size() / 3));
}

}  // namespace
