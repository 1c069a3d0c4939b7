/* SPDX-License-Identifier: MIT
 * Copyright (c) 2026 The Qorv developers */
#include <qorv/qorv.h>

#include <stdio.h>
#include <string.h>

int main(void) {
  QorvInstance* inst = NULL;
  int32_t n = -1;
  float points[6] = {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f};
  const double shift[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 5, 6, 7};
  if (QorvCreateInstance(&inst) != QORV_OK) return 1;
  if (QorvGetMatchNeighborNum(inst, &n) != QORV_OK || n != 0) return 2;
  if (QorvTransformPoints(inst, shift, points, points, 2) != QORV_OK) return 3;
  if (points[0] != 6.0f || points[5] != 13.0f) return 4;
  if (strcmp(QorvVersion(), QORV_VERSION_TEXT) != 0) return 5;
  QorvDestroyInstance(inst);
  printf("qorv %s from C\n", QorvVersion());
  return 0;
}
