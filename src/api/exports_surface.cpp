// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <cstdint>
#include <vector>

#include <qorv/qorv.h>

#include "api/guard.hpp"
#include "api/instance.hpp"
#include "surface/edge_filter.hpp"
#include "surface/gaussian_filter.hpp"
#include "surface/normal_estimation.hpp"
#include "surface/outlier_filter.hpp"
#include "surface/voxel_filter.hpp"

namespace {

void Deliver(const std::vector<int32_t>& kept, QorvIndexCallback callback, void* user) {
  callback(kept.data(), static_cast<int32_t>(kept.size()), user);
}

bool Overlap(const float* a, const float* b, int32_t count) {
  const auto lo1 = reinterpret_cast<uintptr_t>(a);
  const auto lo2 = reinterpret_cast<uintptr_t>(b);
  const uintptr_t bytes = static_cast<uintptr_t>(count) * 3 * sizeof(float);
  return lo1 < lo2 + bytes && lo2 < lo1 + bytes;
}

}  // namespace

extern "C" {

// orientNeighbors is accepted for compatibility: normals are oriented towards +z by the
// estimation itself, and no value of it changes the result.
QORV_API QorvResult QorvComputeNormals(QorvInstance* inst,
                                       const float* points,
                                       float* normals,
                                       int32_t count,
                                       int32_t orientNeighbors,
                                       float radius) {
  (void)orientNeighbors;
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (points == nullptr || normals == nullptr || count < 1) return QORV_ERROR_INVALID_ARGUMENT;
  return qorv::Guarded([&] {
    qorv::ComputeNormals(points, count, radius, qorv::ExecutionOf(*inst), normals);
    return QORV_OK;
  });
}

QORV_API QorvResult QorvReComputeNormals(
    QorvInstance* inst, const float* points, float* normals, int32_t n, float radius) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (points == nullptr || normals == nullptr || n < 1 || !(radius > 0.0f)) {
    return QORV_ERROR_INVALID_ARGUMENT;
  }
  return qorv::Guarded([&] {
    qorv::ReComputeNormals(points, n, radius, qorv::ExecutionOf(*inst), normals);
    return QORV_OK;
  });
}

// Always on the calling thread: the multi-thread setting is not consulted.
QORV_API QorvResult QorvVoxelFilter(QorvInstance* inst,
                                    const float* points,
                                    int32_t count,
                                    float leafSize,
                                    QorvIndexCallback callback,
                                    void* user) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (points == nullptr || count < 1) return QORV_ERROR_INVALID_ARGUMENT;
  if (callback == nullptr) return QORV_OK;  // nothing to hand over
  return qorv::Guarded([&] {
    Deliver(qorv::VoxelFilter(points, count, leafSize), callback, user);
    return QORV_OK;
  });
}

QORV_API QorvResult QorvSORFilter(QorvInstance* inst,
                                  const float* points,
                                  int32_t count,
                                  int32_t meanK,
                                  float stdMul,
                                  QorvIndexCallback callback,
                                  void* user) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (points == nullptr || count < 1 || meanK < 1) return QORV_ERROR_INVALID_ARGUMENT;
  if (callback == nullptr) return QORV_OK;
  return qorv::Guarded([&] {
    Deliver(qorv::OutlierFilter(points, count, meanK, stdMul, qorv::ExecutionOf(*inst)),
            callback,
            user);
    return QORV_OK;
  });
}

QORV_API QorvResult QorvEdgeFilter(QorvInstance* inst,
                                   const float* points,
                                   int32_t count,
                                   float radius,
                                   QorvIndexCallback callback,
                                   void* user) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (points == nullptr || count < 1 || !(radius > 0.0f)) return QORV_ERROR_INVALID_ARGUMENT;
  if (callback == nullptr) return QORV_OK;
  return qorv::Guarded([&] {
    Deliver(qorv::EdgeFilter(points, count, radius, qorv::ExecutionOf(*inst)), callback, user);
    return QORV_OK;
  });
}

// Overlapping input and output (the same array included) is refused: the tree indexes the input,
// which must not change while the points are smoothed.
QORV_API QorvResult QorvGaussianFilter(
    QorvInstance* inst, const float* points, float* smoothed, int32_t count, float radius) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (points == nullptr || smoothed == nullptr || count < 1 || Overlap(points, smoothed, count)) {
    return QORV_ERROR_INVALID_ARGUMENT;
  }
  return qorv::Guarded([&] {
    qorv::GaussianFilter(points, count, radius, qorv::ExecutionOf(*inst), smoothed);
    return QORV_OK;
  });
}

}  // extern "C"
