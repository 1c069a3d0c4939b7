// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The stages behind their seams: every listed method is found and an unlisted one falls back to
// the default instead of a null stage; the feature matcher keeps the closest descriptors in source
// order when there are too many; the RANSAC hypothesis maker finds a planted motion among wrong
// matches, first, the same for the same seed at any thread count.
#include <algorithm>
#include <random>

#include <Eigen/Geometry>
#include <gtest/gtest.h>

#include "engine/hypotheses.hpp"
#include "engine/matcher.hpp"
#include "engine/steps.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv::engine {
namespace {

TEST(Stages, ListedMethodsAreFoundAndUnlistedOnesFallBackToTheDefault) {
  EXPECT_NE(FindMatcher(MatchMethod::kMutualFeatures), nullptr);
  EXPECT_NE(FindHypothesiser(HypothesisMethod::kCompatibleRansac), nullptr);
  EXPECT_EQ(FindMatcher(static_cast<MatchMethod>(77)), nullptr);
  EXPECT_EQ(FindHypothesiser(static_cast<HypothesisMethod>(-1)), nullptr);
  EXPECT_STREQ(RefineName(RefineMethod::kGeneralized), "gicp");
  EXPECT_STREQ(RefineName(static_cast<RefineMethod>(9)), "");

  Options options;
  options.match = static_cast<MatchMethod>(77);
  options.hypotheses = static_cast<HypothesisMethod>(-1);
  options.refine = static_cast<RefineMethod>(9);
  EXPECT_EQ(&MatcherOf(options), FindMatcher(MatchMethod::kMutualFeatures));
  EXPECT_EQ(&HypothesiserOf(options), FindHypothesiser(HypothesisMethod::kCompatibleRansac));
  EXPECT_EQ(&RefinerOf(options), FindRefiner(RefineMethod::kGeneralized));
}

// n one-hot-like descriptors: point i's histogram peaks in bin i % 33 with a height that makes
// every pair (i, i) of the two sets mutual, at a descriptor distance that grows with `offset[i]`.
Features Distinct(int32_t n, const std::vector<float>& offset) {
  Features f;
  f.descriptors.assign(static_cast<size_t>(n) * 33, 0.0f);
  f.valid.assign(static_cast<size_t>(n), 1);
  for (int32_t i = 0; i < n; ++i) {
    float* d = f.descriptors.data() + static_cast<size_t>(i) * 33;
    // Each point its own direction: two bins set from its index, and the last bin grows with it.
    d[i % 33] = 100.0f + static_cast<float>(i / 33) * 7.0f;
    d[(i / 33) % 33] += 50.0f;
    d[32] = static_cast<float>(i) * 3.0f + offset[static_cast<size_t>(i)];
  }
  return f;
}

TEST(Stages, TheFeatureMatcherKeepsTheClosestDescriptorsInSourceOrder) {
  const int32_t n = 3600;
  std::vector<float> none(n, 0.0f), shifted(n, 0.0f);
  std::mt19937 random(5);
  std::uniform_real_distribution<float> small(0.0f, 1.0f);
  for (float& s : shifted) s = small(random);
  const Features target = Distinct(n, none);
  const Features source = Distinct(n, shifted);
  Cloud cloud;  // the feature matcher reads no points
  const std::vector<Match> matches =
      FindMatcher(MatchMethod::kMutualFeatures)->Find({&cloud, &source}, {&cloud, &target});
  ASSERT_EQ(matches.size(), 3000u);
  for (size_t k = 1; k < matches.size(); ++k) EXPECT_LT(matches[k - 1].source, matches[k].source);
  // The 600 left out are those whose descriptors moved furthest.
  float keptWorst = 0.0f;
  for (const Match& m : matches) {
    EXPECT_EQ(m.source, m.target);
    keptWorst = std::max(keptWorst, m.distance);
  }
  int32_t further = 0;
  for (float s : shifted) further += s * s > keptWorst * keptWorst * (1.0f + 1e-4f) ? 1 : 0;
  EXPECT_GE(further, 590);
}

TEST(Stages, RansacHypothesesFindAPlantedMotionFirstWithTheSameBitsAtAnyThreadCount) {
  std::mt19937 random(11);
  std::uniform_real_distribution<float> unit(0.0f, 10.0f);
  Pose truth = Pose::Identity();
  truth.topLeftCorner<3, 3>() =
      Eigen::AngleAxisd(1.2, Eigen::Vector3d(1, 2, -0.5).normalized()).toRotationMatrix();
  truth.topRightCorner<3, 1>() = Eigen::Vector3d(3, -1, 2);
  const int32_t right = 60, wrong = 240, n = right + wrong;
  Cloud source, target;
  source.points.resize(3, n);
  target.points.resize(3, n);
  std::vector<Match> matches;
  for (int32_t i = 0; i < n; ++i) {
    source.points.col(i) = Eigen::Vector3f(unit(random), unit(random), unit(random));
    const Eigen::Vector3d base = i < right
                                     ? source.points.col(i).cast<double>().eval()
                                     : Eigen::Vector3d(unit(random), unit(random), unit(random));
    target.points.col(i) =
        (truth.topLeftCorner<3, 3>() * base + truth.topRightCorner<3, 1>()).cast<float>();
    matches.push_back({i, i, 0.0f});
  }
  HypothesisParams params;
  params.voxel = 0.1;
  params.seed = 3;
  const Hypothesiser& maker = *FindHypothesiser(HypothesisMethod::kCompatibleRansac);
  std::vector<Pose> at1, at2;
  {
    ThreadScope one(1);
    at1 = maker.Propose(source, target, matches, params);
  }
  {
    ThreadScope two(2);
    at2 = maker.Propose(source, target, matches, params);
  }
  ASSERT_FALSE(at1.empty());
  EXPECT_LT((at1.front() - truth).cwiseAbs().maxCoeff(), 1e-4);
  ASSERT_EQ(at1.size(), at2.size());
  for (size_t k = 0; k < at1.size(); ++k) EXPECT_TRUE(at1[k] == at2[k]) << k;
}

}  // namespace
}  // namespace qorv::engine
