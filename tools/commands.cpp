// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The thin commands: each reads a cloud, makes one (or two) library calls and writes ASC.
#include "commands.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>

#include "json_writer.hpp"

namespace qorv::tools {
namespace {

void CollectIndices(const int32_t* indices, int32_t count, void* user) {
  auto* out = static_cast<std::vector<int32_t>*>(user);
  out->assign(indices, indices + (count > 0 ? count : 0));
}

struct KeyPointCopy {
  std::vector<float> positions, normals, descriptors;
};

void CollectKeyPoints(const QorvKeyPointResult* result, void* user) {
  auto* out = static_cast<KeyPointCopy*>(user);
  const size_t n = result->count > 0 ? static_cast<size_t>(result->count) : 0;
  out->positions.assign(result->positions, result->positions + 3 * n);
  out->normals.assign(result->normals, result->normals + 3 * n);
  out->descriptors.assign(result->descriptors, result->descriptors + 33 * n);
}

// One summary line, or a JSON object, for a command that turned `input` into `output`.
void ReportWritten(const GlobalOptions& global,
                   const char* command,
                   const std::string& input,
                   int32_t pointsIn,
                   const std::string& output,
                   int32_t pointsOut,
                   double ms,
                   const std::string& note = "") {
  FlushAll();
  if (global.json) {
    JsonWriter json;
    json.beginObject();
    json.key("command").value(command);
    json.key("input").value(input).key("points_in").value(pointsIn);
    json.key("output").value(output).key("points_out").value(pointsOut);
    json.key("ms").value(std::round(ms * 1000.0) / 1000.0);
    json.endObject();
    std::fputs(json.str().c_str(), Out());
  } else {
    std::fprintf(Out(),
                 "%s: %d of %d points written to %s%s (%.1f ms)\n",
                 command,
                 pointsOut,
                 pointsIn,
                 output.c_str(),
                 note.c_str(),
                 ms);
  }
  std::fflush(Out());
}

}  // namespace

int RunInfo(const GlobalOptions& global, const std::string& path) {
  Session session(global.threads);
  const double start = Now();
  const Cloud cloud = ReadCloud(path);
  const double readMs = Now() - start;
  double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300}, sum[3] = {0, 0, 0};
  for (int32_t i = 0; i < cloud.size(); ++i) {
    for (int c = 0; c < 3; ++c) {
      const double v = cloud.points[3 * static_cast<size_t>(i) + c];
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
    JsonWriter json;
    json.beginObject();
    json.key("path").value(path).key("format").value(cloud.format);
    json.key("points").value(cloud.size());
    json.key("normals").value(cloud.hasNormals()).key("colours").value(cloud.hasColours());
    json.key("dropped_non_finite").value(cloud.droppedNonFinite);
    json.key("fields").value(cloud.fields);
    json.key("organized");
    if (cloud.height > 1) {
      json.beginObject().key("width").value(cloud.width).key("height").value(cloud.height).endObject();
    } else {
      json.null();
    }
    json.key("min").numbers(lo, 3).key("max").numbers(hi, 3).key("extent").numbers(extent, 3);
    json.key("centroid").numbers(centroid, 3);
    json.key("spacing").value(static_cast<double>(spacing));
    json.key("read_ms").value(std::round(readMs * 1000.0) / 1000.0);
    json.endObject();
    std::fputs(json.str().c_str(), out);
  } else {
    std::fprintf(out, "file      %s (%s)\n", path.c_str(), cloud.format.c_str());
    std::fprintf(out,
                 "points    %d%s%s\n",
                 cloud.size(),
                 cloud.hasNormals() ? ", normals" : "",
                 cloud.hasColours() ? ", colours" : "");
    std::fprintf(out, "fields    %s\n", cloud.fields.c_str());
    if (cloud.height > 1) std::fprintf(out, "organized %d x %d\n", cloud.width, cloud.height);
    if (cloud.droppedNonFinite > 0) {
      std::fprintf(out,
                   "dropped   %lld points with non-finite coordinates\n",
                   static_cast<long long>(cloud.droppedNonFinite));
    }
    std::fprintf(out, "min       %.6g %.6g %.6g\n", lo[0], lo[1], lo[2]);
    std::fprintf(out, "max       %.6g %.6g %.6g\n", hi[0], hi[1], hi[2]);
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

int RunNormals(const GlobalOptions& global,
               const std::string& input,
               const std::string& output,
               float radius,
               int32_t orientNeighbors) {
  Session session(global.threads);
  Cloud cloud = ReadCloud(input);
  const double start = Now();
  std::vector<float> normals(cloud.points.size());
  Check(QorvComputeNormals(session.get(),
                           cloud.points.data(),
                           normals.data(),
                           cloud.size(),
                           orientNeighbors,
                           radius),
        "QorvComputeNormals",
        "estimating normals");
  const double ms = Now() - start;
  cloud.normals.swap(normals);
  int32_t zero = 0;
  for (int32_t i = 0; i < cloud.size(); ++i) {
    const float* n = &cloud.normals[3 * static_cast<size_t>(i)];
    if (n[0] == 0.0f && n[1] == 0.0f && n[2] == 0.0f) ++zero;
  }
  WriteCloud(output, cloud);
  ReportWritten(global,
                "normals",
                input,
                cloud.size(),
                output,
                cloud.size(),
                ms,
                zero > 0 ? " (" + std::to_string(zero) + " without a normal: too few neighbours)"
                         : std::string());
  return 0;
}

int RunFilter(const GlobalOptions& global, const FilterOptions& o) {
  Session session(global.threads);
  QorvInstance* inst = session.get();
  const Cloud cloud = ReadCloud(o.input);
  const double start = Now();
  Cloud result;
  if (o.kind == "gaussian") {
    result = cloud;
    Check(
        QorvGaussianFilter(inst, cloud.points.data(), result.points.data(), cloud.size(), o.radius),
        "QorvGaussianFilter",
        "smoothing");
  } else {
    std::vector<int32_t> kept;
    if (o.kind == "voxel") {
      Check(QorvVoxelFilter(inst, cloud.points.data(), cloud.size(), o.leaf, CollectIndices, &kept),
            "QorvVoxelFilter",
            "voxel filtering");
    } else if (o.kind == "sor") {
      Check(QorvSORFilter(
                inst, cloud.points.data(), cloud.size(), o.meanK, o.stdMul, CollectIndices, &kept),
            "QorvSORFilter",
            "removing outliers");
    } else {
      Check(
          QorvEdgeFilter(inst, cloud.points.data(), cloud.size(), o.radius, CollectIndices, &kept),
          "QorvEdgeFilter",
          "finding edge points");
    }
    result = cloud.subset(kept);
  }
  const double ms = Now() - start;
  if (result.size() == 0) {
    throw ToolError(o.kind + " filter kept no point of '" + o.input + "'; nothing written");
  }
  WriteCloud(o.output, result);
  ReportWritten(
      global, ("filter " + o.kind).c_str(), o.input, cloud.size(), o.output, result.size(), ms);
  return 0;
}

int RunKeyPoints(const GlobalOptions& global, const KeyPointOptions& o) {
  Session session(global.threads);
  QorvInstance* inst = session.get();
  Cloud cloud = ReadCloud(o.input);
  const double start = Now();
  if (!cloud.hasNormals()) {
    cloud.normals.assign(cloud.points.size(), 0.0f);
    Check(QorvComputeNormals(inst,
                             cloud.points.data(),
                             cloud.normals.data(),
                             cloud.size(),
                             10,
                             o.normalRadius > 0.0f ? o.normalRadius : o.radius),
          "QorvComputeNormals",
          "estimating normals");
  }
  KeyPointCopy keys;
  Check(QorvDetectAndCompute(inst,
                             cloud.points.data(),
                             cloud.normals.data(),
                             cloud.size(),
                             o.radius,
                             o.nonMaxRadius,
                             o.featureRadius > 0.0f ? o.featureRadius : 2.5f * o.radius,
                             o.histogramRadius > 0.0f ? o.histogramRadius : 1.25f * o.radius,
                             o.ratio21,
                             o.ratio32,
                             o.maxKeyPoints,
                             CollectKeyPoints,
                             &keys),
        "QorvDetectAndCompute",
        "detecting key points");
  const double ms = Now() - start;
  Cloud result;
  result.points = keys.positions;
  result.normals = keys.normals;
  if (result.size() == 0) {
    throw ToolError("no key points found in '" + o.input +
                    "'; try a larger --radius or looser --ratio21/--ratio32");
  }
  WriteCloud(o.output, result);
  if (!o.descriptors.empty()) {
    std::FILE* file = std::fopen(o.descriptors.c_str(), "w");
    if (file == nullptr) throw ToolError("cannot write descriptors to '" + o.descriptors + "'");
    for (size_t k = 0; k < keys.descriptors.size(); k += 33) {
      for (size_t b = 0; b < 33; ++b) {
        std::fprintf(file, b == 0 ? "%.6g" : " %.6g", keys.descriptors[k + b]);
      }
      std::fputc('\n', file);
    }
    if (std::fclose(file) != 0)
      throw ToolError("cannot write descriptors to '" + o.descriptors + "'");
  }
  ReportWritten(global, "keypoints", o.input, cloud.size(), o.output, result.size(), ms);
  return 0;
}

int RunTransform(const GlobalOptions& global,
                 const std::string& input,
                 const std::string& output,
                 const std::string& matrix,
                 bool inverse) {
  std::string text = matrix;
  if (!text.empty() && text[0] == '@') {  // @FILE: numbers read from a file
    std::ifstream in(text.substr(1));
    if (!in) throw ToolError("cannot open matrix file '" + text.substr(1) + "'");
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  Rigid motion = ParseMatrix(text);
  if (inverse) motion = motion.inverse();
  Session session(global.threads);
  const Cloud cloud = ReadCloud(input);
  const double start = Now();
  const Cloud moved = MoveCloud(session, cloud, motion);
  const double ms = Now() - start;
  WriteCloud(output, moved);
  ReportWritten(global, "transform", input, cloud.size(), output, moved.size(), ms);
  return 0;
}

}  // namespace qorv::tools
