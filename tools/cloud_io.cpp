// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "cloud_io.hpp"

#include <algorithm>
#include <climits>

#include "session.hpp"

namespace qorv::tools {

Cloud Cloud::subset(const std::vector<int32_t>& indices) const {
  Cloud out;
  out.format = format;
  out.fields = fields;
  out.hasViewpoint = hasViewpoint;
  std::copy(viewpoint, viewpoint + 3, out.viewpoint);
  out.points.reserve(indices.size() * 3);
  for (const int32_t i : indices) {
    for (int c = 0; c < 3; ++c) {
      const size_t at = 3 * static_cast<size_t>(i) + c;
      out.points.push_back(points[at]);
      if (hasNormals()) out.normals.push_back(normals[at]);
      if (hasColours()) out.colours.push_back(colours[at]);
    }
  }
  return out;
}

Cloud ReadCloud(const std::string& path, const QorvEngineDepthCamera* camera) {
  QorvEngineCloudData* data = nullptr;
  if (QorvEngineReadCloud(path.c_str(), 0, camera, &data) != QORV_ENGINE_OK) {
    throw ToolError(QorvEngineLastError());
  }
  Cloud cloud;
  const size_t n = static_cast<size_t>(data->count);
  if (data->count > INT32_MAX) {
    QorvEngineFreeCloud(data);
    throw ToolError("'" + path + "' holds more points than supported");
  }
  cloud.points.assign(data->points, data->points + 3 * n);
  if (data->normals != nullptr) cloud.normals.assign(data->normals, data->normals + 3 * n);
  if (data->colours != nullptr) cloud.colours.assign(data->colours, data->colours + 3 * n);
  cloud.format = data->format;
  cloud.fields = data->fields;
  cloud.droppedNonFinite = data->non_finite;
  cloud.width = data->file_width;
  cloud.height = data->file_height;
  cloud.hasViewpoint = data->has_viewpoint != 0;
  std::copy(data->viewpoint, data->viewpoint + 3, cloud.viewpoint);
  QorvEngineFreeCloud(data);
  return cloud;
}

QorvEngineCloud EngineView(const Cloud& cloud) {
  QorvEngineCloud view{};
  view.points = cloud.points.data();
  view.normals = cloud.hasNormals() ? cloud.normals.data() : nullptr;
  view.count = cloud.size();
  if (cloud.hasViewpoint) {
    view.has_viewpoint = 1;
    std::copy(cloud.viewpoint, cloud.viewpoint + 3, view.viewpoint);
  }
  return view;
}

void WriteCloud(const std::string& path, const Cloud& cloud, int32_t encoding) {
  if (cloud.size() == 0) throw ToolError("nothing to write to '" + path + "': no point left");
  QorvEngineCloudData data{};
  data.points = const_cast<float*>(cloud.points.data());
  data.normals = cloud.hasNormals() ? const_cast<float*>(cloud.normals.data()) : nullptr;
  data.colours = cloud.hasColours() ? const_cast<unsigned char*>(cloud.colours.data()) : nullptr;
  data.count = cloud.size();
  data.has_viewpoint = cloud.hasViewpoint ? 1 : 0;
  data.viewpoint[0] = cloud.viewpoint[0];
  data.viewpoint[1] = cloud.viewpoint[1];
  data.viewpoint[2] = cloud.viewpoint[2];
  data.viewpoint[3] = 1.0;
  if (QorvEngineWriteCloud(path.c_str(), &data, encoding) != QORV_ENGINE_OK)
    throw ToolError(QorvEngineLastError());
}

}  // namespace qorv::tools
