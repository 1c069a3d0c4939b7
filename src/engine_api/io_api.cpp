// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The C interface of the cloud files: argument checks, then the readers and writers.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>

#include <qorv/engine_io.h>

#include "engine_api/guard.hpp"
#include "io/cloud_files.hpp"

using qorv::engine::Fail;
using qorv::engine::Guarded;
using qorv::engine::SetLastError;

namespace {

// The C record and the arrays it points into, freed together.
struct OwnedCloud {
  QorvEngineCloudData data;
  qorv::io::CloudData cloud;
};

}  // namespace

extern "C" {

QORV_ENGINE_API void QorvEngineDefaultDepthCamera(QorvEngineDepthCamera* camera) {
  if (camera == nullptr) return;
  const qorv::io::DepthCamera defaults;
  camera->fx = defaults.fx;
  camera->fy = defaults.fy;
  camera->cx = defaults.cx;
  camera->cy = defaults.cy;
  camera->depth_scale = defaults.depthScale;
}

QORV_ENGINE_API int32_t QorvEngineReadCloud(const char* path,
                                            int32_t keep_organized,
                                            const QorvEngineDepthCamera* camera,
                                            QorvEngineCloudData** out) {
  return Guarded([&]() -> int32_t {
    if (path == nullptr) return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the path is null");
    if (out == nullptr)
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the output pointer is null");
    qorv::io::DepthCamera k;
    if (camera != nullptr) {
      const double values[5] = {
          camera->fx, camera->fy, camera->cx, camera->cy, camera->depth_scale};
      for (double v : values) {
        if (!std::isfinite(v))
          return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                      "the depth camera holds a non-finite value");
      }
      if (!(camera->fx > 0.0 && camera->fy > 0.0 && camera->depth_scale > 0.0)) {
        return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                    "the depth camera's fx, fy and depth_scale must be positive");
      }
      k = {camera->fx, camera->fy, camera->cx, camera->cy, camera->depth_scale};
    }
    auto owned = std::make_unique<OwnedCloud>();
    owned->cloud = qorv::io::ReadCloudFile(path, keep_organized != 0, k);
    qorv::io::CloudData& c = owned->cloud;
    if (std::max(c.width, c.fileWidth) > INT32_MAX ||
        std::max(c.height, c.fileHeight) > INT32_MAX) {
      return Fail(QORV_ENGINE_ERROR_FORMAT,
                  std::string("'") + path + "': organized size too large");
    }
    QorvEngineCloudData& d = owned->data;
    std::memset(&d, 0, sizeof(d));
    d.points = c.points.data();
    d.normals = c.normals.empty() ? nullptr : c.normals.data();
    d.colours = c.colours.empty() ? nullptr : c.colours.data();
    d.intensity = c.intensity.empty() ? nullptr : c.intensity.data();
    d.count = c.size();
    d.width = c.organized() ? static_cast<int32_t>(c.width) : 0;
    d.height = c.organized() ? static_cast<int32_t>(c.height) : 0;
    d.has_viewpoint = c.hasViewpoint ? 1 : 0;
    std::memcpy(d.viewpoint, c.viewpoint, sizeof(d.viewpoint));
    d.non_finite = c.nonFinite;
    const bool fileOrganized = c.organized() || c.fileHeight > 1;
    d.file_width = fileOrganized ? static_cast<int32_t>(c.organized() ? c.width : c.fileWidth) : 0;
    d.file_height =
        fileOrganized ? static_cast<int32_t>(c.organized() ? c.height : c.fileHeight) : 0;
    std::strncpy(d.format, c.format.c_str(), sizeof(d.format) - 1);
    std::string fields;
    for (const std::string& f : c.fields) fields += (fields.empty() ? "" : " ") + f;
    std::strncpy(d.fields, fields.c_str(), sizeof(d.fields) - 1);
    *out = &owned.release()->data;
    SetLastError("");
    return QORV_ENGINE_OK;
  });
}

QORV_ENGINE_API void QorvEngineFreeCloud(QorvEngineCloudData* cloud) {
  // data is the first member: the record's address is the owner's.
  delete reinterpret_cast<OwnedCloud*>(cloud);
}

QORV_ENGINE_API int32_t QorvEngineWriteCloud(const char* path,
                                             const QorvEngineCloudData* cloud,
                                             int32_t encoding) {
  return Guarded([&]() -> int32_t {
    if (path == nullptr) return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the path is null");
    if (cloud == nullptr) return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the cloud is null");
    if (cloud->count < 0 || (cloud->count > 0 && cloud->points == nullptr)) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "the cloud's count is negative or its points are null");
    }
    if (cloud->count > qorv::io::kMaxPoints)
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the cloud has too many points");
    if (encoding < QORV_ENGINE_ENCODING_DEFAULT || encoding > QORV_ENGINE_ENCODING_COMPRESSED) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "unknown encoding " + std::to_string(encoding));
    }
    if (cloud->height > 1 && static_cast<int64_t>(cloud->width) * cloud->height != cloud->count) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "the cloud's width x height differs from its count");
    }
    qorv::io::CloudData c;
    const size_t n = static_cast<size_t>(cloud->count);
    c.points.assign(cloud->points, cloud->points + 3 * n);
    if (cloud->normals != nullptr) c.normals.assign(cloud->normals, cloud->normals + 3 * n);
    if (cloud->colours != nullptr) c.colours.assign(cloud->colours, cloud->colours + 3 * n);
    if (cloud->intensity != nullptr) c.intensity.assign(cloud->intensity, cloud->intensity + n);
    c.width = cloud->height > 1 ? cloud->width : cloud->count;
    c.height = cloud->height > 1 ? cloud->height : 1;
    c.hasViewpoint = cloud->has_viewpoint != 0;
    std::memcpy(c.viewpoint, cloud->viewpoint, sizeof(c.viewpoint));
    static const qorv::io::Encoding kEncodings[] = {qorv::io::Encoding::kDefault,
                                                    qorv::io::Encoding::kAscii,
                                                    qorv::io::Encoding::kBinary,
                                                    qorv::io::Encoding::kCompressed};
    qorv::io::WriteCloudFile(path, c, kEncodings[encoding]);
    SetLastError("");
    return QORV_ENGINE_OK;
  });
}

}  // extern "C"
