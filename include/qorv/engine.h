/* SPDX-License-Identifier: MIT
 * Copyright (c) 2026 The Qorv developers */
/*
 * Qorv engine: registration of two real scans in one call, from libqorv_engine.
 *
 * The engine sits beside libqorv (whose 28 exports it does not change). It scales every length from
 * the scene (a working voxel chosen from a point budget), bounds its work, refines densely with
 * point-to-plane ICP (or generalized ICP, on request) and says whether the answer can be trusted
 * (the verdict). It is seeded: the same inputs and options give the same bits on every run and with
 * any thread count.
 *
 * Conventions:
 * - Clouds are packed float triples (x, y, z) with an int64 count, or double triples (survey-scale
 *   coordinates). Non-finite points are ignored. Clouds far from their coordinates' zero are
 *   registered relative to a shared origin in whole metres, so float arithmetic keeps its
 *   precision; every transform in and out is in the caller's frame.
 *   An organized cloud (a depth-camera frame) gives width and height with width * height == count
 *   and may hold NaN holes.
 * - Transforms are 16 doubles, a row-major 4 x 4 matrix; T * p carries a source point onto the
 *   target.
 * - Functions never throw and never crash on bad input. They return QORV_ENGINE_OK (0) or an error
 *   code; on an error the outputs are untouched and QorvEngineLastError() tells why in one line.
 * - A struct passed in carries its own size in its first field (set by the Default* function), so
 *   that later versions can grow it without breaking callers built against this one.
 */
#ifndef QORV_ENGINE_H_
#define QORV_ENGINE_H_

#include <stdint.h>

#if defined(_WIN32)
#define QORV_ENGINE_API __declspec(dllexport)
#elif defined(__GNUC__)
#define QORV_ENGINE_API __attribute__((visibility("default")))
#else
#define QORV_ENGINE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Version of this C interface; QorvEngineApiVersion() returns the one the library was built with.
 */
#define QORV_ENGINE_API_VERSION 3

enum {
  QORV_ENGINE_OK = 0,
  QORV_ENGINE_ERROR_FILE = 1,             /* a file could not be opened, read or written */
  QORV_ENGINE_ERROR_FORMAT = 2,           /* a file's contents are not a cloud we can read */
  QORV_ENGINE_ERROR_INVALID_ARGUMENT = 3, /* null pointer, bad count, bad option */
  QORV_ENGINE_ERROR_TOO_FEW_POINTS = 4, /* a cloud has fewer finite points than the engine needs */
  QORV_ENGINE_ERROR_ALLOCATION = 9,     /* memory ran out */
  QORV_ENGINE_ERROR_INTERNAL = 10       /* anything else (a bug: please report it) */
};

/* A cloud as the caller holds it. Only points and count are required. */
typedef struct QorvEngineCloud {
  const float* points;  /* 3 floats a point */
  const float* normals; /* not used: the engine estimates normals at the scales it works at, which
                           per-point sensor normals do not describe (kept so that callers built
                           against earlier versions still compile) */
  int64_t count;
  int32_t width; /* organized layout: width * height == count; 0 when unorganized */
  int32_t height;
  int32_t has_viewpoint; /* 1: viewpoint is the sensor origin in the cloud's frame */
  double viewpoint[3];
  /* Added in interface version 3 (read only when the options' cloud_size covers them). */
  const double* points_f64; /* 3 doubles a point, used instead of points when not NULL */
  double origin[3]; /* float points are relative to it: a point lies at origin + its triple (the
                       origin of a cloud file read by QorvEngineReadCloud) */
} QorvEngineCloud;

enum {
  QORV_ENGINE_MODE_GLOBAL = 0,  /* features + RANSAC, then ICP (an initial guess is tried too) */
  QORV_ENGINE_MODE_LOCAL = 1,   /* ICP from the initial guess only (consecutive frames) */
  QORV_ENGINE_MODE_EVALUATE = 2 /* no motion: the measures and verdict of the initial transform */
};

/* The most scales a registration tries (options.max_tries). */
#define QORV_ENGINE_MAX_TRIES 8

enum {
  QORV_ENGINE_REFINE_PLANE = 0, /* point-to-plane ICP: the residual along the target's normal */
  QORV_ENGINE_REFINE_GICP = 1   /* generalized ICP: both clouds' local surfaces (plane-to-plane) */
};

typedef struct QorvEngineOptions {
  uint32_t struct_size;  /* sizeof(QorvEngineOptions) */
  int32_t mode;          /* QORV_ENGINE_MODE_* */
  double voxel;          /* working voxel edge; 0: chosen from point_budget */
  int32_t point_budget;  /* voxels a cloud keeps for matching when voxel is 0 */
  int32_t refine_budget; /* points a cloud keeps for dense refinement */
  uint64_t seed;         /* seeds every random draw */
  int32_t threads;       /* 0: the OpenMP default; 1: serial; n: at most n */
  int32_t has_initial;   /* 1: initial holds a guess */
  double initial[16];
  int32_t max_tries; /* scales tried in turn while the verdict is negative (1 to
                        QORV_ENGINE_MAX_TRIES) */
  int32_t max_ransac_iterations;
  double ransac_confidence; /* RANSAC stops once a better model is this unlikely */
  /* Added in interface version 2 (a caller built before it gets the default, 0). */
  int32_t sensor_origin; /* 1: a cloud without a viewpoint was taken by a sensor at its origin
                            (spinning LiDAR scans centred on their sensor), so the verdict may use
                            the space the sensor saw through */
  /* Added in interface version 3. */
  uint32_t cloud_size; /* sizeof(QorvEngineCloud) of the clouds passed with these options (set by
                          QorvEngineDefaultOptions); older callers pass the smaller clouds of
                          version 2, and arrays of them are strided by it */
  /* Added in interface version 3 (a caller built before it gets the default, 0). */
  int32_t refine; /* QORV_ENGINE_REFINE_GICP (1, the default) or QORV_ENGINE_REFINE_PLANE (0) */
} QorvEngineOptions;

/* Time of one stage of a registration. */
typedef struct QorvEngineStage {
  char name[32];
  double milliseconds;
} QorvEngineStage;

#define QORV_ENGINE_MAX_STAGES 24

typedef struct QorvEngineResult {
  uint32_t struct_size;   /* sizeof(QorvEngineResult) */
  int32_t registered;     /* 1: the verdict trusts the transform; 0: it does not */
  double transform[16];   /* best transform found, also when not registered */
  double fitness;         /* fraction of source samples within the inlier distance of the target */
  double target_overlap;  /* fraction of target samples within it of the moved source */
  double inlier_rmse;     /* RMS distance of those inlier pairs */
  double inlier_distance; /* the distance used for the three measures above */
  int32_t consistent_pairs; /* feature matches that agree with the transform */
  int32_t matches;          /* feature matches before pruning */
  double voxel;             /* the working voxel of the accepted try */
  int32_t target_points;    /* finite input points */
  int32_t source_points;
  int32_t target_samples; /* points after the working voxel */
  int32_t source_samples;
  int32_t tries;    /* scales tried */
  char reason[160]; /* when not registered: which check failed, in words */
  int32_t stage_count;
  QorvEngineStage stages[QORV_ENGINE_MAX_STAGES];
  /* Added in interface version 2 (written only when struct_size leaves room for them). */
  double constrained;  /* weakest direction: share of the nearby structure's constraint that the
                          answer satisfies (0-1) */
  double conditioning; /* weakest over strongest constraint of the agreeing surfaces (0-1) */
  double free_space_conflict; /* share of points in space the other sensor saw through; -1 when no
                                 sensor origin is known */
  double chance_pairs;        /* consistent matches a wrong motion would get by chance */
  double rival_share;         /* best distinct motion's score over the answer's */
  double normal_agreement;    /* share of the inlier pairs whose normals agree within 30 degrees */
  double
      coherence; /* of the source points near the target, the share that lie on it: a wrong
                    motion leaves posts, cars and corners standing beside what they should meet */
} QorvEngineResult;

/* Fills the first struct_size bytes of options with the defaults: struct_size is the size of the
 * caller's QorvEngineOptions, which may be that of an older or a newer header. */
QORV_ENGINE_API void QorvEngineDefaultOptionsOfSize(QorvEngineOptions* options,
                                                    uint32_t struct_size);

/* Fills options with the defaults. The function of this name fills an options struct of interface
 * version 2 (what callers built before version 3 call); the macro passes this header's size. */
QORV_ENGINE_API void QorvEngineDefaultOptions(QorvEngineOptions* options);
#define QorvEngineDefaultOptions(options) \
  QorvEngineDefaultOptionsOfSize((options), (uint32_t)sizeof(QorvEngineOptions))

/* Registers source onto target. result receives the transform, the verdict and the measures. A
 * negative verdict is not an error: the call returns QORV_ENGINE_OK with result->registered = 0. */
QORV_ENGINE_API int32_t QorvEngineRegister(const QorvEngineCloud* target,
                                           const QorvEngineCloud* source,
                                           const QorvEngineOptions* options,
                                           QorvEngineResult* result);

/* The message of the last failed call on this thread ("" when none failed). */
QORV_ENGINE_API const char* QorvEngineLastError(void);

/* "major.minor.patch" of the library, and the C interface version it implements. */
QORV_ENGINE_API const char* QorvEngineVersion(void);
QORV_ENGINE_API int32_t QorvEngineApiVersion(void);

#ifdef __cplusplus
}
#endif

#endif /* QORV_ENGINE_H_ */
