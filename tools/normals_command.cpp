// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv normals`: normals estimated by QorvComputeNormals, written with the points as ASC.
#include <string>
#include <vector>

#include "commands.hpp"

namespace qorv::tools {
namespace {

struct NormalsOptions {
  std::string input, output;
  float radius = 0.0f;
  int32_t orientNeighbors = 10;
};

int RunNormals(const GlobalOptions& global, const NormalsOptions& o) {
  Session session(global.threads);
  Cloud cloud = ReadCloud(o.input);
  const double start = Now();
  std::vector<float> normals(cloud.points.size());
  Check(QorvComputeNormals(session.get(),
                           cloud.points.data(),
                           normals.data(),
                           cloud.size(),
                           o.orientNeighbors,
                           o.radius),
        "QorvComputeNormals",
        "estimating normals");
  const double ms = Now() - start;
  cloud.normals.swap(normals);
  int32_t zero = 0;
  for (int32_t i = 0; i < cloud.size(); ++i) {
    const float* n = &cloud.normals[3 * static_cast<size_t>(i)];
    if (n[0] == 0.0f && n[1] == 0.0f && n[2] == 0.0f) ++zero;
  }
  WriteCloud(o.output, cloud);
  ReportWritten(global,
                {"normals", o.input, cloud.size(), o.output, cloud.size(), ms},
                zero > 0 ? " (" + std::to_string(zero) + " without a normal: too few neighbours)"
                         : std::string());
  return 0;
}

}  // namespace

void AddNormalsCommand(CLI::App& app, ToolRun& run) {
  CLI::App* sub = app.add_subcommand("normals", "Estimate normals (QorvComputeNormals)");
  NormalsOptions& o = SetCommand<NormalsOptions>(sub, run, RunNormals);
  AddInputOutput(sub,
                 o.input,
                 o.output,
                 "Cloud file",
                 "Cloud file with normals (written as its extension says)");
  sub->add_option("--radius", o.radius, "Neighbourhood radius")->required()->check(kPositive);
  sub->add_option(
         "--orient-neighbors", o.orientNeighbors, "Neighbour count of the orientation pass")
      ->check(CLI::Range(0, 1000))
      ->capture_default_str();
}

}  // namespace qorv::tools
