// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv demo`: two overlapping views cut from one scan, one moved by a known motion and
// registered back; the recovered motion compared with the known one.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "commands.hpp"

namespace qorv::tools {
namespace {

struct DemoOptions {
  std::string data = "data/sample/dragon_res3.asc";
  std::string snapshot = "build/demo/snapshot.png";
  std::string viewsDir;  // where to write the two views as ASC; empty: not written
  float overlap = 0.5f;  // share of the cloud's length that both views hold
  float angleDegrees = 30.0f;
  RegisterSettings settings;
  RegistrationFlags flags;  // into `settings` when the command runs
  bool check = false;       // exit status 3 when the recovered motion is off
};

// The demo's known motion: a fixed axis, the requested angle, a shift of a fifth of the length.
Rigid DemoMotion(float angleDegrees, double length) {
  return Rigid::FromAxisAngle({0.3, 1.0, 0.2},
                              angleDegrees * 3.14159265358979323846 / 180.0,
                              {0.12 * length, -0.08 * length, 0.1 * length});
}

int RunDemo(const GlobalOptions& global, DemoOptions o) {
  o.flags.applyTo(o.settings);
  if (std::filesystem::path(o.snapshot).extension() != ".png") {
    throw ToolError("--snapshot needs a file name ending in .png", 2);
  }
  Session session(global.threads);
  std::vector<StageTime> stages;
  const Cloud scan = ReadTimed(o.data, "read scan", stages);

  // Two views: slabs along the scan's longest axis that share `overlap` of its length.
  double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
  for (int32_t i = 0; i < scan.size(); ++i) {
    for (int c = 0; c < 3; ++c) {
      lo[c] = std::min<double>(lo[c], scan.points[3 * static_cast<size_t>(i) + c]);
      hi[c] = std::max<double>(hi[c], scan.points[3 * static_cast<size_t>(i) + c]);
    }
  }
  int axis = 0;
  for (int c = 1; c < 3; ++c) {
    if (hi[c] - lo[c] > hi[axis] - lo[axis]) axis = c;
  }
  const double length = hi[axis] - lo[axis];
  const double middle = 0.5 * (lo[axis] + hi[axis]);
  std::vector<int32_t> first, second;
  for (int32_t i = 0; i < scan.size(); ++i) {
    const double v = scan.points[3 * static_cast<size_t>(i) + axis];
    if (v <= middle + 0.5 * o.overlap * length) first.push_back(i);
    if (v >= middle - 0.5 * o.overlap * length) second.push_back(i);
  }
  const Cloud target = scan.subset(first);
  const Rigid truthMotion = DemoMotion(o.angleDegrees, length);  // applied to the second view
  const Cloud secondView = scan.subset(second);
  const Cloud source = MoveCloud(session, secondView, truthMotion);
  if (!o.viewsDir.empty()) {
    MakeParentFolder(o.viewsDir + "/x");
    WriteCloud(o.viewsDir + "/target.asc", target);
    WriteCloud(o.viewsDir + "/source.asc", source);
  }

  RegistrationReport report = RegisterClouds(session, target, source, o.settings, stages);
  report.target.path = o.data + " (first view)";
  report.source.path = o.data + " (second view, moved)";
  Snapshot(o.snapshot, target, source, report.movedSource.points, SnapshotOptions{}, report.stages);

  // The recovered motion should undo the known one: compare with its inverse.
  const Rigid truth = truthMotion.inverse();
  const Rigid residual = report.transform * truthMotion;
  const double rotationError = residual.rotationAngleDegrees();
  double translationError = 0.0;
  for (int c = 0; c < 3; ++c) {
    translationError += (report.transform.t[c] - truth.t[c]) * (report.transform.t[c] - truth.t[c]);
  }
  translationError = std::sqrt(translationError);
  double pointError = 0.0;  // mean displacement of the second view's points by the residual
  for (int32_t i = 0; i < secondView.size(); ++i) {
    const float* p = &secondView.points[3 * static_cast<size_t>(i)];
    const auto q = residual.apply(p);
    pointError += std::sqrt((q[0] - p[0]) * (q[0] - p[0]) + (q[1] - p[1]) * (q[1] - p[1]) +
                            (q[2] - p[2]) * (q[2] - p[2]));
  }
  pointError /= secondView.size();
  const bool recovered =
      report.registered() && rotationError < 2.0 && pointError < 2.0 * report.verdict.voxel;

  FlushAll();
  std::FILE* out = Out();
  if (global.json) {
    nlohmann::ordered_json doc = {
        {"command", "demo"}, {"version", QorvVersion()}, {"threads", session.threads()}};
    AddReportJson(doc, report);
    const std::array<double, 12> m = truth.matrix3x4();
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    for (size_t row = 0; row < 3; ++row)
      rows.push_back({m[4 * row], m[4 * row + 1], m[4 * row + 2], m[4 * row + 3]});
    doc["truth"] = rows;
    doc["rotation_error_degrees"] = rotationError;
    doc["translation_error"] = translationError;
    doc["mean_point_error"] = pointError;
    doc["recovered"] = recovered;
    doc["snapshot"] = o.snapshot;
    PrintJson(doc);
  } else {
    std::fprintf(
        out,
        "demo: two views of %s sharing %.0f%% of its length; the second moved by "
        "%.1f deg and %.4g\n",
        o.data.c_str(),
        100.0 * o.overlap,
        truthMotion.rotationAngleDegrees(),
        std::sqrt(truthMotion.t[0] * truthMotion.t[0] + truthMotion.t[1] * truthMotion.t[1] +
                  truthMotion.t[2] * truthMotion.t[2]));
    PrintReport(report);
    std::fprintf(out, "expected transform (inverse of the known motion):\n");
    PrintMatrixRows(out, truth);
    std::fprintf(out,
                 "rotation error %.4f deg, translation error %.6g, mean point error %.6g "
                 "(voxel %.6g)\n",
                 rotationError,
                 translationError,
                 pointError,
                 report.verdict.voxel);
    std::fprintf(out, "%s\n", recovered ? "motion recovered" : "motion NOT recovered");
    std::fprintf(out, "snapshot written to %s\n", o.snapshot.c_str());
  }
  std::fflush(out);
  return (o.check && !recovered) ? 3 : 0;
}

}  // namespace

void AddDemoCommand(CLI::App& app, ToolRun& run) {
  CLI::App* sub = app.add_subcommand(
      "demo", "Cut two overlapping views from one scan, move one, register it back");
  DemoOptions& o = SetCommand<DemoOptions>(sub, run, RunDemo);
  sub->add_option("--data", o.data, "Scan to cut the views from")->capture_default_str();
  sub->add_option("--snapshot", o.snapshot, "PNG written")->capture_default_str();
  sub->add_option("--views", o.viewsDir, "Folder to write the two views to (ASC)");
  sub->add_option("--overlap", o.overlap, "Share of the scan's length in both views")
      ->check(kOpenUnit)
      ->capture_default_str();
  sub->add_option("--angle", o.angleDegrees, "Rotation of the known motion, degrees")
      ->check(CLI::Range(0.0, 180.0))
      ->capture_default_str();
  sub->add_flag("--check", o.check, "Exit with status 3 when the motion is not recovered");
  AddRegistrationOptions(sub, o.settings, o.flags);
}

}  // namespace qorv::tools
