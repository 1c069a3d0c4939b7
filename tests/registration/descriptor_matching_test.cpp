// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/descriptor_matching.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "support/registration_data.hpp"

namespace qorv {
namespace {

constexpr size_t kD = kDescriptorSize;

uint32_t Bits(float v) {
  uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  return bits;
}

// The matcher in its plainest form: scan all targets, then scan all other queries for the cross
// check.
struct Reference {
  std::vector<int32_t> indices;
  std::vector<float> distances;
};

template <typename Distance>
Reference LiteralMatch(const std::vector<float>& targets,
                       const std::vector<float>& queries,
                       bool crossCheck,
                       Distance distance) {
  const int32_t targetCount = static_cast<int32_t>(targets.size() / kD);
  const int32_t queryCount = static_cast<int32_t>(queries.size() / kD);
  Reference out{std::vector<int32_t>(queryCount), std::vector<float>(queryCount)};
  for (int32_t q = 0; q < queryCount; ++q) {
    const float* query = &queries[q * kD];
    float bestSq = distance(query, &targets[0]);
    int32_t best = 0;
    for (int32_t t = 1; t < targetCount; ++t) {
      const float d = distance(query, &targets[t * kD]);
      if (d < bestSq) {
        bestSq = d;
        best = t;
      }
    }
    out.indices[q] = best;
    if (crossCheck) {
      for (int32_t j = 0; j < queryCount; ++j) {
        if (j != q && distance(&queries[j * kD], &targets[best * kD]) < bestSq) {
          out.indices[q] = -1;
          break;
        }
      }
    }
    out.distances[q] = std::sqrt(bestSq);
  }
  return out;
}

Reference LiteralMatch(const std::vector<float>& targets,
                       const std::vector<float>& queries,
                       bool crossCheck) {
  return LiteralMatch(targets, queries, crossCheck, DescriptorDistanceSq);
}

Reference Exhaustive(const std::vector<float>& targets,
                     const std::vector<float>& queries,
                     bool crossCheck,
                     bool multiThread) {
  const int32_t queryCount = static_cast<int32_t>(queries.size() / kD);
  Reference out{std::vector<int32_t>(queryCount, 12345), std::vector<float>(queryCount, -1.0f)};
  MatchDescriptorsExhaustive(targets.data(),
                             static_cast<int32_t>(targets.size() / kD),
                             queries.data(),
                             queryCount,
                             crossCheck,
                             Execution{multiThread},
                             out.indices.data(),
                             out.distances.data());
  return out;
}

void ExpectSame(const Reference& expected, const Reference& got) {
  ASSERT_EQ(expected.indices.size(), got.indices.size());
  for (size_t q = 0; q < expected.indices.size(); ++q) {
    EXPECT_EQ(expected.indices[q], got.indices[q]) << "query " << q;
    EXPECT_EQ(Bits(expected.distances[q]), Bits(got.distances[q])) << "query " << q;
  }
}

// Targets whose distances to the queries are equal in exact arithmetic but not in float: every
// query has all components equal, and target pairs differ by a permutation of their components, so
// the two sums add the same squares in a different order and only rounding decides the winner.
void NearTies(int32_t pairCount,
              int32_t queryCount,
              std::vector<float>& targets,
              std::vector<float>& queries) {
  std::mt19937 rng(99);
  std::uniform_real_distribution<float> uniform(0.0f, 20.0f);
  targets.assign(2 * pairCount * kD, 0.0f);
  std::vector<size_t> perm(kD);
  std::iota(perm.begin(), perm.end(), 0);
  for (int32_t p = 0; p < pairCount; ++p) {
    float* a = &targets[2 * p * kD];
    float* b = a + kD;
    for (size_t c = 0; c < kD; ++c) a[c] = uniform(rng);
    std::shuffle(perm.begin(), perm.end(), rng);
    for (size_t c = 0; c < kD; ++c) b[c] = a[perm[c]];
  }
  queries.resize(queryCount * kD);
  for (int32_t q = 0; q < queryCount; ++q) {
    std::fill_n(&queries[q * kD], kD, 5.0f + 0.25f * static_cast<float>(q % 20));
  }
}

TEST(DescriptorMatchingTest, VectorDistancesEqualTheScalarOnesBitForBit) {
  for (int32_t count : {1, 7, 8, 9, 61}) {
    std::vector<float> targets = test::RandomDescriptors(count, 3 + count);
    std::mt19937 rng(count);
    std::uniform_real_distribution<float> wide(-1e4f, 1e4f);
    for (size_t i = 0; i < targets.size(); i += 5) targets[i] = wide(rng);
    const std::vector<float> query = test::RandomDescriptors(1, 77);
    std::vector<float> distSq(count, -1.0f);
    DescriptorDistancesSq(query.data(), targets.data(), count, distSq.data());
    for (int32_t t = 0; t < count; ++t) {
      EXPECT_EQ(Bits(distSq[t]), Bits(DescriptorDistanceSq(query.data(), &targets[t * kD])));
    }
  }
}

TEST(DescriptorMatchingTest, ExhaustiveMatchesTheLiteralScanInBothVariants) {
  std::vector<float> targets = test::RandomDescriptors(61, 1);
  std::vector<float> queries = test::RandomDescriptors(37, 2);
  // Some queries are copies of targets (distance 0) or of each other (equal distances), and some
  // targets are copies of each other, in different lanes of the vector code (ties).
  std::copy_n(&targets[5 * kD], kD, &queries[0]);
  std::copy_n(&targets[5 * kD], kD, &queries[9 * kD]);
  std::copy_n(&queries[3 * kD], kD, &queries[4 * kD]);
  for (size_t t : {13, 22, 60}) std::copy_n(&targets[11 * kD], kD, &targets[t * kD]);
  std::copy_n(&targets[11 * kD], kD, &queries[20 * kD]);
  for (bool crossCheck : {false, true}) {
    const Reference expected = LiteralMatch(targets, queries, crossCheck);
    ExpectSame(expected, Exhaustive(targets, queries, crossCheck, false));
    ExpectSame(expected, Exhaustive(targets, queries, crossCheck, true));
    EXPECT_EQ(expected.indices[20], 11);
  }
}

TEST(DescriptorMatchingTest, RoundingDecidedWinnersFollowTheGroupedSummation) {
  std::vector<float> targets;
  std::vector<float> queries;
  NearTies(40, 23, targets, queries);
  for (bool crossCheck : {false, true}) {
    const Reference expected = LiteralMatch(targets, queries, crossCheck);
    ExpectSame(expected, Exhaustive(targets, queries, crossCheck, false));
    ExpectSame(expected, Exhaustive(targets, queries, crossCheck, true));
  }
  // The data does discriminate: a plain left-to-right sum picks other winners.
  const Reference sequential =
      LiteralMatch(targets, queries, false, [](const float* a, const float* b) {
        float sum = 0.0f;
        for (size_t c = 0; c < kD; ++c) sum += (a[c] - b[c]) * (a[c] - b[c]);
        return sum;
      });
  EXPECT_NE(sequential.indices, LiteralMatch(targets, queries, false).indices);
}

TEST(DescriptorMatchingTest, CrossCheckIsOneSidedAndKeepsTheDistance) {
  // Targets T0 = 0 and T1 = 10 in component 0; descriptors otherwise equal.
  auto at = [](float x) {
    std::vector<float> d(kD, 1.0f);
    d[0] = x;
    return d;
  };
  std::vector<float> targets = at(0.0f);
  const std::vector<float> t1 = at(10.0f);
  targets.insert(targets.end(), t1.begin(), t1.end());
  // q0 at 2 and q1 at 1: both nearest to T0, q1 strictly closer, so q0 is rejected. q2 at -1 is as
  // close to T0 as q1: equal distances do not reject. q3 at 9 is alone near T1.
  std::vector<float> queries;
  for (float x : {2.0f, 1.0f, -1.0f, 9.0f}) {
    const std::vector<float> q = at(x);
    queries.insert(queries.end(), q.begin(), q.end());
  }
  for (bool multiThread : {false, true}) {
    const Reference got = Exhaustive(targets, queries, true, multiThread);
    EXPECT_EQ(got.indices, (std::vector<int32_t>{-1, 0, 0, 1}));
    EXPECT_EQ(got.distances, (std::vector<float>{2.0f, 1.0f, 1.0f, 1.0f}));
    const Reference plain = Exhaustive(targets, queries, false, multiThread);
    EXPECT_EQ(plain.indices, (std::vector<int32_t>{0, 0, 0, 1}));
  }
  // A single query is never rejected, and null distances are allowed.
  int32_t index = -7;
  MatchDescriptorsExhaustive(
      targets.data(), 2, queries.data(), 1, true, Execution{}, &index, nullptr);
  EXPECT_EQ(index, 0);
}

TEST(DescriptorMatchingTest, NaNDistancesNeverWinButANaNFirstTargetStays) {
  std::vector<float> targets = test::RandomDescriptors(20, 8);
  std::vector<float> queries = test::RandomDescriptors(9, 9);
  std::copy_n(&queries[2 * kD], kD, &targets[7 * kD]);
  targets[7 * kD + 4] = NAN;  // the exact copy of query 2 is out of reach
  ExpectSame(LiteralMatch(targets, queries, true), Exhaustive(targets, queries, true, false));
  EXPECT_NE(Exhaustive(targets, queries, false, false).indices[2], 7);

  targets[13] = NAN;  // target 0: nothing compares below a NaN distance
  const Reference got = Exhaustive(targets, queries, true, true);
  for (size_t q = 0; q < got.indices.size(); ++q) {
    EXPECT_EQ(got.indices[q], 0);
    EXPECT_TRUE(std::isnan(got.distances[q]));
  }
}

// Brute force k nearest with the search tree's summation order (component by component).
std::vector<std::pair<float, int32_t>> BruteKnn(const std::vector<float>& targets,
                                                const float* query) {
  std::vector<std::pair<float, int32_t>> all;
  for (size_t t = 0; t < targets.size() / kD; ++t) {
    float sum = 0.0f;
    bool nan = false;
    for (size_t c = 0; c < kD; ++c) {
      const float diff = query[c] - targets[t * kD + c];
      sum += diff * diff;
      nan |= std::isnan(targets[t * kD + c]);
    }
    if (!nan) all.emplace_back(sum, static_cast<int32_t>(t));
  }
  std::sort(all.begin(), all.end());
  return all;
}

TEST(DescriptorMatchingTest, KnnGivesTheNearestWithSquaredDistances) {
  std::vector<float> targets = test::RandomDescriptors(300, 10);
  for (size_t t = 0; t < 300; t += 29) targets[t * kD + t % kD] = NAN;
  const std::vector<float> queries = test::RandomDescriptors(41, 11);
  const int32_t k = 5;
  std::vector<int32_t> indices(41 * k, -9);
  std::vector<float> distances(41 * k);
  MatchDescriptorsKnn(targets.data(),
                      300,
                      queries.data(),
                      41,
                      k,
                      Execution{true},
                      indices.data(),
                      distances.data());
  for (size_t q = 0; q < 41; ++q) {
    const auto expected = BruteKnn(targets, &queries[q * kD]);
    for (size_t i = 0; i < k; ++i) {
      EXPECT_EQ(indices[q * k + i], expected[i].second);
      EXPECT_FLOAT_EQ(distances[q * k + i], expected[i].first);
      EXPECT_NE(indices[q * k + i] % 29, 0);  // NaN targets are never returned
    }
  }
  // Serial, and without distances: the same indices.
  std::vector<int32_t> serial(41 * k, -9);
  MatchDescriptorsKnn(
      targets.data(), 300, queries.data(), 41, k, Execution{false}, serial.data(), nullptr);
  EXPECT_EQ(serial, indices);
}

TEST(DescriptorMatchingTest, KnnBeyondTheTargetCountLeavesTheRestOfTheRow) {
  std::vector<float> targets = test::RandomDescriptors(4, 12);
  targets[kD + 3] = NAN;  // three targets indexed
  const std::vector<float> queries = test::RandomDescriptors(2, 13);
  const int32_t k = 6;
  std::vector<int32_t> indices(2 * k, -9);
  std::vector<float> distances(2 * k, -2.0f);
  MatchDescriptorsKnn(
      targets.data(), 4, queries.data(), 2, k, Execution{}, indices.data(), distances.data());
  std::vector<int32_t> bare(2 * k, -9);
  MatchDescriptorsKnn(targets.data(), 4, queries.data(), 2, k, Execution{}, bare.data(), nullptr);
  EXPECT_EQ(bare, indices);
  for (size_t q = 0; q < 2; ++q) {
    const auto expected = BruteKnn(targets, &queries[q * kD]);
    ASSERT_EQ(expected.size(), 3u);
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(indices[q * k + i], expected[i].second);
    for (size_t i = 3; i < k; ++i) EXPECT_EQ(indices[q * k + i], -9);
    for (size_t i = 3; i + 1 < k; ++i) EXPECT_EQ(distances[q * k + i], -2.0f);
    EXPECT_EQ(distances[q * k + k - 1], FLT_MAX);
  }
}

}  // namespace
}  // namespace qorv
