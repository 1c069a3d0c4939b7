// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/engine.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>

#include <Eigen/LU>

#include "engine/compatibility.hpp"
#include "engine/features.hpp"
#include "engine/free_space.hpp"
#include "engine/icp.hpp"
#include "engine/matching.hpp"
#include "engine/normals.hpp"
#include "engine/parallel.hpp"
#include "engine/ransac.hpp"
#include "engine/sanitize.hpp"
#include "engine/scale.hpp"
#include "engine/verdict.hpp"
#include "engine/voxel_grid.hpp"

namespace qorv::engine {
namespace {

// Lengths of one try, all in units of its voxel v (refinement lengths in the fine voxel).
constexpr float kNormalRadius = 2.5f;
constexpr int32_t kNormalNeighbours = 30;
constexpr int32_t kFineNormalNeighbours = 12;
constexpr float kFeatureRadius = 5.0f;
constexpr float kHistogramRadius = 2.5f;
constexpr float kInlierDistance = 1.5f;  // RANSAC and consistent pairs
constexpr float kCompatibility = 1.5f;   // pair lengths agree within this
constexpr float kMinPairLength = 3.0f;   // shorter pairs say little about rotation
constexpr int32_t kMaxMatches = 3000;
constexpr int32_t kMinMutual = 30;
constexpr float kCoarseIcpDistance = 2.0f;
constexpr float kFineIcpDistance = 3.0f;
constexpr double kFineKernel = 2.0;
constexpr double kNarrowKernel = 3.0;    // x the residual scale of the wide pass
constexpr double kNarrowFloor = 0.25;    // x the fine voxel
constexpr double kNarrowDistance = 2.0;  // x the narrow kernel
// The verdict's inlier distance: kVerdictNoise x the refined residual, kept between
// kVerdictSpacing and kVerdictSpacingMax x the refinement clouds' spacing.
constexpr double kVerdictNoise = 3.0;
constexpr double kVerdictSpacing = 2.5;
constexpr double kVerdictSpacingMax = 5.0;
constexpr double kPlaneFloor = 0.5;       // x the spacing: least plane distance that agrees
constexpr float kVerdictNear = 3.0f;      // x the inlier distance: structure near enough to judge
constexpr float kFreeSpaceMargin = 2.0f;  // x the inlier distance
constexpr double kScreenOverlap = 0.5;    // x the verdict's overlap: below it, no dense refinement
constexpr double kSpacingFloor = 1.5;     // the matching voxel is never below 1.5 x the spacing
constexpr int32_t kMinPoints = 5;
constexpr double kDistinctAngle =
    0.175;                              // radians (10 degrees): motions further apart are distinct
constexpr double kDistinctShift = 5.0;  // voxels: likewise for translations
// Scale of each try in turn while the verdict is negative: coarser (noise), then finer (small
// clouds).
constexpr double kTryScales[] = {1.0, 1.6, 1.0 / 1.6, 2.5, 1.0 / 2.5, 4.0, 1.0 / 4.0, 6.0};

class StageClock {
 public:
  explicit StageClock(std::vector<StageTime>& stages) : stages_(stages) {}
  void lap(const char* name) {
    const auto now = std::chrono::steady_clock::now();
    const double ms = std::chrono::duration<double, std::milli>(now - last_).count();
    last_ = now;
    for (StageTime& s : stages_) {
      if (s.name == name) {
        s.milliseconds += ms;
        return;
      }
    }
    stages_.push_back({name, ms});
  }

 private:
  std::vector<StageTime>& stages_;
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

// A cloud at one scale with its search tree (built on the calling thread, as the trees require).
struct Level {
  Cloud cloud;
  std::vector<float> weights;
  std::unique_ptr<PointKdTree> tree;

  void index() { tree = std::make_unique<PointKdTree>(cloud.points.data(), cloud.size()); }
};

Level Thin(const Level& from, double voxel) {
  Level out;
  out.cloud = VoxelAverage(from.cloud, from.weights, voxel, out.weights);
  return out;
}

struct Candidate {
  Pose pose = Pose::Identity();
  Overlap overlap;
  double score = -1.0;
};

struct TryResult {
  Level target, source;  // the clouds at the try's voxel, with normals
  Candidate best;
  std::vector<Candidate> candidates;  // every refined hypothesis, best first
  int32_t consistentPairs = 0;
  double chancePairs = 0.0;
  int32_t matches = 0;
  int32_t targetSamples = 0, sourceSamples = 0;
};

// One try at matching voxel v: features, matches, RANSAC, coarse ICP of each hypothesis.
TryResult TryScale(const Level& fineTarget,
                   const Level& fineSource,
                   double v,
                   const Options& options,
                   StageClock& clock) {
  TryResult out;
  out.target = Thin(fineTarget, v);
  out.source = Thin(fineSource, v);
  Level& target = out.target;
  Level& source = out.source;
  target.index();
  source.index();
  out.targetSamples = target.cloud.size();
  out.sourceSamples = source.cloud.size();
  const float vf = static_cast<float>(v);
  EstimateNormals(*target.tree, kNormalRadius * vf, kNormalNeighbours, target.cloud);
  EstimateNormals(*source.tree, kNormalRadius * vf, kNormalNeighbours, source.cloud);
  clock.lap("normals");

  if (options.mode == Mode::kLocal) {
    out.best.pose = options.initial;
    return out;
  }
  const Features ft =
      DescribePoints(*target.tree, target.cloud, kFeatureRadius * vf, kHistogramRadius * vf);
  const Features fs =
      DescribePoints(*source.tree, source.cloud, kFeatureRadius * vf, kHistogramRadius * vf);
  clock.lap("features");
  std::vector<Match> matches = MatchFeatures(fs, ft, kMinMutual);
  if (static_cast<int32_t>(matches.size()) > kMaxMatches) {
    // Keep the closest descriptors, then restore the source order.
    std::stable_sort(matches.begin(), matches.end(), [](const Match& a, const Match& b) {
      return a.distance < b.distance;
    });
    matches.resize(kMaxMatches);
    std::stable_sort(matches.begin(), matches.end(), [](const Match& a, const Match& b) {
      return a.source < b.source || (a.source == b.source && a.target < b.target);
    });
  }
  out.matches = static_cast<int32_t>(matches.size());
  clock.lap("matching");
  auto consistent = [&](const Pose& pose) {
    return static_cast<int32_t>(
        InlierMatches(source.cloud, target.cloud, matches, pose, kInlierDistance * vf).size());
  };
  auto chance = [&](const Pose& pose) {
    return ChanceMatches(source.cloud, target.cloud, matches, pose, kInlierDistance * vf);
  };
  if (options.mode == Mode::kEvaluate) {
    out.best.pose = options.initial;
    out.consistentPairs = consistent(options.initial);
    out.chancePairs = chance(options.initial);
    return out;
  }

  std::vector<Pose> starts;
  const CompatibilityGraph graph = BuildCompatibility(
      source.cloud, target.cloud, matches, kCompatibility * vf, kMinPairLength * vf);
  RansacParams rp;
  rp.inlierDistance = kInlierDistance * vf;
  rp.maxIterations = options.maxRansacIterations;
  rp.confidence = options.ransacConfidence;
  rp.seed = options.seed;
  rp.distinctAngle = kDistinctAngle;
  rp.distinctShift = kDistinctShift * v;
  rp.centre = source.cloud.points.cast<double>().rowwise().mean();
  int32_t iterations = 0;
  for (const Hypothesis& h :
       EstimateByRansac(source.cloud, target.cloud, matches, graph, rp, iterations)) {
    starts.push_back(h.pose);
  }
  clock.lap("ransac");
  if (options.hasInitial) starts.push_back(options.initial);

  std::vector<Candidate> refined;
  for (const Pose& start : starts) {
    IcpParams ip;
    ip.maxDistance = kCoarseIcpDistance * vf;
    ip.kernel = v;
    ip.maxIterations = 15;
    ip.stopShift = 1e-3 * v;
    Candidate c;
    c.pose = RefinePointToPlane(source.cloud, target.cloud, *target.tree, start, ip).pose;
    c.overlap = MeasureOverlap(
        source.cloud, *source.tree, target.cloud, *target.tree, c.pose, kInlierDistance * vf);
    c.score = Score(c.overlap);
    refined.push_back(c);
  }
  clock.lap("refine");
  // Best first; the rival is the best-scoring candidate distinct from it.
  std::stable_sort(refined.begin(), refined.end(), [](const Candidate& a, const Candidate& b) {
    return a.score > b.score;
  });
  if (!refined.empty()) {
    out.best = refined.front();
    out.candidates = refined;
    out.consistentPairs = consistent(out.best.pose);
    out.chancePairs = chance(out.best.pose);
  }
  return out;
}

}  // namespace

int32_t Register(const CloudView& targetView,
                 const CloudView& sourceView,
                 const Options& options,
                 Outcome& outcome,
                 std::string& error) {
  ThreadScope threads(options.threads);
  Outcome result;
  StageClock clock(result.stages);

  Level fineTarget, fineSource;
  {
    Level t, s;
    t.cloud = Sanitize(targetView);
    s.cloud = Sanitize(sourceView);
    for (Cloud* c : {&t.cloud, &s.cloud}) {
      if (options.sensorOrigin && !c->hasViewpoint) {
        c->hasViewpoint = true;  // the caller says: scans centred on their sensor
        c->viewpoint.setZero();
      }
    }
    result.targetPoints = t.cloud.size();
    result.sourcePoints = s.cloud.size();
    if (t.cloud.size() < kMinPoints || s.cloud.size() < kMinPoints) {
      error = "the " + std::string(t.cloud.size() < kMinPoints ? "target" : "source") +
              " cloud has " + std::to_string(std::min(t.cloud.size(), s.cloud.size())) +
              " finite points; at least " + std::to_string(kMinPoints) + " are needed";
      return kTooFewPoints;
    }
    for (const Level* level : {&t, &s}) {
      const Eigen::Vector3f extent =
          level->cloud.points.rowwise().maxCoeff() - level->cloud.points.rowwise().minCoeff();
      if (!(extent.maxCoeff() > 0.0f)) {
        error = "all finite points of the " + std::string(level == &t ? "target" : "source") +
                " cloud coincide: there is no shape to register";
        return kTooFewPoints;
      }
    }
    clock.lap("prepare");
    // The refinement scale: the clouds thinned to the refinement budget, never below their spacing.
    const double fine = std::max(VoxelForBudget(t.cloud, options.refineBudget),
                                 VoxelForBudget(s.cloud, options.refineBudget));
    t.cloud.normals.resize(3, 0);
    s.cloud.normals.resize(3, 0);
    if (fine > 0.0) {
      fineTarget = Thin(t, fine);
      fineSource = Thin(s, fine);
    } else {
      fineTarget = std::move(t);
      fineSource = std::move(s);
    }
  }
  fineTarget.index();
  fineSource.index();
  const double spacing = std::max(MedianSpacing(*fineTarget.tree), MedianSpacing(*fineSource.tree));
  if (!(spacing > 0.0)) {
    error = "the clouds' points all coincide: there is no scale to work at";
    return kTooFewPoints;
  }
  double v = options.voxel;
  if (!(v > 0.0)) {
    v = std::max(VoxelForBudget(fineTarget.cloud, options.pointBudget),
                 VoxelForBudget(fineSource.cloud, options.pointBudget));
    v = std::max(v, kSpacingFloor * spacing);
  }
  const double fineVoxel = std::min(spacing, v);
  EstimateNormals(*fineTarget.tree,
                  kNormalRadius * static_cast<float>(fineVoxel),
                  kFineNormalNeighbours,
                  fineTarget.cloud);
  EstimateNormals(*fineSource.tree,
                  kNormalRadius * static_cast<float>(fineVoxel),
                  kFineNormalNeighbours,
                  fineSource.cloud);
  clock.lap("scale");

  VerdictRules rules;
  if (options.mode == Mode::kLocal) rules.minConsistentPairs = 0;  // no feature matches to count
  // What each sensor saw, where its origin is known: a right motion puts no point of one scan in
  // space the other sensor saw through.
  const SensorView targetSight(fineTarget.cloud), sourceSight(fineSource.cloud);
  bool haveBest = false;
  double bestRank = -1.0;
  struct Seen {
    Pose pose;
    double score;
  };
  std::vector<Seen> seen;  // densely refined answers of every try, with their fine-scale score
  const Eigen::Vector3d centre = fineSource.cloud.points.cast<double>().rowwise().mean();
  auto distinct = [&](const Pose& a, const Pose& b, double voxel) {
    return RotationBetween(a, b) > kDistinctAngle ||
           ShiftBetween(a, b, centre) > kDistinctShift * voxel;
  };
  const int32_t tries = options.mode == Mode::kGlobal ? options.maxTries : 1;
  int32_t firstSamples = 0;
  for (int32_t attempt = 0; attempt < tries; ++attempt) {
    const double tryVoxel = v * kTryScales[attempt];
    if (attempt > 0 && tryVoxel < kSpacingFloor * spacing * 0.99) continue;
    // A finer try costs the square of its extra samples in matching: it is for small clouds,
    // whose first try kept well under the budget.
    if (kTryScales[attempt] < 1.0 && firstSamples * 2 > options.pointBudget) continue;
    TryResult tr = TryScale(fineTarget, fineSource, tryVoxel, options, clock);
    ++result.tries;
    if (attempt == 0) firstSamples = std::min(tr.targetSamples, tr.sourceSamples);
    // Screening: an answer whose feature matches do not beat chance, or that shares too little at
    // the working scale, is judged there; dense refinement is kept for answers that may pass.
    if (options.mode == Mode::kGlobal) {
      Evidence coarse;
      coarse.distance = kInlierDistance * tryVoxel;
      coarse.overlap = MeasureOverlap(tr.source.cloud,
                                      *tr.source.tree,
                                      tr.target.cloud,
                                      *tr.target.tree,
                                      tr.best.pose,
                                      static_cast<float>(coarse.distance),
                                      kVerdictNear * static_cast<float>(coarse.distance));
      coarse.consistentPairs = tr.consistentPairs;
      coarse.chancePairs = tr.chancePairs;
      const double shared = std::min(coarse.overlap.fitness, coarse.overlap.targetOverlap);
      if (tr.candidates.empty() || tr.consistentPairs < ConsistentFloor(tr.chancePairs, rules) ||
          shared < kScreenOverlap * rules.minOverlap) {
        const double rank = Score(coarse.overlap) - 1.0;  // below any answer judged densely
        if (!haveBest || rank > bestRank) {
          haveBest = true;
          bestRank = rank;
          result.transform = tr.best.pose;
          result.registered = false;
          result.reason = Decide(coarse, rules);
          if (result.reason.empty()) result.reason = "no answer worth refining";
          result.evidence = coarse;
          result.matches = tr.matches;
          result.voxel = tryVoxel;
          result.targetSamples = tr.targetSamples;
          result.sourceSamples = tr.sourceSamples;
        }
        clock.lap("verdict");
        continue;
      }
    }
    // Dense refinement at the fine scale, then the verdict.
    IcpParams ip;
    ip.maxDistance = kFineIcpDistance * static_cast<float>(fineVoxel);
    // The kernel is wider than the voxel: sensor noise of a few fine voxels must still pull.
    ip.kernel = kFineKernel * fineVoxel;
    ip.maxIterations = options.mode == Mode::kLocal ? 40 : 20;
    ip.stopShift = 1e-3 * fineVoxel;
    if (options.mode == Mode::kLocal) {
      // Local mode starts from the guess: first a wide, coarse pass to pull in.
      IcpParams coarse = ip;
      coarse.maxDistance = kFineIcpDistance * static_cast<float>(tryVoxel);
      coarse.kernel = tryVoxel;
      tr.best.pose = RefinePointToPlane(
                         fineSource.cloud, fineTarget.cloud, *fineTarget.tree, tr.best.pose, coarse)
                         .pose;
    }
    Pose pose = tr.best.pose;
    double residual = 0.0;
    if (options.mode == Mode::kEvaluate) {
      IcpParams probe = ip;
      probe.maxIterations = 1;  // the residual of the pose as given; the step is not taken
      residual =
          RefinePointToPlane(fineSource.cloud, fineTarget.cloud, *fineTarget.tree, pose, probe)
              .residualScale;
    } else {
      const IcpOutcome wide =
          RefinePointToPlane(fineSource.cloud, fineTarget.cloud, *fineTarget.tree, pose, ip);
      // Then narrow to the residuals the data shows: clean scans settle on their exact overlap,
      // noisy sensors keep a kernel as wide as their noise.
      IcpParams narrow = ip;
      narrow.kernel = std::max(kNarrowKernel * wide.residualScale, kNarrowFloor * fineVoxel);
      narrow.maxDistance = static_cast<float>(std::max(kNarrowDistance * narrow.kernel, fineVoxel));
      narrow.maxIterations = 30;
      const IcpOutcome settled = RefinePointToPlane(
          fineSource.cloud, fineTarget.cloud, *fineTarget.tree, wide.pose, narrow);
      pose = settled.pose;
      residual = settled.residualScale;
    }
    clock.lap("refine");
    // The verdict at the fine scale: its lengths follow the refinement clouds' spacing and the
    // residual noise ICP measured, never the working voxel.
    Evidence evidence;
    evidence.distance = std::clamp(
        kVerdictNoise * residual, kVerdictSpacing * spacing, kVerdictSpacingMax * spacing);
    const float distance = static_cast<float>(evidence.distance);
    const SmoothNormals sourceSmooth{&tr.source.cloud, tr.source.tree.get()};
    const SmoothNormals targetSmooth{&tr.target.cloud, tr.target.tree.get()};
    evidence.overlap =
        MeasureOverlap(fineSource.cloud,
                       *fineSource.tree,
                       fineTarget.cloud,
                       *fineTarget.tree,
                       pose,
                       distance,
                       kVerdictNear * distance,
                       sourceSmooth,
                       targetSmooth,
                       static_cast<float>(std::clamp(
                           kVerdictNoise * residual, kPlaneFloor * spacing, evidence.distance)));
    evidence.consistentPairs = tr.consistentPairs;
    evidence.chancePairs = tr.chancePairs;
    const float margin = kFreeSpaceMargin * distance;
    evidence.freeSpaceConflict =
        std::max(targetSight.Conflict(fineSource.cloud, pose, margin),
                 sourceSight.Conflict(fineTarget.cloud, Pose(pose.inverse()), margin));
    // Uniqueness, judged after dense refinement: the best distinct motion of this try is refined
    // the same way and scored at the same scale; any try's may rival the answer (a symmetric
    // object seen two ways).
    const double score = Score(evidence.overlap);
    for (const Candidate& c : tr.candidates) {
      if (!distinct(c.pose, pose, tryVoxel)) continue;
      const Pose rival =
          RefinePointToPlane(fineSource.cloud, fineTarget.cloud, *fineTarget.tree, c.pose, ip).pose;
      if (!distinct(rival, pose, tryVoxel)) break;
      seen.push_back({rival,
                      Score(MeasureOverlap(fineSource.cloud,
                                           *fineSource.tree,
                                           fineTarget.cloud,
                                           *fineTarget.tree,
                                           rival,
                                           distance,
                                           0.0f,
                                           sourceSmooth,
                                           targetSmooth))});
      break;
    }
    for (const Seen& other : seen) {
      if (score > 0.0 && distinct(other.pose, pose, tryVoxel))
        evidence.rivalShare = std::max(evidence.rivalShare, other.score / score);
    }
    seen.push_back({pose, score});
    const std::string reason = Decide(evidence, rules);
    clock.lap("verdict");
    const double rank = score + (reason.empty() ? 1.0 : 0.0);
    if (!haveBest || rank > bestRank) {
      haveBest = true;
      bestRank = rank;
      result.transform = pose;
      result.registered = reason.empty();
      result.reason = reason;
      result.evidence = evidence;
      result.matches = tr.matches;
      result.voxel = tryVoxel;
      result.targetSamples = tr.targetSamples;
      result.sourceSamples = tr.sourceSamples;
    }
    if (result.registered) break;
  }
  outcome = std::move(result);
  return kOk;
}

}  // namespace qorv::engine
