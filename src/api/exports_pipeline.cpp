// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <ctime>
#include <vector>

#include <qorv/qorv.h>

#include "api/guard.hpp"
#include "api/instance.hpp"
#include "api/match_delivery.hpp"
#include "registration/correspondences.hpp"
#include "registration/pair_pipeline.hpp"

extern "C" {

// normals1 and normals2 are accepted for compatibility: every cloud gets fresh normals after
// thinning, so they are never read.
QORV_API QorvResult QorvMatchPairPointCloud(QorvInstance* inst,
                                            const float* points1,
                                            const float* normals1,
                                            int32_t count1,
                                            const float* points2,
                                            const float* normals2,
                                            int32_t count2,
                                            double* transform,
                                            float kernelScale,
                                            float resolution,
                                            int32_t iterations,
                                            QorvMatchCallback callback,
                                            void* userData) {
  (void)normals1;
  (void)normals2;
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  if (points2 == nullptr || count2 < 1 || points1 == nullptr || count1 < 1 ||
      transform == nullptr) {
    return QORV_ERROR_INVALID_ARGUMENT;
  }
  const qorv::PairPipelineParams params{kernelScale, resolution, iterations};
  const qorv::Execution exec = qorv::ExecutionOf(*inst);
  const bool crossCheck = inst->crossCheck;
  return qorv::MatchThenDeliver(callback, userData, [&](std::vector<int32_t>& matches) {
    const uint32_t seed = static_cast<uint32_t>(std::time(nullptr));
    return qorv::MatchPairPointCloud(
        points1, count1, points2, count2, params, crossCheck, exec, seed, transform, matches);
  });
}

}  // extern "C"
