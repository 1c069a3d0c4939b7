// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "features/detect_and_compute.hpp"

#include "features/fpfh_descriptor.hpp"
#include "geometry/gather.hpp"

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
  GatherPoints(normals, out.indices, out.normals);
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
