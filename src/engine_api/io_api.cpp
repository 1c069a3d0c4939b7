// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The C interface of the cloud files: argument checks, then the readers and writers.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
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
using qorv::engine::SetLastWarning;

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

QORV_ENGINE_API void(QorvEngineDefaultReadOptions)(QorvEngineReadOptions* options) {
  QorvEngineDefaultReadOptionsOfSize(options, sizeof(QorvEngineReadOptions));
}

QORV_ENGINE_API void QorvEngineDefaultReadOptionsOfSize(QorvEngineReadOptions* options,
                                                        uint32_t struct_size) {
  if (options == nullptr || struct_size < sizeof(uint32_t)) return;
  QorvEngineReadOptions full;
  std::memset(&full, 0, sizeof(full));
  QorvEngineDefaultDepthCamera(&full.camera);
  const size_t known = std::min<size_t>(struct_size, sizeof(full));
  if (struct_size > sizeof(full)) std::memset(options, 0, struct_size);
  full.struct_size = static_cast<uint32_t>(std::max<size_t>(struct_size, known));
  std::memcpy(options, &full, known);
}

QORV_ENGINE_API int32_t QorvEngineReadCloudWith(const char* path,
                                                const QorvEngineReadOptions* options,
                                                QorvEngineCloudData** out) {
  return Guarded([&]() -> int32_t {
    if (path == nullptr) return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the path is null");
    if (out == nullptr)
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the output pointer is null");
    QorvEngineReadOptions o;
    QorvEngineDefaultReadOptionsOfSize(&o, sizeof(o));
    if (options != nullptr) {
      if (options->struct_size < offsetof(QorvEngineReadOptions, columns)) {
        return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                    "the read options' struct_size is not set: fill them with "
                    "QorvEngineDefaultReadOptions");
      }
      std::memcpy(&o, options, std::min<size_t>(options->struct_size, sizeof(o)));
    }
    qorv::io::ReadOptions read;
    read.keepOrganized = o.keep_organized != 0;
    const QorvEngineDepthCamera& camera = o.camera;
    const double values[5] = {camera.fx, camera.fy, camera.cx, camera.cy, camera.depth_scale};
    for (double v : values) {
      if (!std::isfinite(v))
        return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                    "the depth camera holds a non-finite value");
    }
    if (!(camera.fx > 0.0 && camera.fy > 0.0 && camera.depth_scale > 0.0)) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "the depth camera's fx, fy and depth_scale must be positive");
    }
    read.camera = {camera.fx, camera.fy, camera.cx, camera.cy, camera.depth_scale};
    if (o.columns != nullptr) read.columns = o.columns;
    auto owned = std::make_unique<OwnedCloud>();
    owned->cloud = qorv::io::ReadCloudFile(path, read);
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
    d.classification = c.classification.empty() ? nullptr : c.classification.data();
    d.gps_time = c.gpsTime.empty() ? nullptr : c.gpsTime.data();
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
    std::memcpy(d.origin, c.origin, sizeof(d.origin));
    d.has_las_quantum = c.hasLasQuantum ? 1 : 0;
    std::memcpy(d.las_scale, c.lasScale, sizeof(d.las_scale));
    std::memcpy(d.las_offset, c.lasOffset, sizeof(d.las_offset));
    *out = &owned.release()->data;
    SetLastError("");
    return QORV_ENGINE_OK;
  });
}

QORV_ENGINE_API int32_t QorvEngineReadCloud(const char* path,
                                            int32_t keep_organized,
                                            const QorvEngineDepthCamera* camera,
                                            QorvEngineCloudData** out) {
  QorvEngineReadOptions options;
  QorvEngineDefaultReadOptionsOfSize(&options, sizeof(options));
  options.keep_organized = keep_organized;
  if (camera != nullptr) options.camera = *camera;
  return QorvEngineReadCloudWith(path, &options, out);
}

QORV_ENGINE_API void QorvEngineFreeCloud(QorvEngineCloudData* cloud) {
  // data is the first member: the record's address is the owner's.
  delete reinterpret_cast<OwnedCloud*>(cloud);
}

QORV_ENGINE_API int32_t QorvEngineWriteCloudData(const char* path,
                                                 const QorvEngineCloudData* cloud,
                                                 uint32_t cloud_size,
                                                 int32_t encoding) {
  return Guarded([&]() -> int32_t {
    constexpr size_t kVersion2 = offsetof(QorvEngineCloudData, classification);
    if (path == nullptr) return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the path is null");
    if (cloud == nullptr) return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the cloud is null");
    if (cloud_size < kVersion2) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "cloud_size is smaller than any QorvEngineCloudData");
    }
    QorvEngineCloudData in;
    std::memset(&in, 0, sizeof(in));
    std::memcpy(&in, cloud, std::min<size_t>(cloud_size, sizeof(in)));
    if (in.count < 0 || (in.count > 0 && in.points == nullptr)) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "the cloud's count is negative or its points are null");
    }
    if (in.count > qorv::io::kMaxPoints)
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the cloud has too many points");
    if (encoding < QORV_ENGINE_ENCODING_DEFAULT || encoding > QORV_ENGINE_ENCODING_COMPRESSED) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "unknown encoding " + std::to_string(encoding));
    }
    if (in.height > 1 && static_cast<int64_t>(in.width) * in.height != in.count) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "the cloud's width x height differs from its count");
    }
    for (int c = 0; c < 3; ++c) {
      if (!std::isfinite(in.origin[c]) || !std::isfinite(in.las_offset[c]) ||
          (in.has_las_quantum != 0 && !(in.las_scale[c] > 0.0 && std::isfinite(in.las_scale[c]))))
        return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                    "the cloud's origin, LAS scale or LAS offset is not finite (or a scale is "
                    "not positive)");
    }
    qorv::io::CloudData c;
    const size_t n = static_cast<size_t>(in.count);
    c.points.assign(in.points, in.points + 3 * n);
    if (in.normals != nullptr) c.normals.assign(in.normals, in.normals + 3 * n);
    if (in.colours != nullptr) c.colours.assign(in.colours, in.colours + 3 * n);
    if (in.intensity != nullptr) c.intensity.assign(in.intensity, in.intensity + n);
    if (in.classification != nullptr)
      c.classification.assign(in.classification, in.classification + n);
    if (in.gps_time != nullptr) c.gpsTime.assign(in.gps_time, in.gps_time + n);
    c.width = in.height > 1 ? in.width : in.count;
    c.height = in.height > 1 ? in.height : 1;
    c.hasViewpoint = in.has_viewpoint != 0;
    std::memcpy(c.viewpoint, in.viewpoint, sizeof(c.viewpoint));
    std::memcpy(c.origin, in.origin, sizeof(c.origin));
    c.hasLasQuantum = in.has_las_quantum != 0;
    std::memcpy(c.lasScale, in.las_scale, sizeof(c.lasScale));
    std::memcpy(c.lasOffset, in.las_offset, sizeof(c.lasOffset));
    static const qorv::io::Encoding kEncodings[] = {qorv::io::Encoding::kDefault,
                                                    qorv::io::Encoding::kAscii,
                                                    qorv::io::Encoding::kBinary,
                                                    qorv::io::Encoding::kCompressed};
    qorv::io::WriteCloudFile(path, c, kEncodings[encoding]);
    std::string leftOut;
    for (const std::string& field : qorv::io::FieldsLeftOutOf(path, c))
      leftOut += (leftOut.empty() ? "" : ", ") + field;
    SetLastWarning(leftOut.empty()
                       ? std::string()
                       : std::string("'") + path + "' cannot hold " + leftOut + ": left out");
    SetLastError("");
    return QORV_ENGINE_OK;
  });
}

QORV_ENGINE_API int32_t QorvEngineWriteCloud(const char* path,
                                             const QorvEngineCloudData* cloud,
                                             int32_t encoding) {
  // Callers of this name know the fields of interface version 2 only.
  return QorvEngineWriteCloudData(
      path, cloud, offsetof(QorvEngineCloudData, classification), encoding);
}

QORV_ENGINE_API const char* QorvEngineLastWarning(void) { return qorv::engine::LastWarning(); }

}  // extern "C"
