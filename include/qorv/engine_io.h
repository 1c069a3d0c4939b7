/* SPDX-License-Identifier: MIT
 * Copyright (c) 2026 The Qorv developers */
/*
 * Qorv engine: reading and writing cloud files, from libqorv_engine.
 *
 * Read: PLY (ascii, binary little or big endian, any scalar types, meshes' other elements passed
 * over), PCD (ascii, binary, binary_compressed; any field order and types; organized WIDTH x
 * HEIGHT; VIEWPOINT), and depth images (16-bit PNG, 16-bit or float TIFF) turned into an organized
 * cloud through a pinhole camera, all recognised by the file's first bytes; then by the extension:
 * column text (.asc .xyz .xyzn .xyzrgb .pts .txt .csv: whitespace, comma or semicolon separated,
 * a header line of names or an Open3D/PTS count line understood, else the layout told by the
 * number of columns), OBJ meshes (their vertices, with vertex colours, and normals when each
 * vertex has one) and STL meshes (binary or ASCII; their distinct vertices). A file whose contents
 * are not what its extension says is refused; LAS, LAZ, E57 and OFF are refused with what to do.
 * Write: PLY, PCD or ASC, chosen by the file name's extension (.ply, .pcd, else ASC).
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

/* Writes a cloud (only points and count are required; the other arrays may be NULL). */
QORV_ENGINE_API int32_t QorvEngineWriteCloud(const char* path,
                                             const QorvEngineCloudData* cloud,
                                             int32_t encoding);

#ifdef __cplusplus
}
#endif

#endif /* QORV_ENGINE_IO_H_ */
