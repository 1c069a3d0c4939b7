// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "surface/edge_filter.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "surface/scatter_eigen.hpp"

namespace qorv {
namespace {

constexpr double kMaxGap = 1.0;  // radians
constexpr double kFullTurn = 6.283185307179586;

struct alignas(64) EdgeScratch {
  RadiusResult neighbours;
  std::vector<double> angles;
  std::vector<int32_t> edges;
};

double DistSqDouble(float dx, float dy, float dz) {
  const auto x = static_cast<double>(dx);
  const auto y = static_cast<double>(dy);
  const auto z = static_cast<double>(dz);
  return x * x + y * y + z * z;
}

// Ascending, NaN last: a total order, so sorting stays well defined for degenerate input.
bool AngleBefore(double l, double r) { return l < r || (!std::isnan(l) && std::isnan(r)); }

bool IsEdge(const PointKdTree& tree, int32_t i, float radiusSq, EdgeScratch& s) {
  const float* p = tree.element(i);
  const float nearLimit = radiusSq / 100.0f;
  s.neighbours.clear();
  tree.radiusSearch(p, radiusSq, s.neighbours, false);

  Scatter scatter;
  int32_t farCount = 0;
  for (const int32_t j : s.neighbours.indices) {
    const float* q = tree.element(j);
    const float dx = q[0] - p[0];
    const float dy = q[1] - p[1];
    const float dz = q[2] - p[2];
    scatter.add(dx, dy, dz);
    if (DistSqDouble(dx, dy, dz) > nearLimit) ++farCount;
  }
  if (farCount <= 1) return false;

  // The two largest eigenvalues span the tangent plane.
  const CubicRoots roots(scatter);
  const float ev0 = roots.root(0.0f);
  const float ev2 = roots.root(CubicRoots::kThirdTurn);
  const float ev1 = roots.root(CubicRoots::kTwoThirdsTurn);
  float larger = ev0 >= ev1 ? ev0 : ev1;
  float smaller = ev0 >= ev1 ? ev1 : ev0;
  if (ev2 > smaller) smaller = ev2;
  const float lambda1 = larger >= smaller ? larger : smaller;
  const float lambda2 = larger >= smaller ? smaller : larger;
  float e1[3];
  float e2[3];
  ZUpEigenvector(scatter, lambda1, e1);
  ZUpEigenvector(scatter, lambda2, e2);
  if (std::isnan(e1[0]) || std::isnan(e2[0])) return false;

  s.angles.clear();
  for (const int32_t j : s.neighbours.indices) {
    const float* q = tree.element(j);
    const float dx = q[0] - p[0];
    const float dy = q[1] - p[1];
    const float dz = q[2] - p[2];
    if (!(DistSqDouble(dx, dy, dz) > nearLimit)) continue;
    const float along1 = dx * e1[0] + dy * e1[1] + dz * e1[2];
    const float along2 = dx * e2[0] + dy * e2[1] + dz * e2[2];
    s.angles.push_back(static_cast<double>(std::atan2(along1, along2)));
  }
  // A lambda rather than the function's address lets the comparison be inlined into the sort.
  std::sort(s.angles.begin(), s.angles.end(), [](double l, double r) { return AngleBefore(l, r); });

  double gap = 0.0;
  for (size_t k = 1; k < s.angles.size(); ++k) {
    const double step = s.angles[k] - s.angles[k - 1];
    if (step > gap) gap = step;
  }
  const double wrap = kFullTurn - s.angles.back() + s.angles.front();
  const double widest = wrap > gap ? wrap : gap;
  return widest > kMaxGap;
}

}  // namespace

std::vector<int32_t> EdgeFilter(const PointKdTree& tree, float radius, const Execution& exec) {
  const int32_t count = static_cast<int32_t>(tree.count());
  const float radiusSq = radius * radius;
  std::vector<EdgeScratch> scratch(static_cast<size_t>(exec.slots()));
  RunFor(exec, 0, count, [&](int32_t begin, int32_t end, int32_t threadIndex) {
    EdgeScratch& s = scratch[static_cast<size_t>(threadIndex)];
    for (int32_t i = begin; i < end; ++i) {
      if (IsEdge(tree, i, radiusSq, s)) s.edges.push_back(i);
    }
  });
  // Workers own contiguous ascending ranges in slot order: concatenation keeps ascending order.
  size_t total = 0;
  for (const EdgeScratch& s : scratch) total += s.edges.size();
  std::vector<int32_t> edges;
  edges.reserve(total);
  for (const EdgeScratch& s : scratch) edges.insert(edges.end(), s.edges.begin(), s.edges.end());
  return edges;
}

std::vector<int32_t> EdgeFilter(const float* points,
                                int32_t count,
                                float radius,
                                const Execution& exec) {
  const PointKdTree tree(points, count, 10, exec);
  return EdgeFilter(tree, radius, exec);
}

}  // namespace qorv
