// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "cloud_io.hpp"
#include "rigid.hpp"
#include "session.hpp"

namespace qorv::tools {

// Defaults of the composed registration chain, lengths in units of the resolution s. This is
// the one place to tune them; the command-line options start from these values.
// Defaults chosen by the registration quality study (docs/registration_quality.md).
struct ChainParams {
  // Automatic s = this x the coarser cloud's mean spacing (QorvCheckDistance k=2): the detector
  // needs 9 neighbours within keyPointRadius s in both clouds.
  float resolutionPerSpacing = 1.25f;
  int32_t sorMeanK = 50;         // outlier removal neighbours
  float sorStdMul = 3.4f;        // outlier removal deviation multiplier
  float gaussianRadius = 1.0f;   // smoothing radius
  float voxelLeaf = 1.0f;        // voxel edge
  float normalRadius = 2.0f;     // normal estimation radius
  float keyPointRadius = 3.0f;   // detector neighbourhood
  float nonMaxRadius = 0.5f;     // non-maximum suppression (0: off)
  float featureRadius = 7.0f;    // descriptor: neighbours whose histograms are summed
  float histogramRadius = 3.5f;  // descriptor: each neighbour's own histogram
  float ratio21 = 0.8f;          // detector bound on lambda2 / lambda1
  float ratio32 = 0.8f;          // detector bound on lambda3 / lambda2
  int32_t maxKeyPoints = 0;      // 0: no cap
  int32_t ransacIterations = 20000;
  float edgeRatio = 0.9f;          // RANSAC triangle edge similarity
  float inlierDistance = 2.0f;     // RANSAC inlier bound
  int32_t refineIterations = 64;   // iterative refinement after RANSAC
  float refineKernel = 4.0f;       // initial kernel scale = (refineKernel s)^2
  float refineMaxDistance = 1.0f;  // refinement keeps correspondences closer than this
};

enum class Method { kRansac, kIterative };

struct RegisterSettings {
  ChainParams chain;
  float resolution = 0.0f;  // 0: automatic
  Method method = Method::kRansac;
  int32_t iterations = -1;  // -1: the method's default
  bool refine = true;       // iterative refinement after RANSAC (chain only)
  bool exact = false;       // one QorvMatchPairPointCloud call instead of the chain
  bool crossCheck = true;
  float kernelScale = 0.0f;  // iterative methods; 0: (refineKernel s)^2
  Rigid initial;             // starting pose of the iterative method
};

struct StageTime {
  std::string name;
  double ms = 0.0;
};

struct CloudSummary {
  std::string path;
  std::string format;
  int32_t points = 0;
  float spacing = 0.0f;       // mean spacing, when measured
  int32_t afterOutliers = 0;  // chain only
  int32_t afterVoxel = 0;     // chain only
  int32_t keyPoints = 0;      // chain only
};

struct RegistrationReport {
  CloudSummary target, source;
  float resolution = 0.0f;
  bool resolutionAuto = false;
  std::string method;      // "ransac+iterative", "ransac", "iterative", "pipeline ransac", ...
  Rigid transform;         // carries the source onto the target
  bool modelFound = true;  // false when RANSAC left the all-zero model
  uint32_t correspondences = 0;
  double fitness = 0.0;
  std::vector<StageTime> stages;
  std::vector<float> movedSource;  // source points after the motion
};

// Runs the registration of `source` onto `target` and measures it. `stages` may already hold
// the reading times. Throws ToolError for unusable input (for example no key points).
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

class JsonWriter;
// The report's fields into an open JSON object.
void WriteReportJson(JsonWriter& json, const RegistrationReport& report);

// Milliseconds on a steady clock, counted from its first reading.
double Now();

}  // namespace qorv::tools
