// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/distance_check.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

#include "geometry/vec3.hpp"
#include "runtime/log.hpp"
#include "search/kd_tree.hpp"

namespace qorv {
namespace {

struct Scratch {
  std::vector<int32_t> indices;
  std::vector<float> distSq;
};

}  // namespace

float CheckDistance(const float* points, int32_t count, int32_t k, const Execution& exec) {
  const PointKdTree tree(points, count, 10);
  const size_t n = static_cast<size_t>(count);
  const size_t width = static_cast<size_t>(k);
  // The value read is the k-th slot, which keeps FLT_MAX unless k points are found: with fewer
  // than k points indexed that is certain, so no search (and no k-slot scratch) is needed.
  std::vector<float> values(n, FLT_MAX);
  if (width <= tree.size()) {
    std::vector<Scratch> scratch(static_cast<size_t>(exec.slots()));
    RunFor(exec, 0, count, [&](int32_t begin, int32_t end, int32_t slot) {
      Scratch& s = scratch[static_cast<size_t>(slot)];
      s.indices.resize(width);
      s.distSq.resize(width);
      for (int32_t i = begin; i < end; ++i) {
        const float* query = points + 3 * static_cast<size_t>(i);
        if (HasNaN(query)) continue;  // no distance compares below NaN: FLT_MAX stays
        tree.knnSearch(query, width, s.indices.data(), s.distSq.data());
        values[static_cast<size_t>(i)] = s.distSq[width - 1];
      }
    });
  }

  const int64_t lo = count >> 3;
  const int64_t hi = count - lo;
  LogInfo("checkDistance: %lld-%lld", static_cast<long long>(lo), static_cast<long long>(hi));
  std::sort(values.begin(), values.end());
  double sum = 0.0;
  for (int64_t i = lo; i < hi; ++i)
    sum += static_cast<double>(std::sqrt(values[static_cast<size_t>(i)]));
  return static_cast<float>(sum / static_cast<double>(hi - lo));
}

}  // namespace qorv
