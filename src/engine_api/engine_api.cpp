// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The engine's C interface: argument checks, then the C++ engine.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include <qorv/engine.h>

#include "engine/engine.hpp"
#include "engine_api/conversions.hpp"
#include "engine_api/guard.hpp"

using qorv::engine::Fail;
using qorv::engine::Guarded;
using qorv::engine::SetLastError;

static_assert(static_cast<int32_t>(qorv::engine::kOk) == QORV_ENGINE_OK, "status codes must agree");
static_assert(static_cast<int32_t>(qorv::engine::kTooFewPoints) == QORV_ENGINE_ERROR_TOO_FEW_POINTS,
              "status codes must agree");

namespace {
// The sizes of the structs of interface version 1, the smallest a caller may pass.
constexpr size_t kOptionsV1 = offsetof(QorvEngineOptions, sensor_origin);
constexpr size_t kResultV1 = offsetof(QorvEngineResult, constrained);
}  // namespace

extern "C" {

QORV_ENGINE_API void QorvEngineDefaultOptionsOfSize(QorvEngineOptions* options,
                                                    uint32_t struct_size) {
  if (options == nullptr || struct_size < sizeof(uint32_t)) return;
  const qorv::engine::Options defaults;
  QorvEngineOptions full;
  std::memset(&full, 0, sizeof(full));
  full.mode = QORV_ENGINE_MODE_GLOBAL;
  full.voxel = defaults.voxel;
  full.point_budget = defaults.pointBudget;
  full.refine_budget = defaults.refineBudget;
  full.seed = defaults.seed;
  full.threads = defaults.threads;
  full.has_initial = 0;
  for (int i = 0; i < 16; ++i) full.initial[i] = (i % 5 == 0) ? 1.0 : 0.0;
  full.max_tries = defaults.maxTries;
  full.max_ransac_iterations = defaults.maxRansacIterations;
  full.ransac_confidence = defaults.ransacConfidence;
  full.sensor_origin = defaults.sensorOrigin ? 1 : 0;
  full.cloud_size = sizeof(QorvEngineCloud);
  full.refine = QORV_ENGINE_REFINE_GICP;
  // A newer caller's fields past ours are zeroed; an older caller gets only what it has room for.
  const size_t known = std::min<size_t>(struct_size, sizeof(full));
  if (struct_size > sizeof(full)) std::memset(options, 0, struct_size);
  full.struct_size = static_cast<uint32_t>(struct_size > sizeof(full) ? struct_size : known);
  std::memcpy(options, &full, known);
}

// Callers built against interface version 2 or older, whose options end before cloud_size.
QORV_ENGINE_API void(QorvEngineDefaultOptions)(QorvEngineOptions* options) {
  QorvEngineDefaultOptionsOfSize(options, offsetof(QorvEngineOptions, cloud_size));
}

QORV_ENGINE_API int32_t QorvEngineRegister(const QorvEngineCloud* target,
                                           const QorvEngineCloud* source,
                                           const QorvEngineOptions* options,
                                           QorvEngineResult* result) {
  return Guarded([&]() -> int32_t {
    const size_t cloudSize = qorv::engine::CloudSize(options);
    if (cloudSize == 0) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "the options' cloud_size is smaller than any QorvEngineCloud");
    }
    if (target == nullptr || source == nullptr) {
      return Fail(
          QORV_ENGINE_ERROR_INVALID_ARGUMENT,
          std::string("the ") + (target == nullptr ? "target" : "source") + " cloud is null");
    }
    const QorvEngineCloud targetCloud = qorv::engine::CloudAt(target, 0, cloudSize);
    const QorvEngineCloud sourceCloud = qorv::engine::CloudAt(source, 0, cloudSize);
    if (std::string m = qorv::engine::CheckCloud(&targetCloud, "target"); !m.empty()) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, m);
    }
    if (std::string m = qorv::engine::CheckCloud(&sourceCloud, "source"); !m.empty()) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, m);
    }
    if (result == nullptr) return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the result is null");
    // A caller built against an older header passes smaller structs: the fields it knows are
    // read and written, the rest take their defaults.
    const size_t resultSize =
        result->struct_size == 0 ? sizeof(QorvEngineResult) : result->struct_size;
    if (resultSize < kResultV1) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "the result's struct_size is smaller than any QorvEngineResult");
    }
    qorv::engine::Options opts;
    if (options != nullptr) {
      if (options->struct_size < kOptionsV1) {
        return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                    "the options' struct_size is not set: fill them with QorvEngineDefaultOptions");
      }
      std::string bad = qorv::engine::FromC(qorv::engine::OptionsWithin(*options), opts);
      if (!bad.empty()) return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, bad);
    }
    qorv::engine::CloudView t = qorv::engine::ViewOf(targetCloud);
    qorv::engine::CloudView s = qorv::engine::ViewOf(sourceCloud);
    qorv::engine::Outcome outcome;
    std::string error;
    const int32_t code = qorv::engine::Register(t, s, opts, outcome, error);
    if (code != QORV_ENGINE_OK) return Fail(code, error);
    QorvEngineResult full;
    qorv::engine::ToC(outcome, full);
    full.struct_size = static_cast<uint32_t>(std::min(resultSize, sizeof(full)));
    std::memcpy(result, &full, full.struct_size);
    SetLastError("");
    return QORV_ENGINE_OK;
  });
}

QORV_ENGINE_API const char* QorvEngineLastError(void) { return qorv::engine::LastError(); }

QORV_ENGINE_API const char* QorvEngineVersion(void) { return QORV_VERSION_TEXT; }

QORV_ENGINE_API int32_t QorvEngineApiVersion(void) { return QORV_ENGINE_API_VERSION; }

}  // extern "C"
