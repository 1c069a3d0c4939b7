// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <qorv/engine_io.h>
#include <qorv/qorv.h>

namespace qorv::tools {

// A point cloud as the exports take it (packed float triples) with every field its file held, so
// that what is read is written back whole.
struct Cloud {
  std::vector<float> points;            // 3 per point, relative to origin
  std::vector<float> normals;           // empty or 3 per point
  std::vector<unsigned char> colours;   // empty or 3 per point
  std::vector<float> intensity;         // empty or 1 per point
  std::vector<uint8_t> classification;  // empty or 1 per point
  std::vector<double> gpsTime;          // empty or 1 per point
  double origin[3] = {0, 0, 0};         // survey-scale files: a point lies at origin + its triple
  bool hasLasQuantum = false;
  double lasScale[3] = {0, 0, 0}, lasOffset[3] = {0, 0, 0};
  std::string format;             // "asc", "ply (ascii)", "pcd (binary_compressed)", ...
  std::string fields;             // the file's per-point fields
  int64_t droppedNonFinite = 0;   // points with a NaN or infinite coordinate left out
  int32_t width = 0, height = 0;  // the file's organized layout (height > 1), else 0
  bool organized = false;         // points hold the whole width x height grid, NaN holes too
  bool hasViewpoint = false;
  double viewpoint[7] = {0, 0, 0, 1, 0, 0, 0};  // the sensor's origin and orientation (w x y z)
  bool hasCamera = false;                       // a depth image, turned into points through:
  QorvEngineDepthCamera camera{};

  int32_t size() const { return static_cast<int32_t>(points.size() / 3); }
  bool hasNormals() const { return !normals.empty(); }
  bool hasColours() const { return !colours.empty(); }
  bool hasOrigin() const { return origin[0] != 0.0 || origin[1] != 0.0 || origin[2] != 0.0; }
  // The points at the given indices, every field carried along (the layout is not).
  Cloud subset(const std::vector<int32_t>& indices) const;
};

// How the tool reads files: the depth camera and the columns of column text (set once a run from
// the command line; every command reads through it).
struct ReadSettings {
  QorvEngineDepthCamera camera;
  std::string cameraFile;  // --camera: read into camera when the run starts
  std::string columns;

  ReadSettings() { QorvEngineDefaultDepthCamera(&camera); }
};
void UseReadSettings(const ReadSettings& settings);

// Reads any cloud file the engine library reads, keeping its finite points (or, with
// keepOrganized, an organized cloud's whole grid). Throws ToolError with the library's message.
Cloud ReadCloud(const std::string& path, bool keepOrganized = false);

// The cloud as the engine takes it (no copy): points, normals, origin, the sensor's origin.
QorvEngineCloud EngineView(const Cloud& cloud);

// Writes by the extension through the engine library; a field the format cannot hold is named on
// stderr in one warning line (unless quiet).
void WriteCloud(const std::string& path,
                const Cloud& cloud,
                int32_t encoding = QORV_ENGINE_ENCODING_DEFAULT,
                bool quiet = false);

}  // namespace qorv::tools
