// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "surface/normal_estimation.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "surface/scatter_eigen.hpp"

namespace qorv {
namespace {

struct alignas(64) NormalScratch {
  RadiusResult neighbours;
};

// Normal of point i from its neighbours (the point itself excluded from the sums); (0, 0, 0) when
// fewer than three points, the point included, lie in the ball or the system is degenerate.
void EstimateOne(
    const PointKdTree& tree, int32_t i, float radiusSq, RadiusResult& neighbours, float* normal) {
  normal[0] = 0.0f;
  normal[1] = 0.0f;
  normal[2] = 0.0f;
  const float* p = tree.element(i);
  neighbours.clear();
  tree.radiusSearch(p, radiusSq, neighbours, false);
  if (neighbours.size() < 3) return;
  Scatter scatter;
  for (const int32_t j : neighbours.indices) {
    if (j == i) continue;
    const float* q = tree.element(j);
    scatter.add(q[0] - p[0], q[1] - p[1], q[2] - p[2]);
  }
  const CubicRoots roots(scatter);
  const float lambda1 = std::fabs(roots.root(0.0f));
  const float lambda3 = std::fabs(roots.root(CubicRoots::kThirdTurn));
  const float lambda = lambda1 <= lambda3 ? lambda1 : lambda3;
  float n[3];
  ZUpEigenvector(scatter, lambda, n);
  if (std::isnan(n[0])) return;
  normal[0] = n[0];
  normal[1] = n[1];
  normal[2] = n[2];
}

}  // namespace

void EstimateNormals(const PointKdTree& tree, float radius, const Execution& exec, float* normals) {
  const int32_t count = static_cast<int32_t>(tree.count());
  const float radiusSq = radius * radius;
  std::vector<NormalScratch> scratch(static_cast<size_t>(exec.slots()));
  RunFor(exec, 0, count, [&](int32_t begin, int32_t end, int32_t threadIndex) {
    RadiusResult& neighbours = scratch[static_cast<size_t>(threadIndex)].neighbours;
    for (int32_t i = begin; i < end; ++i) {
      EstimateOne(tree, i, radiusSq, neighbours, normals + 3 * static_cast<size_t>(i));
    }
  });
}

void ComputeNormals(
    const float* points, int32_t count, float radius, const Execution& exec, float* normals) {
  const PointKdTree tree(points, count, 10, exec);
  EstimateNormals(tree, radius, exec, normals);
}

void ReComputeNormals(
    const float* points, int32_t count, float radius, const Execution& exec, float* normals) {
  // Estimated apart, so that the caller's array is read only for the signs and written once,
  // whatever it shares with the points.
  std::vector<float> fresh(3 * static_cast<size_t>(count));
  {
    const PointKdTree tree(points, count, 10, exec);
    EstimateNormals(tree, radius, exec, fresh.data());
  }
  for (size_t i = 0; i < fresh.size(); i += 3) {
    float* n = &fresh[i];
    if (n[0] * normals[i] + n[1] * normals[i + 1] + n[2] * normals[i + 2] < 0.0f) {
      n[0] = -n[0];
      n[1] = -n[1];
      n[2] = -n[2];
    }
  }
  std::copy(fresh.begin(), fresh.end(), normals);
}

}  // namespace qorv
