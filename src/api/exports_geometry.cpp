// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <array>

#include <qorv/qorv.h>

#include "api/guard.hpp"
#include "api/instance.hpp"
#include "geometry/absolute_orientation.hpp"
#include "geometry/asc_file.hpp"
#include "geometry/pose.hpp"
#include "geometry/rigid_transform.hpp"

extern "C" {

QORV_API QorvResult QorvReadPointsFromASC(QorvInstance* inst,
                                          const char* path,
                                          QorvAscCallback callback,
                                          void* user) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  return qorv::Guarded([&]() -> QorvResult {
    qorv::AscCloud cloud;
    if (!qorv::ReadPointsFromAsc(path, cloud) || cloud.count == 0) return QORV_ERROR_FILE;
    if (callback != nullptr) {
      callback(cloud.points.data(),
               cloud.normals.empty() ? nullptr : cloud.normals.data(),
               cloud.colours.empty() ? nullptr : cloud.colours.data(),
               cloud.count,
               user);
    }
    return QORV_OK;
  });
}

QORV_API QorvResult QorvWritePointsToASC(QorvInstance* inst,
                                         const char* path,
                                         const float* points,
                                         const float* normals,
                                         const unsigned char* colours,
                                         int32_t n) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (points == nullptr || n < 1) return QORV_ERROR_INVALID_ARGUMENT;
  return qorv::Guarded([&]() -> QorvResult {
    return qorv::WritePointsToAsc(path, points, normals, colours, n) ? QORV_OK : QORV_ERROR_FILE;
  });
}

QORV_API QorvResult QorvRotatePoints(QorvInstance* inst,
                                     const double* rotation,
                                     const float* pointsIn,
                                     float* pointsOut,
                                     int32_t n) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (rotation == nullptr || pointsIn == nullptr || pointsOut == nullptr || n < 1) {
    return QORV_ERROR_INVALID_ARGUMENT;
  }
  return qorv::Guarded([&]() -> QorvResult {
    qorv::RotatePoints(rotation, pointsIn, pointsOut, n);
    return QORV_OK;
  });
}

QORV_API QorvResult QorvTransformPoints(QorvInstance* inst,
                                        const double* transform,
                                        const float* pointsIn,
                                        float* pointsOut,
                                        int32_t n) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (transform == nullptr || pointsIn == nullptr || pointsOut == nullptr || n < 1) {
    return QORV_ERROR_INVALID_ARGUMENT;
  }
  return qorv::Guarded([&]() -> QorvResult {
    qorv::TransformPoints(transform, pointsIn, pointsOut, n);
    return QORV_OK;
  });
}

QORV_API QorvResult QorvAbsoluteOrientation(
    QorvInstance* inst, const float* pointsA, const float* pointsB, int32_t n, double* out) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (out == nullptr || pointsB == nullptr || pointsA == nullptr || n < 1) {
    return QORV_ERROR_INVALID_ARGUMENT;
  }
  return qorv::Guarded([&]() -> QorvResult {
    const std::array<float, 12> motion = qorv::AbsoluteOrientation(pointsA, pointsB, n);
    qorv::PoseToMatrix(motion.data(), out);
    return QORV_OK;
  });
}

}  // extern "C"
