// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <qorv/engine.h>

#include "cloud_io.hpp"
#include "rigid.hpp"
#include "session.hpp"

#include <nlohmann/json.hpp>

namespace qorv::tools {

enum class Method { kRansac, kIterative };

// How `qorv register` runs: the engine (QorvEngineRegister) with its options, or with --exact the
// library's one-call pipeline QorvMatchPairPointCloud, judged afterwards by the engine's verdict.
struct RegisterSettings {
  QorvEngineOptions engine;  // filled with QorvEngineDefaultOptions
  bool exact = false;
  // The one-call pipeline's own parameters.
  float resolution = 0.0f;  // 0: 1.25 x the coarser cloud's mean spacing
  Method method = Method::kRansac;
  int32_t iterations = -1;  // -1: 20000 RANSAC samples / 64 iterative steps
  bool crossCheck = true;
  float kernelScale = 0.0f;  // iterative method; 0: (4 s)^2

  RegisterSettings() { QorvEngineDefaultOptions(&engine); }
};

struct StageTime {
  std::string name;
  double ms = 0.0;
};

struct CloudSummary {
  std::string path;
  std::string format;
  int32_t points = 0;      // finite points read
  int32_t samples = 0;     // points at the working voxel
  bool hasCamera = false;  // a depth image, read through camera
  QorvEngineDepthCamera camera{};
};

struct RegistrationReport {
  CloudSummary target, source;
  std::string method;        // "engine (global)", "engine (local)", "pipeline (ransac)", ...
  std::string refine;        // the engine's dense refinement, "plane" or "gicp"; "" for --exact
  Rigid transform;           // carries the source onto the target
  QorvEngineResult verdict;  // the engine's verdict and measures of `transform`
  uint32_t pipelineCorrespondences = 0;  // --exact only
  std::vector<StageTime> stages;
  Cloud movedSource;  // the source after the motion, every field carried (moved once, here)

  bool registered() const { return verdict.registered != 0; }
};

// Registers `source` onto `target`. `stages` may already hold the reading times. Throws
// ToolError with the engine's message when the clouds cannot be registered at all.
RegistrationReport RegisterClouds(const Session& session,
                                  const Cloud& target,
                                  const Cloud& source,
                                  const RegisterSettings& settings,
                                  std::vector<StageTime> stages);

// The motion applied to a cloud through the library: points with QorvTransformPoints, normals
// with QorvRotatePoints.
Cloud MoveCloud(const Session& session, const Cloud& cloud, const Rigid& motion);

// Human-readable report on Out().
void PrintReport(const RegistrationReport& report);

// Prints the three upper rows of a motion's 4 x 4 matrix, one a line.
void PrintMatrixRows(std::FILE* out, const Rigid& motion);

// The report's fields into an open JSON object: "registered", "transform" (4 x 4 rows), the
// measures, "reason" and the stage times.
void AddReportJson(nlohmann::ordered_json& doc, const RegistrationReport& report);

// Milliseconds on a steady clock, counted from its first reading.
double Now();

}  // namespace qorv::tools
