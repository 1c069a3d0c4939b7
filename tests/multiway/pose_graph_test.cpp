// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The pose graph: known poses recovered from noisy relative motions, a wrong edge rejected.
#include "multiway/pose_graph.hpp"

#include <random>

#include <Eigen/Geometry>
#include <gtest/gtest.h>

namespace qorv::multiway {
namespace {

Pose Motion(double degrees, const Eigen::Vector3d& axis, const Eigen::Vector3d& shift) {
  Pose m = Pose::Identity();
  m.topLeftCorner<3, 3>() =
      Eigen::AngleAxisd(degrees * M_PI / 180.0, axis.normalized()).toRotationMatrix();
  m.topRightCorner<3, 1>() = shift;
  return m;
}

TEST(PoseGraph, RecoversKnownPosesAndRejectsAWrongEdge) {
  // Eight scans around a ring, each turned 45 degrees about z.
  std::vector<Pose> truth;
  for (int i = 0; i < 8; ++i) {
    truth.push_back(Motion(45.0 * i,
                           {0, 0.1, 1},
                           {2.0 * std::cos(i * M_PI / 4), 2.0 * std::sin(i * M_PI / 4), 0.1 * i}));
  }
  std::mt19937 random(11);
  std::normal_distribution<double> noise(0.0, 1.0);
  auto measured = [&](int from, int to, double scale) {
    Edge e;
    e.from = from;
    e.to = to;
    const Pose jitter =
        Motion(0.2 * scale * noise(random),
               {noise(random), noise(random), noise(random)},
               0.005 * scale * Eigen::Vector3d(noise(random), noise(random), noise(random)));
    e.motion = truth[static_cast<size_t>(from)].inverse() * truth[static_cast<size_t>(to)] * jitter;
    e.rotationSigma = 0.005;
    e.shiftSigma = 0.005;
    return e;
  };
  std::vector<Edge> edges;
  for (int i = 0; i < 8; ++i) edges.push_back(measured(i, (i + 1) % 8, 1.0));  // the ring closes
  for (int i = 0; i < 8; ++i) edges.push_back(measured(i, (i + 2) % 8, 1.0));
  Edge wrong = measured(1, 5, 0.0);
  wrong.motion = wrong.motion * Motion(40.0, {1, 0, 0}, {0.5, 0, 0});
  edges.push_back(wrong);

  // Start from the odometry chain, drifted.
  std::vector<Pose> poses(8, Pose::Identity());
  poses[0] = truth[0];
  for (int i = 0; i + 1 < 8; ++i)
    poses[static_cast<size_t>(i + 1)] = poses[static_cast<size_t>(i)] *
                                        edges[static_cast<size_t>(i)].motion *
                                        Motion(2.0, {0, 0, 1}, {0.02, 0, 0});
  ASSERT_TRUE(Optimize(poses, edges));
  for (int i = 0; i < 8; ++i) {
    const Pose error = truth[static_cast<size_t>(i)].inverse() * poses[static_cast<size_t>(i)];
    EXPECT_LT(Eigen::AngleAxisd(Eigen::Matrix3d(error.topLeftCorner<3, 3>())).angle(), 0.01) << i;
    EXPECT_LT((error.topRightCorner<3, 1>().norm()), 0.02) << i;
  }
  EXPECT_TRUE(edges.back().rejected);
  for (size_t e = 0; e + 1 < edges.size(); ++e) EXPECT_FALSE(edges[e].rejected) << e;
}

}  // namespace
}  // namespace qorv::multiway
