// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "surface/outlier_filter.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>

namespace qorv {
namespace {

// Search slots of one worker. They persist from point to point on purpose: slots a search does
// not reach keep earlier values, and those values enter the score.
struct alignas(64) KnnScratch {
  std::vector<int32_t> indices;
  std::vector<float> distSq;
  std::vector<int32_t> replayIndices;
  std::vector<float> replayDistSq;
};

// Slots that no search can fill stay zero for the whole call and add nothing to a float sum, and
// the last slot then always holds FLT_MAX: capping the capacity at indexed + 1 changes no score.
size_t Capacity(int32_t meanK, size_t indexed) {
  return std::min(static_cast<size_t>(meanK) + 1, indexed + 1);
}

float Score(const float* distSq, size_t capacity, int32_t meanK) {
  float sum = 0.0f;
  for (size_t j = 0; j < capacity; ++j) sum += std::sqrt(distSq[j]);
  return sum / static_cast<float>(meanK);
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
    if (begin > 0) {
      s.replayIndices.assign(capacity, 0);
      s.replayDistSq.assign(capacity, 0.0f);
      ReplayBefore(tree, begin, capacity, s);
    }
    for (int32_t i = begin; i < end; ++i) {
      tree.knnSearch(tree.element(i), capacity, s.indices.data(), s.distSq.data());
      meanDist[static_cast<size_t>(i)] = Score(s.distSq.data(), capacity, meanK);
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
  std::sort(meanDist.begin(), meanDist.end());
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
