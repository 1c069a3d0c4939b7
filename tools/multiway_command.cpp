// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv multiway`: many scans into one frame (QorvEngineMultiway): poses as JSON and as a
// trajectory log, and the merged cloud thinned by a voxel.
#include <cmath>
#include <cstdio>
#include <fstream>

#include <qorv/engine_multiway.h>

#include "commands.hpp"

#include <nlohmann/json.hpp>

namespace qorv::tools {
namespace {

struct MultiwayOptions {
  std::vector<std::string> scans;
  std::string manifest;     // a file listing more scans, one a line
  std::string output;       // poses as JSON
  std::string log;          // poses in the trajectory-log layout
  std::string merged;       // the merged cloud
  std::string snapshot;     // PNG: the first scan against the others, before and after
  float mergeVoxel = 0.0f;  // its thinning voxel (0: none)
  bool noLoops = false;
  QorvEngineOptions engine;

  MultiwayOptions() { QorvEngineDefaultOptions(&engine); }
};

std::vector<std::string> ManifestScans(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw ToolError("cannot open manifest '" + path + "'");
  std::vector<std::string> scans;
  for (std::string line; std::getline(in, line);) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    if (!line.empty() && line[0] != '#') scans.push_back(line);
  }
  return scans;
}

int RunMultiway(const GlobalOptions& global, const MultiwayOptions& o) {
  std::vector<std::string> paths = o.scans;
  if (!o.manifest.empty()) {
    const std::vector<std::string> listed = ManifestScans(o.manifest);
    paths.insert(paths.end(), listed.begin(), listed.end());
  }
  if (paths.size() < 2) throw ToolError("multiway needs at least two scans", 2);
  CheckSnapshotPath(o.snapshot);
  std::vector<Cloud> clouds;
  std::vector<QorvEngineCloud> views;
  for (const std::string& path : paths) clouds.push_back(ReadCloud(path));
  for (const Cloud& c : clouds) views.push_back(EngineView(c));
  const int32_t n = static_cast<int32_t>(views.size());
  QorvEngineOptions options = o.engine;
  options.threads = global.threads;
  std::vector<double> poses(16 * static_cast<size_t>(n));
  std::vector<QorvEngineMultiwayEdge> edges(static_cast<size_t>(n) * static_cast<size_t>(n));
  int32_t edgeCount = 0;
  if (QorvEngineMultiway(views.data(),
                         n,
                         &options,
                         o.noLoops ? 0 : 1,
                         nullptr,
                         0,
                         poses.data(),
                         edges.data(),
                         static_cast<int32_t>(edges.size()),
                         &edgeCount) != QORV_ENGINE_OK) {
    throw ToolError(QorvEngineLastError());
  }
  edges.resize(
      static_cast<size_t>(std::min<int32_t>(edgeCount, static_cast<int32_t>(edges.size()))));

  nlohmann::ordered_json doc;
  doc["scans"] = nlohmann::ordered_json::array();
  for (int32_t i = 0; i < n; ++i) {
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    for (int r = 0; r < 4; ++r) {
      rows.push_back({poses[16 * i + 4 * r],
                      poses[16 * i + 4 * r + 1],
                      poses[16 * i + 4 * r + 2],
                      poses[16 * i + 4 * r + 3]});
    }
    doc["scans"].push_back({{"path", paths[static_cast<size_t>(i)]}, {"pose", rows}});
  }
  doc["edges"] = nlohmann::ordered_json::array();
  for (const QorvEngineMultiwayEdge& e : edges) {
    doc["edges"].push_back({{"target", e.from},
                            {"source", e.to},
                            {"loop", e.loop != 0},
                            {"registered", e.registered != 0},
                            {"rejected", e.rejected != 0},
                            {"fitness", e.fitness},
                            {"consistent_pairs", e.consistent_pairs}});
  }
  std::ofstream out(o.output);
  if (!out) throw ToolError("cannot write '" + o.output + "'");
  out << doc.dump(1) << "\n";
  if (!o.log.empty()) {
    // The common trajectory-log layout: "i i i+1", then the 4 x 4 pose.
    std::ofstream log(o.log);
    if (!log) throw ToolError("cannot write '" + o.log + "'");
    char line[160];
    for (int32_t i = 0; i < n; ++i) {
      log << i << " " << i << " " << i + 1 << "\n";
      for (int r = 0; r < 4; ++r) {
        std::snprintf(line,
                      sizeof(line),
                      "%.9g %.9g %.9g %.9g\n",
                      poses[16 * i + 4 * r],
                      poses[16 * i + 4 * r + 1],
                      poses[16 * i + 4 * r + 2],
                      poses[16 * i + 4 * r + 3]);
        log << line;
      }
    }
  }
  // Every scan in the common frame, as the merged cloud and the snapshot need them.
  std::vector<std::vector<float>> placed;
  if (!o.merged.empty() || !o.snapshot.empty()) {
    for (int32_t i = 0; i < n; ++i) {
      const Rigid pose = Rigid::FromMatrix3x4(&poses[16 * static_cast<size_t>(i)]);
      placed.push_back(Apply(pose, clouds[static_cast<size_t>(i)].points));
    }
  }
  if (!o.snapshot.empty()) {
    // The first scan in blue; every other scan in orange, as read (left) and placed (right).
    Cloud first, others;
    first.points = placed[0];
    std::vector<float> othersPlaced;
    for (int32_t i = 1; i < n; ++i) {
      const std::vector<float>& read = clouds[static_cast<size_t>(i)].points;
      others.points.insert(others.points.end(), read.begin(), read.end());
      othersPlaced.insert(othersPlaced.end(),
                          placed[static_cast<size_t>(i)].begin(),
                          placed[static_cast<size_t>(i)].end());
    }
    std::vector<StageTime> stages;
    Snapshot(o.snapshot, first, others, othersPlaced, SnapshotOptions(), stages);
  }
  int32_t mergedPoints = 0;
  if (!o.merged.empty()) {
    Cloud merged;
    for (const std::vector<float>& scan : placed)
      merged.points.insert(merged.points.end(), scan.begin(), scan.end());
    Session session(global.threads);
    if (o.mergeVoxel > 0.0f) {
      std::vector<int32_t> kept;
      Check(QorvVoxelFilter(session.get(),
                            merged.points.data(),
                            merged.size(),
                            o.mergeVoxel,
                            CollectIndices,
                            &kept),
            "QorvVoxelFilter",
            "thinning the merged cloud");
      merged = merged.subset(kept);
    }
    WriteCloud(o.merged, merged);
    mergedPoints = merged.size();
  }
  int32_t accepted = 0, rejected = 0;
  for (const QorvEngineMultiwayEdge& e : edges) {
    accepted += e.registered && !e.rejected;
    rejected += e.rejected;
  }
  FlushAll();
  if (global.json) {
    nlohmann::ordered_json summary = {{"command", "multiway"},
                                      {"scans", n},
                                      {"edges", edges.size()},
                                      {"accepted", accepted},
                                      {"rejected", rejected},
                                      {"output", o.output}};
    if (!o.merged.empty()) summary["merged_points"] = mergedPoints;
    if (!o.snapshot.empty()) summary["snapshot"] = o.snapshot;
    std::fprintf(Out(), "%s\n", summary.dump().c_str());
  } else {
    std::fprintf(Out(),
                 "multiway: %d scans, %zu pairs tried, %d edges kept, %d rejected by the pose "
                 "graph; poses in %s\n",
                 n,
                 edges.size(),
                 accepted,
                 rejected,
                 o.output.c_str());
  }
  return 0;
}

}  // namespace

void AddMultiwayCommand(CLI::App& app, ToolRun& run) {
  CLI::App* sub = app.add_subcommand("multiway", "Align many scans into one frame");
  MultiwayOptions& o = SetCommand<MultiwayOptions>(sub, run, RunMultiway);
  sub->add_option("scans", o.scans, "Scan files, in order");
  sub->add_option("--manifest", o.manifest, "A file listing (more) scans, one a line");
  sub->add_option("--output", o.output, "Poses and edges as JSON")->required();
  sub->add_option("--log", o.log, "Poses in the trajectory-log layout");
  sub->add_option("--merged", o.merged, "Write all scans in one frame (PLY, PCD or ASC)");
  sub->add_option("--snapshot",
                  o.snapshot,
                  "Write a PNG of the first scan against the others, before and after");
  sub->add_option("--merge-voxel", o.mergeVoxel, "Thin the merged cloud to this voxel")
      ->check(kPositive);
  sub->add_flag("--no-loops", o.noLoops, "Register neighbouring scans only");
  AddVoxelOption(sub, o.engine.voxel, "Working voxel of the pairs");
  AddSeedOption(sub, o.engine.seed, "Seed of every random draw");
}

}  // namespace qorv::tools
