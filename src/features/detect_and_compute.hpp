// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "features/keypoint_detector.hpp"
#include "runtime/parallel_for.hpp"
#include "search/kd_tree.hpp"

namespace qorv {

// Key points of one cloud with what registration needs of them, all in key-point order.
struct KeyPointFeatures {
  std::vector<int32_t> indices;    // positions in the cloud
  std::vector<float> positions;    // 3 floats each
  std::vector<float> normals;      // 3 floats each, the cloud's normals at the key points
  std::vector<float> descriptors;  // 33 floats each (features/fpfh_descriptor.hpp)

  int32_t count() const { return static_cast<int32_t>(indices.size()); }
};

// DetectKeyPoints on the cloud indexed by tree, then the descriptors of the key points with
// featureRadius and histogramRadius. normals holds 3 floats for every point of tree.data().
// The result does not depend on exec; the tree must belong to the calling thread.
KeyPointFeatures DetectAndCompute(const PointKdTree& tree,
                                  const float* normals,
                                  const KeyPointParams& params,
                                  float featureRadius,
                                  float histogramRadius,
                                  const Execution& exec);

}  // namespace qorv
