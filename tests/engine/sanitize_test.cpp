// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// Sanitize against a plain filter of the caller's points: non-finite coordinates anywhere, repeated
// points, organized frames with holes; the engine estimates its own normals, so none are kept.
#include "engine/sanitize.hpp"

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "engine/frame.hpp"

namespace qorv::engine {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

CloudView ViewOf(const std::vector<float>& points) {
  CloudView view;
  view.points = points.data();
  view.count = static_cast<int64_t>(points.size() / 3);
  return view;
}

// The points whose three coordinates are finite, in their order.
std::vector<size_t> FiniteOnes(const std::vector<float>& points) {
  std::vector<size_t> kept;
  for (size_t i = 0; i < points.size() / 3; ++i) {
    if (std::isfinite(points[3 * i]) && std::isfinite(points[3 * i + 1]) &&
        std::isfinite(points[3 * i + 2]))
      kept.push_back(i);
  }
  return kept;
}

// The cloud holds exactly the kept points, bit for bit (signed zeros and subnormals included).
void ExpectPoints(const Cloud& cloud,
                  const std::vector<float>& points,
                  const std::vector<size_t>& kept) {
  ASSERT_EQ(cloud.size(), static_cast<int32_t>(kept.size()));
  for (size_t k = 0; k < kept.size(); ++k) {
    EXPECT_EQ(0,
              std::memcmp(cloud.points.col(static_cast<Eigen::Index>(k)).data(),
                          &points[3 * kept[k]],
                          3 * sizeof(float)))
        << "point " << k << " (input " << kept[k] << ")";
  }
}

// A random cloud with every kind of non-finite coordinate, alone or together, repeated points, and
// values at the edges of float.
std::vector<float> Rough(uint32_t seed, int32_t count) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> unit(-5.0f, 5.0f);
  std::uniform_int_distribution<int> kind(0, 9);
  const float odd[] = {kNaN, kInf, -kInf};
  std::vector<float> points;
  for (int32_t i = 0; i < count; ++i) {
    float p[3] = {unit(random), unit(random), unit(random)};
    switch (kind(random)) {
      case 0:
        p[i % 3] = odd[i % 3];
        break;
      case 1:
        p[0] = p[1] = p[2] = kNaN;
        break;
      case 2:
        if (!points.empty()) std::memcpy(p, &points[points.size() - 3], sizeof(p));
        break;
      case 3:
        p[i % 3] = i % 2 ? -0.0f : std::numeric_limits<float>::denorm_min();
        p[(i + 1) % 3] = std::numeric_limits<float>::max();
        break;
      default:
        break;
    }
    points.insert(points.end(), p, p + 3);
  }
  return points;
}

TEST(Sanitize, KeepsExactlyTheFinitePointsInTheirOrderRepeatsIncluded) {
  for (const uint32_t seed : {1u, 2u, 3u}) {
    const std::vector<float> points = Rough(seed, 400);
    const std::vector<size_t> kept = FiniteOnes(points);
    ASSERT_LT(kept.size(), 400u);
    const Cloud cloud = Sanitize(ViewOf(points));
    ExpectPoints(cloud, points, kept);
    EXPECT_FALSE(cloud.hasNormals());
    EXPECT_FALSE(cloud.hasViewpoint);  // a loose cloud says nothing about its sensor
  }
  // Nothing finite, and nothing at all.
  const std::vector<float> none = {kNaN, 0, 0, 1, kInf, 2, 0, 0, -kInf};
  EXPECT_EQ(Sanitize(ViewOf(none)).size(), 0);
  CloudView empty = ViewOf(none);
  empty.count = 0;
  EXPECT_EQ(Sanitize(empty).size(), 0);
}

TEST(Sanitize, AnOrganizedFrameWithHolesIsSeenFromItsOriginUnlessTheCallerSaysOtherwise) {
  // An 8 x 6 depth frame, its holes NaN in every coordinate as sensors leave them.
  std::vector<float> frame;
  for (int row = 0; row < 6; ++row) {
    for (int col = 0; col < 8; ++col) {
      if ((row * 8 + col) % 3 == 1 || row == 2) {
        frame.insert(frame.end(), {kNaN, kNaN, kNaN});
      } else {
        frame.insert(frame.end(),
                     {0.1f * static_cast<float>(col), 0.1f * static_cast<float>(row), 2.0f});
      }
    }
  }
  CloudView view = ViewOf(frame);
  view.width = 8;
  view.height = 6;
  Cloud cloud = Sanitize(view);
  ExpectPoints(cloud, frame, FiniteOnes(frame));
  EXPECT_TRUE(cloud.hasViewpoint);
  EXPECT_EQ(cloud.viewpoint, Eigen::Vector3f::Zero());

  view.hasViewpoint = true;
  view.viewpoint = Eigen::Vector3d(0.5, -1.0, 3.25);
  cloud = Sanitize(view);
  EXPECT_TRUE(cloud.hasViewpoint);
  EXPECT_EQ(cloud.viewpoint, Eigen::Vector3f(0.5f, -1.0f, 3.25f));

  // A loose cloud keeps a viewpoint it is given.
  view.width = view.height = 0;
  cloud = Sanitize(view);
  EXPECT_TRUE(cloud.hasViewpoint);
  EXPECT_EQ(cloud.viewpoint, Eigen::Vector3f(0.5f, -1.0f, 3.25f));

  // A frame that is all holes is still a frame: no points, seen from its origin.
  const std::vector<float> blank(3 * 4 * 3, kNaN);
  CloudView hollow = ViewOf(blank);
  hollow.width = 4;
  hollow.height = 3;
  cloud = Sanitize(hollow);
  EXPECT_EQ(cloud.size(), 0);
  EXPECT_TRUE(cloud.hasViewpoint);
}

TEST(Sanitize, MovesCloudsIntoTheirFrameInDoubleAsItCopiesThem) {
  // Survey coordinates in double, a hole, and a point float cannot hold once moved.
  const std::vector<double> far = {500000.25,
                                   4000000.5,
                                   100.125,
                                   kNaN,
                                   1.0,
                                   2.0,
                                   500001.75,
                                   3999999.0,
                                   99.5,
                                   1e300,
                                   4000000.0,
                                   100.0};
  CloudView view;
  view.points64 = far.data();
  view.count = 4;
  view.frame = Eigen::Vector3d(500000.0, 4000000.0, 100.0);
  const Cloud cloud = Sanitize(view);
  ASSERT_EQ(cloud.size(), 2);
  EXPECT_EQ(cloud.points.col(0), Eigen::Vector3f(0.25f, 0.5f, 0.125f));
  EXPECT_EQ(cloud.points.col(1), Eigen::Vector3f(1.75f, -1.0f, -0.5f));

  // Float points with an origin of their own are moved the same way; in their frame already,
  // they are copied as they are.
  const std::vector<float> near = {0.25f, 0.5f, 0.125f, 1.75f, -1.0f, -0.5f};
  CloudView moved = ViewOf(near);
  moved.origin = Eigen::Vector3d(500010.0, 4000000.0, 100.0);
  moved.frame = Eigen::Vector3d(500000.0, 4000000.0, 100.0);
  const Cloud shifted = Sanitize(moved);
  ASSERT_EQ(shifted.size(), 2);
  EXPECT_EQ(shifted.points.col(0), Eigen::Vector3f(10.25f, 0.5f, 0.125f));
  EXPECT_EQ(PointInFrame(moved, 1), Eigen::Vector3f(11.75f, -1.0f, -0.5f));
  moved.frame = moved.origin;
  EXPECT_EQ(Sanitize(moved).points.col(1), Eigen::Vector3f(1.75f, -1.0f, -0.5f));
}

}  // namespace
}  // namespace qorv::engine
