// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The compatibility graph against every pair of matches compared by hand, on right and wrong
// matches, repeated and shared points, and lengths that sit exactly on the tolerance.
#include "engine/compatibility.hpp"

#include <cmath>
#include <random>

#include <Eigen/Geometry>
#include <gtest/gtest.h>

#include "runtime/parallel_for.hpp"

namespace qorv::engine {
namespace {

Cloud CloudOf(const std::vector<Eigen::Vector3f>& points) {
  Cloud cloud;
  cloud.points.resize(3, static_cast<Eigen::Index>(points.size()));
  for (size_t i = 0; i < points.size(); ++i)
    cloud.points.col(static_cast<Eigen::Index>(i)) = points[i];
  return cloud;
}

// Whether matches i and j are compatible, from the lengths in double; `unsure` is set when a length
// lies so close to a threshold that float rounding may decide it either way.
bool Compatible(const Cloud& source,
                const Cloud& target,
                const Match& a,
                const Match& b,
                double tolerance,
                double minLength,
                bool& unsure) {
  const double ls =
      (source.points.col(a.source).cast<double>() - source.points.col(b.source).cast<double>())
          .norm();
  const double lt =
      (target.points.col(a.target).cast<double>() - target.points.col(b.target).cast<double>())
          .norm();
  constexpr double kSlack = 1e-4;
  unsure = std::abs(ls - minLength) < kSlack || std::abs(lt - minLength) < kSlack ||
           std::abs(std::abs(ls - lt) - tolerance) < kSlack;
  return ls > minLength && lt > minLength && std::abs(ls - lt) < tolerance;
}

void ExpectGraphIsTheOracle(const Cloud& source,
                            const Cloud& target,
                            const std::vector<Match>& matches,
                            float tolerance,
                            float minLength) {
  const CompatibilityGraph graph =
      BuildCompatibility(source, target, matches, tolerance, minLength);
  const int32_t m = static_cast<int32_t>(matches.size());
  ASSERT_EQ(graph.offsets.size(), static_cast<size_t>(m) + 1);
  EXPECT_EQ(graph.offsets.front(), 0);
  EXPECT_EQ(graph.offsets.back(), static_cast<int64_t>(graph.neighbours.size()));
  int64_t edges = 0;
  int32_t unsureCount = 0;
  for (int32_t i = 0; i < m; ++i) {
    ASSERT_GE(graph.degree(i), 0);
    // Ascending without repeats, so that linked() may search them.
    for (int32_t k = 1; k < graph.degree(i); ++k)
      EXPECT_LT(graph.begin(i)[k - 1], graph.begin(i)[k]) << "list of " << i;
    for (int32_t j = 0; j < m; ++j) {
      bool unsure = false;
      const bool expected = i != j && Compatible(source,
                                                 target,
                                                 matches[static_cast<size_t>(i)],
                                                 matches[static_cast<size_t>(j)],
                                                 tolerance,
                                                 minLength,
                                                 unsure);
      edges += expected;
      if (unsure) {
        ++unsureCount;
        continue;
      }
      if (graph.linked(i, j) != expected)
        ADD_FAILURE() << i << " - " << j << " linked the wrong way";
    }
  }
  EXPECT_LT(unsureCount, m * m / 50);  // the slack excused only a few pairs
  if (unsureCount == 0) {
    EXPECT_EQ(edges, graph.offsets.back());
  }
}

TEST(Compatibility, EveryPairIsLinkedExactlyWhenItsLengthsAgree) {
  std::mt19937 random(21);
  std::uniform_real_distribution<float> unit(0.0f, 10.0f);
  std::normal_distribution<float> noise(0.0f, 0.3f);
  const Eigen::Matrix3f turn =
      Eigen::AngleAxisf(1.1f, Eigen::Vector3f(1, 2, -1).normalized()).toRotationMatrix();
  std::vector<Eigen::Vector3f> s, t;
  for (int i = 0; i < 120; ++i) {
    s.emplace_back(unit(random), unit(random), unit(random));
    t.push_back(turn * s.back() + Eigen::Vector3f(3, -1, 2) +
                Eigen::Vector3f(noise(random), noise(random), noise(random)));
  }
  const Cloud source = CloudOf(s), target = CloudOf(t);
  std::vector<Match> matches;
  std::uniform_int_distribution<int32_t> any(0, 119);
  for (int32_t i = 0; i < 150; ++i) {
    // Right matches (the noise puts some lengths on either side of the tolerance), wrong ones, a
    // match repeated, and a source point matched twice.
    if (i < 60) {
      matches.push_back({i, i, 0.0f});
    } else if (i < 140) {
      matches.push_back({any(random), any(random), 0.0f});
    } else if (i < 145) {
      const Match again = matches[static_cast<size_t>(i - 140)];
      matches.push_back(again);
    } else {
      matches.push_back({i - 140, any(random), 0.0f});
    }
  }
  for (const float tolerance : {0.05f, 0.5f, 2.0f}) {
    for (const float minLength : {0.0f, 1.0f, 6.0f}) {
      SCOPED_TRACE(testing::Message() << "tolerance " << tolerance << ", min length " << minLength);
      ExpectGraphIsTheOracle(source, target, matches, tolerance, minLength);
    }
  }
  // The blocks of the build run on any number of threads and give the same graph.
  CompatibilityGraph serial, parallel;
  {
    ThreadScope one(1);
    serial = BuildCompatibility(source, target, matches, 0.5f, 1.0f);
  }
  {
    ThreadScope two(2);
    parallel = BuildCompatibility(source, target, matches, 0.5f, 1.0f);
  }
  EXPECT_EQ(serial.offsets, parallel.offsets);
  EXPECT_EQ(serial.neighbours, parallel.neighbours);
}

TEST(Compatibility, ExactLengthsOnTheThresholdsAndTinyMatchSets) {
  // Integer points: lengths 3, 4 and 5 are exact in float. Source pairs of length 5 matched to
  // target pairs of length 4 differ by exactly the tolerance 1, which is not less than it.
  const Cloud source = CloudOf({{0, 0, 0}, {3, 4, 0}, {0, 0, 5}, {0, 3, 0}});
  const Cloud target = CloudOf({{0, 0, 0}, {0, 4, 0}, {0, 0, 4}, {0, 3, 0}});
  const std::vector<Match> matches = {{0, 0, 0.0f}, {1, 1, 0.0f}, {2, 2, 0.0f}, {3, 3, 0.0f}};
  CompatibilityGraph graph = BuildCompatibility(source, target, matches, 1.0f, 1.0f);
  EXPECT_FALSE(graph.linked(0, 1));  // 5 against 4
  EXPECT_FALSE(graph.linked(0, 2));  // 5 against 4
  EXPECT_TRUE(graph.linked(0, 3));   // 3 against 3
  graph = BuildCompatibility(source, target, matches, 1.001f, 1.0f);
  EXPECT_TRUE(graph.linked(0, 1));
  EXPECT_TRUE(graph.linked(1, 0));
  // Lengths that agree but are too short to say anything about a rotation.
  graph = BuildCompatibility(source, target, matches, 1.001f, 3.5f);
  EXPECT_FALSE(graph.linked(0, 3));
  EXPECT_TRUE(graph.linked(0, 1));

  // No matches, and one: nothing to link.
  graph = BuildCompatibility(source, target, {}, 1.0f, 1.0f);
  EXPECT_EQ(graph.offsets, std::vector<int64_t>{0});
  EXPECT_TRUE(graph.neighbours.empty());
  graph = BuildCompatibility(source, target, {{1, 2, 0.0f}}, 1.0f, 0.0f);
  ASSERT_EQ(graph.offsets.size(), 2u);
  EXPECT_EQ(graph.degree(0), 0);
}

}  // namespace
}  // namespace qorv::engine
