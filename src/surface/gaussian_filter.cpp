// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "surface/gaussian_filter.hpp"

#include <cmath>
#include <cstddef>
#include <vector>

namespace qorv {
namespace {

constexpr double kRadiusPerSigma = 3.46087178201605;
constexpr double kInvSqrtTwoPi = 0.3989422804014327;

struct alignas(64) GaussianScratch {
  RadiusResult neighbours;
};

template <typename Tree>
void Smooth(const Tree& tree, float radius, const Execution& exec, float* smoothed) {
  const int32_t count = static_cast<int32_t>(tree.count());
  const double sigma = static_cast<double>(radius) / kRadiusPerSigma;
  const float radiusSq = radius * radius;
  // The amplitude cancels in the ratio but sets the rounding of the weights.
  const auto amplitude = static_cast<float>(kInvSqrtTwoPi / sigma);
  const auto denominator = static_cast<float>(sigma * -2.0 * sigma);
  const float* points = tree.data();
  std::vector<GaussianScratch> scratch(static_cast<size_t>(exec.slots()));
  RunFor(exec, 0, count, [&](int32_t begin, int32_t end, int32_t threadIndex) {
    RadiusResult& neighbours = scratch[static_cast<size_t>(threadIndex)].neighbours;
    for (int32_t i = begin; i < end; ++i) {
      const float* p = points + 3 * static_cast<size_t>(i);
      neighbours.clear();
      tree.radiusSearch(p, radiusSq, neighbours, false);
      float sumX = 0.0f;
      float sumY = 0.0f;
      float sumZ = 0.0f;
      float sumW = 0.0f;
      for (size_t k = 0; k < neighbours.size(); ++k) {
        const float* q = points + 3 * static_cast<size_t>(neighbours.indices[k]);
        const float w = std::exp(neighbours.distSq[k] / denominator) * amplitude;
        sumX += w * q[0];
        sumY += w * q[1];
        sumZ += w * q[2];
        sumW += w;
      }
      float* out = smoothed + 3 * static_cast<size_t>(i);
      out[0] = sumX / sumW;
      out[1] = sumY / sumW;
      out[2] = sumZ / sumW;
    }
  });
}

}  // namespace

void GaussianFilter(const PointKdTree& tree, float radius, const Execution& exec, float* smoothed) {
  Smooth(tree, radius, exec, smoothed);
}

void GaussianFilter(const PointKdTree64& tree,
                    float radius,
                    const Execution& exec,
                    float* smoothed) {
  Smooth(tree, radius, exec, smoothed);
}

void GaussianFilter(
    const float* points, int32_t count, float radius, const Execution& exec, float* smoothed) {
  const PointKdTree tree(points, count, 10, exec);
  Smooth(tree, radius, exec, smoothed);
}

}  // namespace qorv
