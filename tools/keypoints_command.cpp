// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv keypoints`: key points and their descriptors (QorvDetectAndCompute), normals estimated
// first when the cloud has none.
#include <cstdio>
#include <string>
#include <vector>

#include "commands.hpp"

namespace qorv::tools {
namespace {

struct KeyPointOptions {
  std::string input, output, descriptors;
  float radius = 0.0f;           // detector neighbourhood
  float nonMaxRadius = 0.0f;     // 0: none
  float featureRadius = 0.0f;    // 0: 2.5 x radius
  float histogramRadius = 0.0f;  // 0: 1.25 x radius
  float normalRadius = 0.0f;     // normals when the input has none; 0: radius
  float ratio21 = 0.8f;          // surface-suited detector ratios
  float ratio32 = 0.8f;
  int32_t maxKeyPoints = 0;
};

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
  ReportWritten(global, {"keypoints", o.input, cloud.size(), o.output, result.size(), ms});
  return 0;
}

}  // namespace

void AddKeyPointsCommand(CLI::App& app, ToolRun& run) {
  CLI::App* sub =
      app.add_subcommand("keypoints", "Detect key points with descriptors (QorvDetectAndCompute)");
  KeyPointOptions& o = SetCommand<KeyPointOptions>(sub, run, RunKeyPoints);
  AddInputOutput(sub,
                 o.input,
                 o.output,
                 "Cloud file (normals estimated when it has none)",
                 "Cloud file of key points with their normals (written as its extension says)");
  sub->add_option("--radius", o.radius, "Detector neighbourhood")->required()->check(kPositive);
  sub->add_option("--non-max-radius", o.nonMaxRadius, "Non-maximum suppression (0: off)")
      ->check(kNonNegative);
  sub->add_option("--feature-radius", o.featureRadius, "Default 2.5 x radius")->check(kPositive);
  sub->add_option("--histogram-radius", o.histogramRadius, "Default 1.25 x radius")
      ->check(kPositive);
  sub->add_option("--normal-radius", o.normalRadius, "Default: radius")->check(kPositive);
  sub->add_option("--ratio21", o.ratio21, "Bound on lambda2 / lambda1")
      ->check(kPositive)
      ->capture_default_str();
  sub->add_option("--ratio32", o.ratio32, "Bound on lambda3 / lambda2")
      ->check(kPositive)
      ->capture_default_str();
  sub->add_option("--max", o.maxKeyPoints, "Keep the best N (0: all)")
      ->check(CLI::NonNegativeNumber);
  sub->add_option("--descriptors", o.descriptors, "Also write the 33-float descriptors");
}

}  // namespace qorv::tools
