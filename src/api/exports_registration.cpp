// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <ctime>
#include <vector>

#include <qorv/qorv.h>

#include "api/guard.hpp"
#include "api/instance.hpp"
#include "api/match_delivery.hpp"
#include "registration/correspondences.hpp"
#include "registration/descriptor_matching.hpp"
#include "registration/distance_check.hpp"
#include "registration/iterative_matching.hpp"
#include "registration/ransac_matching.hpp"

extern "C" {

QORV_API QorvResult QorvMatchDescriptor(QorvInstance* inst,
                                        const float* targetDescriptors,
                                        int32_t targetCount,
                                        const float* queryDescriptors,
                                        int32_t* matchIndices,
                                        float* matchDistances,
                                        int32_t k,
                                        int32_t queryCount) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (targetDescriptors == nullptr || targetCount < 1 || queryDescriptors == nullptr ||
      matchIndices == nullptr || k < 1 || queryCount < 1) {
    return QORV_ERROR_INVALID_ARGUMENT;
  }
  const qorv::Execution exec = qorv::ExecutionOf(*inst);
  const bool crossCheck = inst->crossCheck;
  return qorv::Guarded([&] {
    if (k == 1) {
      qorv::MatchDescriptorsExhaustive(targetDescriptors,
                                       targetCount,
                                       queryDescriptors,
                                       queryCount,
                                       crossCheck,
                                       exec,
                                       matchIndices,
                                       matchDistances);
    } else {
      qorv::MatchDescriptorsKnn(targetDescriptors,
                                targetCount,
                                queryDescriptors,
                                queryCount,
                                k,
                                exec,
                                matchIndices,
                                matchDistances);
    }
    return QORV_OK;
  });
}

QORV_API QorvResult QorvRansacMatchKeyPoints(QorvInstance* inst,
                                             const float* points1,
                                             const float* normals1,
                                             const float* descriptors1,
                                             int32_t count1,
                                             const float* points2,
                                             const float* normals2,
                                             const float* descriptors2,
                                             int32_t count2,
                                             double* transform,
                                             int32_t iterations,
                                             float edgeRatio,
                                             float inlierDistance,
                                             QorvMatchCallback callback,
                                             void* userData) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (points1 == nullptr || descriptors1 == nullptr || count1 < 1 || points2 == nullptr ||
      descriptors2 == nullptr || count2 < 1 || transform == nullptr) {
    return QORV_ERROR_INVALID_ARGUMENT;
  }
  const qorv::KeyPointSet first{points1, normals1, descriptors1, count1};
  const qorv::KeyPointSet second{points2, normals2, descriptors2, count2};
  const qorv::RansacParams params{iterations, edgeRatio, inlierDistance};
  const qorv::Execution exec = qorv::ExecutionOf(*inst);
  const bool crossCheck = inst->crossCheck;
  return qorv::MatchThenDeliver(callback, userData, [&](std::vector<int32_t>& matches) {
    const uint32_t seed = static_cast<uint32_t>(std::time(nullptr));
    return qorv::RansacMatch(first, second, params, crossCheck, exec, seed, transform, matches);
  });
}

QORV_API QorvResult QorvIterativeMatchKeyPoints(QorvInstance* inst,
                                                const float* points1,
                                                const float* descriptors1,
                                                int32_t count1,
                                                const float* points2,
                                                const float* descriptors2,
                                                int32_t count2,
                                                double* transform,
                                                int32_t iterations,
                                                float kernelScale,
                                                float maxDistance,
                                                QorvMatchCallback callback,
                                                void* userData) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (points1 == nullptr || descriptors1 == nullptr || count1 < 1 || points2 == nullptr ||
      descriptors2 == nullptr || count2 < 1 || transform == nullptr) {
    return QORV_ERROR_INVALID_ARGUMENT;
  }
  const qorv::KeyPointSet first{points1, nullptr, descriptors1, count1};
  const qorv::KeyPointSet second{points2, nullptr, descriptors2, count2};
  const qorv::IterativeParams params{iterations, kernelScale, maxDistance};
  const qorv::Execution exec = qorv::ExecutionOf(*inst);
  const bool crossCheck = inst->crossCheck;
  return qorv::MatchThenDeliver(callback, userData, [&](std::vector<int32_t>& matches) {
    return qorv::IterativeMatch(first, second, params, crossCheck, exec, transform, matches);
  });
}

QORV_API QorvResult QorvCheckDistance(
    QorvInstance* inst, const float* points, int32_t count, int32_t k, float* meanDistance) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (points == nullptr || count < 1 || k < 1 || meanDistance == nullptr) {
    return QORV_ERROR_INVALID_ARGUMENT;
  }
  const qorv::Execution exec = qorv::ExecutionOf(*inst);
  return qorv::Guarded([&] {
    *meanDistance = qorv::CheckDistance(points, count, k, exec);
    return QORV_OK;
  });
}

}  // extern "C"
