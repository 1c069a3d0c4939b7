// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

// The steps a registration is made of, and what they hand each other. engine.cpp runs them as a
// plan; each step lives in its own file:
//   prepare.cpp     sanitize, choose the scales, thin, normals, features (once per cloud)
//   try_scale.cpp   one try at a working voxel: match, hypothesise, refine each hypothesis coarsely
//   dense.cpp       dense refinement of a try's answer on the refinement clouds
//   evidence.cpp    what the verdict judges: screening, fine-scale evidence, the rival
//   verdict.cpp     the verdict itself

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/engine.hpp"
#include "engine/features.hpp"
#include "engine/free_space.hpp"
#include "engine/hypotheses.hpp"
#include "engine/matcher.hpp"
#include "engine/refine.hpp"
#include "engine/verdict.hpp"

namespace qorv::engine {

// x the try's voxel: a match (RANSAC's and the consistent pairs') agrees with a motion within this.
constexpr float kInlierDistance = 1.5f;
// Motions further apart than this rotation (radians: 10 degrees) or this shift of the source's
// centre (x the try's voxel) are distinct answers; nearer, they are one answer found twice.
constexpr double kDistinctAngle = 0.175;
constexpr double kDistinctShift = 5.0;
// The matching voxel is never below 1.5 x the spacing: finer, the samples are the points
// themselves and their features describe noise.
constexpr double kSpacingFloor = 1.5;
// Scale of each try in turn while the verdict is negative: coarser (noise), then finer (small
// clouds).
constexpr double kTryScales[kMaxTries] = {1.0, 1.6, 1.0 / 1.6, 2.5, 1.0 / 2.5, 4.0, 1.0 / 4.0, 6.0};

// What a registration does in each mode: global matches features and refines the hypotheses at up
// to kMaxTries scales, screening each answer before dense refinement; local refines from the
// guess, pulled in first by a pass at the working scale; evaluate only measures the guess.
struct Steps {
  bool features;            // the working clouds carry features, and the pair's are matched
  bool hypotheses;          // hypotheses are made from the matches and refined at the working scale
  bool retries;             // further scales while the verdict is negative
  bool screen;              // a coarse judgement decides whether dense refinement is worth it
  bool pullIn;              // a wide pass at the working scale before the dense passes
  bool probe;               // the residual of the pose as given: no dense step is taken
  int32_t denseIterations;  // of the wide dense pass (local mode starts further off)
  bool countMatches;        // the verdict asks for consistent feature matches
};

const Steps& StepsOf(Mode mode);

// Adds each stage's wall time to the outcome's list, by name.
class StageClock {
 public:
  explicit StageClock(std::vector<StageTime>& stages) : stages_(stages) {}
  void lap(const char* name);

 private:
  std::vector<StageTime>& stages_;
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

// A cloud at one scale with its search tree (built on the calling thread, as the trees require),
// and what the refiner keeps about it (made only for refiners that want something).
struct Level {
  Cloud cloud;
  std::vector<float> weights;
  std::unique_ptr<PointKdTree> tree;
  std::unique_ptr<CloudExtras> extras;

  void index() { tree = std::make_unique<PointKdTree>(cloud.points.data(), cloud.size()); }
  void describe(const Refiner& refiner, StageClock& clock);
  RefineCloud refining() const { return {&cloud, tree.get(), extras.get()}; }
};

// A cloud at a try's working voxel: samples with normals, and their features unless only local
// refinement needs it.
struct Working {
  Level level;
  Features features;
};

// A cloud made ready once for all its pairs: at the refinement scale with normals, and at the
// first try's working voxel with normals and features.
struct Prepared {
  Level fine;
  Working first;
  int32_t points = 0;  // finite input points
};

// The options' refiner, matcher and hypothesis maker (the first listed for a method none is listed
// for).
const Refiner& RefinerOf(const Options& options);
const Matcher& MatcherOf(const Options& options);
const Hypothesiser& HypothesiserOf(const Options& options);

// What stays the same over the tries of one registration.
struct Registration {
  Registration(const Prepared& target, const Prepared& source, const Scales& s, const Options& o);

  // Whether two motions are distinct answers for a try at voxel v.
  bool Distinct(const Pose& a, const Pose& b, double v) const;

  const Level& fineTarget;
  const Level& fineSource;
  const Scales& scales;
  const Options& options;
  const Steps steps;
  const Refiner& refiner;
  std::unique_ptr<CloudExtras> ownTargetExtras, ownSourceExtras;
  const RefineCloud refineTarget, refineSource;
  VerdictRules rules;
  // What each sensor saw, where its origin is known: a right motion puts no point of one scan in
  // space the other sensor saw through.
  const SensorView targetSight, sourceSight;
  const Eigen::Vector3d centre;  // of the source: where shifts between motions are measured
};

// --- prepare.cpp ---

// The finite points of a caller's cloud, with the sensor origin the options give; kTooFewPoints
// and a message naming the cloud when it has no shape to register.
int32_t SanitizeChecked(const CloudView& view,
                        const Options& options,
                        const char* name,
                        Cloud& cloud,
                        std::string& error);
// Both clouds of a pair so, side by side; the target's failure is reported first.
int32_t SanitizePair(const CloudView& targetView,
                     const CloudView& sourceView,
                     const Options& options,
                     Cloud& target,
                     Cloud& source,
                     std::string& error);
// The refinement level of a sanitized cloud: thinned at `thin` (0: as it is), indexed.
Level FineLevel(Cloud cloud, double thin);
// The working cloud at voxel v: samples, normals, the refiner's extras (when refiner is set) and
// features (when describe is).
Working MakeWorking(
    const Level& fine, double v, bool describe, const Refiner* refiner, StageClock& clock);
// Fine normals, then the first try's working cloud: the prepared cloud.
std::unique_ptr<Prepared> Finish(
    Level fine, const Scales& scales, const Options& options, int32_t points, StageClock& clock);

struct PreparedPair {
  std::unique_ptr<Prepared> target, source;
};
// Both clouds of a pair at the scales they share (the larger of the two's, or the options'
// voxel); kTooFewPoints and a message when they have no scale to work at.
int32_t PreparePair(Cloud target,
                    Cloud source,
                    const Options& options,
                    Scales& scales,
                    PreparedPair& pair,
                    StageClock& clock,
                    std::string& error);

// --- try_scale.cpp ---

struct Candidate {
  Pose pose = Pose::Identity();
  Overlap overlap;
  double score = -1.0;
};

struct TryResult {
  const Working* target = nullptr;  // the clouds at the try's voxel, with normals
  const Working* source = nullptr;
  std::unique_ptr<Working> ownTarget, ownSource;  // a retry's own clouds
  Candidate best;
  std::vector<Candidate> candidates;  // every refined hypothesis, best first
  int32_t consistentPairs = 0;
  double chancePairs = 0.0;
  int32_t matches = 0;
  int32_t targetSamples = 0, sourceSamples = 0;
};

// Whether the try at this scale is left out.
bool SkipScale(int32_t attempt, double tryVoxel, int32_t firstSamples, const Registration& reg);
// The try's working clouds: the prepared ones at the first scale, made anew at the others.
void OpenTry(TryResult& tr,
             const Prepared& target,
             const Prepared& source,
             int32_t attempt,
             double tryVoxel,
             const Registration& reg,
             StageClock& clock);
// One try at working voxel v: matches, hypotheses, a coarse refinement of each; the best first.
void TryScale(TryResult& out, double v, const Registration& reg, StageClock& clock);

// --- dense.cpp ---

struct Refined {
  Pose pose = Pose::Identity();
  double residual = 0.0;  // residual scale of the last pass
};

// The parameters of the dense passes, in the refinement unit.
IcpParams DenseParams(const Registration& reg);
// Dense refinement on the refinement clouds from a try's answer.
// Local mode's pull-in pass runs on the try's working clouds.
Refined RefineDensely(const TryResult& tr,
                      const Pose& start,
                      double tryVoxel,
                      const Registration& reg);

// --- evidence.cpp ---

struct Screening {
  bool refine = false;  // the answer may pass after dense refinement
  Evidence coarse;      // measured at the working scale
};

// A densely refined answer and its fine-scale score.
struct Seen {
  Pose pose = Pose::Identity();
  double score = 0.0;
};

// The coarse judgement of a try's answer at its working scale.
Screening ScreenTry(const TryResult& tr, double tryVoxel, const VerdictRules& rules);
// The evidence at the fine scale for a densely refined answer.
Evidence GatherEvidence(const TryResult& tr, const Refined& refined, const Registration& reg);
// The try's best hypothesis distinct from the answer, refined and scored as it was; false when
// there is none, or when refinement brings it onto the answer.
bool FindRival(const TryResult& tr,
               const Pose& answer,
               double tryVoxel,
               double distance,
               const Registration& reg,
               Seen& rival);
// The answer's rival share among the answers seen so far.
double RivalShareAmong(const std::vector<Seen>& seen,
                       const Pose& answer,
                       double score,
                       double tryVoxel,
                       const Registration& reg);

}  // namespace qorv::engine
