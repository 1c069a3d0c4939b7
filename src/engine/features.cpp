// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/features.hpp"

#include <cmath>
#include <numeric>

#include "features/fpfh_descriptor.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv::engine {

Features DescribePoints(const PointKdTree& tree,
                        const Cloud& cloud,
                        float featureRadius,
                        float histogramRadius) {
  const int32_t n = cloud.size();
  Features out;
  out.descriptors.assign(static_cast<size_t>(n) * kDescriptorSize, 0.0f);
  out.valid.assign(static_cast<size_t>(n), 0);
  if (n == 0) return out;
  std::vector<int32_t> all(static_cast<size_t>(n));
  std::iota(all.begin(), all.end(), 0);
  Execution exec;
  exec.multiThread = MaxThreads() > 1;
  ComputeDescriptors(tree,
                     cloud.normals.data(),
                     all.data(),
                     n,
                     featureRadius,
                     histogramRadius,
                     exec,
                     out.descriptors.data());
  for (int32_t i = 0; i < n; ++i) {
    const float* d = out.descriptors.data() + static_cast<size_t>(i) * kDescriptorSize;
    bool ok = cloud.normals.col(i).squaredNorm() > 0.5f;
    for (int b = 0; b < 3 && ok; ++b) {
      float sum = 0.0f;
      for (int k = 0; k < kHistogramBins; ++k) sum += d[b * kHistogramBins + k];
      ok = std::isfinite(sum) && sum > 1.0f;
    }
    out.valid[static_cast<size_t>(i)] = ok ? 1 : 0;
  }
  return out;
}

}  // namespace qorv::engine
