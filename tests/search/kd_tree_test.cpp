// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "search/kd_tree.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "geometry/vec3.hpp"
#include "runtime/parallel_for.hpp"
#include "support/clouds.hpp"

namespace qorv {
namespace {

// A cloud with duplicates, NaN points and points at exactly 0.25 from the origin corner.
std::vector<float> AwkwardCloud(int32_t count, uint32_t seed) {
  std::vector<float> points = test::RandomCloud(count, seed);
  std::mt19937 rng(seed);
  for (int32_t i = 0; i < count; i += 17) {
    const int32_t j = static_cast<int32_t>(rng() % static_cast<uint32_t>(count));
    std::copy_n(&points[3 * j], 3, &points[3 * i]);  // duplicate
  }
  for (int32_t i = 5; i < count; i += 53) points[3 * i + (i % 3)] = NAN;
  for (int32_t i = 9; i < count; i += 101) {
    points[3 * i] = 0.25f;
    points[3 * i + 1] = 0.0f;
    points[3 * i + 2] = 0.0f;
  }
  return points;
}

TEST(KdTreeTest, RadiusSearchMatchesBruteForce) {
  const std::vector<float> points = AwkwardCloud(3000, 7);
  const int32_t count = 3000;
  PointKdTree tree(points.data(), count);
  RadiusResult result;
  const float origin[3] = {0.0f, 0.0f, 0.0f};
  for (int32_t q = -1; q < count; q += 7) {
    const float* query = q < 0 ? origin : &points[3 * q];
    for (float radius : {0.0f, 0.05f, 0.25f, 2.0f}) {
      const float radiusSq = radius * radius;
      result.clear();
      tree.radiusSearch(query, radiusSq, result, true);
      std::vector<std::pair<float, int32_t>> expected;
      for (int32_t i = 0; i < count; ++i) {
        if (HasNaN(&points[3 * i])) continue;
        const float d = test::DistSq(query, &points[3 * i]);
        if (d < radiusSq) expected.emplace_back(d, i);
      }
      ASSERT_EQ(result.size(), expected.size()) << "query " << q << " radius " << radius;
      std::vector<std::pair<float, int32_t>> got;
      for (size_t i = 0; i < result.size(); ++i) {
        got.emplace_back(result.distSq[i], result.indices[i]);
        if (i > 0) {
          EXPECT_LE(result.distSq[i - 1], result.distSq[i]);
        }
      }
      std::sort(got.begin(), got.end());
      std::sort(expected.begin(), expected.end());
      EXPECT_EQ(got, expected);
    }
  }
}

TEST(KdTreeTest, KnnSearchMatchesBruteForceWithLaterFindsFirst) {
  const std::vector<float> points = AwkwardCloud(2000, 11);
  const int32_t count = 2000;
  PointKdTree tree(points.data(), count);
  for (int32_t q = 0; q < count; q += 5) {
    for (size_t k : {size_t{1}, size_t{2}, size_t{9}, size_t{40}}) {
      std::vector<int32_t> indices(k, -7);
      std::vector<float> distSq(k, -1.0f);
      const size_t found = tree.knnSearch(&points[3 * q], k, indices.data(), distSq.data());
      if (HasNaN(&points[3 * q])) {
        EXPECT_EQ(found, 0u);
        EXPECT_EQ(distSq[k - 1], FLT_MAX);
        continue;
      }
      std::vector<float> all;
      for (int32_t i = 0; i < count; ++i) {
        if (!HasNaN(&points[3 * i])) all.push_back(test::DistSq(&points[3 * q], &points[3 * i]));
      }
      std::sort(all.begin(), all.end());
      ASSERT_EQ(found, k);
      for (size_t j = 0; j < k; ++j) {
        EXPECT_EQ(distSq[j], all[j]);
        EXPECT_EQ(test::DistSq(&points[3 * q], &points[3 * indices[j]]), distSq[j]);
      }
    }
  }
}

TEST(KdTreeTest, BoundedKnnIsTheUnboundedOneCutAtTheBound) {
  // Duplicates and points at exactly 0.25 from others make ties and finds on the bound itself.
  const std::vector<float> points = AwkwardCloud(2000, 13);
  const int32_t count = 2000;
  PointKdTree tree(points.data(), count);
  for (int32_t q = 0; q < count; q += 3) {
    for (size_t k : {size_t{1}, size_t{12}, size_t{70}}) {
      for (float bound : {0.0f, 0.0625f, 0.01f, FLT_MAX}) {
        std::vector<int32_t> all(k), within(k, -7);
        std::vector<float> allSq(k), withinSq(k, -1.0f);
        size_t kept = tree.knnSearch(&points[3 * q], k, all.data(), allSq.data());
        while (kept > 0 && !(allSq[kept - 1] < bound)) --kept;
        const size_t found =
            tree.knnSearchWithin(&points[3 * q], k, bound, within.data(), withinSq.data());
        ASSERT_EQ(found, kept) << "query " << q << " k " << k << " bound " << bound;
        for (size_t j = 0; j < found; ++j) {
          EXPECT_EQ(within[j], all[j]);
          EXPECT_EQ(withinSq[j], allSq[j]);
        }
        if (found < k) {
          EXPECT_EQ(withinSq[k - 1], bound);  // the unfilled last slot keeps it
        }
      }
    }
  }
}

TEST(KdTreeTest, KnnTiesPutTheLaterFindFirst) {
  // All elements in one leaf: traversal order is index order, so among equal distances the
  // higher index must come first.
  const std::vector<float> points = {1, 0, 0, -1, 0, 0, 0, 1, 0, 5, 5, 5};
  PointKdTree tree(points.data(), 4);
  const float origin[3] = {0, 0, 0};
  int32_t indices[3];
  float distSq[3];
  ASSERT_EQ(tree.knnSearch(origin, 3, indices, distSq), 3u);
  EXPECT_EQ(indices[0], 2);
  EXPECT_EQ(indices[1], 1);
  EXPECT_EQ(indices[2], 0);
}

TEST(KdTreeTest, KnnBeyondTheCloudLeavesTheBound) {
  const std::vector<float> points = {0, 0, 0, 1, 0, 0, NAN, 0, 0};
  PointKdTree tree(points.data(), 3);
  int32_t indices[5] = {9, 9, 9, 9, 9};
  float distSq[5] = {-1, -1, -1, -1, -1};
  EXPECT_EQ(tree.knnSearch(points.data(), 5, indices, distSq), 2u);
  EXPECT_EQ(indices[0], 0);
  EXPECT_EQ(indices[1], 1);
  EXPECT_EQ(indices[2], 9);
  EXPECT_EQ(distSq[4], FLT_MAX);
}

TEST(KdTreeTest, DegenerateInputsBuildAndSearch) {
  // Empty, all NaN, all identical, infinite coordinates.
  RadiusResult result;
  const float origin[3] = {0, 0, 0};
  {
    PointKdTree tree(nullptr, 0);
    EXPECT_TRUE(tree.empty());
    tree.radiusSearch(origin, 1.0f, result, true);
    EXPECT_EQ(result.size(), 0u);
  }
  {
    const std::vector<float> nan(30, NAN);
    PointKdTree tree(nan.data(), 10);
    EXPECT_TRUE(tree.empty());
  }
  {
    std::vector<float> same(3 * 1000, 0.5f);
    PointKdTree tree(same.data(), 1000);
    const float q[3] = {0.5f, 0.5f, 0.5f};
    tree.radiusSearch(q, 1e-6f, result, false);
    EXPECT_EQ(result.size(), 1000u);
  }
  {
    std::vector<float> points = test::RandomCloud(500, 3);
    points[0] = INFINITY;
    points[4] = -INFINITY;
    points[8] = INFINITY;
    PointKdTree tree(points.data(), 500);
    result.clear();
    tree.radiusSearch(&points[30], 0.01f, result, false);
    EXPECT_GE(result.size(), 1u);
  }
  {
    const float q[3] = {NAN, 0, 0};
    std::vector<float> points = test::RandomCloud(100, 3);
    PointKdTree tree(points.data(), 100);
    result.clear();
    tree.radiusSearch(q, 10.0f, result, false);
    EXPECT_EQ(result.size(), 0u);
  }
}

TEST(KdTreeTest, ExactRadiusIsExcludedAndBoxDistanceEqualToRadiusStillSearches) {
  const std::vector<float> points = {1, 0, 0, 2, 0, 0};
  PointKdTree tree(points.data(), 2);
  const float q[3] = {0, 0, 0};
  RadiusResult result;
  tree.radiusSearch(q, 1.0f, result, false);
  EXPECT_EQ(result.size(), 0u);
  tree.radiusSearch(q, 1.0001f, result, false);
  EXPECT_EQ(result.size(), 1u);
}

TEST(KdTreeTest, DescriptorTreeFindsNearest) {
  const int32_t count = 400;
  std::vector<float> descriptors = test::RandomCloud(count * 11, 5, 100.0f);  // 33 floats each
  DescriptorKdTree tree(descriptors.data(), count);
  for (int32_t q = 0; q < count; q += 13) {
    int32_t index[2];
    float distSq[2];
    ASSERT_EQ(tree.knnSearch(&descriptors[33 * q], 2, index, distSq), 2u);
    EXPECT_EQ(index[0], q);
    EXPECT_EQ(distSq[0], 0.0f);
  }
}

TEST(KdTreeTest, PoolsRecycleAndReleaseNodes) {
  using Pool = PointKdTree::Pool;
  const std::vector<float> points = test::RandomCloud(20000, 9);
  for (int round = 0; round < 3; ++round) {
    PointKdTree a(points.data(), 20000);
    const size_t carved = Pool::Local().carved();
    EXPECT_GT(carved, 0u);
    {
      PointKdTree b(points.data(), 10000);
      EXPECT_GT(Pool::Local().carved(), carved);
    }
    EXPECT_GT(Pool::Local().freeCount(), 0u);
    PointKdTree c(points.data(), 5000);  // reuses freed nodes
    EXPECT_LE(Pool::Local().carved(), carved + Pool::Local().freeCount() + 2 * 5000);
  }
  EXPECT_EQ(Pool::Local().blockCount(), 0u);
  EXPECT_EQ(Pool::Local().carved(), 0u);
}

// Node for node: the same splits, bounds and leaf ranges.
template <typename Node>
void ExpectSameNodes(const Node* a, const Node* b, int depth = 0) {
  ASSERT_EQ(a->child1 == nullptr, b->child1 == nullptr) << "depth " << depth;
  if (a->child1 == nullptr) {
    ASSERT_EQ(a->leaf.left, b->leaf.left);
    ASSERT_EQ(a->leaf.right, b->leaf.right);
    return;
  }
  ASSERT_EQ(a->inner.divfeat, b->inner.divfeat) << "depth " << depth;
  ASSERT_EQ(a->inner.divlow, b->inner.divlow) << "depth " << depth;
  ASSERT_EQ(a->inner.divhigh, b->inner.divhigh) << "depth " << depth;
  ExpectSameNodes(a->child1, b->child1, depth + 1);
  ExpectSameNodes(a->child2, b->child2, depth + 1);
}

TEST(KdTreeTest, TreesBuiltOnTwoThreadsEqualTheSerialOnes) {
  using Pool = PointKdTree::Pool;
  // Awkward points; then nearly all points in one spot with a few far ones, which leaves
  // single leaves among the subtrees handed to the threads.
  std::vector<float> clumped(3 * 50000, 0.5f);
  for (int32_t i = 0; i < 50000; i += 7) clumped[3 * static_cast<size_t>(i)] = 0.25f;
  for (int32_t i = 0; i < 4; ++i) clumped[3 * static_cast<size_t>(49000 + i) + 2] = 9.0f + i;
  for (const std::vector<float>& points : {AwkwardCloud(60000, 3), clumped}) {
    const auto count = static_cast<int32_t>(points.size() / 3);
    const PointKdTree serial(points.data(), count);
    const ThreadScope threads(2);
    const PointKdTree parallel(points.data(), count, 10, Execution{true});
    EXPECT_EQ(parallel.indices(), serial.indices());
    ASSERT_NE(parallel.root(), nullptr);
    ExpectSameNodes(parallel.root(), serial.root());
    for (int d = 0; d < 3; ++d) {
      EXPECT_EQ(parallel.rootBox()[d].low, serial.rootBox()[d].low);
      EXPECT_EQ(parallel.rootBox()[d].high, serial.rootBox()[d].high);
    }
    for (int32_t q = 0; q < count; q += 97) {
      int32_t indexA[12];
      int32_t indexB[12];
      float distA[12];
      float distB[12];
      const size_t found = serial.knnSearch(&points[3 * static_cast<size_t>(q)], 12, indexA, distA);
      ASSERT_EQ(parallel.knnSearch(&points[3 * static_cast<size_t>(q)], 12, indexB, distB), found);
      for (size_t j = 0; j < found; ++j) {
        EXPECT_EQ(indexA[j], indexB[j]);
        EXPECT_EQ(distA[j], distB[j]);
      }
    }
  }
  // Every node came from this thread's pool and has gone back to it.
  EXPECT_EQ(Pool::Local().blockCount(), 0u);
}

TEST(KdTreeTest, TreesBuildOnSeveralThreadsAtOnce) {
  const std::vector<float> points = test::RandomCloud(20000, 13);
  std::vector<size_t> found(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 5; ++round) {
        PointKdTree tree(points.data(), 20000);
        RadiusResult result;
        tree.radiusSearch(&points[3 * t], 0.01f, result, false);
        found[static_cast<size_t>(t)] = result.size();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  PointKdTree tree(points.data(), 20000);
  for (int t = 0; t < 4; ++t) {
    RadiusResult result;
    tree.radiusSearch(&points[3 * t], 0.01f, result, false);
    EXPECT_EQ(found[static_cast<size_t>(t)], result.size());
  }
}

}  // namespace
}  // namespace qorv
