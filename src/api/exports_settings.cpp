// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <cstdlib>

#include <qorv/qorv.h>

#include "api/instance.hpp"

extern "C" {

QORV_API QorvResult QorvCreateInstance(QorvInstance** out) {
  if (out == nullptr) return QORV_ERROR_INVALID_ARGUMENT;
  auto* inst = static_cast<QorvInstance*>(std::malloc(sizeof(QorvInstance)));
  if (inst == nullptr) return QORV_ERROR_ALLOCATION;
  inst->matchNeighborNum = 0;
  inst->crossCheck = true;
  inst->multiThread = false;
  *out = inst;
  return QORV_OK;
}

QORV_API QorvResult QorvDestroyInstance(QorvInstance* inst) {
  std::free(inst);
  return QORV_OK;
}

QORV_API QorvResult QorvEnableCrossCheck(QorvInstance* inst) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  inst->crossCheck = true;
  return QORV_OK;
}

QORV_API QorvResult QorvDisableCrossCheck(QorvInstance* inst) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  inst->crossCheck = false;
  return QORV_OK;
}

QORV_API QorvResult QorvEnableMultiThread(QorvInstance* inst) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  inst->multiThread = true;
  return QORV_OK;
}

QORV_API QorvResult QorvDisableMultiThread(QorvInstance* inst) {
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  inst->multiThread = false;
  return QORV_OK;
}

QORV_API QorvResult QorvGetMatchNeighborNum(QorvInstance* inst, int32_t* out) {
  if (out == nullptr) return QORV_ERROR_INVALID_ARGUMENT;
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  *out = inst->matchNeighborNum;
  return QORV_OK;
}

QORV_API QorvResult QorvSetMatchNeighborNum(QorvInstance* inst, int32_t n) {
  if (n < 0) return QORV_ERROR_INVALID_ARGUMENT;
  if (inst == nullptr) return QORV_ERROR_NULL_INSTANCE;
  inst->matchNeighborNum = n;
  return QORV_OK;
}

QORV_API const char* QorvVersion(void) { return QORV_VERSION_TEXT; }

}  // extern "C"
