// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv convert` and `qorv depth`: files from one format into another through the engine library.
#include <cmath>
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
};

int RunConvert(const GlobalOptions& global, const ConvertOptions& o) {
  Session session(global.threads);
  const double start = Now();
  // Without thinning the cloud goes over whole: an organized frame keeps its grid where the output
  // holds one.
  Cloud cloud = ReadCloud(o.input, o.voxel <= 0.0f);
  const int32_t read = cloud.size();
  if (o.voxel > 0.0f) {
    std::vector<int32_t> kept;
    Check(QorvVoxelFilter(
              session.get(), cloud.points.data(), cloud.size(), o.voxel, CollectIndices, &kept),
          "QorvVoxelFilter",
          "thinning '" + o.input + "'");
    cloud = cloud.subset(kept);
  }
  WriteCloud(o.output, cloud, o.encoding, global.quiet);
  ReportWritten(global, {"convert", o.input, read, o.output, cloud.size(), Now() - start});
  return 0;
}

int RunDepth(const GlobalOptions& global, const ConvertOptions& o) {
  const double start = Now();
  // The frame keeps its layout (holes as NaN) for the formats that carry one.
  Cloud frame = ReadCloud(o.input, true);
  if (!frame.hasCamera) throw ToolError("'" + o.input + "' is no depth image");
  const int64_t pixels = frame.size();
  int64_t seen = 0;
  for (int32_t i = 0; i < frame.size(); ++i)
    seen += std::isfinite(frame.points[3 * static_cast<size_t>(i) + 2]);
  WriteCloud(o.output, frame, o.encoding, global.quiet);
  ReportWritten(global, {"depth", o.input, pixels, o.output, seen, Now() - start});
  return 0;
}

// The encoding of the written file.
void AddOutputOptions(CLI::App* sub, ConvertOptions& o) {
  sub->add_flag_function(
      "--ascii", [&o](int64_t) { o.encoding = QORV_ENGINE_ENCODING_ASCII; }, "Text PLY or PCD");
  sub->add_flag_function(
      "--compressed",
      [&o](int64_t) { o.encoding = QORV_ENGINE_ENCODING_COMPRESSED; },
      "PCD binary_compressed");
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
                 "Written as its extension says: .ply, .pcd, .las, .asc or .xyz");
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
