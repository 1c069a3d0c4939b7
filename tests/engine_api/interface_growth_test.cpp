// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// Clouds far from their coordinates' zero, and structs of other interface versions than this one.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/engine.h>
#include <qorv/engine_multiway.h>

#include "support/clouds.hpp"
#include "support/registration_data.hpp"

namespace {

// A survey offset: float steps there are 3 to 25 cm.
const double kFar[3] = {500000.0, 4000000.0, 100.0};

struct Pair {
  std::vector<float> target, source;
};

Pair TurnedDragon() {
  const std::vector<float> scan = qorv::test::LoadSample("dragon_res3.asc");
  const float axis[3] = {0.3f, 1.0f, 0.2f}, shift[3] = {0.02f, -0.01f, 0.015f};
  float pose[12];
  qorv::test::MakePose(axis, 0.35f, shift, pose);
  return {scan, qorv::test::ApplyPose(pose, scan)};
}

std::vector<double> Shifted(const std::vector<float>& points, const double* by) {
  std::vector<double> out(points.size());
  for (size_t i = 0; i < points.size(); ++i) out[i] = static_cast<double>(points[i]) + by[i % 3];
  return out;
}

QorvEngineResult Register(const QorvEngineCloud& target, const QorvEngineCloud& source) {
  QorvEngineResult result{};
  result.struct_size = sizeof(result);
  EXPECT_EQ(QorvEngineRegister(&target, &source, nullptr, &result), QORV_ENGINE_OK)
      << QorvEngineLastError();
  return result;
}

// The motion found far out moves the source's points (in the caller's frame) where the motion found
// at the origin moves them, to a millimetre.
void ExpectSameMotion(const QorvEngineResult& atOrigin,
                      const QorvEngineResult& far,
                      const std::vector<float>& source,
                      const double* by,
                      const char* what) {
  double worst = 0.0;
  for (size_t i = 0; i < source.size(); i += 3) {
    for (int r = 0; r < 3; ++r) {
      double near = atOrigin.transform[4 * r + 3], moved = far.transform[4 * r + 3] - by[r];
      for (int c = 0; c < 3; ++c) {
        near += atOrigin.transform[4 * r + c] * source[i + c];
        moved += far.transform[4 * r + c] * (source[i + c] + by[c]);
      }
      worst = std::max(worst, std::fabs(near - moved));
    }
  }
  EXPECT_LT(worst, 1e-3) << what;
}

TEST(SurveyScale, APairFarFromZeroRegistersAsAtTheOrigin) {
  const Pair pair = TurnedDragon();
  ASSERT_FALSE(pair.target.empty());
  QorvEngineCloud t{}, s{};
  t.points = pair.target.data();
  t.count = static_cast<int64_t>(pair.target.size() / 3);
  s.points = pair.source.data();
  s.count = static_cast<int64_t>(pair.source.size() / 3);
  const QorvEngineResult atOrigin = Register(t, s);
  ASSERT_EQ(atOrigin.registered, 1) << atOrigin.reason;

  // Double coordinates 500 km out.
  const std::vector<double> farTarget = Shifted(pair.target, kFar);
  const std::vector<double> farSource = Shifted(pair.source, kFar);
  QorvEngineCloud ft{}, fs{};
  ft.points_f64 = farTarget.data();
  ft.count = t.count;
  fs.points_f64 = farSource.data();
  fs.count = s.count;
  const QorvEngineResult far = Register(ft, fs);
  EXPECT_EQ(far.registered, 1) << far.reason;
  ExpectSameMotion(atOrigin, far, pair.source, kFar, "double points");

  // Float points kept relative to origins (as files give them), each cloud its own.
  const double sourceOrigin[3] = {kFar[0] + 3.0, kFar[1] - 2.0, kFar[2]};
  std::vector<float> relative(pair.source.size());
  for (size_t i = 0; i < relative.size(); ++i)
    relative[i] = static_cast<float>(farSource[i] - sourceOrigin[i % 3]);
  QorvEngineCloud rt = t, rs = s;
  std::memcpy(rt.origin, kFar, sizeof(kFar));
  rs.points = relative.data();
  std::memcpy(rs.origin, sourceOrigin, sizeof(sourceOrigin));
  const QorvEngineResult fromOrigins = Register(rt, rs);
  EXPECT_EQ(fromOrigins.registered, 1) << fromOrigins.reason;
  ExpectSameMotion(atOrigin, fromOrigins, pair.source, kFar, "float points with origins");
}

// A caller built against interface version 2: smaller options and clouds, and no cloud_size.
struct CloudV2 {
  const float* points;
  const float* normals;
  int64_t count;
  int32_t width, height, has_viewpoint;
  double viewpoint[3];
};

TEST(InterfaceGrowth, OlderAndNewerCallersStructsAreReadAndWrittenWithinTheirSize) {
  // Defaults fill no byte past the size the caller says it has, and zero a newer caller's extra.
  constexpr size_t kOptionsV2 = offsetof(QorvEngineOptions, cloud_size);
  std::vector<unsigned char> small(kOptionsV2 + 16, 0xab);
  QorvEngineDefaultOptionsOfSize(reinterpret_cast<QorvEngineOptions*>(small.data()), kOptionsV2);
  for (size_t i = kOptionsV2; i < small.size(); ++i) ASSERT_EQ(small[i], 0xab) << i;
  uint32_t size = 0;
  std::memcpy(&size, small.data(), sizeof(size));
  EXPECT_EQ(size, kOptionsV2);
  std::vector<unsigned char> large(sizeof(QorvEngineOptions) + 32, 0xab);
  QorvEngineDefaultOptionsOfSize(reinterpret_cast<QorvEngineOptions*>(large.data()),
                                 static_cast<uint32_t>(large.size()));
  for (size_t i = sizeof(QorvEngineOptions); i < large.size(); ++i) ASSERT_EQ(large[i], 0) << i;
  QorvEngineOptions plain;
  QorvEngineDefaultOptions(&plain);  // the macro: this header's size
  EXPECT_EQ(plain.struct_size, sizeof(QorvEngineOptions));
  EXPECT_EQ(plain.cloud_size, sizeof(QorvEngineCloud));

  // Version-2 clouds in an array, with version-2 options, register and place as ever.
  const Pair pair = TurnedDragon();
  CloudV2 scans[3] = {};
  const std::vector<float>* clouds[3] = {&pair.target, &pair.source, &pair.target};
  for (int i = 0; i < 3; ++i) {
    scans[i].points = clouds[i]->data();
    scans[i].count = static_cast<int64_t>(clouds[i]->size() / 3);
  }
  QorvEngineOptions old;
  std::memset(&old, 0, sizeof(old));
  QorvEngineDefaultOptionsOfSize(&old, kOptionsV2);
  QorvEngineResult result{};
  result.struct_size = sizeof(result);
  const auto* asCloud = reinterpret_cast<const QorvEngineCloud*>(scans);
  ASSERT_EQ(QorvEngineRegister(asCloud, asCloud + 0, &old, &result), QORV_ENGINE_OK)
      << QorvEngineLastError();
  EXPECT_EQ(result.registered, 1) << result.reason;
  std::vector<double> poses(16 * 3);
  std::vector<QorvEngineMultiwayEdge> edges(8);
  int32_t edgeCount = 0;
  ASSERT_EQ(QorvEngineMultiway(asCloud,
                               3,
                               &old,
                               0,
                               nullptr,
                               0,
                               poses.data(),
                               edges.data(),
                               static_cast<int32_t>(edges.size()),
                               &edgeCount),
            QORV_ENGINE_OK)
      << QorvEngineLastError();
  // Scan 2 is scan 0 again: its pose is the identity, which strided reading gets right only.
  for (int i = 0; i < 16; ++i) EXPECT_NEAR(poses[32 + i], i % 5 == 0 ? 1.0 : 0.0, 1e-4) << i;

  // Options of version 3 before the refinement choice: they register with the default, the bits of
  // an explicit point-to-plane request, whatever lies past their end.
  constexpr size_t kOptionsBeforeRefine = offsetof(QorvEngineOptions, refine);
  QorvEngineOptions current;
  QorvEngineDefaultOptions(&current);
  current.refine = QORV_ENGINE_REFINE_PLANE;
  current.cloud_size = sizeof(CloudV2);
  QorvEngineOptions shorter = current;
  shorter.struct_size = kOptionsBeforeRefine;
  shorter.refine = 12345;  // beyond the caller's struct: never read
  QorvEngineResult fromCurrent{}, fromShorter{};
  fromCurrent.struct_size = fromShorter.struct_size = sizeof(QorvEngineResult);
  const auto* turned = reinterpret_cast<const QorvEngineCloud*>(&scans[1]);
  ASSERT_EQ(QorvEngineRegister(asCloud, turned, &current, &fromCurrent), QORV_ENGINE_OK);
  ASSERT_EQ(QorvEngineRegister(asCloud, turned, &shorter, &fromShorter), QORV_ENGINE_OK)
      << QorvEngineLastError();
  EXPECT_EQ(0, std::memcmp(fromCurrent.transform, fromShorter.transform, sizeof(double) * 16));

  // A cloud size below any version is refused.
  QorvEngineOptions bad;
  QorvEngineDefaultOptions(&bad);
  bad.cloud_size = 8;
  EXPECT_EQ(QorvEngineRegister(asCloud, asCloud, &bad, &result),
            QORV_ENGINE_ERROR_INVALID_ARGUMENT);
  EXPECT_NE(std::string(QorvEngineLastError()).find("cloud_size"), std::string::npos);
}

}  // namespace
