// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <qorv/qorv.h>

#include "api/guard.hpp"
#include "api/instance.hpp"
#include "features/detect_and_compute.hpp"

extern "C" {

QORV_API QorvResult QorvDetectAndCompute(QorvInstance* inst,
                                         const float* points,
                                         const float* normals,
                                         int32_t pointCount,
                                         float keyPointRadius,
                                         float nonMaxRadius,
                                         float featureRadius,
                                         float histogramRadius,
                                         float ratio21,
                                         float ratio32,
                                         int32_t maxKeyPoints,
                                         QorvKeyPointCallback callback,
                                         void* userData) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (points == nullptr || normals == nullptr || pointCount < 1) return QORV_ERROR_INVALID_ARGUMENT;
  return qorv::Guarded([&]() -> QorvResult {
    const qorv::PointKdTree tree(points, pointCount, 10, qorv::ExecutionOf(*inst));
    const qorv::KeyPointParams params{keyPointRadius, nonMaxRadius, ratio21, ratio32, maxKeyPoints};
    const qorv::KeyPointFeatures features = qorv::DetectAndCompute(
        tree, normals, params, featureRadius, histogramRadius, qorv::ExecutionOf(*inst));
    if (callback != nullptr) {
      const QorvKeyPointResult result{features.count(),
                                      0,
                                      features.descriptors.data(),
                                      features.positions.data(),
                                      features.normals.data()};
      callback(&result, userData);
    }
    return QORV_OK;
  });
}

}  // extern "C"
