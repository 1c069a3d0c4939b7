// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <Eigen/Core>

#include "engine/hypotheses.hpp"
#include "engine/matcher.hpp"
#include "engine/refine.hpp"
#include "engine/verdict.hpp"

// The registration engine. It keeps its own normals, voxel grid and RANSAC beside the library's
// (surface/, geometry/, registration/): the library's normals face +z and its voxel filter drops
// its last voxel, as the 28 exports must keep doing, and its RANSAC is seeded from the clock; the
// engine needs normals turned toward the sensor, every voxel, and the same bits for the same seed.
namespace qorv::engine {

// A caller's cloud, not copied: packed float triples (relative to origin) or double triples,
// optional organized layout (width x height == count, NaN holes allowed) and
// sensor origin (in the caller's frame).
struct CloudView {
  const float* points = nullptr;
  const double* points64 = nullptr;                  // used instead of points when set
  Eigen::Vector3d origin = Eigen::Vector3d::Zero();  // float points lie at points + origin
  // Where the engine's frame has its zero (engine/frame.hpp): positions are taken relative to it.
  Eigen::Vector3d frame = Eigen::Vector3d::Zero();
  int64_t count = 0;
  int32_t width = 0;
  int32_t height = 0;
  bool hasViewpoint = false;
  Eigen::Vector3d viewpoint = Eigen::Vector3d::Zero();
};

// kGlobal: features, RANSAC, ICP; kLocal: ICP from the initial guess; kEvaluate: the verdict on the
// initial guess as it is.
enum class Mode { kGlobal, kLocal, kEvaluate };

// The most scales a registration tries while the verdict is negative.
constexpr int32_t kMaxTries = 8;

// Every length the engine uses derives from the working voxel; the budgets choose it.
struct Options {
  Mode mode = Mode::kGlobal;
  double voxel = 0.0;            // 0: chosen so that a cloud keeps about pointBudget voxels
  int32_t pointBudget = 4000;    // matching: voxels a cloud keeps
  int32_t refineBudget = 20000;  // dense refinement: points a cloud keeps
  uint64_t seed = 1;
  bool sensorOrigin = false;  // clouds without a viewpoint were taken by a sensor at their origin
  int32_t threads = 0;        // 0: OpenMP's default
  bool hasInitial = false;
  Eigen::Matrix4d initial = Eigen::Matrix4d::Identity();
  int32_t maxTries = 3;  // 1 to kMaxTries
  int32_t maxRansacIterations = 100000;
  double ransacConfidence = 0.999;
  RefineMethod refine = RefineMethod::kGeneralized;  // dense refinement (and coarse ICP)
  MatchMethod match = MatchMethod::kMutualFeatures;
  HypothesisMethod hypotheses = HypothesisMethod::kCompatibleRansac;
};

struct StageTime {
  std::string name;
  double milliseconds = 0.0;
};

struct Outcome {
  Eigen::Matrix4d transform = Eigen::Matrix4d::Identity();
  bool registered = false;
  std::string reason;  // why not registered
  Evidence evidence;   // what the verdict saw, on the refinement clouds
  int32_t matches = 0;
  double voxel = 0.0;
  int32_t targetPoints = 0, sourcePoints = 0;    // finite input points
  int32_t targetSamples = 0, sourceSamples = 0;  // after the working voxel
  int32_t tries = 0;
  std::vector<StageTime> stages;
};

// Failures of Register (the C interface uses the same numbers).
enum Status : int32_t {
  kOk = 0,
  kTooFewPoints = 4,  // a cloud has no shape to register
  kInternal = 10,     // a solver gave up
};

// Registers source onto target. Returns kOk, or a failure with a message in error; a negative
// verdict is not a failure.
int32_t Register(const CloudView& target,
                 const CloudView& source,
                 const Options& options,
                 Outcome& outcome,
                 std::string& error);

// Many clouds registered together are made ready once each, at scales they share, and then
// registered pair by pair: what Register does for one pair, split so that a cloud's samples,
// normals and features serve all its pairs.

// What a cloud asks for on its own: the refinement voxel that keeps it within the refinement
// budget, the spacing of the refined cloud, and the working voxel that keeps it within the point
// budget.
struct OwnScale {
  double thin = 0.0;
  double spacing = 0.0;
  double voxel = 0.0;
};

// The scales a set of alike clouds is registered at: the median of what each asks for (Register
// takes the larger of its two clouds').
struct Scales {
  double thin = 0.0;     // refinement voxel (0: the clouds as they are)
  double spacing = 0.0;  // the refined clouds' spacing
  double voxel = 0.0;    // the first try's working voxel
  // The unit of the refinement lengths (ICP distances and kernels, fine normals): min(spacing,
  // voxel), so that they follow the refined clouds unless the working voxel is finer still.
  double refineUnit = 0.0;
};

struct Prepared;
struct PreparedDeleter {
  void operator()(Prepared* prepared) const;
};
// A prepared cloud holds search trees: destroy it on the thread that prepared it.
using PreparedScan = std::unique_ptr<Prepared, PreparedDeleter>;

int32_t MeasureScale(const CloudView& view,
                     const Options& options,
                     OwnScale& scale,
                     std::string& error);
// The median of what each cloud asks for.
OwnScale TypicalScale(const std::vector<OwnScale>& scales);
Scales CommonScales(const std::vector<OwnScale>& scales, const Options& options);
int32_t Prepare(const CloudView& view,
                const Scales& scales,
                const Options& options,
                PreparedScan& prepared,
                std::string& error);
// Safe to call from several threads at once on the same prepared clouds (they are only read).
int32_t RegisterPrepared(const Prepared& target,
                         const Prepared& source,
                         const Scales& scales,
                         const Options& options,
                         Outcome& outcome);

}  // namespace qorv::engine
