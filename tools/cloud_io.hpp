// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <qorv/engine_io.h>
#include <qorv/qorv.h>

namespace qorv::tools {

// A point cloud as the exports take it: packed float triples, optional normals and colours.
struct Cloud {
  std::vector<float> points;           // 3 per point
  std::vector<float> normals;          // empty or 3 per point
  std::vector<unsigned char> colours;  // empty or 3 per point
  std::string format;                  // "asc", "ply (ascii)", "pcd (binary_compressed)", ...
  std::string fields;                  // the file's per-point fields
  int64_t droppedNonFinite = 0;        // points with a NaN or infinite coordinate left out
  int32_t width = 0, height = 0;       // the file's organized layout (height > 1), else 0
  bool hasViewpoint = false;
  double viewpoint[3] = {0, 0, 0};  // the sensor origin the file gives

  int32_t size() const { return static_cast<int32_t>(points.size() / 3); }
  bool hasNormals() const { return !normals.empty(); }
  bool hasColours() const { return !colours.empty(); }
  // The points at the given indices, normals and colours carried along.
  Cloud subset(const std::vector<int32_t>& indices) const;
};

// Reads any cloud file the engine library reads (PLY, PCD, ASC, depth PNG/TIFF through `camera`,
// NULL for the defaults), keeping its finite points. Throws ToolError with the library's message.
Cloud ReadCloud(const std::string& path, const QorvEngineDepthCamera* camera = nullptr);

// The cloud as the engine takes it (no copy): points, normals, the sensor's origin.
QorvEngineCloud EngineView(const Cloud& cloud);

// Writes by the extension (.ply, .pcd, else ASC text) through the engine library.
void WriteCloud(const std::string& path,
                const Cloud& cloud,
                int32_t encoding = QORV_ENGINE_ENCODING_DEFAULT);

}  // namespace qorv::tools
