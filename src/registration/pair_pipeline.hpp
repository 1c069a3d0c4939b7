// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "features/detect_and_compute.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv {

// Every length of the pair pipeline derives from one resolution s.
struct PairPipelineParams {
  // > 0: the iterative matcher from the caller's pose with this initial kernel scale; else RANSAC.
  float kernelScale = 0.0f;
  float resolution = 0.0f;  // s
  int32_t iterations = 0;   // step limit (iterative) or samples drawn (RANSAC)
};

// A cloud after the preparation chain: thinned points and their estimated normals (3 floats each).
struct PreparedCloud {
  std::vector<float> points;
  std::vector<float> normals;

  int32_t count() const { return static_cast<int32_t>(points.size() / 3); }
};

// The preparation chain of one raw cloud: points with a NaN coordinate left out, statistical
// outlier removal (50 neighbours, deviation multiplier 3.4), Gaussian smoothing within s on a
// 64-bit-index tree (sigma = s / 3.46087178201605), voxel thinning with edge s, then normals
// within 2s (all facing +z). A resolution that is not a positive finite number leaves no points.
// The result does not depend on exec.
PreparedCloud PrepareCloud(const float* points,
                           int32_t count,
                           float resolution,
                           const Execution& exec);

// Key points of a prepared cloud as the pipeline detects them: keyPointRadius 2s, nonMaxRadius
// s / 3, ratio21 = ratio32 = 0.01, no cap; descriptors with featureRadius s, histogramRadius 5s.
KeyPointFeatures PipelineKeyPoints(const PreparedCloud& cloud,
                                   float resolution,
                                   const Execution& exec);

// The matching stage: the second set's key points into the first's by descriptor (crossCheck as
// given), then the iterative matcher (kernelScale > 0; distance bound s, transform read as the
// starting pose) or RANSAC (edge ratio 0.995f widened to double, inlier distance s, normal test
// on, worker w seeded with w * 8 + timeSeed). When either set is empty the matcher sees no
// correspondence: RANSAC writes the all-zero matrix, the iterative matcher writes the starting
// pose back (rounded to float). Leaves in matches (one entry per second-set key point, or none
// when a set is empty) the first-set index of every surviving pair, -1 elsewhere, and returns the
// count the matcher reports.
int32_t MatchPipelineKeyPoints(const KeyPointFeatures& first,
                               const KeyPointFeatures& second,
                               const PairPipelineParams& params,
                               bool crossCheck,
                               const Execution& exec,
                               uint32_t timeSeed,
                               double* transform,
                               std::vector<int32_t>& matches);

// The whole pipeline: prepares and describes the second cloud, then the first, and matches them.
int32_t MatchPairPointCloud(const float* points1,
                            int32_t count1,
                            const float* points2,
                            int32_t count2,
                            const PairPipelineParams& params,
                            bool crossCheck,
                            const Execution& exec,
                            uint32_t timeSeed,
                            double* transform,
                            std::vector<int32_t>& matches);

}  // namespace qorv
