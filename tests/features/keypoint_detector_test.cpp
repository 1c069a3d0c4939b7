// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "features/keypoint_detector.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "runtime/parallel_for.hpp"
#include "support/clouds.hpp"
#include "support/features_shapes.hpp"
#include "surface/scatter_eigen.hpp"

namespace qorv {
namespace {

struct Detected {
  std::vector<int32_t> indices;
  std::vector<float> positions;
};

Detected Detect(const std::vector<float>& points, const KeyPointParams& params, bool multiThread) {
  const PointKdTree tree(points.data(), static_cast<int64_t>(points.size() / 3));
  Detected out;
  DetectKeyPoints(tree, params, Execution{multiThread}, out.indices, out.positions);
  return out;
}

// Oracles: the quadratic ranking and suppression the detector must reproduce.

void LiteralInsertionRank(std::vector<int32_t>& indices, std::vector<float>& scores) {
  const size_t n = scores.size();
  if (n >= 2) {
    size_t minPos = 0;
    for (size_t i = 1; i < n; ++i) {
      if (scores[i] < scores[minPos]) minPos = i;
    }
    std::swap(scores[0], scores[minPos]);
    std::swap(indices[0], indices[minPos]);
    for (size_t i = 2; i < n; ++i) {
      const float score = scores[i];
      const int32_t index = indices[i];
      size_t j = i;
      while (scores[j - 1] > score) {
        scores[j] = scores[j - 1];
        indices[j] = indices[j - 1];
        --j;
      }
      scores[j] = score;
      indices[j] = index;
    }
  }
  std::reverse(scores.begin(), scores.end());
  std::reverse(indices.begin(), indices.end());
}

float ExactDistSq(const float* a, const float* b) {  // the tree's own float expression
  float sum = 0.0f;
  for (int d = 0; d < 3; ++d) {
    const float diff = a[d] - b[d];
    sum += diff * diff;
  }
  return sum;
}

// Candidates scored point by point, ranked by the insertion sort, suppressed by a scan over all
// pairs, capped.
std::vector<int32_t> LiteralDetect(const std::vector<float>& points, const KeyPointParams& params) {
  const int32_t count = static_cast<int32_t>(points.size() / 3);
  const PointKdTree tree(points.data(), count);
  const float radiusSq = params.keyPointRadius * params.keyPointRadius;
  const float weightScale = radiusSq / 100.0f;
  std::vector<int32_t> indices;
  std::vector<float> scores;
  RadiusResult found;
  for (int32_t i = 0; i < count; ++i) {
    const float* p = &points[static_cast<size_t>(i) * 3];
    found.clear();
    if (tree.boxDistSq(p) <= radiusSq) tree.radiusSearch(p, radiusSq, found, false);
    if (found.size() <= 8) continue;
    float c[6] = {0, 0, 0, 0, 0, 0};
    for (size_t n = 0; n < found.size(); ++n) {
      if (found.indices[n] == i) continue;
      const float w = std::sqrt(weightScale / (weightScale + found.distSq[n]));
      const float* q = &points[static_cast<size_t>(found.indices[n]) * 3];
      const float v[3] = {w * (q[0] - p[0]), w * (q[1] - p[1]), w * (q[2] - p[2])};
      c[0] += v[0] * v[0];
      c[1] += v[1] * v[1];
      c[2] += v[2] * v[2];
      c[3] += v[0] * v[1];
      c[4] += v[0] * v[2];
      c[5] += v[1] * v[2];
    }
    const ScatterEigenvalues e = ComputeScatterEigenvalues(c[0], c[1], c[2], c[3], c[4], c[5]);
    if (std::signbit(e.e0) != std::signbit(e.e1)) continue;
    const float l1 = std::fabs(e.e0) >= std::fabs(e.e1) ? e.e0 : e.e1;
    const float l3 = std::fabs(e.e0) >= std::fabs(e.e1) ? e.e1 : e.e0;
    if (e.e2 / l1 < params.ratio21 && l3 / e.e2 < params.ratio32) {
      indices.push_back(i);
      scores.push_back(l3);
    }
  }
  if (params.maxKeyPoints >= 1) LiteralInsertionRank(indices, scores);
  if (params.nonMaxRadius > 0.0f) {
    const float nmsSq =
        static_cast<float>(static_cast<double>(params.nonMaxRadius) * params.nonMaxRadius);
    std::vector<int32_t> kept;
    for (size_t k = 0; k < indices.size(); ++k) {
      bool keep = true;
      for (size_t m = 0; m < indices.size() && keep; ++m) {
        const float distSq = ExactDistSq(&points[static_cast<size_t>(indices[m]) * 3],
                                         &points[static_cast<size_t>(indices[k]) * 3]);
        keep = !(m != k && distSq < nmsSq && scores[m] > scores[k]);
      }
      if (keep) kept.push_back(indices[k]);
    }
    indices = kept;
  }
  if (params.maxKeyPoints >= 1 && indices.size() > static_cast<size_t>(params.maxKeyPoints)) {
    indices.resize(static_cast<size_t>(params.maxKeyPoints));
  }
  return indices;
}

// n random points of integer coordinates in [0, 5)^3, all distinct, shifted by (dx, 0, 0) and
// scaled: a blob whose scatter has three distinct eigenvalues at most points.
std::vector<float> IntegerBlob(int n, uint32_t seed, float dx, float scale) {
  std::mt19937 rng(seed);
  std::vector<int> used;
  std::vector<float> points;
  while (static_cast<int>(used.size()) < n) {
    const int code = static_cast<int>(rng() % 125u);
    if (std::find(used.begin(), used.end(), code) != used.end()) continue;
    used.push_back(code);
    points.insert(points.end(),
                  {static_cast<float>(code % 5) * scale + dx,
                   static_cast<float>(code / 5 % 5) * scale,
                   static_cast<float>(code / 25) * scale});
  }
  return points;
}

TEST(RankByScore, SameOrderAsTheLiteralInsertionSortWithManyTies) {
  std::mt19937 rng(11);
  for (int trial = 0; trial < 300; ++trial) {
    const size_t n = trial < 4 ? static_cast<size_t>(trial) : 1 + rng() % 200;
    const int levels = 1 + static_cast<int>(rng() % 8);  // few distinct values: many ties
    std::vector<int32_t> indices(n);
    std::vector<float> scores(n);
    for (size_t i = 0; i < n; ++i) {
      indices[i] = static_cast<int32_t>(i);
      scores[i] =
          static_cast<float>(static_cast<int>(rng() % static_cast<uint32_t>(levels))) * 0.25f;
    }
    if (n > 3 && trial % 3 == 0) scores[rng() % n] = -std::numeric_limits<float>::infinity();
    std::vector<int32_t> expectedIndices = indices;
    std::vector<float> expectedScores = scores;
    LiteralInsertionRank(expectedIndices, expectedScores);
    RankByScore(indices, scores);
    ASSERT_EQ(indices, expectedIndices) << "trial " << trial;
    ASSERT_EQ(scores, expectedScores) << "trial " << trial;
  }
}

TEST(DetectKeyPoints, BoxCornersAreFoundAndFlatFacesAreNot) {
  const test::OrientedCloud box = test::BoxSurface(20);
  const Detected d = Detect(box.points, {0.15f, 0.4f, 0.9f, 0.9f, 0}, false);
  ASSERT_EQ(d.indices.size(), 8u);
  std::vector<int> cornersHit(8, 0);
  for (size_t k = 0; k < d.indices.size(); ++k) {
    const float* p = &d.positions[k * 3];
    EXPECT_EQ(p[0], box.points[static_cast<size_t>(d.indices[k]) * 3]);
    const int corner = (p[0] > 0.5f ? 1 : 0) + (p[1] > 0.5f ? 2 : 0) + (p[2] > 0.5f ? 4 : 0);
    const float c[3] = {
        corner & 1 ? 1.0f : 0.0f, corner & 2 ? 1.0f : 0.0f, corner & 4 ? 1.0f : 0.0f};
    EXPECT_LT(std::sqrt(test::DistSq(p, c)), 0.15f) << "key point " << k;
    ++cornersHit[static_cast<size_t>(corner)];
  }
  EXPECT_EQ(std::count(cornersHit.begin(), cornersHit.end(), 1), 8);
  // Without suppression, ranked by score: the first eight are still corner neighbourhoods.
  const Detected ranked = Detect(box.points, {0.15f, 0.0f, 0.9f, 0.9f, 8}, false);
  ASSERT_EQ(ranked.indices.size(), 8u);
  for (size_t k = 0; k < 8; ++k) {
    int farFromFaces = 0;
    for (int a = 0; a < 3; ++a) {
      const float v = ranked.positions[k * 3 + static_cast<size_t>(a)];
      farFromFaces += (v < 0.2f || v > 0.8f) ? 1 : 0;
    }
    EXPECT_EQ(farFromFaces, 3) << "key point " << k;
  }
}

TEST(DetectKeyPoints, ConeTipRanksFirst) {
  const test::OrientedCloud cone = test::OpenCone(20);
  const Detected d = Detect(cone.points, {0.1f, 0.0f, 0.9f, 0.9f, 5}, false);
  ASSERT_EQ(d.indices.size(), 5u);
  const float apex[3] = {0.0f, 0.0f, 0.0f};
  for (size_t k = 0; k < 5; ++k)
    EXPECT_LT(std::sqrt(test::DistSq(&d.positions[k * 3], apex)), 0.1f);
}

TEST(DetectKeyPoints, PlanesAndSparseCloudsGiveNone) {
  const std::vector<float> plane = test::GridCloud(30, 30, 0.05f);
  for (const float ratio : {0.01f, 0.1f, 0.3f}) {
    EXPECT_TRUE(Detect(plane, {0.15f, 0.0f, ratio, ratio, 0}, false).indices.empty()) << ratio;
  }
  // A bumpy grid of spacing 1: within 1.3 every point has at most 5 neighbours (itself included),
  // too few for any ratio; within 2.5 the same points qualify.
  std::vector<float> bumpy = test::GridCloud(20, 20, 1.0f);
  for (size_t i = 2; i < bumpy.size(); i += 3)
    bumpy[i] = static_cast<float>((i * 7 / 3) % 5) * 0.1f;
  EXPECT_TRUE(Detect(bumpy, {1.3f, 0.0f, 10.0f, 10.0f, 0}, false).indices.empty());
  EXPECT_FALSE(Detect(bumpy, {2.5f, 0.0f, 10.0f, 10.0f, 0}, false).indices.empty());
}

TEST(DetectKeyPoints, MatchesTheLiteralDetector) {
  std::vector<float> cloud = test::WavySurface(30, 30, 0.05f).points;
  const std::vector<float> noise = test::RandomCloud(300, 5, 1.5f);
  cloud.insert(cloud.end(), noise.begin(), noise.end());
  const std::vector<float> blobs = IntegerBlob(40, 3, 0.0f, 0.1f);
  cloud.insert(cloud.end(), blobs.begin(), blobs.end());
  for (const KeyPointParams params : {KeyPointParams{0.2f, 0.0f, 0.9f, 0.9f, 0},
                                      KeyPointParams{0.2f, 0.1f, 0.9f, 0.9f, 0},
                                      KeyPointParams{0.2f, 0.1f, 0.9f, 0.9f, 25},
                                      KeyPointParams{0.2f, 0.3f, 0.95f, 0.8f, 1000},
                                      KeyPointParams{0.3f, 0.0f, 0.7f, 0.7f, 7}}) {
    const std::vector<int32_t> expected = LiteralDetect(cloud, params);
    for (const int threads : {1, 3, 4}) {  // one: the serial variant
      const ThreadScope scope(threads);
      const Detected d = Detect(cloud, params, threads > 1);
      ASSERT_EQ(d.indices, expected) << params.nonMaxRadius << " " << params.maxKeyPoints;
      for (size_t k = 0; k < d.indices.size(); ++k) {
        for (size_t a = 0; a < 3; ++a) {
          ASSERT_EQ(d.positions[k * 3 + a], cloud[static_cast<size_t>(d.indices[k]) * 3 + a]);
        }
      }
    }
    if (params.maxKeyPoints < 1) {
      // No ranking: ascending index order.
      EXPECT_TRUE(std::is_sorted(expected.begin(), expected.end()));
    }
  }
}

TEST(DetectKeyPoints, EqualScoresNeverSuppressEachOtherButSuppressedOnesStillSuppress) {
  // Twin blobs of integer coordinates: exact differences give bit-identical scores.
  std::vector<float> twins = IntegerBlob(40, 9, 0.0f, 1.0f);
  const std::vector<float> copy = IntegerBlob(40, 9, 200.0f, 1.0f);
  twins.insert(twins.end(), copy.begin(), copy.end());
  const KeyPointParams params{10.0f, 300.0f, 1.0f, 1.0f, 0};
  const Detected d = Detect(twins, params, false);
  ASSERT_EQ(d.indices.size(), 2u);
  EXPECT_EQ(d.indices[1], d.indices[0] + 40);
  EXPECT_EQ(d.indices, LiteralDetect(twins, params));

  // A chain of growing blobs, each within the radius of the next only: the middle blob is
  // suppressed by the last, and still suppresses the first.
  std::vector<float> chain = IntegerBlob(40, 9, 0.0f, 1.0f);
  for (const float step : {1.0f, 2.0f}) {
    const std::vector<float> blob = IntegerBlob(40, 9, 200.0f * step, 1.0f + 0.25f * step);
    chain.insert(chain.end(), blob.begin(), blob.end());
  }
  const Detected c = Detect(chain, {10.0f, 250.0f, 1.0f, 1.0f, 0}, false);
  ASSERT_EQ(c.indices.size(), 1u);
  EXPECT_GE(c.indices[0], 80);

  // The cap keeps the best one of the twins: the later of equal scores ranks first.
  const Detected capped = Detect(twins, {10.0f, 300.0f, 1.0f, 1.0f, 1}, false);
  EXPECT_EQ(capped.indices, std::vector<int32_t>{d.indices[1]});
}

TEST(DetectKeyPoints, NaNPointsAreNeverKeyPointsAndChangeNothingElse) {
  const test::OrientedCloud box = test::BoxSurface(12);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  std::vector<float> withNaN;
  std::vector<int32_t> original;  // position in withNaN -> position in box
  for (int32_t i = 0; i < box.count(); ++i) {
    if (i % 5 == 0) {
      withNaN.insert(withNaN.end(), {nan, 0.5f, 0.5f});
      original.push_back(-1);
    }
    withNaN.insert(withNaN.end(), box.points.begin() + i * 3, box.points.begin() + i * 3 + 3);
    original.push_back(i);
  }
  const KeyPointParams params{0.25f, 0.2f, 0.95f, 0.95f, 20};
  const Detected expected = Detect(box.points, params, false);
  const Detected d = Detect(withNaN, params, true);
  ASSERT_FALSE(expected.indices.empty());
  ASSERT_EQ(d.indices.size(), expected.indices.size());
  for (size_t k = 0; k < d.indices.size(); ++k) {
    EXPECT_EQ(original[static_cast<size_t>(d.indices[k])], expected.indices[k]);
  }
  // An all-NaN cloud gives an empty tree and no key points.
  const std::vector<float> allNaN(30, nan);
  EXPECT_TRUE(Detect(allNaN, params, true).indices.empty());
}

}  // namespace
}  // namespace qorv
