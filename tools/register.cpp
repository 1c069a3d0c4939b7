// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "register.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "fitness.hpp"
#include "json_writer.hpp"

namespace qorv::tools {
namespace {

struct KeyPointSet {
  std::vector<float> positions, normals, descriptors;
  int32_t count() const { return static_cast<int32_t>(positions.size() / 3); }
};

void CollectIndices(const int32_t* indices, int32_t count, void* user) {
  auto* out = static_cast<std::vector<int32_t>*>(user);
  out->assign(indices, indices + (count > 0 ? count : 0));
}

void CollectKeyPoints(const QorvKeyPointResult* result, void* user) {
  auto* out = static_cast<KeyPointSet*>(user);
  const size_t n = result->count > 0 ? static_cast<size_t>(result->count) : 0;
  out->positions.assign(result->positions, result->positions + 3 * n);
  out->normals.assign(result->normals, result->normals + 3 * n);
  out->descriptors.assign(result->descriptors, result->descriptors + 33 * n);
}

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

float Spacing(const Session& session, const Cloud& cloud, const std::string& what) {
  float mean = 0.0f;
  Check(QorvCheckDistance(session.get(), cloud.points.data(), cloud.size(), 2, &mean),
        "QorvCheckDistance",
        "measuring the spacing of the " + what);
  return mean;
}

void RequirePoints(const Cloud& cloud, const std::string& what, const char* step) {
  if (cloud.size() == 0) {
    throw ToolError("no point of the " + what + " is left after " + step +
                    "; try a larger --resolution");
  }
}

// Outlier removal, smoothing, voxel filter, normals, key points and descriptors.
KeyPointSet PrepareCloud(const Session& session,
                         const Cloud& input,
                         const ChainParams& p,
                         float s,
                         const std::string& what,
                         CloudSummary& summary,
                         std::vector<StageTime>& stages) {
  QorvInstance* inst = session.get();
  Cloud cloud;
  {
    Stage stage(stages, what + ": outlier removal");
    std::vector<int32_t> kept;
    Check(QorvSORFilter(inst,
                        input.points.data(),
                        input.size(),
                        p.sorMeanK,
                        p.sorStdMul,
                        CollectIndices,
                        &kept),
          "QorvSORFilter",
          "removing outliers from the " + what);
    cloud = input.subset(kept);
    cloud.normals.clear();
    cloud.colours.clear();
  }
  RequirePoints(cloud, what, "outlier removal");
  summary.afterOutliers = cloud.size();
  {
    Stage stage(stages, what + ": smoothing");
    std::vector<float> smoothed(cloud.points.size());
    Check(QorvGaussianFilter(
              inst, cloud.points.data(), smoothed.data(), cloud.size(), p.gaussianRadius * s),
          "QorvGaussianFilter",
          "smoothing the " + what);
    cloud.points.swap(smoothed);
  }
  {
    Stage stage(stages, what + ": voxel filter");
    std::vector<int32_t> kept;
    Check(QorvVoxelFilter(
              inst, cloud.points.data(), cloud.size(), p.voxelLeaf * s, CollectIndices, &kept),
          "QorvVoxelFilter",
          "thinning the " + what);
    cloud = cloud.subset(kept);
  }
  RequirePoints(cloud, what, "the voxel filter");
  summary.afterVoxel = cloud.size();
  {
    Stage stage(stages, what + ": normals");
    // Normals turned away from the view's centroid: a scan sees a surface from outside, and
    // consistently oriented normals make the descriptors of both views comparable.
    double centre[3] = {0.0, 0.0, 0.0};
    for (size_t i = 0; i < cloud.points.size(); ++i) centre[i % 3] += cloud.points[i];
    const double n = static_cast<double>(cloud.size());
    cloud.normals.resize(cloud.points.size());
    for (size_t i = 0; i < cloud.points.size(); ++i) {
      cloud.normals[i] = static_cast<float>(cloud.points[i] - centre[i % 3] / n);
    }
    Check(QorvReComputeNormals(
              inst, cloud.points.data(), cloud.normals.data(), cloud.size(), p.normalRadius * s),
          "QorvReComputeNormals",
          "estimating normals of the " + what);
  }
  KeyPointSet keys;
  {
    Stage stage(stages, what + ": key points");
    Check(QorvDetectAndCompute(inst,
                               cloud.points.data(),
                               cloud.normals.data(),
                               cloud.size(),
                               p.keyPointRadius * s,
                               p.nonMaxRadius * s,
                               p.featureRadius * s,
                               p.histogramRadius * s,
                               p.ratio21,
                               p.ratio32,
                               p.maxKeyPoints,
                               CollectKeyPoints,
                               &keys),
          "QorvDetectAndCompute",
          "detecting key points of the " + what);
  }
  summary.keyPoints = keys.count();
  if (keys.count() == 0) {
    throw ToolError("no key points found in the " + what +
                    "; try another --resolution or looser --ratio21/--ratio32");
  }
  return keys;
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
  const std::array<double, 12> layout = motion.transformLayout();
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

RegistrationReport RegisterClouds(const Session& session,
                                  const Cloud& target,
                                  const Cloud& source,
                                  const RegisterSettings& settings,
                                  std::vector<StageTime> stages) {
  QorvInstance* inst = session.get();
  const ChainParams& p = settings.chain;
  RegistrationReport report;
  report.target.points = target.size();
  report.target.format = target.format;
  report.source.points = source.size();
  report.source.format = source.format;
  if (settings.crossCheck) {
    QorvEnableCrossCheck(inst);
  } else {
    QorvDisableCrossCheck(inst);
  }

  float s = settings.resolution;
  if (!(s > 0.0f)) {
    Stage stage(stages, "spacing");
    report.target.spacing = Spacing(session, target, "target");
    report.source.spacing = Spacing(session, source, "source");
    s = p.resolutionPerSpacing * std::max(report.target.spacing, report.source.spacing);
    report.resolutionAuto = true;
    // A cloud of one point measures the float maximum's root: no spacing either.
    if (!(s > 0.0f) || !(s < 1e18f)) {
      throw ToolError(
          "cannot choose a resolution from the clouds' spacing (duplicate points, or "
          "a single point?); give --resolution");
    }
  }
  report.resolution = s;

  const bool iterative = settings.method == Method::kIterative;
  const float kernel = settings.kernelScale > 0.0f ? settings.kernelScale
                                                   : (p.refineKernel * s) * (p.refineKernel * s);
  std::array<double, 12> matrix = settings.initial.matrix3x4();
  uint32_t pairs = 0;
  if (settings.exact) {
    report.method = iterative ? "pipeline (iterative)" : "pipeline (ransac)";
    const int32_t iterations = settings.iterations >= 0 ? settings.iterations
                               : iterative              ? p.refineIterations
                                                        : p.ransacIterations;
    Stage stage(stages, "match pair point cloud");
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
                                  &pairs),
          "QorvMatchPairPointCloud",
          "registering the clouds");
  } else {
    const KeyPointSet keys1 = PrepareCloud(session, target, p, s, "target", report.target, stages);
    const KeyPointSet keys2 = PrepareCloud(session, source, p, s, "source", report.source, stages);
    if (!iterative) {
      report.method = settings.refine ? "ransac+iterative" : "ransac";
      const int32_t iterations =
          settings.iterations >= 0 ? settings.iterations : p.ransacIterations;
      {
        Stage stage(stages, "ransac");
        Check(QorvRansacMatchKeyPoints(inst,
                                       keys1.positions.data(),
                                       keys1.normals.data(),
                                       keys1.descriptors.data(),
                                       keys1.count(),
                                       keys2.positions.data(),
                                       keys2.normals.data(),
                                       keys2.descriptors.data(),
                                       keys2.count(),
                                       matrix.data(),
                                       iterations,
                                       p.edgeRatio,
                                       p.inlierDistance * s,
                                       CountPairs,
                                       &pairs),
              "QorvRansacMatchKeyPoints",
              "matching key points");
      }
      report.modelFound = IsRotation(Rigid::FromMatrix3x4(matrix.data()));
    }
    if (iterative || (settings.refine && report.modelFound)) {
      if (iterative) report.method = "iterative";
      const int32_t iterations =
          iterative && settings.iterations >= 0 ? settings.iterations : p.refineIterations;
      Stage stage(stages, iterative ? "iterative" : "refinement");
      Check(QorvIterativeMatchKeyPoints(inst,
                                        keys1.positions.data(),
                                        keys1.descriptors.data(),
                                        keys1.count(),
                                        keys2.positions.data(),
                                        keys2.descriptors.data(),
                                        keys2.count(),
                                        matrix.data(),
                                        iterations,
                                        kernel,
                                        p.refineMaxDistance * s,
                                        CountPairs,
                                        &pairs),
            "QorvIterativeMatchKeyPoints",
            "refining the registration");
    }
  }
  report.transform = Rigid::FromMatrix3x4(matrix.data());
  report.modelFound = report.modelFound && IsRotation(report.transform);
  report.correspondences = pairs;
  {
    Stage stage(stages, "fitness");
    report.movedSource = MoveCloud(session, source, report.transform).points;
    // The all-zero matrix of a failed RANSAC piles the source on the origin: no fitness.
    report.fitness = report.modelFound ? Fitness(target.points, report.movedSource, s) : 0.0;
  }
  report.stages = std::move(stages);
  return report;
}

void PrintReport(const RegistrationReport& r) {
  std::FILE* out = Out();
  FlushAll();
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
  if (r.resolutionAuto) {
    std::fprintf(out,
                 "resolution %.6g (automatic, mean spacing: target %.6g, source %.6g)\n",
                 r.resolution,
                 r.target.spacing,
                 r.source.spacing);
  } else {
    std::fprintf(out, "resolution %.6g\n", r.resolution);
  }
  if (r.target.keyPoints > 0 || r.source.keyPoints > 0) {
    std::fprintf(out,
                 "prepared: target %d -> %d -> %d points, %d key points; "
                 "source %d -> %d -> %d points, %d key points\n",
                 r.target.points,
                 r.target.afterOutliers,
                 r.target.afterVoxel,
                 r.target.keyPoints,
                 r.source.points,
                 r.source.afterOutliers,
                 r.source.afterVoxel,
                 r.source.keyPoints);
  }
  std::fprintf(out, "method %s\n", r.method.c_str());
  std::fprintf(out, "stage times (ms):\n");
  double total = 0.0;
  for (const StageTime& stage : r.stages) {
    std::fprintf(out, "  %-28s %10.1f\n", stage.name.c_str(), stage.ms);
    total += stage.ms;
  }
  std::fprintf(out, "  %-28s %10.1f\n", "total", total);
  std::fprintf(out, "transform (source onto target), 3 x 4 [R | t]:\n");
  const std::array<double, 12> m = r.transform.matrix3x4();
  for (int row = 0; row < 3; ++row) {
    std::fprintf(out,
                 "  % .9f % .9f % .9f % .9g\n",
                 m[4 * row],
                 m[4 * row + 1],
                 m[4 * row + 2],
                 m[4 * row + 3]);
  }
  const double tn =
      std::sqrt(r.transform.t[0] * r.transform.t[0] + r.transform.t[1] * r.transform.t[1] +
                r.transform.t[2] * r.transform.t[2]);
  if (r.modelFound) {
    std::fprintf(
        out, "rotation %.4f deg, translation %.6g\n", r.transform.rotationAngleDegrees(), tn);
  } else {
    std::fprintf(out, "no model found: the matrix is not a rotation\n");
  }
  std::fprintf(out, "correspondences %u\n", r.correspondences);
  std::fprintf(out,
               "fitness %.4f (share of source points within %.6g of a target point)\n",
               r.fitness,
               r.resolution);
  std::fflush(out);
}

void WriteReportJson(JsonWriter& json, const RegistrationReport& r) {
  auto cloud = [&json](const char* name, const CloudSummary& c) {
    json.key(name).beginObject();
    json.key("path").value(c.path);
    json.key("format").value(c.format);
    json.key("points").value(c.points);
    if (c.spacing > 0.0f) json.key("spacing").value(static_cast<double>(c.spacing));
    if (c.keyPoints > 0) {
      json.key("after_outlier_removal").value(c.afterOutliers);
      json.key("after_voxel_filter").value(c.afterVoxel);
      json.key("key_points").value(c.keyPoints);
    }
    json.endObject();
  };
  cloud("target", r.target);
  cloud("source", r.source);
  json.key("resolution").value(static_cast<double>(r.resolution));
  json.key("resolution_automatic").value(r.resolutionAuto);
  json.key("method").value(r.method);
  json.key("model_found").value(r.modelFound);
  const std::array<double, 12> m = r.transform.matrix3x4();
  json.key("transform").beginArray();
  for (int row = 0; row < 3; ++row) json.numbers(&m[4 * row], 4);
  json.endArray();
  json.key("rotation_degrees").value(r.transform.rotationAngleDegrees());
  json.key("translation").numbers(r.transform.t.data(), 3);
  json.key("correspondences").value(static_cast<int64_t>(r.correspondences));
  json.key("fitness").value(r.fitness);
  json.key("stages").beginArray();
  double total = 0.0;
  for (const StageTime& stage : r.stages) {
    json.beginObject().key("name").value(stage.name);
    json.key("ms").value(std::round(stage.ms * 1000.0) / 1000.0).endObject();
    total += stage.ms;
  }
  json.endArray();
  json.key("total_ms").value(std::round(total * 1000.0) / 1000.0);
}

}  // namespace qorv::tools
