// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv convert` and `qorv depth`: files from one format into another through the engine library.
#include <string>
#include <vector>

#include "commands.hpp"

namespace qorv::tools {
namespace {

// convert and depth: an input file, an output file, the encoding, and the depth camera.
struct ConvertOptions {
  std::string input, output;
  float voxel = 0.0f;  // 0: no thinning
  int32_t encoding = QORV_ENGINE_ENCODING_DEFAULT;
  QorvEngineDepthCamera camera;

  ConvertOptions() { QorvEngineDefaultDepthCamera(&camera); }
};

int RunConvert(const GlobalOptions& global, const ConvertOptions& o) {
  Session session(global.threads);
  const double start = Now();
  Cloud cloud = ReadCloud(o.input, &o.camera);
  const int32_t read = cloud.size();
  if (o.voxel > 0.0f) {
    std::vector<int32_t> kept;
    Check(QorvVoxelFilter(
              session.get(), cloud.points.data(), cloud.size(), o.voxel, CollectIndices, &kept),
          "QorvVoxelFilter",
          "thinning '" + o.input + "'");
    cloud = cloud.subset(kept);
  }
  WriteCloud(o.output, cloud, o.encoding);
  ReportWritten(global, {"convert", o.input, read, o.output, cloud.size(), Now() - start});
  return 0;
}

int RunDepth(const GlobalOptions& global, const ConvertOptions& o) {
  const double start = Now();
  // The frame keeps its layout (holes as NaN) for the formats that carry one.
  QorvEngineCloudData* data = nullptr;
  if (QorvEngineReadCloud(o.input.c_str(), 1, &o.camera, &data) != QORV_ENGINE_OK) {
    throw ToolError(QorvEngineLastError());
  }
  if (data->height <= 1) {
    QorvEngineFreeCloud(data);
    throw ToolError("'" + o.input + "' is no depth image");
  }
  const int64_t valid = data->count - data->non_finite;
  const int32_t code = QorvEngineWriteCloud(o.output.c_str(), data, o.encoding);
  const int64_t pixels = data->count;
  QorvEngineFreeCloud(data);
  if (code != QORV_ENGINE_OK) throw ToolError(QorvEngineLastError());
  ReportWritten(global, {"depth", o.input, pixels, o.output, valid, Now() - start});
  return 0;
}

// The encoding of the written file and the camera that turns a depth image into points.
void AddOutputOptions(CLI::App* sub, ConvertOptions& o) {
  sub->add_flag_function(
      "--ascii", [&o](int64_t) { o.encoding = QORV_ENGINE_ENCODING_ASCII; }, "Text PLY or PCD");
  sub->add_flag_function(
      "--compressed",
      [&o](int64_t) { o.encoding = QORV_ENGINE_ENCODING_COMPRESSED; },
      "PCD binary_compressed");
  const char* group = "Depth camera (depth images)";
  sub->add_option("--fx", o.camera.fx, "Focal length in pixels, x")
      ->check(kPositive)
      ->capture_default_str()
      ->group(group);
  sub->add_option("--fy", o.camera.fy, "Focal length in pixels, y")
      ->check(kPositive)
      ->capture_default_str()
      ->group(group);
  sub->add_option("--cx", o.camera.cx, "Principal point, x")->capture_default_str()->group(group);
  sub->add_option("--cy", o.camera.cy, "Principal point, y")->capture_default_str()->group(group);
  sub->add_option("--depth-scale", o.camera.depth_scale, "Depth units per metre")
      ->check(kPositive)
      ->capture_default_str()
      ->group(group);
}

}  // namespace

void AddConvertCommands(CLI::App& app, ToolRun& run) {
  CLI::App* convertCmd =
      app.add_subcommand("convert", "Any cloud format (or depth image) to PLY, PCD or ASC");
  ConvertOptions& convert = SetCommand<ConvertOptions>(convertCmd, run, RunConvert);
  AddInputOutput(convertCmd,
                 convert.input,
                 convert.output,
                 "Cloud file or depth image",
                 "Written by its extension: .ply, .pcd, else ASC");
  AddVoxelOption(
      convertCmd, convert.voxel, "Thin to one point a voxel of this edge (QorvVoxelFilter)");
  AddOutputOptions(convertCmd, convert);

  CLI::App* depthCmd =
      app.add_subcommand("depth", "A depth image (16-bit PNG or TIFF) to an organized cloud");
  ConvertOptions& depth = SetCommand<ConvertOptions>(depthCmd, run, RunDepth);
  depthCmd->add_option("image", depth.input, "Depth image")->required();
  depthCmd->add_option("output", depth.output, "Cloud file (.pcd keeps the image's layout)")
      ->required();
  AddOutputOptions(depthCmd, depth);
}

}  // namespace qorv::tools
