// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "register.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace qorv::tools {
namespace {

void CountPairs(const QorvMatchPair* /*pairs*/, uint32_t count, void* user) {
  *static_cast<uint32_t*>(user) = count;
}

// Times one stage and appends it to the report.
class Stage {
 public:
  Stage(std::vector<StageTime>& stages, std::string name)
      : stages_(stages), name_(std::move(name)), start_(Now()) {}
  ~Stage() { stages_.push_back({name_, Now() - start_}); }

 private:
  std::vector<StageTime>& stages_;
  std::string name_;
  double start_;
};

std::array<double, 16> Matrix4x4(const Rigid& motion) {
  const std::array<double, 12> m = motion.matrix3x4();
  std::array<double, 16> out{};
  std::copy(m.begin(), m.end(), out.begin());
  out[15] = 1.0;
  return out;
}

QorvEngineResult RunEngine(const Cloud& target,
                           const Cloud& source,
                           const QorvEngineOptions& options) {
  const QorvEngineCloud t = EngineView(target), s = EngineView(source);
  QorvEngineResult result{};
  result.struct_size = sizeof(result);
  if (QorvEngineRegister(&t, &s, &options, &result) != QORV_ENGINE_OK) {
    throw ToolError(QorvEngineLastError());
  }
  return result;
}

// The one-call pipeline of the library, as it is.
Rigid RunPipeline(const Session& session,
                  const Cloud& target,
                  const Cloud& source,
                  const RegisterSettings& settings,
                  RegistrationReport& report) {
  QorvInstance* inst = session.get();
  settings.crossCheck ? QorvEnableCrossCheck(inst) : QorvDisableCrossCheck(inst);
  float s = settings.resolution;
  if (!(s > 0.0f)) {
    float spacing[2] = {0.0f, 0.0f};
    Check(QorvCheckDistance(inst, target.points.data(), target.size(), 2, &spacing[0]),
          "QorvCheckDistance",
          "measuring the target's spacing");
    Check(QorvCheckDistance(inst, source.points.data(), source.size(), 2, &spacing[1]),
          "QorvCheckDistance",
          "measuring the source's spacing");
    s = 1.25f * std::max(spacing[0], spacing[1]);
    // A cloud of one point measures the float maximum's root: no spacing either.
    if (!(s > 0.0f) || !(s < 1e18f)) {
      throw ToolError("cannot choose a resolution from the clouds' spacing; give --resolution");
    }
  }
  const bool iterative = settings.method == Method::kIterative;
  report.method = iterative ? "pipeline (iterative)" : "pipeline (ransac)";
  const float kernel = settings.kernelScale > 0.0f ? settings.kernelScale : (4.0f * s) * (4.0f * s);
  const int32_t iterations = settings.iterations >= 0 ? settings.iterations
                             : iterative              ? 64
                                                      : 20000;
  std::array<double, 12> matrix{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  if (settings.engine.has_initial) {
    for (int i = 0; i < 12; ++i) matrix[static_cast<size_t>(i)] = settings.engine.initial[i];
  }
  Check(QorvMatchPairPointCloud(inst,
                                target.points.data(),
                                target.hasNormals() ? target.normals.data() : nullptr,
                                target.size(),
                                source.points.data(),
                                source.hasNormals() ? source.normals.data() : nullptr,
                                source.size(),
                                matrix.data(),
                                iterative ? kernel : 0.0f,
                                s,
                                iterations,
                                CountPairs,
                                &report.pipelineCorrespondences),
        "QorvMatchPairPointCloud",
        "registering the clouds");
  return Rigid::FromMatrix3x4(matrix.data());
}

bool IsRotation(const Rigid& motion) {
  const auto& r = motion.r;
  const double det = r[0] * (r[4] * r[8] - r[5] * r[7]) - r[1] * (r[3] * r[8] - r[5] * r[6]) +
                     r[2] * (r[3] * r[7] - r[4] * r[6]);
  return std::abs(det - 1.0) < 1e-3;
}

}  // namespace

double Now() {
  using Clock = std::chrono::steady_clock;
  static const Clock::time_point origin = Clock::now();
  return std::chrono::duration<double, std::milli>(Clock::now() - origin).count();
}

Cloud MoveCloud(const Session& session, const Cloud& cloud, const Rigid& motion) {
  Cloud moved = cloud;
  // Points kept relative to an origin stay relative to it.
  const std::array<double, 12> layout =
      motion.between(cloud.origin, cloud.origin).transformLayout();
  Check(QorvTransformPoints(
            session.get(), layout.data(), cloud.points.data(), moved.points.data(), cloud.size()),
        "QorvTransformPoints",
        "moving the cloud");
  if (cloud.hasNormals()) {
    Check(QorvRotatePoints(session.get(),
                           motion.r.data(),
                           cloud.normals.data(),
                           moved.normals.data(),
                           cloud.size()),
          "QorvRotatePoints",
          "turning the normals");
  }
  return moved;
}

void PrintMatrixRows(std::FILE* out, const Rigid& motion) {
  const std::array<double, 12> m = motion.matrix3x4();
  for (int row = 0; row < 3; ++row) {
    std::fprintf(out,
                 "  % .9f % .9f % .9f % .9g\n",
                 m[4 * row],
                 m[4 * row + 1],
                 m[4 * row + 2],
                 m[4 * row + 3]);
  }
}

RegistrationReport RegisterClouds(const Session& session,
                                  const Cloud& target,
                                  const Cloud& source,
                                  const RegisterSettings& settings,
                                  std::vector<StageTime> stages) {
  RegistrationReport report;
  report.target.points = target.size();
  report.target.format = target.format;
  report.source.points = source.size();
  report.source.format = source.format;
  report.target.hasCamera = target.hasCamera;
  report.target.camera = target.camera;
  report.source.hasCamera = source.hasCamera;
  report.source.camera = source.camera;
  QorvEngineOptions options = settings.engine;
  options.threads = session.threads();
  if (settings.exact) {
    {
      Stage stage(stages, "match pair point cloud");
      report.transform = RunPipeline(session, target, source, settings, report);
    }
    Stage stage(stages, "verdict");
    // The engine judges the pipeline's answer as it stands (a zero matrix is no motion at all).
    if (IsRotation(report.transform)) {
      options.mode = QORV_ENGINE_MODE_EVALUATE;
      options.has_initial = 1;
      const std::array<double, 16> m = Matrix4x4(report.transform);
      std::copy(m.begin(), m.end(), options.initial);
      report.verdict = RunEngine(target, source, options);
    } else {
      report.verdict = QorvEngineResult{};
      std::snprintf(
          report.verdict.reason, sizeof(report.verdict.reason), "the pipeline found no model");
    }
  } else {
    report.method = options.mode == QORV_ENGINE_MODE_LOCAL ? "engine (local)" : "engine (global)";
    report.refine = options.refine == QORV_ENGINE_REFINE_GICP ? "gicp" : "plane";
    const double start = Now();
    report.verdict = RunEngine(target, source, options);
    double engineMs = 0.0;
    for (int32_t i = 0; i < report.verdict.stage_count; ++i) {
      stages.push_back({std::string("engine: ") + report.verdict.stages[i].name,
                        report.verdict.stages[i].milliseconds});
      engineMs += report.verdict.stages[i].milliseconds;
    }
    // What the engine's own stages do not cover (argument checks, copies) is shown as such.
    stages.push_back({"engine: other", std::max(0.0, Now() - start - engineMs)});
    double m[12];
    std::copy(report.verdict.transform, report.verdict.transform + 12, m);
    report.transform = Rigid::FromMatrix3x4(m);
  }
  report.target.samples = report.verdict.target_samples;
  report.source.samples = report.verdict.source_samples;
  {
    Stage stage(stages, "move source");
    report.movedSource = MoveCloud(session, source, report.transform);
  }
  report.stages = std::move(stages);
  return report;
}

void PrintReport(const RegistrationReport& r) {
  std::FILE* out = Out();
  FlushAll();
  const QorvEngineResult& v = r.verdict;
  std::fprintf(out,
               "target  %s: %d points (%s)\n",
               r.target.path.c_str(),
               r.target.points,
               r.target.format.c_str());
  std::fprintf(out,
               "source  %s: %d points (%s)\n",
               r.source.path.c_str(),
               r.source.points,
               r.source.format.c_str());
  std::fprintf(out,
               "method %s; voxel %.6g (target %d, source %d samples), %d tries\n",
               r.method.c_str(),
               v.voxel,
               v.target_samples,
               v.source_samples,
               v.tries);
  std::fprintf(out, "stage times (ms):\n");
  double total = 0.0;
  for (const StageTime& stage : r.stages) {
    std::fprintf(out, "  %-28s %10.1f\n", stage.name.c_str(), stage.ms);
    total += stage.ms;
  }
  std::fprintf(out, "  %-28s %10.1f\n", "total", total);
  std::fprintf(out, "transform (source onto target), 4 x 4:\n");
  PrintMatrixRows(out, r.transform);
  std::fprintf(out, "  % .9f % .9f % .9f % .9g\n", 0.0, 0.0, 0.0, 1.0);
  const double tn =
      std::sqrt(r.transform.t[0] * r.transform.t[0] + r.transform.t[1] * r.transform.t[1] +
                r.transform.t[2] * r.transform.t[2]);
  std::fprintf(
      out, "rotation %.4f deg, translation %.6g\n", r.transform.rotationAngleDegrees(), tn);
  std::fprintf(out,
               "fitness %.4f, target overlap %.4f, inlier RMSE %.6g (inlier distance %.6g), "
               "%d consistent of %d matches\n",
               v.fitness,
               v.target_overlap,
               v.inlier_rmse,
               v.inlier_distance,
               v.consistent_pairs,
               v.matches);
  if (r.registered()) {
    std::fprintf(out, "registered\n");
  } else {
    std::fprintf(out, "NOT registered: %s\n", v.reason);
  }
  std::fflush(out);
}

void AddReportJson(nlohmann::ordered_json& doc, const RegistrationReport& r) {
  const QorvEngineResult& v = r.verdict;
  auto cloud = [](const CloudSummary& c) {
    nlohmann::ordered_json summary{
        {"path", c.path}, {"format", c.format}, {"points", c.points}, {"samples", c.samples}};
    if (c.hasCamera) {
      summary["camera"] = {{"fx", c.camera.fx},
                           {"fy", c.camera.fy},
                           {"cx", c.camera.cx},
                           {"cy", c.camera.cy},
                           {"depth_scale", c.camera.depth_scale}};
    }
    return summary;
  };
  const std::array<double, 16> m = Matrix4x4(r.transform);
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (size_t row = 0; row < 4; ++row)
    rows.push_back({m[4 * row], m[4 * row + 1], m[4 * row + 2], m[4 * row + 3]});
  doc["registered"] = r.registered();
  doc["transform"] = rows;
  doc["reason"] = r.registered() ? nlohmann::ordered_json() : nlohmann::ordered_json(v.reason);
  doc["fitness"] = v.fitness;
  doc["target_overlap"] = v.target_overlap;
  doc["inlier_rmse"] = v.inlier_rmse;
  doc["inlier_distance"] = v.inlier_distance;
  doc["consistent_pairs"] = v.consistent_pairs;
  doc["chance_pairs"] = v.chance_pairs;
  doc["constrained"] = v.constrained;
  doc["conditioning"] = v.conditioning;
  doc["free_space_conflict"] = v.free_space_conflict < 0.0
                                   ? nlohmann::ordered_json()
                                   : nlohmann::ordered_json(v.free_space_conflict);
  doc["rival_share"] = v.rival_share;
  doc["normal_agreement"] = v.normal_agreement;
  doc["coherence"] = v.coherence;
  doc["matches"] = v.matches;
  doc["voxel"] = v.voxel;
  doc["tries"] = v.tries;
  doc["method"] = r.method;
  // The pipeline of --exact refines on its own: no engine refinement moved its answer.
  doc["refine"] = r.refine.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(r.refine);
  if (r.method.rfind("pipeline", 0) == 0)
    doc["pipeline_correspondences"] = r.pipelineCorrespondences;
  doc["rotation_degrees"] = r.transform.rotationAngleDegrees();
  doc["translation"] = r.transform.t;
  doc["target"] = cloud(r.target);
  doc["source"] = cloud(r.source);
  nlohmann::ordered_json stages = nlohmann::ordered_json::array();
  double total = 0.0;
  for (const StageTime& stage : r.stages) {
    stages.push_back({{"name", stage.name}, {"ms", std::round(stage.ms * 1000.0) / 1000.0}});
    total += stage.ms;
  }
  doc["stages"] = stages;
  doc["total_ms"] = std::round(total * 1000.0) / 1000.0;
}

}  // namespace qorv::tools
