// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "surface/outlier_filter.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstring>

namespace qorv {
namespace {

// Search slots of one worker. They persist from point to point on purpose: slots a search does
// not reach keep earlier values, and those values enter the score.
struct alignas(64) KnnScratch {
  std::vector<int32_t> indices;
  std::vector<float> distSq;
  std::vector<int32_t> replayIndices;
  std::vector<float> replayDistSq;
  std::vector<float> roots;
};

// Slots that no search can fill stay zero for the whole call and add nothing to a float sum, and
// the last slot then always holds FLT_MAX: capping the capacity at indexed + 1 changes no score.
size_t Capacity(int32_t meanK, size_t indexed) {
  return std::min(static_cast<size_t>(meanK) + 1, indexed + 1);
}

// The roots are taken all at once (they vectorise, with the same bits), then added in order.
float Score(const float* distSq, size_t capacity, int32_t meanK, float* roots) {
  for (size_t j = 0; j < capacity; ++j) roots[j] = std::sqrt(distSq[j]);
  float sum = 0.0f;
  for (size_t j = 0; j < capacity; ++j) sum += roots[j];
  return sum / static_cast<float>(meanK);
}

// Sorts floats that are not NaN into ascending order: their bits, with the sign bit flipped
// (and every bit of a negative value), order as unsigned integers do. Three passes of 11 bits.
// -0 comes before +0; equal values cannot be told apart otherwise.
void SortScores(std::vector<float>& values) {
  constexpr int kDigitBits = 11;
  constexpr size_t kBuckets = size_t{1} << kDigitBits;
  const size_t n = values.size();
  std::vector<uint32_t> keys(n);
  for (size_t i = 0; i < n; ++i) {
    uint32_t bits = 0;
    std::memcpy(&bits, &values[i], sizeof bits);
    keys[i] = (bits & 0x80000000u) != 0 ? ~bits : bits | 0x80000000u;
  }
  std::vector<size_t> counts(3 * kBuckets, 0);
  for (const uint32_t key : keys) {
    for (int pass = 0; pass < 3; ++pass) {
      ++counts[static_cast<size_t>(pass) * kBuckets +
               ((key >> (pass * kDigitBits)) & (kBuckets - 1))];
    }
  }
  std::vector<uint32_t> buffer(n);
  for (int pass = 0; pass < 3; ++pass) {
    size_t* offsets = counts.data() + static_cast<size_t>(pass) * kBuckets;
    size_t sum = 0;
    for (size_t b = 0; b < kBuckets; ++b) {
      const size_t c = offsets[b];
      offsets[b] = sum;
      sum += c;
    }
    const int shift = pass * kDigitBits;
    for (const uint32_t key : keys) buffer[offsets[(key >> shift) & (kBuckets - 1)]++] = key;
    keys.swap(buffer);
  }
  for (size_t i = 0; i < n; ++i) {
    const uint32_t key = keys[i];
    const uint32_t bits = (key & 0x80000000u) != 0 ? key & 0x7fffffffu : ~key;
    std::memcpy(&values[i], &bits, sizeof bits);
  }
}

// Puts into s.distSq / s.indices the slot contents a single run over 0 .. begin - 1 would leave:
// slot j holds the value written by the latest point whose search found more than j elements.
// Walking back, the first point reached usually fills every slot that matters.
void ReplayBefore(const PointKdTree& tree, int32_t begin, size_t capacity, KnnScratch& s) {
  const size_t wanted = capacity - 1;  // the last slot is reset by every search
  size_t covered = 0;
  for (int32_t p = begin - 1; p >= 0 && covered < wanted; --p) {
    const size_t found =
        tree.knnSearch(tree.element(p), capacity, s.replayIndices.data(), s.replayDistSq.data());
    const size_t reach = std::min(found, wanted);
    for (size_t j = covered; j < reach; ++j) {
      s.indices[j] = s.replayIndices[j];
      s.distSq[j] = s.replayDistSq[j];
    }
    covered = std::max(covered, reach);
  }
}

}  // namespace

std::vector<float> OutlierScores(const PointKdTree& tree, int32_t meanK, const Execution& exec) {
  const int32_t count = static_cast<int32_t>(tree.count());
  const size_t capacity = Capacity(meanK, tree.size());
  std::vector<float> meanDist(static_cast<size_t>(count));
  std::vector<KnnScratch> scratch(static_cast<size_t>(exec.slots()));
  RunFor(exec, 0, count, [&](int32_t begin, int32_t end, int32_t threadIndex) {
    if (begin >= end) return;
    KnnScratch& s = scratch[static_cast<size_t>(threadIndex)];
    s.indices.assign(capacity, 0);
    s.distSq.assign(capacity, 0.0f);
    s.roots.resize(capacity);
    if (begin > 0) {
      s.replayIndices.assign(capacity, 0);
      s.replayDistSq.assign(capacity, 0.0f);
      ReplayBefore(tree, begin, capacity, s);
    }
    for (int32_t i = begin; i < end; ++i) {
      tree.knnSearch(tree.element(i), capacity, s.indices.data(), s.distSq.data());
      meanDist[static_cast<size_t>(i)] = Score(s.distSq.data(), capacity, meanK, s.roots.data());
    }
  });
  return meanDist;
}

std::vector<int32_t> OutlierFilter(const PointKdTree& tree,
                                   int32_t meanK,
                                   float stdMul,
                                   const Execution& exec) {
  std::vector<float> meanDist = OutlierScores(tree, meanK, exec);
  const int64_t count = static_cast<int64_t>(meanDist.size());
  std::vector<int32_t> kept;
  if (count == 0) return kept;

  // Scores are finite: only distances below FLT_MAX enter a result set.
  SortScores(meanDist);
  const int64_t lo = count / 16;
  const int64_t hi = count - lo;
  const auto n = static_cast<double>(hi - lo);
  double sum = 0.0;
  double sumSq = 0.0;
  for (int64_t i = lo; i < hi; ++i) {
    const double v = meanDist[static_cast<size_t>(i)];
    sum += v;
    sumSq += v * v;
  }
  const double mean = sum / n;
  const double variance = (sumSq - mean * sum) / (n - 1.0);
  const auto threshold =
      static_cast<float>(std::sqrt(variance) * static_cast<double>(stdMul) + mean);

  // The flags come from the sorted scores, so the kept positions form a prefix.
  int32_t m = 0;
  for (int64_t p = 0; p < count; ++p) {
    if (threshold > meanDist[static_cast<size_t>(p)]) ++m;
  }
  kept.resize(static_cast<size_t>(m));
  for (int32_t p = 0; p < m; ++p) kept[static_cast<size_t>(p)] = p;
  return kept;
}

std::vector<int32_t> OutlierFilter(
    const float* points, int32_t count, int32_t meanK, float stdMul, const Execution& exec) {
  const PointKdTree tree(points, count, 10, exec);
  return OutlierFilter(tree, meanK, stdMul, exec);
}

}  // namespace qorv
