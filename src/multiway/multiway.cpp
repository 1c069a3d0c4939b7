// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "multiway/multiway.hpp"

#include <cmath>

#include <Eigen/LU>

namespace qorv::multiway {
namespace {

// Centre and RMS radius of a scan's finite points.
struct Sphere {
  Eigen::Vector3d centre = Eigen::Vector3d::Zero();
  double radius = 0.0;
};

Sphere SphereOf(const engine::CloudView& scan) {
  Sphere s;
  int64_t n = 0;
  for (int64_t i = 0; i < scan.count; ++i) {
    const Eigen::Vector3d p(scan.points[3 * i], scan.points[3 * i + 1], scan.points[3 * i + 2]);
    if (!p.allFinite()) continue;
    s.centre += p;
    ++n;
  }
  if (n == 0) return s;
  s.centre /= static_cast<double>(n);
  double sum = 0.0;
  for (int64_t i = 0; i < scan.count; ++i) {
    const Eigen::Vector3d p(scan.points[3 * i], scan.points[3 * i + 1], scan.points[3 * i + 2]);
    if (p.allFinite()) sum += (p - s.centre).squaredNorm();
  }
  s.radius = std::sqrt(sum / static_cast<double>(n));
  return s;
}

}  // namespace

int32_t AlignScans(const std::vector<engine::CloudView>& scans,
                   const engine::Options& options,
                   bool loops,
                   const std::vector<Edge>& extra,
                   std::vector<Pose>& poses,
                   std::vector<EdgeReport>& edges,
                   std::string& error) {
  const size_t n = scans.size();
  std::vector<Sphere> spheres;
  for (const engine::CloudView& scan : scans) spheres.push_back(SphereOf(scan));
  std::vector<EdgeReport> found;
  auto pair = [&](size_t i, size_t j, bool loop, const Pose* guess) -> int32_t {
    engine::Options o = options;
    o.mode = engine::Mode::kGlobal;
    o.hasInitial = guess != nullptr;
    if (guess != nullptr) o.initial = *guess;
    engine::Outcome outcome;
    const int32_t code = engine::Register(scans[i], scans[j], o, outcome, error);
    if (code != engine::kOk) {
      error = "scans " + std::to_string(i) + " and " + std::to_string(j) + ": " + error;
      return code;
    }
    EdgeReport report;
    report.loop = loop;
    report.registered = outcome.registered;
    report.fitness = outcome.evidence.overlap.fitness;
    report.consistentPairs = outcome.evidence.consistentPairs;
    report.edge.from = static_cast<int32_t>(i);
    report.edge.to = static_cast<int32_t>(j);
    report.edge.motion = outcome.transform;
    const double rmse = std::max(outcome.evidence.overlap.rmse, 1e-3 * outcome.voxel);
    report.edge.shiftSigma = rmse / std::sqrt(std::max(outcome.evidence.overlap.fitness, 1e-3));
    report.edge.rotationSigma = report.edge.shiftSigma / std::max(spheres[j].radius, 1e-9);
    found.push_back(report);
    return engine::kOk;
  };
  // Odometry, then the poses it chains to.
  for (size_t i = 0; i + 1 < n; ++i) {
    if (const int32_t code = pair(i, i + 1, false, nullptr); code != engine::kOk) return code;
  }
  poses.assign(n, Pose::Identity());
  for (size_t i = 0; i + 1 < n; ++i) {
    const EdgeReport& odometry = found[i];
    poses[i + 1] = odometry.registered ? Pose(poses[i] * odometry.edge.motion) : poses[i];
  }
  if (loops) {
    for (size_t i = 0; i < n; ++i) {
      for (size_t j = i + 2; j < n; ++j) {
        const Eigen::Vector3d ci =
            poses[i].topLeftCorner<3, 3>() * spheres[i].centre + poses[i].topRightCorner<3, 1>();
        const Eigen::Vector3d cj =
            poses[j].topLeftCorner<3, 3>() * spheres[j].centre + poses[j].topRightCorner<3, 1>();
        if ((ci - cj).norm() > 0.5 * (spheres[i].radius + spheres[j].radius)) continue;
        const Pose guess = poses[i].inverse() * poses[j];
        if (const int32_t code = pair(i, j, true, &guess); code != engine::kOk) return code;
      }
    }
  }
  std::vector<Edge> graph;
  edges.clear();
  for (const EdgeReport& report : found) {
    if (!report.registered) continue;
    graph.push_back(report.edge);
  }
  for (const Edge& e : extra) graph.push_back(e);
  if (!Optimize(poses, graph)) {
    error = "the pose graph could not be solved";
    return engine::kInternal;
  }
  // Reports: every pair tried (rejected ones marked from the graph), then the caller's edges.
  size_t g = 0;
  for (EdgeReport report : found) {
    if (report.registered) report.edge.rejected = graph[g++].rejected;
    edges.push_back(report);
  }
  for (; g < graph.size(); ++g) {
    EdgeReport report;
    report.edge = graph[g];
    report.registered = true;
    report.loop = std::abs(graph[g].to - graph[g].from) != 1;
    edges.push_back(report);
  }
  return engine::kOk;
}

}  // namespace qorv::multiway
