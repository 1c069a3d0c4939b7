// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "features/key_pixel_features.hpp"

#include <cstddef>
#include <new>

#include "features/depth_maps.hpp"

namespace qorv {
namespace {

// Beyond this many pixels the internal images (scores, vertex planes, flags, mask, about 22 bytes
// a pixel in all) cannot exist.
constexpr size_t kMaxPixels = static_cast<size_t>(PTRDIFF_MAX) / 16;

}  // namespace

KeyPixelFeatures DetectAndComputeKeyPixels(const float* vertexMap,
                                           const float* normalMap,
                                           const unsigned char* mask,
                                           int32_t width,
                                           int32_t height,
                                           const OrganizedKeyPointParams& params,
                                           const Execution& exec) {
  const size_t pixelCount = static_cast<size_t>(width) * static_cast<size_t>(height);
  if (pixelCount > kMaxPixels) throw std::bad_alloc();
  std::vector<uint8_t> keyFlags(pixelCount, 0);
  std::vector<float> scores(pixelCount);
  std::vector<uint8_t> ownMask(mask == nullptr ? pixelCount : 0);
  if (mask == nullptr) {
    ComputeValidMask({vertexMap, 0, width, height},
                     {normalMap, 0, width, height},
                     {ownMask.data(), 0, width, height});
  }
  const OrganizedMaps maps{
      vertexMap, normalMap, mask != nullptr ? mask : ownMask.data(), width, height};
  DetectKeyPixels(maps, params, exec, keyFlags.data(), scores.data());
  std::vector<float>().swap(scores);

  KeyPixelFeatures out;
  out.descriptors = ComputeKeyPixelDescriptors(
      maps, keyFlags.data(), params.descriptorHalfWindow, params.histogramWindow, exec);
  for (size_t i = 0; i < pixelCount; ++i) {
    if (keyFlags[i] == 0) continue;
    out.positions.insert(out.positions.end(), vertexMap + 3 * i, vertexMap + 3 * i + 3);
    out.normals.insert(out.normals.end(), normalMap + 3 * i, normalMap + 3 * i + 3);
  }
  return out;
}

}  // namespace qorv
