/* SPDX-License-Identifier: MIT
 * Copyright (c) 2026 The Qorv developers */
/*
 * Qorv engine: many scans aligned into one frame, from libqorv_engine.
 *
 * Order does not matter: candidate pairs come from the scans themselves (every pair for up to 32
 * scans, else each scan's nearest by a description of its shape, widened until the collection is
 * joined), and run in parallel. Each pair the verdict trusts becomes an edge weighted by its
 * measures; a robust pose graph (Ceres, Cauchy loss) settles the poses from a spanning tree of the
 * strongest edges, rejects the edges it disagrees with and is solved again without them. With
 * loops, the pairs the solved poses put over each other are tried again from that guess. A scan is
 * placed only when kept, trusted edges join it to the reference scan; any other scan is reported
 * unplaced, with the identity as its pose. Seeded like QorvEngineRegister: the same scans and
 * options give the same bits, whatever the thread count.
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
  double residual; /* out (interface version 2): normalised residual under the settled poses, about
                      1 for an edge that fits its sigmas; -1 when the edge is not in the solution */
} QorvEngineMultiwayEdge;

/* Where a scan ended. */
typedef struct QorvEngineMultiwayScan {
  int32_t placed; /* 1: kept, trusted edges join it to the reference scan; 0: its pose is unknown */
  int32_t group;  /* the connected group of kept edges it is in; the reference's group is 0 */
} QorvEngineMultiwayScan;

/* Called on the calling thread as pairs finish (pairs done of pairs planned so far, and how many
 * the verdict trusted). */
typedef void (*QorvEngineMultiwayProgress)(int32_t pairs_done,
                                           int32_t pairs_planned,
                                           int32_t edges_kept,
                                           void* user);

/* Aligns count scans into the frame of scan `reference`. options: as for QorvEngineRegister (NULL:
 * the defaults; its mode and initial are not used; threads: pairs run at once). loops: 0 for no
 * second round. extra (extra_count of them) are edges the caller knows, added as they are. progress
 * may be NULL. poses receives 16 doubles a scan; scans (may be NULL) receives where each scan
 * ended. edges receives up to edge_capacity edge reports (every pair tried, then the extra ones);
 * edge_count the number there are (may exceed the capacity). */
QORV_ENGINE_API int32_t QorvEngineMultiwayPlace(const QorvEngineCloud* scans,
                                                int32_t count,
                                                const QorvEngineOptions* options,
                                                int32_t loops,
                                                int32_t reference,
                                                const QorvEngineMultiwayEdge* extra,
                                                int32_t extra_count,
                                                QorvEngineMultiwayProgress progress,
                                                void* user,
                                                double* poses,
                                                QorvEngineMultiwayScan* placed,
                                                QorvEngineMultiwayEdge* edges,
                                                int32_t edge_capacity,
                                                int32_t* edge_count);

/* QorvEngineMultiwayPlace with scan 0 as the reference, no progress and no scan reports (an
 * unplaced scan's pose is the identity). loops: 0 for no second round. extra (extra_count of them)
 * are edges the caller knows, added as they are. poses receives 16 doubles a scan (scan to the
 * frame of scan 0). edges receives up to edge_capacity edge reports (every pair tried, then the
 * extra ones); edge_count the number there are (may exceed the capacity). */
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
