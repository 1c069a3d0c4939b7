// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <cstddef>
#include <cstdint>

#include <qorv/qorv.h>

#include "api/guard.hpp"
#include "api/instance.hpp"
#include "features/depth_maps.hpp"
#include "features/descriptor_layout.hpp"
#include "features/key_pixel_features.hpp"
#include "runtime/log.hpp"

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
    qorv::OrganizedKeyPointParams params;
    params.scoreWindow = scoreWindow;
    params.suppressionWindow = suppressionWindow;
    params.descriptorHalfWindow = descriptorHalfWindow;
    params.histogramWindow = histogramWindow;
    params.ratio21 = ratio21;
    params.ratio32 = ratio32;
    params.maxKeyPoints = maxKeyPoints;
    const qorv::KeyPixelFeatures features = qorv::DetectAndComputeKeyPixels(
        vertexMap, normalMap, mask, width, height, params, qorv::ExecutionOf(*inst));
    if (callback == nullptr) return QORV_OK;
    const size_t keyCount = features.positions.size() / 3;
    const size_t descriptorCount =
        features.descriptors.size() / static_cast<size_t>(qorv::kDescriptorSize);
    if (keyCount != descriptorCount) {
      qorv::LogInfo("Check detect condition, %d-%d",
                    static_cast<int>(keyCount),
                    static_cast<int>(descriptorCount));
    }
    QorvKeyPointResult result;
    result.count = static_cast<int32_t>(keyCount);
    result.reserved = 0;
    result.descriptors = features.descriptors.data();
    result.positions = features.positions.data();
    result.normals = features.normals.data();
    callback(&result, userData);
    return QORV_OK;
  });
}

}  // extern "C"
