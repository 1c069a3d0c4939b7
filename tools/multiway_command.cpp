// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv multiway`: many scans into one frame (QorvEngineMultiway): poses as JSON and as a
// trajectory log, and the merged cloud thinned by a voxel.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>

#include <qorv/engine_io.h>
#include <qorv/engine_multiway.h>

#include "commands.hpp"

#include <nlohmann/json.hpp>
#include <unistd.h>

namespace qorv::tools {
namespace {

// Exit status when some scans could not be placed.
constexpr int kExitUnplaced = 4;

// Pairs done of pairs planned: one updating line on a terminal, a plain line every tenth of the
// work otherwise, nothing with --quiet or --json.
class PairProgress {
 public:
  explicit PairProgress(bool quiet) : quiet_(quiet), terminal_(isatty(STDERR_FILENO) != 0) {}

  static void Report(int32_t done, int32_t planned, int32_t kept, void* self) {
    static_cast<PairProgress*>(self)->report(done, planned, kept);
  }
  void finish() {
    if (!quiet_ && terminal_ && shown_) std::fprintf(stderr, "\n");
  }
  int32_t planned() const { return planned_; }
  int32_t kept() const { return kept_; }

 private:
  void report(int32_t done, int32_t planned, int32_t kept) {
    planned_ = planned;
    kept_ = kept;
    if (quiet_ || planned == 0) return;
    if (terminal_) {
      std::fprintf(stderr, "\rmultiway: %d of %d pairs, %d edges kept", done, planned, kept);
      shown_ = true;
    } else if (done == planned || done * 10 / planned != last_ * 10 / planned) {
      std::fprintf(stderr, "multiway: %d of %d pairs, %d edges kept\n", done, planned, kept);
    }
    last_ = done;
    std::fflush(stderr);
  }

  bool quiet_, terminal_;
  bool shown_ = false;
  int32_t planned_ = 0, kept_ = 0, last_ = 0;
};

struct MultiwayOptions {
  std::vector<std::string> scans;
  std::string manifest;     // a file listing more scans, one a line
  std::string output;       // poses as JSON
  std::string log;          // poses in the trajectory-log layout
  std::string merged;       // the merged cloud
  std::string snapshot;     // PNG: the first scan against the others, before and after
  float mergeVoxel = 0.0f;  // its thinning voxel (0: none)
  bool noLoops = false;
  bool allowUnplaced = false;
  int32_t reference = 0;
  QorvEngineOptions engine;

  MultiwayOptions() { QorvEngineDefaultOptions(&engine); }
};

// The scans a manifest lists, one a line, relative to the manifest.
std::vector<std::string> ManifestScans(const std::string& path) {
  QorvEngineScanList* list = nullptr;
  if (QorvEngineReadScanList(path.c_str(), &list) != QORV_ENGINE_OK)
    throw ToolError(QorvEngineLastError());
  const std::vector<std::string> scans(list->paths, list->paths + list->count);
  QorvEngineFreeScanList(list);
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
  if (o.reference < 0 || o.reference >= n) {
    throw ToolError("--reference " + std::to_string(o.reference) + " names no scan (0 to " +
                        std::to_string(n - 1) + ")",
                    2);
  }
  std::vector<double> poses(16 * static_cast<size_t>(n));
  std::vector<QorvEngineMultiwayScan> where(static_cast<size_t>(n));
  std::vector<QorvEngineMultiwayEdge> edges(static_cast<size_t>(n) * static_cast<size_t>(n));
  int32_t edgeCount = 0;
  PairProgress progress(global.quiet || global.json);
  if (QorvEngineMultiwayPlace(views.data(),
                              n,
                              &options,
                              o.noLoops ? 0 : 1,
                              o.reference,
                              nullptr,
                              0,
                              PairProgress::Report,
                              &progress,
                              poses.data(),
                              where.data(),
                              edges.data(),
                              static_cast<int32_t>(edges.size()),
                              &edgeCount) != QORV_ENGINE_OK) {
    throw ToolError(QorvEngineLastError());
  }
  progress.finish();
  edges.resize(
      static_cast<size_t>(std::min<int32_t>(edgeCount, static_cast<int32_t>(edges.size()))));

  nlohmann::ordered_json doc;
  int32_t unplaced = 0, groups = 0;
  doc["reference"] = o.reference;
  doc["scans"] = nlohmann::ordered_json::array();
  for (int32_t i = 0; i < n; ++i) {
    const QorvEngineMultiwayScan& w = where[static_cast<size_t>(i)];
    nlohmann::ordered_json scan = {
        {"path", paths[static_cast<size_t>(i)]}, {"placed", w.placed != 0}, {"group", w.group}};
    groups = std::max(groups, w.group + 1);
    if (w.placed) {
      nlohmann::ordered_json rows = nlohmann::ordered_json::array();
      for (int r = 0; r < 4; ++r) {
        rows.push_back({poses[16 * i + 4 * r],
                        poses[16 * i + 4 * r + 1],
                        poses[16 * i + 4 * r + 2],
                        poses[16 * i + 4 * r + 3]});
      }
      scan["pose"] = rows;
    } else {
      ++unplaced;
      std::fprintf(stderr,
                   "qorv multiway: scan %d (%s) is not placed: no trusted edge joins it to the "
                   "reference scan %d (group %d)\n",
                   i,
                   paths[static_cast<size_t>(i)].c_str(),
                   o.reference,
                   w.group);
    }
    doc["scans"].push_back(scan);
  }
  if (groups > 1) {
    std::fprintf(stderr,
                 "qorv multiway: the scans fall into %d groups that no trusted edge joins\n",
                 groups);
  }
  doc["edges"] = nlohmann::ordered_json::array();
  for (const QorvEngineMultiwayEdge& e : edges) {
    doc["edges"].push_back(
        {{"target", e.from},
         {"source", e.to},
         {"loop", e.loop != 0},
         {"registered", e.registered != 0},
         {"rejected", e.rejected != 0},
         {"fitness", e.fitness},
         {"consistent_pairs", e.consistent_pairs},
         {"residual",
          e.residual < 0.0 ? nlohmann::ordered_json() : nlohmann::ordered_json(e.residual)}});
  }
  doc["summary"] = {{"scans", n},
                    {"placed", n - unplaced},
                    {"unplaced", unplaced},
                    {"groups", groups},
                    {"pairs", progress.planned()},
                    {"edges_kept", progress.kept()}};
  std::ofstream out(o.output);
  if (!out) throw ToolError("cannot write '" + o.output + "'");
  out << doc.dump(1) << "\n";
  if (!o.log.empty()) {
    // The common trajectory-log layout: "i i i+1", then the 4 x 4 pose; placed scans only.
    std::ofstream log(o.log);
    if (!log) throw ToolError("cannot write '" + o.log + "'");
    char line[160];
    for (int32_t i = 0; i < n; ++i) {
      if (!where[static_cast<size_t>(i)].placed) continue;
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
  // Every placed scan in the common frame, as the merged cloud and the snapshot need them.
  std::vector<std::vector<float>> placed(static_cast<size_t>(n));
  if (!o.merged.empty() || !o.snapshot.empty()) {
    for (int32_t i = 0; i < n; ++i) {
      if (!where[static_cast<size_t>(i)].placed) continue;
      // Relative to the reference scan's origin (survey-scale scans keep one each).
      const Rigid pose = Rigid::FromMatrix3x4(&poses[16 * static_cast<size_t>(i)])
                             .between(clouds[static_cast<size_t>(i)].origin,
                                      clouds[static_cast<size_t>(o.reference)].origin);
      placed[static_cast<size_t>(i)] = Apply(pose, clouds[static_cast<size_t>(i)].points);
    }
  }
  if (!o.snapshot.empty()) {
    // The reference scan in blue; every other placed scan in orange, as read (left) and placed
    // (right).
    Cloud first, others;
    first.points = placed[static_cast<size_t>(o.reference)];
    std::vector<float> othersPlaced;
    for (int32_t i = 0; i < n; ++i) {
      if (i == o.reference || !where[static_cast<size_t>(i)].placed) continue;
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
    std::copy(clouds[static_cast<size_t>(o.reference)].origin,
              clouds[static_cast<size_t>(o.reference)].origin + 3,
              merged.origin);
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
                                      {"placed", n - unplaced},
                                      {"unplaced", unplaced},
                                      {"groups", groups},
                                      {"pairs", progress.planned()},
                                      {"edges", edges.size()},
                                      {"accepted", accepted},
                                      {"rejected", rejected},
                                      {"output", o.output}};
    if (!o.merged.empty()) summary["merged_points"] = mergedPoints;
    if (!o.snapshot.empty()) summary["snapshot"] = o.snapshot;
    std::fprintf(Out(), "%s\n", summary.dump().c_str());
  } else {
    std::fprintf(Out(),
                 "multiway: %d scans, %d placed, %d not placed, %d group(s); %zu pairs tried, %d "
                 "edges kept, %d rejected by the pose graph; poses in %s\n",
                 n,
                 n - unplaced,
                 unplaced,
                 groups,
                 edges.size(),
                 accepted,
                 rejected,
                 o.output.c_str());
  }
  return unplaced > 0 && !o.allowUnplaced ? kExitUnplaced : 0;
}

}  // namespace

void AddMultiwayCommand(CLI::App& app, ToolRun& run) {
  CLI::App* sub = app.add_subcommand("multiway", "Align many scans into one frame");
  MultiwayOptions& o = SetCommand<MultiwayOptions>(sub, run, RunMultiway);
  sub->add_option("scans", o.scans, "Scan files, in any order");
  sub->add_option("--manifest", o.manifest, "A file listing (more) scans, one a line");
  sub->add_option("--output", o.output, "Poses and edges as JSON")->required();
  sub->add_option("--log", o.log, "Poses in the trajectory-log layout");
  sub->add_option("--merged", o.merged, "Write all scans in one frame (PLY, PCD or ASC)");
  sub->add_option("--snapshot",
                  o.snapshot,
                  "Write a PNG of the first scan against the others, before and after");
  sub->add_option("--merge-voxel", o.mergeVoxel, "Thin the merged cloud to this voxel")
      ->check(kPositive);
  sub->add_flag(
      "--no-loops", o.noLoops, "No second round of the pairs the solved poses put over each other");
  sub->add_option(
         "--reference", o.reference, "The scan whose frame the poses are in (0: the first)")
      ->capture_default_str();
  sub->add_flag("--allow-unplaced",
                o.allowUnplaced,
                "Exit 0 even when some scans could not be placed (default: exit 4)");
  AddVoxelOption(sub, o.engine.voxel, "Working voxel of the pairs");
  AddSeedOption(sub, o.engine.seed, "Seed of every random draw");
  AddSensorOriginOption(sub, o.engine);
  AddRefineOption(sub, o.engine);
}

}  // namespace qorv::tools
