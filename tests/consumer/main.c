// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
/* Every public header, compiled as C. */
#include <qorv/engine.h>
#include <qorv/engine_io.h>
#include <qorv/engine_multiway.h>
#include <qorv/qorv.h>

#include <stdio.h>

int main(void) {
  QorvInstance* inst = NULL;
  const double quarterTurn[9] = {0, -1, 0, 1, 0, 0, 0, 0, 1};
  float p[3] = {1.0f, 0.0f, 0.0f};
  QorvEngineOptions options;
  QorvEngineResult result = {sizeof(QorvEngineResult)};
  QorvEngineCloud empty = {p, NULL, 0};
  QorvEngineReadOptions read;
  QorvEngineCloudData* cloud = NULL;
  QorvEngineMultiwayEdge edge = {0, 1};
  if (QorvCreateInstance(&inst) != QORV_OK) return 1;
  QorvRotatePoints(inst, quarterTurn, p, p, 1);
  QorvDestroyInstance(inst);
  printf("qorv %s: (%g, %g, %g)\n", QorvVersion(), p[0], p[1], p[2]);
  if (!(p[0] == 0.0f && p[1] == 1.0f && p[2] == 0.0f)) return 2;
  /* The engine refuses an empty cloud with a message. */
  QorvEngineDefaultOptions(&options);
  if (QorvEngineRegister(&empty, &empty, &options, &result) != QORV_ENGINE_ERROR_TOO_FEW_POINTS)
    return 3;
  /* A missing file is an error naming it; multiway wants two scans at least. */
  QorvEngineDefaultReadOptions(&read);
  if (QorvEngineReadCloudWith("no-such-file.ply", &read, &cloud) != QORV_ENGINE_ERROR_FILE)
    return 5;
  if (QorvEngineMultiway(&empty, 1, &options, 0, &edge, 0, NULL, NULL, 0, NULL) == QORV_ENGINE_OK)
    return 6;
  printf("qorv engine %s (interface %d): %s\n",
         QorvEngineVersion(),
         QorvEngineApiVersion(),
         QorvEngineLastError());
  return QorvEngineApiVersion() == QORV_ENGINE_API_VERSION ? 0 : 4;
}
