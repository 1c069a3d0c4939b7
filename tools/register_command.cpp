// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv register` and `qorv demo`: reading, registering, reporting, writing the results.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "commands.hpp"
#include "json_writer.hpp"

namespace qorv::tools {
namespace {

Cloud ReadTimed(const std::string& path,
                const char* stage,
                std::vector<StageTime>& stages) {
  const double start = Now();
  Cloud cloud = ReadCloud(path);
  stages.push_back({stage, Now() - start});
  return cloud;
}

void MakeParentFolder(const std::string& path) {
  const std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (parent.empty()) return;
  std::error_code error;
  std::filesystem::create_directories(parent, error);
  if (error) throw ToolError("cannot create folder '" + parent.string() + "': " + error.message());
}

void Snapshot(const std::string& path,
              const Cloud& target,
              const Cloud& source,
              const std::vector<float>& moved,
              const SnapshotOptions& view,
              std::vector<StageTime>& stages) {
  const double start = Now();
  MakeParentFolder(path);
  WriteSnapshot(path, target.points, source.points, moved, view);
  stages.push_back({"snapshot", Now() - start});
}

// The demo's known motion: a fixed axis, the requested angle, a shift of a fifth of the length.
Rigid DemoMotion(float angleDegrees, double length) {
  return Rigid::FromAxisAngle({0.3, 1.0, 0.2},
                              angleDegrees * 3.14159265358979323846 / 180.0,
                              {0.12 * length, -0.08 * length, 0.1 * length});
}

// The initial guess (12 or 16 numbers) into the engine's options.
void SetInitial(const std::string& text, QorvEngineOptions& options) {
  const std::array<double, 12> m = ParseMatrix(text).matrix3x4();
  std::copy(m.begin(), m.end(), options.initial);
  options.initial[12] = options.initial[13] = options.initial[14] = 0.0;
  options.initial[15] = 1.0;
  options.has_initial = 1;
}

}  // namespace

int RunRegister(const GlobalOptions& global, RegisterOptions o) {
  if (!o.initialMatrix.empty()) SetInitial(o.initialMatrix, o.settings.engine);
  if (o.settings.engine.mode == QORV_ENGINE_MODE_LOCAL && !o.settings.engine.has_initial) {
    throw ToolError("--local needs --initial", 2);
  }
  if (!o.snapshot.empty() && std::filesystem::path(o.snapshot).extension() != ".png") {
    throw ToolError("--snapshot needs a file name ending in .png", 2);
  }
  Session session(global.threads);
  std::vector<StageTime> stages;
  const Cloud target = ReadTimed(o.target, "read target", stages);
  const Cloud source = ReadTimed(o.source, "read source", stages);
  RegistrationReport report = RegisterClouds(session, target, source, o.settings, stages);
  report.target.path = o.target;
  report.source.path = o.source;
  if (!o.output.empty()) {
    const double start = Now();
    WriteCloud(o.output, MoveCloud(session, source, report.transform));
    report.stages.push_back({"write output", Now() - start});
  }
  if (!o.snapshot.empty())
    Snapshot(o.snapshot, target, source, report.movedSource, o.view, report.stages);

  if (global.json) {
    FlushAll();
    JsonWriter json;
    json.beginObject();
    json.key("command").value("register");
    json.key("version").value(std::string(QorvVersion()));
    json.key("threads").value(static_cast<int32_t>(session.threads()));
    json.key("seed").value(static_cast<int64_t>(o.settings.engine.seed));
    WriteReportJson(json, report);
    json.key("output");
    o.output.empty() ? json.null() : json.value(o.output);
    json.key("snapshot");
    o.snapshot.empty() ? json.null() : json.value(o.snapshot);
    json.endObject();
    std::fputs(json.str().c_str(), Out());
  } else {
    PrintReport(report);
    if (!o.output.empty()) std::fprintf(Out(), "moved source written to %s\n", o.output.c_str());
    if (!o.snapshot.empty()) std::fprintf(Out(), "snapshot written to %s\n", o.snapshot.c_str());
  }
  std::fflush(Out());
  if (!report.registered()) {
    std::fprintf(stderr, "qorv: not registered: %s\n", report.verdict.reason);
    return 3;
  }
  return 0;
}

int RunDemo(const GlobalOptions& global, const DemoOptions& o) {
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
  Snapshot(o.snapshot, target, source, report.movedSource, SnapshotOptions{}, report.stages);

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
    JsonWriter json;
    json.beginObject();
    json.key("command").value("demo");
    json.key("version").value(std::string(QorvVersion()));
    json.key("threads").value(static_cast<int32_t>(session.threads()));
    WriteReportJson(json, report);
    const std::array<double, 12> m = truth.matrix3x4();
    json.key("truth").beginArray();
    for (int row = 0; row < 3; ++row) json.numbers(&m[4 * row], 4);
    json.endArray();
    json.key("rotation_error_degrees").value(rotationError);
    json.key("translation_error").value(translationError);
    json.key("mean_point_error").value(pointError);
    json.key("recovered").value(recovered);
    json.key("snapshot").value(o.snapshot);
    json.endObject();
    std::fputs(json.str().c_str(), out);
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
    const std::array<double, 12> m = truth.matrix3x4();
    std::fprintf(out, "expected transform (inverse of the known motion):\n");
    for (int row = 0; row < 3; ++row) {
      std::fprintf(out,
                   "  % .9f % .9f % .9f % .9g\n",
                   m[4 * row],
                   m[4 * row + 1],
                   m[4 * row + 2],
                   m[4 * row + 3]);
    }
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

}  // namespace qorv::tools
