// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "features/detect_and_compute.hpp"

#include <algorithm>

#include "features/fpfh_descriptor.hpp"

namespace qorv {

KeyPointFeatures DetectAndCompute(const PointKdTree& tree,
                                  const float* normals,
                                  const KeyPointParams& params,
                                  float featureRadius,
                                  float histogramRadius,
                                  const Execution& exec) {
  KeyPointFeatures out;
  DetectKeyPoints(tree, params, exec, out.indices, out.positions);
  const size_t count = out.indices.size();
  out.normals.resize(count * 3);
  for (size_t k = 0; k < count; ++k) {
    const float* n = normals + static_cast<size_t>(out.indices[k]) * 3;
    std::copy(n, n + 3, out.normals.begin() + static_cast<std::ptrdiff_t>(k * 3));
  }
  out.descriptors.assign(count * kDescriptorSize, 0.0f);
  ComputeDescriptors(tree,
                     normals,
                     out.indices.data(),
                     out.count(),
                     featureRadius,
                     histogramRadius,
                     exec,
                     out.descriptors.data());
  return out;
}

}  // namespace qorv
