// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "runtime/parallel_for.hpp"

namespace qorv {

// An organized cloud: width x height pixels in packed rows, pixel index row * width + column.
struct OrganizedMaps {
  const float* vertices = nullptr;  // 3 floats a pixel
  const float* normals = nullptr;   // 3 floats a pixel
  const uint8_t* mask = nullptr;    // 1 byte a pixel, non-zero for a valid pixel
  int32_t width = 0;
  int32_t height = 0;

  size_t pixelCount() const { return static_cast<size_t>(width) * static_cast<size_t>(height); }
};

// Window sizes are in pixels; a window of half-size h spans (2h + 1) x (2h + 1) pixels.
struct OrganizedKeyPointParams {
  int32_t scoreWindow = 0;           // half-window scoreWindow >> 1; also the least usable pixels
  int32_t suppressionWindow = 0;     // half-window suppressionWindow / 2
  int32_t descriptorHalfWindow = 0;  // used as it is
  int32_t histogramWindow = 0;       // half-window histogramWindow / 2
  float ratio21 = 0.0f;              // upper bound (strict) of lambda2 / lambda1
  float ratio32 = 0.0f;              // upper bound (strict) of lambda3 / lambda2
  int32_t maxKeyPoints = 0;          // >= 1: keep at most this many, the best scores
};

// Eigenvalue-ratio key pixels (Zhong, "Intrinsic shape signatures", ICCV workshops 2009, on pixel
// windows). The score of a valid pixel p at least h = scoreWindow >> 1 from every image edge is
// the smallest eigenvalue lambda3 of sum u u^T over the unit directions u from p to the valid
// window pixels farther than float epsilon, provided there are at least scoreWindow of them, the
// first two eigenvalues of the closed form share their sign bit and lambda2 / lambda1 < ratio21,
// lambda3 / lambda2 < ratio32; every other pixel scores NaN. A NaN vertex valid in the mask makes
// every score whose window holds it NaN.
//
// A scored pixel at least suppressionWindow / 2 from the edges is flagged 255 unless a pixel of its
// suppression window scores strictly more (equal scores both survive). With maxKeyPoints >= 1 only
// the maxKeyPoints best flags stay, ties going to the lower pixel index, so the result is
// deterministic. Windows below 2 pixels, or wider than the image, give no key pixel.
//
// keyFlags and scores are caller images of maps.pixelCount() bytes and floats, overwritten. The
// result does not depend on exec.
void DetectKeyPixels(const OrganizedMaps& maps,
                     const OrganizedKeyPointParams& params,
                     const Execution& exec,
                     uint8_t* keyFlags,
                     float* scores);

// One 33-float descriptor per flagged pixel, in pixel order. For a key pixel p at least
// h = descriptorHalfWindow from every image edge, each valid pixel q of its window adds its pixel
// histogram (ComputePixelHistogram) weighted by 1 / sqrt(vertex(q) . vertex(p)): almost the same
// weight for the whole window (about 1 / depth), a little more for the nearer side of a depth
// edge. Pixels where the dot product's root is below float epsilon, negative or NaN are left out.
// Each 11-bin block is then scaled to sum 100, or zeroed when its sum is at most float epsilon.
// Key pixels closer to the edge get 33 zeros, so that descriptor k always belongs to the k-th key
// pixel. Each needed pixel histogram is computed once; the result does not depend on exec.
std::vector<float> ComputeKeyPixelDescriptors(const OrganizedMaps& maps,
                                              const uint8_t* keyFlags,
                                              int32_t descriptorHalfWindow,
                                              int32_t histogramWindow,
                                              const Execution& exec);

// Hard-binned pair-feature counts of pixel (row, col) against the valid pixels of its window of
// half-size histogramWindow / 2 (clipped to the image) that lie at least float epsilon from it, in
// the descriptor layout: counts[0..10] angle theta, [11..21] spread alpha, [22..32] direction phi.
// Bins: truncation of phi * 5.5 + 5.5 (alpha alike) and of theta * 5.5 / pi + 5.5, clamped to
// 0..10; a NaN feature (NaN normal) counts in bin 0.
void ComputePixelHistogram(
    const OrganizedMaps& maps, int32_t row, int32_t col, int32_t histogramWindow, int32_t* counts);

}  // namespace qorv
