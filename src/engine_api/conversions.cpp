// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine_api/conversions.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

#include <Eigen/LU>

namespace qorv::engine {

Eigen::Matrix4d FromRowMajor(const double* m) {
  return Eigen::Map<const Eigen::Matrix<double, 4, 4, Eigen::RowMajor>>(m);
}

void ToRowMajor(const Eigen::Matrix4d& transform, double* m) {
  Eigen::Map<Eigen::Matrix<double, 4, 4, Eigen::RowMajor>> rows(m);
  rows = transform;
}

std::string FromC(const QorvEngineOptions& in, Options& out) {
  if (in.mode != QORV_ENGINE_MODE_GLOBAL && in.mode != QORV_ENGINE_MODE_LOCAL &&
      in.mode != QORV_ENGINE_MODE_EVALUATE) {
    return "mode must be QORV_ENGINE_MODE_GLOBAL, _LOCAL or _EVALUATE";
  }
  if (!std::isfinite(in.voxel) || in.voxel < 0.0)
    return "voxel must be 0 (automatic) or a positive length";
  if (in.point_budget < 100) return "point_budget must be at least 100";
  if (in.refine_budget < 100) return "refine_budget must be at least 100";
  if (in.threads < 0) return "threads must be 0 (default) or positive";
  static_assert(kMaxTries == QORV_ENGINE_MAX_TRIES, "the C header and the engine agree");
  if (in.max_tries < 1 || in.max_tries > kMaxTries)
    return "max_tries must lie between 1 and " + std::to_string(kMaxTries);
  if (in.max_ransac_iterations < 1) return "max_ransac_iterations must be at least 1";
  if (!(in.ransac_confidence > 0.0 && in.ransac_confidence < 1.0)) {
    return "ransac_confidence must lie strictly between 0 and 1";
  }
  if (in.sensor_origin != 0 && in.sensor_origin != 1) return "sensor_origin must be 0 or 1";
  if (in.refine != QORV_ENGINE_REFINE_PLANE && in.refine != QORV_ENGINE_REFINE_GICP) {
    return "refine must be QORV_ENGINE_REFINE_PLANE (0) or QORV_ENGINE_REFINE_GICP (1), not " +
           std::to_string(in.refine);
  }
  if (in.mode != QORV_ENGINE_MODE_GLOBAL && !in.has_initial) {
    return "the local and evaluate modes need an initial transform (has_initial = 1)";
  }
  const Eigen::Matrix4d initial = FromRowMajor(in.initial);
  if (in.has_initial) {
    if (!initial.allFinite()) return "the initial transform holds a non-finite number";
    const Eigen::Matrix3d rotation = initial.topLeftCorner<3, 3>();
    const double orthogonality =
        (rotation.transpose() * rotation - Eigen::Matrix3d::Identity()).norm();
    if (orthogonality > 1e-3 || rotation.determinant() < 0.0 ||
        (initial.row(3) - Eigen::RowVector4d(0, 0, 0, 1)).norm() > 1e-9) {
      return "the initial transform is not a rigid motion (rotation and translation, last row 0 0 "
             "0 1)";
    }
  }
  out.mode = in.mode == QORV_ENGINE_MODE_LOCAL      ? Mode::kLocal
             : in.mode == QORV_ENGINE_MODE_EVALUATE ? Mode::kEvaluate
                                                    : Mode::kGlobal;
  out.voxel = in.voxel;
  out.pointBudget = in.point_budget;
  out.refineBudget = in.refine_budget;
  out.seed = in.seed;
  out.threads = in.threads;
  out.hasInitial = in.has_initial != 0;
  out.initial = initial;
  out.maxTries = in.max_tries;
  out.maxRansacIterations = in.max_ransac_iterations;
  out.ransacConfidence = in.ransac_confidence;
  out.sensorOrigin = in.sensor_origin != 0;
  out.refine = in.refine == QORV_ENGINE_REFINE_GICP ? RefineMethod::kGeneralized
                                                    : RefineMethod::kPointToPlane;
  return {};
}

QorvEngineOptions OptionsWithin(const QorvEngineOptions& caller) {
  QorvEngineOptions known;
  QorvEngineDefaultOptions(&known);
  std::memcpy(&known, &caller, std::min<size_t>(caller.struct_size, sizeof(known)));
  if (caller.struct_size < offsetof(QorvEngineOptions, refine) + sizeof(known.refine))
    known.refine = QORV_ENGINE_REFINE_PLANE;
  return known;
}

size_t CloudSize(const QorvEngineOptions* options) {
  constexpr size_t kVersion2 = offsetof(QorvEngineCloud, points_f64);
  if (options == nullptr) return sizeof(QorvEngineCloud);
  if (options->struct_size < offsetof(QorvEngineOptions, cloud_size) + sizeof(uint32_t))
    return kVersion2;
  return options->cloud_size >= kVersion2 ? options->cloud_size : 0;
}

QorvEngineCloud CloudAt(const QorvEngineCloud* clouds, size_t i, size_t cloudSize) {
  QorvEngineCloud cloud;
  std::memset(&cloud, 0, sizeof(cloud));
  const auto* bytes = reinterpret_cast<const unsigned char*>(clouds) + i * cloudSize;
  std::memcpy(&cloud, bytes, std::min(cloudSize, sizeof(cloud)));
  return cloud;
}

std::string CheckCloud(const QorvEngineCloud* cloud, const char* what) {
  const std::string name(what);
  if (cloud == nullptr) return "the " + name + " cloud is null";
  if (cloud->count < 0) return "the " + name + " cloud has a negative point count";
  if (cloud->count > 0 && cloud->points == nullptr && cloud->points_f64 == nullptr)
    return "the " + name + " cloud's points are null";
  for (double v : cloud->origin) {
    if (!std::isfinite(v)) return "the " + name + " cloud's origin is not finite";
  }
  if (cloud->count > (int64_t{1} << 31) - 1)
    return "the " + name + " cloud has over 2^31 - 1 points";
  if (cloud->width < 0 || cloud->height < 0)
    return "the " + name + " cloud has a negative width or height";
  if (cloud->height > 1 && static_cast<int64_t>(cloud->width) * cloud->height != cloud->count) {
    return "the " + name + " cloud's width x height differs from its point count";
  }
  return {};
}

CloudView ViewOf(const QorvEngineCloud& cloud) {
  CloudView view;
  view.points = cloud.points;
  view.points64 = cloud.points_f64;
  view.origin = Eigen::Vector3d(cloud.origin[0], cloud.origin[1], cloud.origin[2]);
  view.count = cloud.count;
  if (cloud.height > 1) {
    view.width = cloud.width;
    view.height = cloud.height;
  }
  view.hasViewpoint = cloud.has_viewpoint != 0 && std::isfinite(cloud.viewpoint[0]) &&
                      std::isfinite(cloud.viewpoint[1]) && std::isfinite(cloud.viewpoint[2]);
  view.viewpoint = Eigen::Vector3d(cloud.viewpoint[0], cloud.viewpoint[1], cloud.viewpoint[2]);
  return view;
}

void ToC(const Outcome& in, QorvEngineResult& out) {
  std::memset(&out, 0, sizeof(out));
  out.struct_size = sizeof(out);
  out.registered = in.registered ? 1 : 0;
  ToRowMajor(in.transform, out.transform);
  const Evidence& e = in.evidence;
  out.fitness = e.overlap.fitness;
  out.target_overlap = e.overlap.targetOverlap;
  out.inlier_rmse = e.overlap.rmse;
  out.inlier_distance = e.distance;
  out.consistent_pairs = e.consistentPairs;
  out.constrained = e.overlap.constrained;
  out.conditioning = e.overlap.conditioning;
  out.free_space_conflict = e.freeSpaceConflict;
  out.chance_pairs = e.chancePairs;
  out.rival_share = e.rivalShare;
  out.normal_agreement = e.overlap.normalAgreement;
  out.coherence = e.overlap.coherence;
  out.matches = in.matches;
  out.voxel = in.voxel;
  out.target_points = in.targetPoints;
  out.source_points = in.sourcePoints;
  out.target_samples = in.targetSamples;
  out.source_samples = in.sourceSamples;
  out.tries = in.tries;
  std::strncpy(out.reason, in.reason.c_str(), sizeof(out.reason) - 1);
  const size_t stages = std::min<size_t>(in.stages.size(), QORV_ENGINE_MAX_STAGES);
  out.stage_count = static_cast<int32_t>(stages);
  for (size_t i = 0; i < stages; ++i) {
    std::strncpy(out.stages[i].name, in.stages[i].name.c_str(), sizeof(out.stages[i].name) - 1);
    out.stages[i].milliseconds = in.stages[i].milliseconds;
  }
}

}  // namespace qorv::engine
