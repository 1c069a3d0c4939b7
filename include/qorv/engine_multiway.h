/* SPDX-License-Identifier: MIT
 * Copyright (c) 2026 The Qorv developers */
/*
 * Qorv engine: many scans aligned into one frame, from libqorv_engine.
 *
 * Each scan is registered onto the one before it, then (with loops) onto every earlier scan its
 * chained pose puts it over; each pair the verdict trusts becomes an edge weighted by its measures,
 * and a robust pose graph (Ceres, Cauchy loss) settles the poses, marking the edges it disagrees
 * with as rejected. Seeded like QorvEngineRegister: the same scans and options give the same bits.
 */
#ifndef QORV_ENGINE_MULTIWAY_H_
#define QORV_ENGINE_MULTIWAY_H_

#include "engine.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A relative motion between two scans: motion (row-major 4 x 4) carries scan `to`'s points into
 * scan `from`'s frame. Sigmas: how far it may be off (radians, and the scans' length unit). */
typedef struct QorvEngineMultiwayEdge {
  int32_t from;
  int32_t to;
  double motion[16];
  double rotation_sigma;
  double shift_sigma;
  int32_t loop;             /* out: not between neighbouring scans */
  int32_t registered;       /* out: the verdict trusted it (given edges count as trusted) */
  int32_t rejected;         /* out: the settled poses disagree with it (normalised residual > 5) */
  double fitness;           /* out: the pair's verdict measures */
  int32_t consistent_pairs; /* out */
} QorvEngineMultiwayEdge;

/* Aligns count scans. options: as for QorvEngineRegister (NULL: the defaults; its mode and initial
 * are not used). loops: 0 for odometry only. extra (extra_count of them) are edges the caller
 * knows, added as they are. poses receives 16 doubles a scan (scan to the frame of scan 0). edges
 * receives up to edge_capacity edge reports (every pair tried, then the extra ones); edge_count the
 * number there are (may exceed the capacity). */
QORV_ENGINE_API int32_t QorvEngineMultiway(const QorvEngineCloud* scans,
                                           int32_t count,
                                           const QorvEngineOptions* options,
                                           int32_t loops,
                                           const QorvEngineMultiwayEdge* extra,
                                           int32_t extra_count,
                                           double* poses,
                                           QorvEngineMultiwayEdge* edges,
                                           int32_t edge_capacity,
                                           int32_t* edge_count);

#ifdef __cplusplus
}
#endif

#endif /* QORV_ENGINE_MULTIWAY_H_ */
