// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv convert` and `qorv depth`: files from one format into another through the engine library.
#include <cmath>
#include <cstdio>

#include "commands.hpp"
#include "json_writer.hpp"

namespace qorv::tools {
namespace {

void CollectKept(const int32_t* indices, int32_t count, void* user) {
  static_cast<std::vector<int32_t>*>(user)->assign(indices, indices + (count > 0 ? count : 0));
}

void Report(const GlobalOptions& global, const char* command, const std::string& input, int64_t in,
            const std::string& output, int64_t out, double ms) {
  FlushAll();
  if (global.json) {
    JsonWriter json;
    json.beginObject();
    json.key("command").value(command).key("input").value(input).key("points_in").value(in);
    json.key("output").value(output).key("points_out").value(out);
    json.key("ms").value(std::round(ms * 1000.0) / 1000.0);
    json.endObject();
    std::fputs(json.str().c_str(), Out());
  } else {
    std::fprintf(Out(), "%s: %lld of %lld points written to %s (%.1f ms)\n", command, static_cast<long long>(out),
                 static_cast<long long>(in), output.c_str(), ms);
  }
  std::fflush(Out());
}

}  // namespace

int RunConvert(const GlobalOptions& global, const ConvertOptions& o) {
  Session session(global.threads);
  const double start = Now();
  Cloud cloud = ReadCloud(o.input, &o.camera);
  const int32_t read = cloud.size();
  if (o.voxel > 0.0f) {
    std::vector<int32_t> kept;
    Check(QorvVoxelFilter(session.get(), cloud.points.data(), cloud.size(), o.voxel, CollectKept, &kept),
          "QorvVoxelFilter", "thinning '" + o.input + "'");
    cloud = cloud.subset(kept);
  }
  WriteCloud(o.output, cloud, o.encoding);
  Report(global, "convert", o.input, read, o.output, cloud.size(), Now() - start);
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
  Report(global, "depth", o.input, pixels, o.output, valid, Now() - start);
  return 0;
}

}  // namespace qorv::tools
