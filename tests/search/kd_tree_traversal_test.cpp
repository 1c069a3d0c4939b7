// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "search/kd_tree_traversal.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "support/clouds.hpp"

namespace qorv {
namespace {

// The k-nearest insertion written as plainly as possible: walk down from the end, moving every
// entry not strictly below the new distance up one slot while there is room.
struct PlainKnnSet {
  int32_t* indices;
  float* distSq;
  size_t capacity;
  size_t count = 0;

  float worstDist() const { return distSq[capacity - 1]; }
  void addPoint(int32_t index, float dist) {
    size_t i = count;
    for (; i > 0; --i) {
      if (dist > distSq[i - 1]) break;
      if (i < capacity) {
        distSq[i] = distSq[i - 1];
        indices[i] = indices[i - 1];
      }
    }
    if (i < capacity) {
      distSq[i] = dist;
      indices[i] = index;
    }
    if (count != capacity) ++count;
  }
};

// Many exact ties: every point appears three times and coordinates sit on a coarse grid.
std::vector<float> TiedCloud() {
  std::vector<float> points = test::RandomCloud(400, 11);
  for (float& v : points) v = std::round(v * 8.0f) / 8.0f;
  std::vector<float> tied;
  for (int copy = 0; copy < 3; ++copy) tied.insert(tied.end(), points.begin(), points.end());
  return tied;
}

TEST(KdTreeTraversalTest, KnnMatchesPlainInsertionIncludingStaleSlots) {
  const std::vector<float> points = TiedCloud();
  const auto count = static_cast<int32_t>(points.size() / 3);
  const PointKdTree tree(points.data(), count);
  for (const size_t k : {size_t{1}, size_t{7}, size_t{51}, static_cast<size_t>(count) + 3}) {
    // Slots persist from query to query on both sides, as in callers that reuse them.
    std::vector<int32_t> gotIndices(k, -1), wantIndices(k, -1);
    std::vector<float> gotDist(k, 0.5f), wantDist(k, 0.5f);
    for (int32_t q = 0; q < count; q += 7) {
      const size_t found = tree.knnSearch(tree.element(q), k, gotIndices.data(), gotDist.data());
      wantDist[k - 1] = FLT_MAX;
      PlainKnnSet plain{wantIndices.data(), wantDist.data(), k};
      tree.findNeighbors(tree.element(q), plain);
      ASSERT_EQ(found, plain.count) << "k " << k << " query " << q;
      ASSERT_EQ(gotIndices, wantIndices) << "k " << k << " query " << q;
      ASSERT_EQ(gotDist, wantDist) << "k " << k << " query " << q;
    }
  }
}

// Points at 1.2^i along a line: every split cuts off the outermost point, so the tree is far
// deeper than the stack the searches keep without recursion and they take the recursive path.
TEST(KdTreeTraversalTest, DeepTreeSearchesMatchBruteForce) {
  std::vector<float> points;
  for (int i = 0; i < 200; ++i) {
    points.insert(points.end(), {std::pow(1.2f, static_cast<float>(i)), 1.0f, -2.0f});
  }
  const int32_t count = 200;
  const PointKdTree tree(points.data(), count);
  const size_t k = 6;
  std::vector<int32_t> indices(k);
  std::vector<float> distSq(k);
  RadiusResult found;
  for (int32_t q = 0; q < count; ++q) {
    const float* query = tree.element(q);
    std::vector<float> all(static_cast<size_t>(count));
    for (int32_t j = 0; j < count; ++j) {
      all[static_cast<size_t>(j)] = test::DistSq(query, tree.element(j));
    }

    ASSERT_EQ(tree.knnSearch(query, k, indices.data(), distSq.data()), k);
    std::vector<float> nearest = all;
    std::sort(nearest.begin(), nearest.end());
    for (size_t j = 0; j < k; ++j) {
      EXPECT_EQ(distSq[j], nearest[j]) << "query " << q << " slot " << j;
      EXPECT_EQ(all[static_cast<size_t>(indices[j])], distSq[j]) << "query " << q;
    }

    const float radiusSq = all[static_cast<size_t>(std::min(q + 3, count - 1))];
    found.clear();
    tree.radiusSearch(query, radiusSq, found, true);
    size_t inside = 0;
    for (const float d : all) inside += d < radiusSq ? 1 : 0;
    ASSERT_EQ(found.size(), inside) << "query " << q;
    for (size_t j = 0; j < found.size(); ++j) {
      EXPECT_EQ(all[static_cast<size_t>(found.indices[j])], found.distSq[j]);
      if (j > 0) {
        EXPECT_LE(found.distSq[j - 1], found.distSq[j]);
      }
    }
  }
}

}  // namespace
}  // namespace qorv
