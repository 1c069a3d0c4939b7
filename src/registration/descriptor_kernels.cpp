// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/descriptor_kernels.hpp"

#include <algorithm>
#include <limits>
#include <type_traits>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "registration/descriptor_matching.hpp"

namespace qorv {
namespace {

#if defined(__SSE2__)

// SSE kernel. Queries are taken kQueryTile at a time, so that each target block loaded serves
// several queries.
constexpr int kQueryTile = 4;

// Keeps (distSq, index) when the candidate is strictly smaller, or equal with a lower index: the
// reduction of per-lane bests that reproduces a sequential strict-less scan.
inline void ReduceBest(float distSq, int32_t index, float& bestSq, int32_t& best) {
  if (distSq < bestSq || (distSq == bestSq && index < best)) {
    bestSq = distSq;
    best = index;
  }
}

// The best of one query's lanes, written at its query index.
inline void SettleLanes(const float* lanes,
                        const int32_t* indices,
                        int32_t query,
                        int32_t* bestIndex,
                        float* bestDistSq) {
  float bestSq = lanes[0];
  int32_t best = indices[0];
  for (int lane = 1; lane < kTargetLanes; ++lane)
    ReduceBest(lanes[lane], indices[lane], bestSq, best);
  bestIndex[query] = best;
  bestDistSq[query] = bestSq;
}

inline __m128 Select(__m128 mask, __m128 a, __m128 b) {
  return _mm_or_ps(_mm_and_ps(mask, a), _mm_andnot_ps(mask, b));
}
inline __m128i Select(__m128 mask, __m128i a, __m128i b) {
  const __m128i m = _mm_castps_si128(mask);
  return _mm_or_si128(_mm_and_si128(m, a), _mm_andnot_si128(m, b));
}

struct BroadcastQuery {
  __m128 c[kDescriptorSize];

  void load(const float* query) {
    for (int i = 0; i < kDescriptorSize; ++i) c[i] = _mm_set1_ps(query[i]);
  }
};

// Squared distances from Q queries to the kTargetLanes targets of one block, two halves of 4 lanes.
template <int Q>
inline void TileDistSq(const BroadcastQuery* query, const TargetBlock& block, __m128 (&sum)[Q][2]) {
  for (int q = 0; q < Q; ++q) sum[q][0] = sum[q][1] = _mm_setzero_ps();
#pragma GCC unroll 11
  for (int c = 0; c < kDescriptorSize; c += 3) {
    for (int h = 0; h < 2; ++h) {
      const __m128 t0 = _mm_load_ps(&block.c[c][4 * h]);
      const __m128 t1 = _mm_load_ps(&block.c[c + 1][4 * h]);
      const __m128 t2 = _mm_load_ps(&block.c[c + 2][4 * h]);
      for (int q = 0; q < Q; ++q) {
        const __m128 d0 = _mm_sub_ps(query[q].c[c], t0);
        const __m128 d1 = _mm_sub_ps(query[q].c[c + 1], t1);
        const __m128 d2 = _mm_sub_ps(query[q].c[c + 2], t2);
        const __m128 group =
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(d0, d0), _mm_mul_ps(d1, d1)), _mm_mul_ps(d2, d2));
        sum[q][h] = _mm_add_ps(sum[q][h], group);
      }
    }
  }
}

// Matches queries first .. first+Q-1 against all blocks. Each lane keeps the first strictly
// smallest distance of its targets, starting from target 0's distance with index 0, so the
// reduction over lanes gives exactly the sequential scan's answer (NaN at target 0 included).
template <int Q, bool kCrossCheck>
void MatchTile(const float* queries,
               int32_t first,
               const std::vector<TargetBlock>& blocks,
               const float* target0,
               ColumnMinima* columns,
               int32_t* bestIndex,
               float* bestDistSq) {
  BroadcastQuery query[Q];
  __m128 laneBest[Q][2];
  __m128i laneIndex[Q][2];
  for (int q = 0; q < Q; ++q) {
    const float* descriptor = queries + static_cast<size_t>(first + q) * kDescriptorSize;
    query[q].load(descriptor);
    laneBest[q][0] = laneBest[q][1] = _mm_set1_ps(DescriptorDistanceSq(descriptor, target0));
    laneIndex[q][0] = laneIndex[q][1] = _mm_setzero_si128();
  }
  __m128i index[2] = {_mm_setr_epi32(0, 1, 2, 3), _mm_setr_epi32(4, 5, 6, 7)};
  const __m128i step = _mm_set1_epi32(kTargetLanes);
  for (size_t b = 0; b < blocks.size(); ++b) {
    __m128 distSq[Q][2];
    TileDistSq<Q>(query, blocks[b], distSq);
    for (int h = 0; h < 2; ++h) {
      for (int q = 0; q < Q; ++q) {
        const __m128 better = _mm_cmplt_ps(distSq[q][h], laneBest[q][h]);
        laneBest[q][h] = Select(better, distSq[q][h], laneBest[q][h]);
        laneIndex[q][h] = Select(better, index[h], laneIndex[q][h]);
      }
      if (kCrossCheck) {
        const size_t t = b * kTargetLanes + 4 * static_cast<size_t>(h);
        __m128 nearest = _mm_loadu_ps(&columns->nearestSq[t]);
        __m128 second = _mm_loadu_ps(&columns->secondSq[t]);
        __m128i nearestQuery =
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(&columns->nearestQuery[t]));
        for (int q = 0; q < Q; ++q) {
          const __m128 d = distSq[q][h];
          const __m128 belowNearest = _mm_cmplt_ps(d, nearest);
          const __m128 belowSecond = _mm_cmplt_ps(d, second);
          second = Select(belowNearest, nearest, Select(belowSecond, d, second));
          nearest = Select(belowNearest, d, nearest);
          nearestQuery = Select(belowNearest, _mm_set1_epi32(first + q), nearestQuery);
        }
        _mm_storeu_ps(&columns->nearestSq[t], nearest);
        _mm_storeu_ps(&columns->secondSq[t], second);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(&columns->nearestQuery[t]), nearestQuery);
      }
      index[h] = _mm_add_epi32(index[h], step);
    }
  }
  for (int q = 0; q < Q; ++q) {
    alignas(16) float lanes[kTargetLanes];
    alignas(16) int32_t indices[kTargetLanes];
    _mm_store_ps(lanes, laneBest[q][0]);
    _mm_store_ps(lanes + 4, laneBest[q][1]);
    _mm_store_si128(reinterpret_cast<__m128i*>(indices), laneIndex[q][0]);
    _mm_store_si128(reinterpret_cast<__m128i*>(indices + 4), laneIndex[q][1]);
    SettleLanes(lanes, indices, first + q, bestIndex, bestDistSq);
  }
}

#endif

#if defined(__x86_64__)
// AVX2 kernel: the same arithmetic as the SSE one, all kTargetLanes lanes in one register, so
// every distance and every choice is bit for bit the SSE kernel's. FMA is left off on purpose: a
// fused multiply-add would round differently from the separate multiply and add.
#define QORV_AVX2_TARGET __attribute__((target("avx2")))

template <int Q, bool kCrossCheck>
QORV_AVX2_TARGET void MatchTileAvx2(const float* queries,
                                    int32_t first,
                                    const std::vector<TargetBlock>& blocks,
                                    const float* target0,
                                    ColumnMinima* columns,
                                    int32_t* bestIndex,
                                    float* bestDistSq) {
  __m256 query[Q][kDescriptorSize];
  __m256 laneBest[Q];
  __m256i laneIndex[Q];
  for (int q = 0; q < Q; ++q) {
    const float* descriptor = queries + static_cast<size_t>(first + q) * kDescriptorSize;
    for (int c = 0; c < kDescriptorSize; ++c) query[q][c] = _mm256_set1_ps(descriptor[c]);
    laneBest[q] = _mm256_set1_ps(DescriptorDistanceSq(descriptor, target0));
    laneIndex[q] = _mm256_setzero_si256();
  }
  __m256i index = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  const __m256i step = _mm256_set1_epi32(kTargetLanes);
  for (size_t b = 0; b < blocks.size(); ++b) {
    const TargetBlock& block = blocks[b];
    __m256 distSq[Q];
    for (int q = 0; q < Q; ++q) distSq[q] = _mm256_setzero_ps();
#pragma GCC unroll 11
    for (int c = 0; c < kDescriptorSize; c += 3) {
      const __m256 t0 = _mm256_load_ps(block.c[c]);
      const __m256 t1 = _mm256_load_ps(block.c[c + 1]);
      const __m256 t2 = _mm256_load_ps(block.c[c + 2]);
      for (int q = 0; q < Q; ++q) {
        const __m256 d0 = _mm256_sub_ps(query[q][c], t0);
        const __m256 d1 = _mm256_sub_ps(query[q][c + 1], t1);
        const __m256 d2 = _mm256_sub_ps(query[q][c + 2], t2);
        const __m256 group = _mm256_add_ps(
            _mm256_add_ps(_mm256_mul_ps(d0, d0), _mm256_mul_ps(d1, d1)), _mm256_mul_ps(d2, d2));
        distSq[q] = _mm256_add_ps(distSq[q], group);
      }
    }
    for (int q = 0; q < Q; ++q) {
      const __m256 better = _mm256_cmp_ps(distSq[q], laneBest[q], _CMP_LT_OQ);
      laneBest[q] = _mm256_blendv_ps(laneBest[q], distSq[q], better);
      laneIndex[q] = _mm256_castps_si256(
          _mm256_blendv_ps(_mm256_castsi256_ps(laneIndex[q]), _mm256_castsi256_ps(index), better));
    }
    if (kCrossCheck) {
      const size_t t = b * kTargetLanes;
      __m256 nearest = _mm256_loadu_ps(&columns->nearestSq[t]);
      __m256 second = _mm256_loadu_ps(&columns->secondSq[t]);
      __m256i nearestQuery =
          _mm256_loadu_si256(reinterpret_cast<const __m256i*>(&columns->nearestQuery[t]));
      for (int q = 0; q < Q; ++q) {
        const __m256 d = distSq[q];
        const __m256 belowNearest = _mm256_cmp_ps(d, nearest, _CMP_LT_OQ);
        const __m256 belowSecond = _mm256_cmp_ps(d, second, _CMP_LT_OQ);
        second = _mm256_blendv_ps(_mm256_blendv_ps(second, d, belowSecond), nearest, belowNearest);
        nearest = _mm256_blendv_ps(nearest, d, belowNearest);
        nearestQuery =
            _mm256_castps_si256(_mm256_blendv_ps(_mm256_castsi256_ps(nearestQuery),
                                                 _mm256_castsi256_ps(_mm256_set1_epi32(first + q)),
                                                 belowNearest));
      }
      _mm256_storeu_ps(&columns->nearestSq[t], nearest);
      _mm256_storeu_ps(&columns->secondSq[t], second);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(&columns->nearestQuery[t]), nearestQuery);
    }
    index = _mm256_add_epi32(index, step);
  }
  for (int q = 0; q < Q; ++q) {
    alignas(32) float lanes[kTargetLanes];
    alignas(32) int32_t indices[kTargetLanes];
    _mm256_store_ps(lanes, laneBest[q]);
    _mm256_store_si256(reinterpret_cast<__m256i*>(indices), laneIndex[q]);
    SettleLanes(lanes, indices, first + q, bestIndex, bestDistSq);
  }
}

bool HasAvx2() {
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
}
#endif

}  // namespace

// Padding lanes hold NaN: their distances compare below nothing and never win.
std::vector<TargetBlock> PackTargets(const float* targets, int32_t count) {
  const size_t blocks = (static_cast<size_t>(count) + kTargetLanes - 1) / kTargetLanes;
  std::vector<TargetBlock> packed(blocks);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (size_t b = 0; b < blocks; ++b) {
    for (int lane = 0; lane < kTargetLanes; ++lane) {
      const size_t t = b * kTargetLanes + static_cast<size_t>(lane);
      const float* src = t < static_cast<size_t>(count) ? targets + t * kDescriptorSize : nullptr;
      for (int c = 0; c < kDescriptorSize; ++c) packed[b].c[c][lane] = src ? src[c] : nan;
    }
  }
  return packed;
}

// The plain scan, one distance at a time.
void MatchQueriesPortable(const float* queries,
                          int32_t begin,
                          int32_t end,
                          const float* targets,
                          int32_t targetCount,
                          ColumnMinima* columns,
                          int32_t* bestIndex,
                          float* bestDistSq) {
  for (int32_t q = begin; q < end; ++q) {
    const float* query = queries + static_cast<size_t>(q) * kDescriptorSize;
    float bestSq = DescriptorDistanceSq(query, targets);
    int32_t best = 0;
    for (int32_t t = 0; t < targetCount; ++t) {
      const float distSq =
          DescriptorDistanceSq(query, targets + static_cast<size_t>(t) * kDescriptorSize);
      if (distSq < bestSq) {
        bestSq = distSq;
        best = t;
      }
      if (columns != nullptr) columns->offer(static_cast<size_t>(t), distSq, q);
    }
    bestIndex[q] = best;
    bestDistSq[q] = bestSq;
  }
}

#if defined(__SSE2__)
void MatchQueriesSse(const float* queries,
                     int32_t begin,
                     int32_t end,
                     const std::vector<TargetBlock>& blocks,
                     const float* targets,
                     ColumnMinima* columns,
                     int32_t* bestIndex,
                     float* bestDistSq,
                     bool wide) {
  int32_t q = begin;
  const auto run = [&](auto crossCheck) {
    constexpr bool kCrossCheck = decltype(crossCheck)::value;
#if defined(__x86_64__)
    if (wide && HasAvx2()) {
      for (; q + kQueryTile <= end; q += kQueryTile) {
        MatchTileAvx2<kQueryTile, kCrossCheck>(
            queries, q, blocks, targets, columns, bestIndex, bestDistSq);
      }
      for (; q < end; ++q) {
        MatchTileAvx2<1, kCrossCheck>(queries, q, blocks, targets, columns, bestIndex, bestDistSq);
      }
      return;
    }
#endif
    for (; q + kQueryTile <= end; q += kQueryTile) {
      MatchTile<kQueryTile, kCrossCheck>(
          queries, q, blocks, targets, columns, bestIndex, bestDistSq);
    }
    for (; q < end; ++q) {
      MatchTile<1, kCrossCheck>(queries, q, blocks, targets, columns, bestIndex, bestDistSq);
    }
  };
  if (columns != nullptr) {
    run(std::true_type{});
  } else {
    run(std::false_type{});
  }
}
#endif

void DescriptorDistancesSq(const float* query,
                           const float* targets,
                           int32_t targetCount,
                           float* distSq) {
  if (targetCount < 1) return;
#if defined(__SSE2__)
  const std::vector<TargetBlock> blocks = PackTargets(targets, targetCount);
  BroadcastQuery broadcast[1];
  broadcast[0].load(query);
  for (size_t b = 0; b < blocks.size(); ++b) {
    __m128 sum[1][2];
    TileDistSq<1>(broadcast, blocks[b], sum);
    alignas(16) float lanes[kTargetLanes];
    _mm_store_ps(lanes, sum[0][0]);
    _mm_store_ps(lanes + 4, sum[0][1]);
    const size_t first = b * kTargetLanes;
    const size_t n = std::min<size_t>(kTargetLanes, static_cast<size_t>(targetCount) - first);
    std::copy_n(lanes, n, distSq + first);
  }
#else
  for (int32_t t = 0; t < targetCount; ++t) {
    distSq[t] = DescriptorDistanceSq(query, targets + static_cast<size_t>(t) * kDescriptorSize);
  }
#endif
}

}  // namespace qorv
