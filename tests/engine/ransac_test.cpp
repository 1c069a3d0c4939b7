// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// RANSAC's hypotheses checked against brute-force counts of the matches each pose carries, on a
// planted motion hidden among wrong matches and on wrong matches alone; and the chance level of
// a pose against every pair of a moved source point and a matched target point.
#include "engine/ransac.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include <Eigen/Geometry>
#include <gtest/gtest.h>

#include "runtime/parallel_for.hpp"

namespace qorv::engine {
namespace {

Eigen::Vector3d Move(const Pose& m, const Eigen::Vector3f& p) {
  return m.topLeftCorner<3, 3>() * p.cast<double>() + m.topRightCorner<3, 1>();
}

// Source points uniform in a 10 m cube; the first `right` are matched to their moved copies (with
// up to `noise` a coordinate), the others to random points of the moved cube. The matches come in
// a shuffled order.
struct Scene {
  Cloud source, target;
  std::vector<Match> matches;
  std::vector<int32_t> right;  // indices into matches, ascending
  Pose truth = Pose::Identity();
};

Scene Planted(uint32_t seed, int32_t right, int32_t wrong, float noise) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> unit(0.0f, 10.0f), jitter(-noise, noise);
  Scene scene;
  scene.truth.topLeftCorner<3, 3>() =
      Eigen::AngleAxisd(2.0, Eigen::Vector3d(0.3, -1, 0.4).normalized()).toRotationMatrix();
  scene.truth.topRightCorner<3, 1>() = Eigen::Vector3d(4, -2, 7);
  const int32_t n = right + wrong;
  scene.source.points.resize(3, n);
  scene.target.points.resize(3, n);
  for (int32_t i = 0; i < n; ++i) {
    scene.source.points.col(i) = Eigen::Vector3f(unit(random), unit(random), unit(random));
    const Eigen::Vector3f base = i < right
                                     ? scene.source.points.col(i).eval()
                                     : Eigen::Vector3f(unit(random), unit(random), unit(random));
    scene.target.points.col(i) = Move(scene.truth, base).cast<float>() +
                                 Eigen::Vector3f(jitter(random), jitter(random), jitter(random));
  }
  std::vector<int32_t> order(static_cast<size_t>(n));
  for (int32_t i = 0; i < n; ++i) order[static_cast<size_t>(i)] = i;
  std::shuffle(order.begin(), order.end(), random);
  for (int32_t k = 0; k < n; ++k) {
    const int32_t i = order[static_cast<size_t>(k)];
    scene.matches.push_back({i, i, 0.0f});
    if (i < right) scene.right.push_back(k);
  }
  return scene;
}

// The matches a pose brings within distance, counted in double. Matches within a hair of the
// distance could go either way in float: they widen the range [low, high] the count may take.
struct Count {
  std::vector<int32_t> inside;
  int32_t low = 0, high = 0;
};

Count Carried(const Scene& scene, const Pose& pose, double distance) {
  Count count;
  for (size_t k = 0; k < scene.matches.size(); ++k) {
    const Match& match = scene.matches[k];
    const double d = (Move(pose, scene.source.points.col(match.source)) -
                      scene.target.points.col(match.target).cast<double>())
                         .norm();
    if (d < distance) count.inside.push_back(static_cast<int32_t>(k));
    count.low += d < distance * (1 - 1e-5);
    count.high += d < distance * (1 + 1e-5);
  }
  return count;
}

RansacParams ParamsFor(const Scene& scene) {
  RansacParams params;
  params.inlierDistance = 0.1f;
  params.maxIterations = 3000;
  params.minIterations = 500;
  params.seed = 17;
  params.keep = 4;
  params.distinctAngle = 0.175;
  params.distinctShift = 0.5;
  params.centre = scene.source.points.cast<double>().rowwise().mean();
  return params;
}

struct Draws {
  std::vector<Hypothesis> hypotheses;
  int32_t iterations = -1;
};

Draws Estimate(const Scene& scene,
               const CompatibilityGraph& graph,
               const RansacParams& params,
               int32_t threads) {
  ThreadScope scope(threads);
  Draws run;
  run.hypotheses =
      EstimateByRansac(scene.source, scene.target, scene.matches, graph, params, run.iterations);
  return run;
}

void ExpectSameBits(const Draws& a, const Draws& b) {
  EXPECT_EQ(a.iterations, b.iterations);
  ASSERT_EQ(a.hypotheses.size(), b.hypotheses.size());
  for (size_t i = 0; i < a.hypotheses.size(); ++i) {
    EXPECT_EQ(a.hypotheses[i].inliers, b.hypotheses[i].inliers);
    EXPECT_EQ(0,
              std::memcmp(a.hypotheses[i].pose.data(), b.hypotheses[i].pose.data(), sizeof(Pose)))
        << "hypothesis " << i;
  }
}

// What the header promises of any answer: at most `keep`, best first, rigid, each counting the
// matches it carries, no two alike, and the draws within their bounds.
void ExpectWellFormed(const Scene& scene, const RansacParams& params, const Draws& run) {
  EXPECT_LE(run.hypotheses.size(), static_cast<size_t>(params.keep));
  EXPECT_LE(run.iterations, params.maxIterations);
  for (size_t i = 0; i < run.hypotheses.size(); ++i) {
    SCOPED_TRACE(testing::Message() << "hypothesis " << i);
    const Hypothesis& h = run.hypotheses[i];
    const Eigen::Matrix3d r = h.pose.topLeftCorner<3, 3>();
    EXPECT_LT((r.transpose() * r - Eigen::Matrix3d::Identity()).norm(), 1e-9);
    EXPECT_NEAR(r.determinant(), 1.0, 1e-9);
    const Count count = Carried(scene, h.pose, params.inlierDistance);
    EXPECT_GE(h.inliers, count.low);
    EXPECT_LE(h.inliers, count.high);
    EXPECT_GE(h.inliers, 3);
    if (i > 0) {
      EXPECT_LE(h.inliers, run.hypotheses[i - 1].inliers);
    }
    for (size_t j = 0; j < i; ++j) {
      const Pose& other = run.hypotheses[j].pose;
      EXPECT_TRUE(RotationBetween(h.pose, other) >= params.distinctAngle ||
                  ShiftBetween(h.pose, other, params.centre) >= params.distinctShift)
          << "alike: " << j << " and " << i << ", turned " << RotationBetween(h.pose, other)
          << " and shifted " << ShiftBetween(h.pose, other, params.centre);
    }
  }
}

TEST(Ransac, FindsAMotionCarriedByATenthOfTheMatchesTheSameOnAnyThreadCount) {
  const Scene scene = Planted(3, 40, 360, 0.02f);
  const CompatibilityGraph graph =
      BuildCompatibility(scene.source, scene.target, scene.matches, 0.1f, 0.5f);
  const RansacParams params = ParamsFor(scene);
  const Draws run = Estimate(scene, graph, params, 2);
  ASSERT_FALSE(run.hypotheses.empty());
  ExpectWellFormed(scene, params, run);
  EXPECT_GE(run.iterations, params.minIterations);

  const Hypothesis& best = run.hypotheses[0];
  EXPECT_LT(RotationBetween(best.pose, scene.truth), 1e-3);
  EXPECT_LT(ShiftBetween(best.pose, scene.truth, params.centre), 0.01);
  // It carries exactly the right matches, and it is the least-squares motion of them rather than
  // of the three it was drawn from.
  EXPECT_EQ(Carried(scene, best.pose, params.inlierDistance).inside, scene.right);
  EXPECT_EQ(InlierMatches(scene.source, scene.target, scene.matches, best.pose, 0.1f), scene.right);
  std::vector<Eigen::Vector3d> from, to;
  for (int32_t k : scene.right) {
    from.push_back(
        scene.source.points.col(scene.matches[static_cast<size_t>(k)].source).cast<double>());
    to.push_back(
        scene.target.points.col(scene.matches[static_cast<size_t>(k)].target).cast<double>());
  }
  const Pose refit = FitRigid(from, to, {});
  EXPECT_LT(RotationBetween(best.pose, refit), 1e-6);
  EXPECT_LT(ShiftBetween(best.pose, refit, params.centre), 1e-5);

  ExpectSameBits(run, Estimate(scene, graph, params, 2));
  ExpectSameBits(run, Estimate(scene, graph, params, 1));
  // A draw budget that ends inside a batch is kept.
  RansacParams capped = params;
  capped.minIterations = 0;
  capped.maxIterations = 300;
  capped.confidence = 1.0 - 1e-12;
  EXPECT_LE(Estimate(scene, graph, capped, 2).iterations, 300);
}

TEST(Ransac, WrongMatchesAloneGiveOnlyChanceHypothesesAndTheSameBitsEveryTime) {
  const Scene scene = Planted(8, 0, 300, 0.0f);
  const CompatibilityGraph graph =
      BuildCompatibility(scene.source, scene.target, scene.matches, 0.3f, 0.5f);
  ASSERT_GT(graph.neighbours.size(), 300u);  // there is something to draw from
  RansacParams params = ParamsFor(scene);
  params.maxIterations = 1500;  // ends inside a batch
  params.inlierDistance = 0.3f;
  for (const uint64_t seed : {1u, 2u}) {
    params.seed = seed;
    const Draws run = Estimate(scene, graph, params, 1);
    ExpectWellFormed(scene, params, run);
    EXPECT_GE(run.iterations, params.minIterations);
    for (const Hypothesis& h : run.hypotheses) EXPECT_LE(h.inliers, 6);
    ExpectSameBits(run, Estimate(scene, graph, params, 1));
    ExpectSameBits(run, Estimate(scene, graph, params, 2));
  }

  // Too few matches, or no compatible pair to draw from: nothing.
  int32_t iterations = -1;
  const std::vector<Match> two(scene.matches.begin(), scene.matches.begin() + 2);
  EXPECT_TRUE(EstimateByRansac(scene.source,
                               scene.target,
                               two,
                               BuildCompatibility(scene.source, scene.target, two, 10.0f, 0.0f),
                               params,
                               iterations)
                  .empty());
  const CompatibilityGraph none =
      BuildCompatibility(scene.source, scene.target, scene.matches, 0.0f, 0.5f);
  ASSERT_TRUE(none.neighbours.empty());
  EXPECT_TRUE(EstimateByRansac(scene.source, scene.target, scene.matches, none, params, iterations)
                  .empty());
}

TEST(Ransac, HypothesesStayDistinctAfterTheirRefit) {
  // Noisy right matches packed in a 1 m ball, with a wide inlier distance: three-match draws turn
  // by more than the distinct angle yet each carries most of the ball, so the refit pulls them
  // all toward one least-squares motion.
  std::mt19937 random(4);
  std::uniform_real_distribution<float> ball(-0.6f, 0.6f), jitter(-0.08f, 0.08f);
  Scene scene = Planted(5, 0, 100, 0.0f);
  const int32_t first = scene.source.size();
  scene.source.points.conservativeResize(3, first + 40);
  scene.target.points.conservativeResize(3, first + 40);
  for (int32_t i = first; i < first + 40; ++i) {
    scene.source.points.col(i) =
        Eigen::Vector3f(5, 5, 5) + Eigen::Vector3f(ball(random), ball(random), ball(random));
    scene.target.points.col(i) = Move(scene.truth, scene.source.points.col(i)).cast<float>() +
                                 Eigen::Vector3f(jitter(random), jitter(random), jitter(random));
    scene.matches.push_back({i, i, 0.0f});
  }
  const CompatibilityGraph graph =
      BuildCompatibility(scene.source, scene.target, scene.matches, 0.3f, 0.3f);
  RansacParams params = ParamsFor(scene);
  params.inlierDistance = 0.4f;
  params.distinctShift = 0.2;
  const Draws run = Estimate(scene, graph, params, 2);
  ASSERT_FALSE(run.hypotheses.empty());
  ExpectWellFormed(scene, params, run);
}

TEST(Ransac, MatchesCarriedAndTheirChanceLevelAgreeWithEveryPairCountedByHand) {
  // Targets bunched in a small box, and some matched more than once, so that moved source points
  // meet many of them.
  std::mt19937 random(12);
  std::uniform_real_distribution<float> unit(0.0f, 2.0f);
  Cloud source, target;
  source.points.resize(3, 600);
  target.points.resize(3, 300);
  for (Eigen::Index i = 0; i < 600; ++i)
    source.points.col(i) = Eigen::Vector3f(unit(random), unit(random), unit(random));
  for (Eigen::Index i = 0; i < 300; ++i)
    target.points.col(i) = Eigen::Vector3f(unit(random), unit(random), 0.1f * unit(random));
  std::vector<Match> matches;
  std::uniform_int_distribution<int32_t> anyTarget(0, 299);
  for (int32_t i = 0; i < 600; ++i) matches.push_back({i, anyTarget(random), 0.0f});
  Pose pose = Pose::Identity();
  pose.topLeftCorner<3, 3>() =
      Eigen::AngleAxisd(0.4, Eigen::Vector3d(1, 0, 1).normalized()).toRotationMatrix();
  pose.topRightCorner<3, 1>() = Eigen::Vector3d(0.2, -0.1, -0.5);

  for (const float distance : {0.05f, 0.3f, 1.0f}) {
    SCOPED_TRACE(distance);
    double low = 0.0, high = 0.0;
    std::vector<int32_t> carried;
    for (size_t i = 0; i < matches.size(); ++i) {
      const Eigen::Vector3d p = Move(pose, source.points.col(matches[i].source));
      for (const Match& other : matches) {
        const double d = (p - target.points.col(other.target).cast<double>()).norm();
        low += d < distance * (1 - 1e-5);
        high += d < distance * (1 + 1e-5);
      }
      if ((p - target.points.col(matches[i].target).cast<double>()).norm() < distance)
        carried.push_back(static_cast<int32_t>(i));
    }
    double chance = 0.0;
    {
      ThreadScope one(1);
      chance = ChanceMatches(source, target, matches, pose, distance);
    }
    EXPECT_GE(chance, low / 600.0);
    EXPECT_LE(chance, high / 600.0);
    {
      ThreadScope two(2);
      EXPECT_EQ(chance, ChanceMatches(source, target, matches, pose, distance));
    }
    const std::vector<int32_t> inliers = InlierMatches(source, target, matches, pose, distance);
    EXPECT_EQ(inliers, carried);
  }
  EXPECT_EQ(ChanceMatches(source, target, {}, pose, 1.0f), 0.0);
  EXPECT_TRUE(InlierMatches(source, target, {}, pose, 1.0f).empty());
}

}  // namespace
}  // namespace qorv::engine
