// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv filter voxel|sor|edge|gaussian`: one of the library's point filters, the result as ASC.
#include <string>
#include <vector>

#include "commands.hpp"

namespace qorv::tools {
namespace {

struct FilterOptions {
  std::string kind;  // voxel, sor, edge, gaussian
  std::string input, output;
  float leaf = 0.0f;
  float radius = 0.0f;
  int32_t meanK = 50;
  float stdMul = 3.4f;
};

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
  ReportWritten(global, {"filter " + o.kind, o.input, cloud.size(), o.output, result.size(), ms});
  return 0;
}

}  // namespace

void AddFilterCommand(CLI::App& app, ToolRun& run) {
  CLI::App* filter = app.add_subcommand("filter", "Voxel, outlier, edge or Gaussian filter");
  FilterOptions& o = SetCommand<FilterOptions>(filter, run, RunFilter);
  filter->require_subcommand(1, 1);
  // One subcommand a filter, each naming the kind the run applies.
  auto kind = [filter, &o](const char* name, const char* what) {
    CLI::App* sub = filter->add_subcommand(name, what);
    AddInputOutput(sub, o.input, o.output);
    sub->callback([&o, name]() { o.kind = name; });
    return sub;
  };
  kind("voxel", "Keep the point nearest each voxel's centre (QorvVoxelFilter)")
      ->add_option("--leaf", o.leaf, "Voxel edge length")
      ->required()
      ->check(kPositive);
  CLI::App* sor = kind("sor", "Statistical outlier removal (QorvSORFilter)");
  sor->add_option("--k", o.meanK, "Neighbours scored")
      ->check(CLI::Range(1, 100000))
      ->capture_default_str();
  sor->add_option("--std", o.stdMul, "Deviation multiplier of the threshold")
      ->check(kNonNegative)
      ->capture_default_str();
  const auto withRadius = [&o](CLI::App* sub) {
    sub->add_option("--radius", o.radius, "Neighbourhood radius")->required()->check(kPositive);
  };
  withRadius(kind("edge", "Keep boundary points (QorvEdgeFilter)"));
  withRadius(kind("gaussian", "Gaussian smoothing (QorvGaussianFilter)"));
}

}  // namespace qorv::tools
