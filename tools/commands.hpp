// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "register.hpp"
#include "snapshot.hpp"

namespace qorv::tools {

// Options every command takes (given before or after the command's name).
struct GlobalOptions {
  bool json = false;   // results as one JSON document on stdout; library log on stderr
  bool quiet = false;  // library log discarded
  int threads = 1;     // > 1: the library's multi-threaded variants with that many threads
};

struct FilterOptions {
  std::string kind;  // voxel, sor, edge, gaussian
  std::string input, output;
  float leaf = 0.0f;
  float radius = 0.0f;
  int32_t meanK = 50;
  float stdMul = 3.4f;
};

struct KeyPointOptions {
  std::string input, output, descriptors;
  float radius = 0.0f;           // detector neighbourhood
  float nonMaxRadius = 0.0f;     // 0: none
  float featureRadius = 0.0f;    // 0: 2.5 x radius
  float histogramRadius = 0.0f;  // 0: 1.25 x radius
  float normalRadius = 0.0f;     // normals when the input has none; 0: radius
  float ratio21 = 0.8f;  // surface-suited detector ratios
  float ratio32 = 0.8f;
  int32_t maxKeyPoints = 0;
};

struct RegisterOptions {
  std::string target, source, output, snapshot;
  RegisterSettings settings;
  std::string initialMatrix;  // initial guess, empty: none
  SnapshotOptions view;
};

// convert and depth: an input file, an output file, the encoding, and the depth camera.
struct ConvertOptions {
  std::string input, output;
  float voxel = 0.0f;  // 0: no thinning
  int32_t encoding = QORV_ENGINE_ENCODING_DEFAULT;
  QorvEngineDepthCamera camera;

  ConvertOptions() { QorvEngineDefaultDepthCamera(&camera); }
};

struct BatchOptions {
  std::string manifest, output;
  int jobs = 0;  // 0: one a core
  QorvEngineOptions engine;

  BatchOptions() { QorvEngineDefaultOptions(&engine); }
};

struct MultiwayOptions {
  std::vector<std::string> scans;
  std::string manifest;       // a file listing more scans, one a line
  std::string output;         // poses as JSON
  std::string log;            // poses in the trajectory-log layout
  std::string merged;         // the merged cloud
  float mergeVoxel = 0.0f;    // its thinning voxel (0: none)
  bool noLoops = false;
  QorvEngineOptions engine;

  MultiwayOptions() { QorvEngineDefaultOptions(&engine); }
};

struct DemoOptions {
  std::string data = "data/sample/dragon_res3.asc";
  std::string snapshot = "build/demo/snapshot.png";
  std::string viewsDir;  // where to write the two views as ASC; empty: not written
  float overlap = 0.5f;  // share of the cloud's length that both views hold
  float angleDegrees = 30.0f;
  RegisterSettings settings;
  bool check = false;  // exit status 3 when the recovered motion is off
};

int RunInfo(const GlobalOptions& global, const std::string& path);
int RunNormals(const GlobalOptions& global,
               const std::string& input,
               const std::string& output,
               float radius,
               int32_t orientNeighbors);
int RunFilter(const GlobalOptions& global, const FilterOptions& options);
int RunKeyPoints(const GlobalOptions& global, const KeyPointOptions& options);
int RunTransform(const GlobalOptions& global,
                 const std::string& input,
                 const std::string& output,
                 const std::string& matrix,
                 bool inverse);
int RunRegister(const GlobalOptions& global, RegisterOptions options);
int RunConvert(const GlobalOptions& global, const ConvertOptions& options);
int RunDepth(const GlobalOptions& global, const ConvertOptions& options);
int RunBatch(const GlobalOptions& global, const BatchOptions& options);
int RunMultiway(const GlobalOptions& global, const MultiwayOptions& options);
int RunDemo(const GlobalOptions& global, const DemoOptions& options);

}  // namespace qorv::tools
