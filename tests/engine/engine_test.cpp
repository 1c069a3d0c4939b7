// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The engine's steps against simple oracles, and the whole engine on views of a real scan.
#include "engine/engine.hpp"

#include <cmath>
#include <random>

#include <Eigen/Geometry>
#include <gtest/gtest.h>

#include <qorv/engine.h>

#include "engine/normals.hpp"
#include "engine/refine.hpp"
#include "engine/scale.hpp"
#include "engine/voxel_grid.hpp"
#include "support/clouds.hpp"

namespace qorv::engine {
namespace {

using Points = std::vector<float>;

Eigen::Matrix4d Motion(double angleDegrees,
                       const Eigen::Vector3d& axis,
                       const Eigen::Vector3d& shift) {
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  m.topLeftCorner<3, 3>() =
      Eigen::AngleAxisd(angleDegrees * M_PI / 180.0, axis.normalized()).toRotationMatrix();
  m.topRightCorner<3, 1>() = shift;
  return m;
}

Points Apply(const Eigen::Matrix4d& m, const Points& points) {
  Points out(points.size());
  for (size_t i = 0; i < points.size(); i += 3) {
    const Eigen::Vector3d p =
        m.topLeftCorner<3, 3>() * Eigen::Vector3d(points[i], points[i + 1], points[i + 2]) +
        m.topRightCorner<3, 1>();
    for (int c = 0; c < 3; ++c) out[i + static_cast<size_t>(c)] = static_cast<float>(p[c]);
  }
  return out;
}

// Points whose coordinate along the unit direction lies in [lo, hi) of the cloud's range.
Points Slab(const Points& points, const Eigen::Vector3d& direction, double lo, double hi) {
  double low = 1e300, high = -1e300;
  for (size_t i = 0; i < points.size(); i += 3) {
    const double t = direction.dot(Eigen::Vector3d(points[i], points[i + 1], points[i + 2]));
    low = std::min(low, t);
    high = std::max(high, t);
  }
  Points out;
  for (size_t i = 0; i < points.size(); i += 3) {
    const double t =
        (direction.dot(Eigen::Vector3d(points[i], points[i + 1], points[i + 2])) - low) /
        (high - low);
    if (t >= lo && t < hi)
      out.insert(out.end(),
                 points.begin() + static_cast<long>(i),
                 points.begin() + static_cast<long>(i + 3));
  }
  return out;
}

CloudView View(const Points& points) {
  CloudView v;
  v.points = points.data();
  v.count = static_cast<int64_t>(points.size() / 3);
  return v;
}

double AngleDegrees(const Eigen::Matrix4d& a, const Eigen::Matrix4d& b) {
  const Eigen::Matrix3d r = a.topLeftCorner<3, 3>() * b.topLeftCorner<3, 3>().transpose();
  return std::acos(std::clamp((r.trace() - 1.0) / 2.0, -1.0, 1.0)) * 180.0 / M_PI;
}

class EngineOnScan : public ::testing::Test {
 protected:
  void SetUp() override {
    scan_ = test::LoadSample("dragon_res4.asc");
    ASSERT_FALSE(scan_.empty());
    const Eigen::Vector3d direction(0.3, 0.9, -0.2);
    target_ = Slab(scan_, direction.normalized(), 0.0, 0.7);
    source_ = Slab(scan_, direction.normalized(), 0.3, 1.0);
  }
  Points scan_, target_, source_;
};

TEST_F(EngineOnScan, RecoversALargeMotionBetweenTwoViewsAndSaysSo) {
  const Eigen::Matrix4d motion = Motion(135.0, {1, -2, 0.5}, {0.3, -0.1, 0.2});
  const Points moved = Apply(motion, source_);
  Outcome outcome;
  std::string error;
  ASSERT_EQ(Register(View(target_), View(moved), Options(), outcome, error), 0) << error;
  const Eigen::Matrix4d truth = motion.inverse();
  EXPECT_TRUE(outcome.registered) << outcome.reason;
  EXPECT_LT(AngleDegrees(outcome.transform, truth), 0.5);
  EXPECT_LT((outcome.transform.topRightCorner<3, 1>() - truth.topRightCorner<3, 1>()).norm(),
            0.002);
  EXPECT_GT(outcome.evidence.overlap.fitness, 0.4);
  EXPECT_GT(outcome.evidence.consistentPairs, 20);
  EXPECT_LE(outcome.sourceSamples, Options().pointBudget * 1.2);
}

TEST_F(EngineOnScan, SameBitsOnRepeatedRunsAndAnyThreadCount) {
  const Points moved = Apply(Motion(60.0, {0, 1, 1}, {0.05, 0, 0}), source_);
  Outcome first, again, serial;
  std::string error;
  Options options;
  options.threads = 2;
  ASSERT_EQ(Register(View(target_), View(moved), options, first, error), 0);
  ASSERT_EQ(Register(View(target_), View(moved), options, again, error), 0);
  options.threads = 1;
  ASSERT_EQ(Register(View(target_), View(moved), options, serial, error), 0);
  for (const Outcome* other : {&again, &serial}) {
    EXPECT_EQ(0, std::memcmp(first.transform.data(), other->transform.data(), sizeof(double) * 16));
    EXPECT_EQ(first.evidence.overlap.fitness, other->evidence.overlap.fitness);
    EXPECT_EQ(first.evidence.consistentPairs, other->evidence.consistentPairs);
  }
}

TEST_F(EngineOnScan, UnrelatedCloudsAndAWrongPoseAreNotRegistered) {
  // The bunny, scaled to the dragon's size, is no view of it.
  Points bunny = test::LoadSample("bunny.asc");
  ASSERT_FALSE(bunny.empty());
  Eigen::Vector3f low(1e30f, 1e30f, 1e30f), high(-1e30f, -1e30f, -1e30f);
  for (size_t i = 0; i < bunny.size(); i += 3) {
    low = low.cwiseMin(Eigen::Vector3f(bunny[i], bunny[i + 1], bunny[i + 2]));
    high = high.cwiseMax(Eigen::Vector3f(bunny[i], bunny[i + 1], bunny[i + 2]));
  }
  const float scale = 0.2f / (high - low).maxCoeff();
  for (size_t i = 0; i < bunny.size(); ++i)
    bunny[i] = (bunny[i] - low[static_cast<int>(i % 3)]) * scale;
  Outcome outcome;
  std::string error;
  ASSERT_EQ(Register(View(target_), View(bunny), Options(), outcome, error), 0);
  EXPECT_FALSE(outcome.registered);
  EXPECT_FALSE(outcome.reason.empty());

  // Judging a pose 20 degrees off the truth.
  Options judge;
  judge.mode = Mode::kEvaluate;
  judge.hasInitial = true;
  judge.initial = Motion(20.0, {0, 0, 1}, {0, 0, 0});
  ASSERT_EQ(Register(View(target_), View(source_), judge, outcome, error), 0);
  EXPECT_FALSE(outcome.registered);
  judge.initial.setIdentity();
  ASSERT_EQ(Register(View(target_), View(source_), judge, outcome, error), 0);
  EXPECT_TRUE(outcome.registered) << outcome.reason;
}

TEST(Engine, AFlipOfASymmetricObjectIsNotRegistered) {
  // A box of three different sides looks the same turned 180 degrees about an axis, but the
  // feature matches of its own points do not follow the turn.
  std::mt19937 random(3);
  std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
  const float half[3] = {0.4f, 0.2f, 0.1f};
  Points box;
  for (int i = 0; i < 12000; ++i) {
    float p[3] = {unit(random) * half[0], unit(random) * half[1], unit(random) * half[2]};
    const int face = i % 3;
    p[face] = (unit(random) < 0.0f ? -1.0f : 1.0f) * half[face];
    box.insert(box.end(), p, p + 3);
  }
  Options judge;
  judge.mode = Mode::kEvaluate;
  judge.hasInitial = true;
  judge.initial = Motion(180.0, {1, 0, 0}, {0, 0, 0});
  Outcome outcome;
  std::string error;
  ASSERT_EQ(Register(View(box), View(box), judge, outcome, error), 0);
  EXPECT_GT(outcome.evidence.overlap.fitness, 0.9);  // the shapes coincide ...
  EXPECT_FALSE(outcome.registered);                  // ... the evidence does not
}

TEST(Engine, LocalModeRefinesAGuessOnConsecutiveViews) {
  const Points scan = test::LoadSample("dragon_res3.asc");
  ASSERT_FALSE(scan.empty());
  const Eigen::Matrix4d motion = Motion(3.0, {1, 1, 0}, {0.004, -0.003, 0.002});
  const Points moved = Apply(motion, scan);
  Options options;
  options.mode = Mode::kLocal;
  options.hasInitial = true;  // identity: the frames are close
  Outcome outcome;
  std::string error;
  ASSERT_EQ(Register(View(scan), View(moved), options, outcome, error), 0);
  EXPECT_TRUE(outcome.registered) << outcome.reason;
  EXPECT_LT(AngleDegrees(outcome.transform, motion.inverse()), 0.05);
  EXPECT_EQ(outcome.matches, 0);  // no features computed
}

TEST(EngineSteps, VoxelAverageIsTheMeanOfEachCellInFirstSeenOrder) {
  Cloud cloud;
  cloud.points.resize(3, 4);
  cloud.points << 0.1f, 0.3f, 1.2f, 0.2f,  //
      0.1f, 0.1f, 0.1f, 0.3f,              //
      0.0f, 0.0f, 0.0f, 0.0f;
  std::vector<float> weights;
  const Cloud out = VoxelAverage(cloud, {}, 1.0, weights);
  ASSERT_EQ(out.size(), 2);
  EXPECT_NEAR(out.points(0, 0), 0.2f, 1e-6f);
  EXPECT_NEAR(out.points(1, 0), (0.1f + 0.1f + 0.3f) / 3.0f, 1e-6f);
  EXPECT_NEAR(out.points(0, 1), 1.2f, 1e-6f);
  EXPECT_EQ(weights, (std::vector<float>{3.0f, 1.0f}));
}

TEST(EngineSteps, BudgetVoxelKeepsAboutTheBudget) {
  const Points grid = test::GridCloud(400, 400, 0.01f);  // 160,000 points of a plane
  Cloud cloud;
  cloud.points = Eigen::Map<const Eigen::Matrix3Xf>(
      grid.data(), 3, static_cast<Eigen::Index>(grid.size() / 3));
  const double voxel = VoxelForBudget(cloud, 5000);
  const double kept = static_cast<double>(CountOccupiedVoxels(cloud, voxel));
  EXPECT_GT(kept, 5000 * 0.75);
  EXPECT_LT(kept, 5000 * 1.25);
  EXPECT_EQ(VoxelForBudget(cloud, 200000), 0.0);  // nothing to thin
}

TEST(EngineSteps, PointToPlaneIcpConvergesFromAPerturbedStart) {
  const Points scan = test::LoadSample("dragon_res4.asc");
  ASSERT_FALSE(scan.empty());
  Cloud target;
  target.points = Eigen::Map<const Eigen::Matrix3Xf>(
      scan.data(), 3, static_cast<Eigen::Index>(scan.size() / 3));
  PointKdTree tree(target.points.data(), target.size());
  EstimateNormals(tree, 0.006f, 30, target);
  const Eigen::Matrix4d motion = Motion(4.0, {0.2, 1, 0.3}, {0.003, 0.002, -0.002});
  Cloud source;
  source.points = (motion.topLeftCorner<3, 3>().cast<float>() * target.points).colwise() +
                  motion.topRightCorner<3, 1>().cast<float>();
  IcpParams params;
  params.maxDistance = 0.02f;
  params.kernel = 0.004;
  params.maxIterations = 50;
  params.stopShift = 1e-7;
  const IcpOutcome out =
      RefinePointToPlane(source, target, tree, Eigen::Matrix4d::Identity(), params);
  EXPECT_LT(AngleDegrees(out.pose, motion.inverse()), 0.01);
  EXPECT_LT((out.pose.topRightCorner<3, 1>() - motion.inverse().topRightCorner<3, 1>()).norm(),
            1e-4);
}

TEST(EngineSteps, NearestWithinIsTheNearestPointWhateverTheHint) {
  const std::vector<float> points = test::RandomCloud(3000, 12);
  const PointKdTree tree(points.data(), static_cast<int64_t>(points.size() / 3));
  const std::vector<float> queries = test::RandomCloud(200, 13);
  std::mt19937 random(14);
  std::uniform_int_distribution<int32_t> anyPoint(0, 2999);
  for (const float maxSq : {0.0004f, 0.01f, 10.0f}) {
    for (size_t q = 0; q < queries.size(); q += 3) {
      const float* query = queries.data() + q;
      int32_t brute = -1;
      float bruteSq = maxSq;
      for (int32_t i = 0; i < 3000; ++i) {
        const float* p = points.data() + 3 * static_cast<size_t>(i);
        const float d = (query[0] - p[0]) * (query[0] - p[0]) +
                        (query[1] - p[1]) * (query[1] - p[1]) +
                        (query[2] - p[2]) * (query[2] - p[2]);
        if (d < bruteSq) {
          bruteSq = d;
          brute = i;
        }
      }
      // No hint, the answer itself, and a point anywhere else (near or beyond maxSq).
      for (const int32_t hint : {-1, brute, anyPoint(random)}) {
        float distSq = -1.0f;
        EXPECT_EQ(NearestWithin(tree, query, maxSq, hint, distSq), brute)
            << "maxSq " << maxSq << " hint " << hint;
        if (brute >= 0) {
          EXPECT_EQ(distSq, bruteSq);
        }
      }
    }
  }
}

}  // namespace
}  // namespace qorv::engine
