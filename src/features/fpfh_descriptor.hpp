// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>

#include "features/descriptor_layout.hpp"
#include "runtime/parallel_for.hpp"
#include "search/kd_tree.hpp"

namespace qorv {

// Simplified point feature histogram of point pointIndex of tree.data(), in the descriptor's
// block layout, not normalised: for every other point strictly within sqrt(histogramRadiusSq)
// and at least float epsilon away, the pair features (features/pair_features.hpp) are added with
// weight |1 - b^2| by soft circular binning (the top of each range wraps to bin 0). A feature
// that is NaN (from a NaN normal) is not binned. neighbours is scratch.
void ComputePairHistograms(const PointKdTree& tree,
                           const float* normals,
                           int32_t pointIndex,
                           float histogramRadiusSq,
                           RadiusResult& neighbours,
                           float* histogram);

// Fast point feature histograms (Rusu et al., ICRA 2009, eq. 4 with our weights) of the key
// points keyPointIndices[0 .. keyPointCount) of the cloud tree.data() with normals (3 floats per
// point, unit length expected). Descriptor k, written to descriptors + 33 k, is the sum over the
// neighbours j strictly within featureRadius (coincident points left out) of
// w_j * histogram(j) with w_j = sqrt(scale / (scale + d_j^2)), scale = featureRadius^2 / 9, plus
// the key point's own histogram weighted by W = sum of w_j (1 when there is none); each block is
// then scaled to sum to 100, or set to zeros when its sum is at most float epsilon.
//
// Each needed point histogram is computed once per call and shared by all key points that use it;
// the result is the same bit for bit as recomputing it per key point, and does not depend on exec.
// A NaN normal of a point makes the descriptors that use its histogram NaN.
void ComputeDescriptors(const PointKdTree& tree,
                        const float* normals,
                        const int32_t* keyPointIndices,
                        int32_t keyPointCount,
                        float featureRadius,
                        float histogramRadius,
                        const Execution& exec,
                        float* descriptors);

}  // namespace qorv
