/* SPDX-License-Identifier: MIT
 * Copyright (c) 2026 The Qorv developers */
/*
 * Qorv engine: reading and writing cloud files, from libqorv_engine.
 *
 * Read: PLY (ascii, binary little or big endian, any scalar types, meshes' other elements passed
 * over), PCD (ascii, binary, binary_compressed; any field order and types; organized WIDTH x
 * HEIGHT; VIEWPOINT), LAS (1.0 to 1.4, point formats 0 to 10) and depth images (16-bit PNG, 16-bit
 * or float TIFF) turned into an organized cloud through a pinhole camera, all recognised by the
 * file's first bytes; then by the extension: column text (.asc .xyz .xyzn .xyzrgb .pts .txt .csv:
 * whitespace, comma or semicolon separated, a header line of names or an Open3D/PTS count line
 * understood, else the layout told by the number of columns, or the columns named in the read
 * options), OBJ meshes (their vertices, with vertex colours, and normals when each vertex has one)
 * and STL meshes (binary or ASCII; their distinct vertices). A file whose contents are not what its
 * extension says is refused; LAZ, E57 and OFF are refused with what to do.
 * Write: PLY, PCD, LAS (1.2; 1.4 for classes above 31) or ASC, chosen by the file name's extension
 * (.ply, .pcd, .las, .asc or .xyz); any other extension is an error.
 * Errors: QORV_ENGINE_ERROR_FILE (cannot open, read or write), QORV_ENGINE_ERROR_FORMAT (the
 * contents are not a cloud we read), with QorvEngineLastError() saying what exactly.
 */
#ifndef QORV_ENGINE_IO_H_
#define QORV_ENGINE_IO_H_

#include "engine.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A cloud read from a file, owned by the library until QorvEngineFreeCloud. Arrays not in the
 * file are NULL. Organized clouds have height > 1 and width * height == count, with NaN
 * coordinates where there is no point. */
typedef struct QorvEngineCloudData {
  float* points;    /* 3 a point */
  float* normals;   /* 3 a point, or NULL */
  uint8_t* colours; /* red, green, blue a point, or NULL */
  float* intensity; /* 1 a point, or NULL */
  int64_t count;
  int32_t width;
  int32_t height;
  int32_t has_viewpoint; /* a depth image, or a PCD frame that is organized or names a viewpoint */
  double viewpoint[7];   /* sensor origin x y z, then its orientation quaternion w x y z */
  int64_t non_finite;    /* points of the file with a NaN or infinite coordinate */
  int32_t file_width;    /* the file's organized layout, also when only the finite points were */
  int32_t file_height;   /* kept (0 when the file is unorganized) */
  char format[32]; /* "ply (binary little endian)", "pcd (binary_compressed)", "depth image", ... */
  char fields[256]; /* the file's per-point fields, separated by spaces (cut to fit) */
  /* Added in interface version 3: written on reading; read on writing only by
   * QorvEngineWriteCloudData, which is told the struct's size. */
  uint8_t* classification; /* 1 a point (LAS classes), or NULL */
  double* gps_time;        /* 1 a point, or NULL */
  double origin[3];        /* points are relative to it: a point lies at origin + its triple.
                              Survey-scale files get one in whole metres; 0 otherwise */
  int32_t has_las_quantum; /* 1: a LAS file's scale and offset, kept for writing LAS back */
  double las_scale[3];
  double las_offset[3];
} QorvEngineCloudData;

/* A pinhole depth camera; depth values / depth_scale = metres. */
typedef struct QorvEngineDepthCamera {
  double fx, fy, cx, cy;
  double depth_scale;
} QorvEngineDepthCamera;

/* fx = fy = 525, cx = 319.5, cy = 239.5 (the common 640 x 480 depth cameras), depth_scale = 1000
 * (millimetres). */
QORV_ENGINE_API void QorvEngineDefaultDepthCamera(QorvEngineDepthCamera* camera);

/* Reads a cloud. keep_organized = 0 keeps only the finite points; 1 keeps an organized cloud's
 * layout with its holes. camera (NULL: the defaults) is used for depth images. */
QORV_ENGINE_API int32_t QorvEngineReadCloud(const char* path,
                                            int32_t keep_organized,
                                            const QorvEngineDepthCamera* camera,
                                            QorvEngineCloudData** cloud);

/* Frees a cloud of QorvEngineReadCloud (NULL is ignored). */
QORV_ENGINE_API void QorvEngineFreeCloud(QorvEngineCloudData* cloud);

enum {
  QORV_ENGINE_ENCODING_DEFAULT = 0, /* PLY: binary little endian; PCD: binary */
  QORV_ENGINE_ENCODING_ASCII = 1,
  QORV_ENGINE_ENCODING_BINARY = 2,
  QORV_ENGINE_ENCODING_COMPRESSED = 3 /* PCD binary_compressed (PLY: binary) */
};

/* What QorvEngineReadCloudWith reads with. */
typedef struct QorvEngineReadOptions {
  uint32_t struct_size;         /* sizeof(QorvEngineReadOptions) */
  int32_t keep_organized;       /* as for QorvEngineReadCloud */
  QorvEngineDepthCamera camera; /* for depth images */
  const char* columns; /* column text: the columns' names in order ("x y z skip intensity"; skip
                          or _ passes one over); NULL or "": from the file's header or its width */
} QorvEngineReadOptions;

/* keep_organized 0, the default camera, columns from the file; fills the first struct_size bytes
 * (the size of the caller's struct, which may be that of an older or newer header). The macro
 * passes this header's size. */
QORV_ENGINE_API void QorvEngineDefaultReadOptionsOfSize(QorvEngineReadOptions* options,
                                                        uint32_t struct_size);
QORV_ENGINE_API void QorvEngineDefaultReadOptions(QorvEngineReadOptions* options);
#define QorvEngineDefaultReadOptions(options) \
  QorvEngineDefaultReadOptionsOfSize((options), (uint32_t)sizeof(QorvEngineReadOptions))

/* QorvEngineReadCloud with options (NULL: the defaults). */
QORV_ENGINE_API int32_t QorvEngineReadCloudWith(const char* path,
                                                const QorvEngineReadOptions* options,
                                                QorvEngineCloudData** cloud);

/* Writes a cloud (only points and count are required; the other arrays may be NULL). Reads the
 * fields of interface version 2 only: the cloud is written at origin 0. */
QORV_ENGINE_API int32_t QorvEngineWriteCloud(const char* path,
                                             const QorvEngineCloudData* cloud,
                                             int32_t encoding);

/* Writes a cloud whose struct is cloud_size bytes (sizeof(QorvEngineCloudData) of the caller's
 * header): every field it covers is written, as far as the format holds it. Fields the format
 * cannot hold are named by QorvEngineLastWarning(). */
QORV_ENGINE_API int32_t QorvEngineWriteCloudData(const char* path,
                                                 const QorvEngineCloudData* cloud,
                                                 uint32_t cloud_size,
                                                 int32_t encoding);

/* After a successful write: the fields the file could not hold, as one line ("" when none). */
QORV_ENGINE_API const char* QorvEngineLastWarning(void);

/* One pair of a batch manifest. */
typedef struct QorvEngineManifestPair {
  int64_t line;       /* where the manifest lists it (from 1) */
  const char* target; /* the paths as the manifest writes them */
  const char* source;
  const char* target_path; /* where they are read: relative paths start at the manifest's folder */
  const char* source_path;
  int32_t has_initial;
  double initial[16]; /* row-major 4 x 4 guess (the identity when has_initial is 0) */
} QorvEngineManifestPair;

typedef struct QorvEngineManifest {
  int64_t count;
  const QorvEngineManifestPair* pairs;
} QorvEngineManifest;

/* Reads a batch manifest: CSV whose header names target and source (and optionally initial: 12 or
 * 16 numbers separated by spaces), or JSON lines with those keys. Blank lines and lines starting
 * with '#' are passed over. Errors name the manifest and the line; a manifest listing no pair is
 * one. Free the result with QorvEngineFreeManifest. */
QORV_ENGINE_API int32_t QorvEngineReadManifest(const char* path, QorvEngineManifest** manifest);
QORV_ENGINE_API void QorvEngineFreeManifest(QorvEngineManifest* manifest);

/* Reads a list of scans, one path a line (relative paths start at the list's folder); blank lines
 * and '#' lines are passed over. Free the result with QorvEngineFreeScanList. */
typedef struct QorvEngineScanList {
  int64_t count;
  const char* const* paths;
} QorvEngineScanList;
QORV_ENGINE_API int32_t QorvEngineReadScanList(const char* path, QorvEngineScanList** list);
QORV_ENGINE_API void QorvEngineFreeScanList(QorvEngineScanList* list);

#ifdef __cplusplus
}
#endif

#endif /* QORV_ENGINE_IO_H_ */
