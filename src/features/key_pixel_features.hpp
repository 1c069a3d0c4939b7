// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "features/organized_keypoints.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv {

// Key pixels of a vertex / normal map pair with what registration needs of them, in pixel order.
struct KeyPixelFeatures {
  std::vector<float> positions;    // 3 floats each, the vertex map at the key pixels
  std::vector<float> normals;      // 3 floats each, the normal map at the key pixels
  std::vector<float> descriptors;  // 33 floats each
};

// DetectKeyPixels, then ComputeKeyPixelDescriptors, on width x height maps. A null mask is
// computed from the maps (ComputeValidMask). Every internal image is allocated before a pixel is
// read; maps too large for them throw std::bad_alloc. The result does not depend on exec.
KeyPixelFeatures DetectAndComputeKeyPixels(const float* vertexMap,
                                           const float* normalMap,
                                           const unsigned char* mask,
                                           int32_t width,
                                           int32_t height,
                                           const OrganizedKeyPointParams& params,
                                           const Execution& exec);

}  // namespace qorv
