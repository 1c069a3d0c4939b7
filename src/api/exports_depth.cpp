// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include <qorv/qorv.h>

#include "api/guard.hpp"
#include "api/instance.hpp"
#include "runtime/log.hpp"
#include "features/depth_maps.hpp"
#include "features/organized_keypoints.hpp"

namespace {

// Beyond this many pixels the internal images (scores, vertex planes, flags, mask, about 22 bytes
// a pixel in all) cannot exist; such a call reports an allocation failure before reading a pixel.
constexpr size_t kMaxPixels = static_cast<size_t>(PTRDIFF_MAX) / 16;

}  // namespace

extern "C" {

QORV_API QorvResult QorvDepthToVmapNmap(QorvInstance* inst,
                                        const double* cameraMatrix,
                                        const float* depth,
                                        float* vertexMap,
                                        float* normalMap,
                                        unsigned char* mask,
                                        int32_t width,
                                        int32_t height) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (cameraMatrix == nullptr || depth == nullptr || vertexMap == nullptr || width < 1 ||
      height < 1) {
    return QORV_ERROR_INVALID_ARGUMENT;
  }
  return qorv::Guarded([&] {
    qorv::Intrinsics intrinsics;
    intrinsics.fx = static_cast<float>(cameraMatrix[0]);
    intrinsics.fy = static_cast<float>(cameraMatrix[4]);
    intrinsics.cx = static_cast<float>(cameraMatrix[2]);
    intrinsics.cy = static_cast<float>(cameraMatrix[5]);
    const qorv::ImageView<float, 3> vertices{vertexMap, 0, width, height};
    const qorv::ImageView<float, 3> normals{normalMap, 0, width, height};
    qorv::DepthToVertexMap({depth, 0, width, height}, intrinsics, vertices);
    if (normalMap != nullptr) qorv::VertexToNormalMap({vertexMap, 0, width, height}, normals);
    if (mask != nullptr) {
      qorv::ComputeValidMask(
          {vertexMap, 0, width, height}, {normalMap, 0, width, height}, {mask, 0, width, height});
    }
    return QORV_OK;
  });
}

QORV_API QorvResult QorvDetectAndComputeVmapNmap(QorvInstance* inst,
                                                 const float* vertexMap,
                                                 const float* normalMap,
                                                 const unsigned char* mask,
                                                 int32_t width,
                                                 int32_t height,
                                                 int32_t scoreWindow,
                                                 int32_t suppressionWindow,
                                                 int32_t descriptorHalfWindow,
                                                 int32_t histogramWindow,
                                                 float ratio21,
                                                 float ratio32,
                                                 int32_t maxKeyPoints,
                                                 QorvKeyPointCallback callback,
                                                 void* userData) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (vertexMap == nullptr || normalMap == nullptr || width < 1 || height < 1) {
    return QORV_ERROR_INVALID_ARGUMENT;
  }
  return qorv::Guarded([&] {
    const size_t pixelCount = static_cast<size_t>(width) * static_cast<size_t>(height);
    if (pixelCount > kMaxPixels) throw std::bad_alloc();
    // Every image is allocated before the maps are read.
    std::vector<uint8_t> keyFlags(pixelCount, 0);
    std::vector<float> scores(pixelCount);
    std::vector<uint8_t> ownMask(mask == nullptr ? pixelCount : 0);
    if (mask == nullptr) {
      qorv::ComputeValidMask({vertexMap, 0, width, height},
                             {normalMap, 0, width, height},
                             {ownMask.data(), 0, width, height});
    }
    const qorv::OrganizedMaps maps{
        vertexMap, normalMap, mask != nullptr ? mask : ownMask.data(), width, height};
    qorv::OrganizedKeyPointParams params;
    params.scoreWindow = scoreWindow;
    params.suppressionWindow = suppressionWindow;
    params.descriptorHalfWindow = descriptorHalfWindow;
    params.histogramWindow = histogramWindow;
    params.ratio21 = ratio21;
    params.ratio32 = ratio32;
    params.maxKeyPoints = maxKeyPoints;
    const qorv::Execution exec = qorv::ExecutionOf(*inst);
    qorv::DetectKeyPixels(maps, params, exec, keyFlags.data(), scores.data());
    std::vector<float>().swap(scores);
    const std::vector<float> descriptors = qorv::ComputeKeyPixelDescriptors(
        maps, keyFlags.data(), descriptorHalfWindow, histogramWindow, exec);
    if (callback == nullptr) return QORV_OK;

    std::vector<float> positions;
    std::vector<float> normals;
    for (size_t i = 0; i < pixelCount; ++i) {
      if (keyFlags[i] == 0) continue;
      positions.insert(positions.end(), vertexMap + 3 * i, vertexMap + 3 * i + 3);
      normals.insert(normals.end(), normalMap + 3 * i, normalMap + 3 * i + 3);
    }
    const size_t keyCount = positions.size() / 3;
    const size_t descriptorCount = descriptors.size() / 33;
    if (keyCount != descriptorCount) {
      qorv::LogInfo("Check detect condition, %d-%d",
                    static_cast<int>(keyCount),
                    static_cast<int>(descriptorCount));
    }
    QorvKeyPointResult result;
    result.count = static_cast<int32_t>(keyCount);
    result.reserved = 0;
    result.descriptors = descriptors.data();
    result.positions = positions.data();
    result.normals = normals.data();
    callback(&result, userData);
    return QORV_OK;
  });
}

}  // extern "C"
