// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv info`: points, fields, bounding box, centroid and spacing of a cloud.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "commands.hpp"

namespace qorv::tools {
namespace {

int RunInfo(const GlobalOptions& global, const std::string& path) {
  Session session(global.threads);
  const double start = Now();
  const Cloud cloud = ReadCloud(path);
  const double readMs = Now() - start;
  double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300}, sum[3] = {0, 0, 0};
  for (int32_t i = 0; i < cloud.size(); ++i) {
    for (int c = 0; c < 3; ++c) {
      const double v = cloud.points[3 * static_cast<size_t>(i) + c] + cloud.origin[c];
      lo[c] = std::min(lo[c], v);
      hi[c] = std::max(hi[c], v);
      sum[c] += v;
    }
  }
  // The spacing needs a neighbour: a single point has none.
  float spacing = std::numeric_limits<float>::quiet_NaN();
  if (cloud.size() >= 2) {
    Check(QorvCheckDistance(session.get(), cloud.points.data(), cloud.size(), 2, &spacing),
          "QorvCheckDistance",
          "measuring the spacing of '" + path + "'");
  }
  const double centroid[3] = {sum[0] / cloud.size(), sum[1] / cloud.size(), sum[2] / cloud.size()};
  const double extent[3] = {hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]};
  FlushAll();
  std::FILE* out = Out();
  if (global.json) {
    auto triple = [](const double* v) { return nlohmann::ordered_json{v[0], v[1], v[2]}; };
    PrintJson({{"path", path},
               {"format", cloud.format},
               {"points", cloud.size()},
               {"normals", cloud.hasNormals()},
               {"colours", cloud.hasColours()},
               {"dropped_non_finite", cloud.droppedNonFinite},
               {"fields", cloud.fields},
               {"organized",
                cloud.height > 1
                    ? nlohmann::ordered_json{{"width", cloud.width}, {"height", cloud.height}}
                    : nlohmann::ordered_json()},
               {"min", triple(lo)},
               {"max", triple(hi)},
               {"extent", triple(extent)},
               {"centroid", triple(centroid)},
               {"spacing", static_cast<double>(spacing)},
               {"origin", cloud.hasOrigin() ? triple(cloud.origin) : nlohmann::ordered_json()},
               {"camera",
                cloud.hasCamera ? nlohmann::ordered_json{{"fx", cloud.camera.fx},
                                                         {"fy", cloud.camera.fy},
                                                         {"cx", cloud.camera.cx},
                                                         {"cy", cloud.camera.cy},
                                                         {"depth_scale", cloud.camera.depth_scale}}
                                : nlohmann::ordered_json()},
               {"read_ms", std::round(readMs * 1000.0) / 1000.0}});
  } else {
    std::fprintf(out, "file      %s (%s)\n", path.c_str(), cloud.format.c_str());
    std::fprintf(out,
                 "points    %d%s%s\n",
                 cloud.size(),
                 cloud.hasNormals() ? ", normals" : "",
                 cloud.hasColours() ? ", colours" : "");
    std::fprintf(out, "fields    %s\n", cloud.fields.c_str());
    if (cloud.height > 1) std::fprintf(out, "organized %d x %d\n", cloud.width, cloud.height);
    if (cloud.hasCamera) {
      std::fprintf(out,
                   "camera    fx %.6g, fy %.6g, cx %.6g, cy %.6g, %.6g depth units a metre\n",
                   cloud.camera.fx,
                   cloud.camera.fy,
                   cloud.camera.cx,
                   cloud.camera.cy,
                   cloud.camera.depth_scale);
    }
    if (cloud.hasOrigin()) {
      std::fprintf(out,
                   "origin    %.17g %.17g %.17g (coordinates kept relative to it)\n",
                   cloud.origin[0],
                   cloud.origin[1],
                   cloud.origin[2]);
    }
    if (cloud.droppedNonFinite > 0) {
      std::fprintf(out,
                   "dropped   %lld points with non-finite coordinates\n",
                   static_cast<long long>(cloud.droppedNonFinite));
    }
    const char* precise =
        cloud.hasOrigin() ? "min       %.3f %.3f %.3f\n" : "min       %.6g %.6g %.6g\n";
    std::fprintf(out, precise, lo[0], lo[1], lo[2]);
    std::fprintf(out,
                 cloud.hasOrigin() ? "max       %.3f %.3f %.3f\n" : "max       %.6g %.6g %.6g\n",
                 hi[0],
                 hi[1],
                 hi[2]);
    std::fprintf(out, "extent    %.6g %.6g %.6g\n", extent[0], extent[1], extent[2]);
    std::fprintf(out, "centroid  %.6g %.6g %.6g\n", centroid[0], centroid[1], centroid[2]);
    if (std::isnan(spacing)) {
      std::fprintf(out, "spacing   none (a single point)\n");
    } else {
      std::fprintf(out, "spacing   %.6g (mean distance to the nearest neighbour)\n", spacing);
    }
  }
  std::fflush(out);
  return 0;
}

}  // namespace

void AddInfoCommand(CLI::App& app, ToolRun& run) {
  CLI::App* sub = app.add_subcommand("info", "Points, bounding box and spacing of a cloud");
  std::string& path = SetCommand<std::string>(sub, run, RunInfo);
  sub->add_option("file", path, "Cloud file")->required();
}

}  // namespace qorv::tools
