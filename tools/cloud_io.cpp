// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "cloud_io.hpp"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <fstream>

#include "session.hpp"

#include <nlohmann/json.hpp>

namespace qorv::tools {
namespace {

ReadSettings& Settings() {
  static ReadSettings settings;
  return settings;
}

template <typename T>
void Pick(const std::vector<T>& from, std::vector<T>& to, size_t i, size_t width) {
  if (!from.empty()) to.insert(to.end(), from.begin() + i * width, from.begin() + (i + 1) * width);
}

// A camera file: {"fx", "fy", "cx", "cy", "depth_scale"}, or an Open3D pinhole camera intrinsic
// ({"intrinsic_matrix": 9 numbers, column after column}).
QorvEngineDepthCamera ReadCameraFile(const std::string& path, QorvEngineDepthCamera camera) {
  std::ifstream in(path);
  if (!in) throw ToolError("cannot open the camera file '" + path + "'");
  nlohmann::json doc;
  try {
    doc = nlohmann::json::parse(in);
    if (doc.contains("intrinsic_matrix")) {
      const std::vector<double> k = doc.at("intrinsic_matrix").get<std::vector<double>>();
      if (k.size() != 9) throw ToolError("'" + path + "': intrinsic_matrix must hold 9 numbers");
      camera.fx = k[0];
      camera.fy = k[4];
      camera.cx = k[6];
      camera.cy = k[7];
    } else {
      camera.fx = doc.at("fx").get<double>();
      camera.fy = doc.at("fy").get<double>();
      camera.cx = doc.at("cx").get<double>();
      camera.cy = doc.at("cy").get<double>();
    }
    if (doc.contains("depth_scale")) camera.depth_scale = doc.at("depth_scale").get<double>();
  } catch (const nlohmann::json::exception& e) {
    throw ToolError("'" + path +
                    "' is no camera file (JSON with fx, fy, cx, cy and optionally depth_scale, "
                    "or an Open3D intrinsic_matrix): " +
                    e.what());
  }
  if (!(camera.fx > 0.0 && camera.fy > 0.0 && camera.depth_scale > 0.0))
    throw ToolError("'" + path + "': fx, fy and depth_scale must be positive");
  return camera;
}

}  // namespace

void UseReadSettings(const ReadSettings& settings) {
  Settings() = settings;
  if (!settings.cameraFile.empty())
    Settings().camera = ReadCameraFile(settings.cameraFile, settings.camera);
}

Cloud Cloud::subset(const std::vector<int32_t>& indices) const {
  Cloud out = *this;
  out.points.clear();
  out.normals.clear();
  out.colours.clear();
  out.intensity.clear();
  out.classification.clear();
  out.gpsTime.clear();
  out.organized = false;
  out.points.reserve(indices.size() * 3);
  for (const int32_t index : indices) {
    const size_t i = static_cast<size_t>(index);
    Pick(points, out.points, i, 3);
    Pick(normals, out.normals, i, 3);
    Pick(colours, out.colours, i, 3);
    Pick(intensity, out.intensity, i, 1);
    Pick(classification, out.classification, i, 1);
    Pick(gpsTime, out.gpsTime, i, 1);
  }
  return out;
}

Cloud ReadCloud(const std::string& path, bool keepOrganized) {
  QorvEngineReadOptions options;
  QorvEngineDefaultReadOptions(&options);
  options.keep_organized = keepOrganized ? 1 : 0;
  options.camera = Settings().camera;
  options.columns = Settings().columns.c_str();
  QorvEngineCloudData* data = nullptr;
  if (QorvEngineReadCloudWith(path.c_str(), &options, &data) != QORV_ENGINE_OK) {
    throw ToolError(QorvEngineLastError());
  }
  Cloud cloud;
  const size_t n = static_cast<size_t>(data->count);
  if (data->count > INT32_MAX) {
    QorvEngineFreeCloud(data);
    throw ToolError("'" + path + "' holds more points than supported");
  }
  auto copy = [n](auto* from, size_t width, auto& to) {
    if (from != nullptr) to.assign(from, from + width * n);
  };
  copy(data->points, 3, cloud.points);
  copy(data->normals, 3, cloud.normals);
  copy(data->colours, 3, cloud.colours);
  copy(data->intensity, 1, cloud.intensity);
  copy(data->classification, 1, cloud.classification);
  copy(data->gps_time, 1, cloud.gpsTime);
  std::copy(data->origin, data->origin + 3, cloud.origin);
  cloud.hasLasQuantum = data->has_las_quantum != 0;
  std::copy(data->las_scale, data->las_scale + 3, cloud.lasScale);
  std::copy(data->las_offset, data->las_offset + 3, cloud.lasOffset);
  cloud.format = data->format;
  cloud.fields = data->fields;
  cloud.droppedNonFinite = data->non_finite;
  cloud.width = data->file_width;
  cloud.height = data->file_height;
  cloud.organized = data->height > 1;
  cloud.hasViewpoint = data->has_viewpoint != 0;
  std::copy(data->viewpoint, data->viewpoint + 7, cloud.viewpoint);
  cloud.hasCamera = cloud.format.rfind("depth", 0) == 0;
  cloud.camera = options.camera;
  QorvEngineFreeCloud(data);
  return cloud;
}

QorvEngineCloud EngineView(const Cloud& cloud) {
  QorvEngineCloud view{};
  view.points = cloud.points.data();
  view.normals = cloud.hasNormals() ? cloud.normals.data() : nullptr;
  view.count = cloud.size();
  if (cloud.organized) {
    view.width = cloud.width;
    view.height = cloud.height;
  }
  std::copy(cloud.origin, cloud.origin + 3, view.origin);
  if (cloud.hasViewpoint) {
    view.has_viewpoint = 1;
    std::copy(cloud.viewpoint, cloud.viewpoint + 3, view.viewpoint);
  }
  return view;
}

void WriteCloud(const std::string& path, const Cloud& cloud, int32_t encoding, bool quiet) {
  if (cloud.size() == 0) throw ToolError("nothing to write to '" + path + "': no point left");
  QorvEngineCloudData data{};
  auto in = [](const auto& v) {
    return v.empty() ? nullptr
                     : const_cast<typename std::decay_t<decltype(v)>::value_type*>(v.data());
  };
  data.points = in(cloud.points);
  data.normals = in(cloud.normals);
  data.colours = in(cloud.colours);
  data.intensity = in(cloud.intensity);
  data.classification = in(cloud.classification);
  data.gps_time = in(cloud.gpsTime);
  data.count = cloud.size();
  if (cloud.organized) {
    data.width = cloud.width;
    data.height = cloud.height;
  }
  data.has_viewpoint = cloud.hasViewpoint ? 1 : 0;
  std::copy(cloud.viewpoint, cloud.viewpoint + 7, data.viewpoint);
  std::copy(cloud.origin, cloud.origin + 3, data.origin);
  data.has_las_quantum = cloud.hasLasQuantum ? 1 : 0;
  std::copy(cloud.lasScale, cloud.lasScale + 3, data.las_scale);
  std::copy(cloud.lasOffset, cloud.lasOffset + 3, data.las_offset);
  if (QorvEngineWriteCloudData(path.c_str(), &data, sizeof(data), encoding) != QORV_ENGINE_OK)
    throw ToolError(QorvEngineLastError());
  const std::string warning = QorvEngineLastWarning();
  if (!warning.empty() && !quiet) std::fprintf(stderr, "qorv: warning: %s\n", warning.c_str());
}

}  // namespace qorv::tools
