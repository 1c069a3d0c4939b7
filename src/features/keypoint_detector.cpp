// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "features/keypoint_detector.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

#include "geometry/gather.hpp"
#include "geometry/vec3.hpp"
#include "surface/scatter_eigen.hpp"

namespace qorv {
namespace {

struct alignas(64) DetectorScratch {
  RadiusResult neighbours;
  std::vector<int32_t> indices;  // candidates of this worker, ascending
  std::vector<float> scores;     // lambda3 of each candidate
};

// Scores the points [begin, end) and appends the candidates to the worker's lists.
void ScoreRange(const PointKdTree& tree,
                const KeyPointParams& params,
                int32_t begin,
                int32_t end,
                DetectorScratch& s) {
  const float* points = tree.data();
  const float radiusSq = params.keyPointRadius * params.keyPointRadius;
  // Neighbours beyond a tenth of the radius lose weight: w = sqrt(scale / (scale + d^2)).
  const float weightScale = radiusSq / 100.0f;
  for (int32_t i = begin; i < end; ++i) {
    const float* p = points + static_cast<size_t>(i) * 3;
    if (HasNaN(p)) continue;  // such a point is not in the tree and would find nothing
    s.neighbours.clear();
    tree.radiusSearch(p, radiusSq, s.neighbours, false);
    if (s.neighbours.size() <= 8) continue;

    // Scatter about the point itself, not the centroid, and not divided by the count.
    float c00 = 0.0f, c11 = 0.0f, c22 = 0.0f, c01 = 0.0f, c02 = 0.0f, c12 = 0.0f;
    for (size_t n = 0; n < s.neighbours.size(); ++n) {
      const int32_t j = s.neighbours.indices[n];
      if (j == i) continue;
      const float w = std::sqrt(weightScale / (weightScale + s.neighbours.distSq[n]));
      const float* q = points + static_cast<size_t>(j) * 3;
      const float v0 = w * (q[0] - p[0]);
      const float v1 = w * (q[1] - p[1]);
      const float v2 = w * (q[2] - p[2]);
      c00 += v0 * v0;
      c11 += v1 * v1;
      c22 += v2 * v2;
      c01 += v0 * v1;
      c02 += v0 * v2;
      c12 += v1 * v2;
    }
    const ScatterEigenvalues e = ComputeScatterEigenvalues(c00, c11, c22, c01, c02, c12);
    // A NaN from a degenerate neighbourhood fails every test below.
    if (std::signbit(e.e0) != std::signbit(e.e1)) continue;
    const bool firstLarger = std::fabs(e.e0) >= std::fabs(e.e1);
    const float lambda1 = firstLarger ? e.e0 : e.e1;
    const float lambda3 = firstLarger ? e.e1 : e.e0;
    const float lambda2 = e.e2;
    if (lambda2 / lambda1 < params.ratio21 && lambda3 / lambda2 < params.ratio32) {
      s.indices.push_back(i);
      s.scores.push_back(lambda3);
    }
  }
}

// Clears keep[k] when a candidate strictly within the radius has a strictly greater score.
void SuppressNonMaxima(const std::vector<float>& positions,
                       const std::vector<float>& scores,
                       float nonMaxRadius,
                       const Execution& exec,
                       std::vector<uint8_t>& keep) {
  const int32_t count = static_cast<int32_t>(scores.size());
  const PointKdTree candidateTree(positions.data(), count, 10, exec);
  const float radiusSq = static_cast<float>(static_cast<double>(nonMaxRadius) * nonMaxRadius);
  keep.assign(scores.size(), 1);
  std::vector<DetectorScratch> scratch(static_cast<size_t>(exec.slots()));
  RunFor(exec, 0, count, [&](int32_t begin, int32_t end, int32_t threadIndex) {
    RadiusResult& found = scratch[static_cast<size_t>(threadIndex)].neighbours;
    for (int32_t k = begin; k < end; ++k) {
      found.clear();
      candidateTree.radiusSearch(
          positions.data() + static_cast<size_t>(k) * 3, radiusSq, found, false);
      for (const int32_t m : found.indices) {
        if (m != k && scores[static_cast<size_t>(m)] > scores[static_cast<size_t>(k)]) {
          keep[static_cast<size_t>(k)] = 0;
          break;
        }
      }
    }
  });
}

}  // namespace

void RankByScore(std::vector<int32_t>& indices, std::vector<float>& scores) {
  const size_t n = scores.size();
  if (n < 2) return;
  size_t minPos = 0;
  for (size_t i = 1; i < n; ++i) {
    if (scores[i] < scores[minPos]) minPos = i;
  }
  std::swap(scores[0], scores[minPos]);
  std::swap(indices[0], indices[minPos]);
  // After the sentinel swap the insertion sort is a stable ascending sort; reversed, that is a
  // descending sort with equal scores in descending position, which a position tie-break makes
  // a strict order for std::sort.
  std::vector<uint32_t> order(n);
  std::iota(order.begin(), order.end(), 0u);
  std::sort(order.begin(), order.end(), [&scores](uint32_t a, uint32_t b) {
    return scores[a] > scores[b] || (scores[a] == scores[b] && a > b);
  });
  std::vector<int32_t> rankedIndices(n);
  std::vector<float> rankedScores(n);
  for (size_t k = 0; k < n; ++k) {
    rankedIndices[k] = indices[order[k]];
    rankedScores[k] = scores[order[k]];
  }
  indices.swap(rankedIndices);
  scores.swap(rankedScores);
}

void DetectKeyPoints(const PointKdTree& tree,
                     const KeyPointParams& params,
                     const Execution& exec,
                     std::vector<int32_t>& indices,
                     std::vector<float>& positions) {
  indices.clear();
  positions.clear();
  if (tree.empty()) return;
  const int32_t pointCount = static_cast<int32_t>(tree.count());

  std::vector<DetectorScratch> scratch(static_cast<size_t>(exec.slots()));
  RunFor(exec, 0, pointCount, [&](int32_t begin, int32_t end, int32_t threadIndex) {
    ScoreRange(tree, params, begin, end, scratch[static_cast<size_t>(threadIndex)]);
  });
  // Chunks are contiguous and in worker order: concatenation keeps indices ascending.
  std::vector<float> scores;
  for (const DetectorScratch& s : scratch) {
    indices.insert(indices.end(), s.indices.begin(), s.indices.end());
    scores.insert(scores.end(), s.scores.begin(), s.scores.end());
  }
  scratch.clear();

  if (params.maxKeyPoints >= 1) RankByScore(indices, scores);
  GatherPoints(tree.data(), indices, positions);

  if (!indices.empty() && params.nonMaxRadius > 0.0f) {
    std::vector<uint8_t> keep;
    SuppressNonMaxima(positions, scores, params.nonMaxRadius, exec, keep);
    size_t kept = 0;
    for (size_t k = 0; k < indices.size(); ++k) {
      if (keep[k] != 0) indices[kept++] = indices[k];
    }
    indices.resize(kept);
  }
  if (params.maxKeyPoints >= 1 && indices.size() > static_cast<size_t>(params.maxKeyPoints)) {
    indices.resize(static_cast<size_t>(params.maxKeyPoints));
  }
  GatherPoints(tree.data(), indices, positions);
}

}  // namespace qorv
