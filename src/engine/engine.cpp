// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/engine.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <Eigen/LU>

#include "engine/compatibility.hpp"
#include "engine/features.hpp"
#include "engine/frame.hpp"
#include "engine/free_space.hpp"
#include "engine/matching.hpp"
#include "engine/normals.hpp"
#include "engine/ransac.hpp"
#include "engine/refine.hpp"
#include "engine/sanitize.hpp"
#include "engine/scale.hpp"
#include "engine/verdict.hpp"
#include "engine/voxel_grid.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv::engine {
namespace {

// Lengths of one try, all in units of its voxel v (refinement lengths in the refinement unit,
// Scales::refineUnit).
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
constexpr double kNarrowFloor = 0.25;    // x the refinement unit
constexpr double kNarrowDistance = 2.0;  // x the narrow kernel

// Lengths of the fine-scale evidence. The verdict's inlier distance is kVerdictNoise x the
// refined residual, kept between kVerdictSpacing and kVerdictSpacingMax x the refinement clouds'
// spacing, so that it never grows with the working voxel.
// 3 residual scales take in nearly all of a right answer's noise, as three standard deviations do.
constexpr double kVerdictNoise = 3.0;
// Two clouds sample a surface at different places: on a right answer a point's nearest neighbour
// in the other cloud can lie about a spacing away, more across a slope. 2.5 spacings keep those
// pairs in when the residual of clean scans is near 0.
constexpr double kVerdictSpacing = 2.5;
// However noisy the sensor, a few spacings at most: a longer distance lets surfaces slid along
// each other count as overlap, which is how wrong motions used to pass.
constexpr double kVerdictSpacingMax = 5.0;
// x the spacing: the least distance off the target's plane that still agrees. Clean scans refine
// to a residual near 0, and their normals, estimated over sampled patches, are not exact either.
constexpr double kPlaneFloor = 0.5;
// x the inlier distance: structure this near counts as nearby, the constraint a right motion
// would have met. Near enough to belong to the overlap, far enough to see a post or a corner left
// standing beside what it should meet.
constexpr float kVerdictNear = 3.0f;
// x the inlier distance: a point counts as seen through only when it lies further than this in
// front of the surface the sensor saw, beyond what noise and the tangent-plane estimate of that
// surface's range put there.
constexpr float kFreeSpaceMargin = 2.0f;

constexpr double kSpacingFloor = 1.5;  // the matching voxel is never below 1.5 x the spacing
constexpr int32_t kMinPoints = 5;
constexpr double kDistinctAngle =
    0.175;                              // radians (10 degrees): motions further apart are distinct
constexpr double kDistinctShift = 5.0;  // voxels: likewise for translations
// Scale of each try in turn while the verdict is negative: coarser (noise), then finer (small
// clouds).
constexpr double kTryScales[kMaxTries] = {1.0, 1.6, 1.0 / 1.6, 2.5, 1.0 / 2.5, 4.0, 1.0 / 4.0, 6.0};

// What a registration does in each mode: global matches features and refines RANSAC's hypotheses
// at up to kMaxTries scales, screening each answer before dense refinement; local refines from the
// guess, pulled in first by a pass at the working scale; evaluate only measures the guess.
struct Steps {
  bool features;            // the working clouds carry features, and the pair's are matched
  bool hypotheses;          // RANSAC hypotheses, refined at the working scale
  bool retries;             // further scales while the verdict is negative
  bool screen;              // a coarse judgement decides whether dense refinement is worth it
  bool pullIn;              // a wide pass at the working scale before the dense passes
  bool probe;               // the residual of the pose as given: no dense step is taken
  int32_t denseIterations;  // of the wide dense pass (local mode starts further off)
  bool countMatches;        // the verdict asks for consistent feature matches
};

const Steps& StepsOf(Mode mode) {
  //                            features hypotheses retries screen pullIn probe iterations count
  static constexpr Steps kGlobal{true, true, true, true, false, false, 20, true};
  static constexpr Steps kLocal{false, false, false, false, true, false, 40, false};
  static constexpr Steps kEvaluate{true, false, false, false, false, true, 20, true};
  if (mode == Mode::kLocal) return kLocal;
  if (mode == Mode::kEvaluate) return kEvaluate;
  return kGlobal;
}

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

// A cloud at one scale with its search tree (built on the calling thread, as the trees require),
// and what the refiner keeps about it (made only for refiners that want something).
struct Level {
  Cloud cloud;
  std::vector<float> weights;
  std::unique_ptr<PointKdTree> tree;
  std::unique_ptr<CloudExtras> extras;

  void index() { tree = std::make_unique<PointKdTree>(cloud.points.data(), cloud.size()); }
  void describe(const Refiner& refiner, StageClock& clock) {
    extras = refiner.Describe(cloud, *tree);
    if (extras) clock.lap("covariances");
  }
  RefineCloud refining() const { return {&cloud, tree.get(), extras.get()}; }
};

// The options' refiner (point-to-plane for a method no refiner is listed for).
const Refiner& RefinerOf(const Options& options) {
  const Refiner* refiner = FindRefiner(options.refine);
  return refiner != nullptr ? *refiner : *FindRefiner(RefineMethod::kPointToPlane);
}

Level Thin(const Level& from, double voxel) {
  Level out;
  out.cloud = VoxelAverage(from.cloud, from.weights, voxel, out.weights);
  return out;
}

// A cloud at a try's working voxel: samples with normals, and their features unless only local
// refinement needs it.
struct Working {
  Level level;
  Features features;
};

// refiner: the refiner whose extras the working cloud keeps, when its tries refine at this scale.
Working MakeWorking(
    const Level& fine, double v, bool describe, const Refiner* refiner, StageClock& clock) {
  Working out;
  out.level = Thin(fine, v);
  out.level.index();
  const float vf = static_cast<float>(v);
  EstimateNormals(*out.level.tree, kNormalRadius * vf, kNormalNeighbours, out.level.cloud);
  clock.lap("normals");
  if (refiner != nullptr) out.level.describe(*refiner, clock);
  if (describe) {
    out.features = DescribePoints(
        *out.level.tree, out.level.cloud, kFeatureRadius * vf, kHistogramRadius * vf);
    clock.lap("features");
  }
  return out;
}

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

// One try at matching voxel v on the working clouds: matches, RANSAC, coarse ICP of each
// hypothesis.
void TryScale(TryResult& out, double v, const Options& options, StageClock& clock) {
  const Level& target = out.target->level;
  const Level& source = out.source->level;
  out.targetSamples = target.cloud.size();
  out.sourceSamples = source.cloud.size();
  const float vf = static_cast<float>(v);
  const Steps& steps = StepsOf(options.mode);
  if (!steps.features) {
    out.best.pose = options.initial;
    return;
  }
  const Features& ft = out.target->features;
  const Features& fs = out.source->features;
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
  if (!steps.hypotheses) {
    out.best.pose = options.initial;
    out.consistentPairs = consistent(options.initial);
    out.chancePairs = chance(options.initial);
    return;
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
    c.pose = RefinerOf(options).Refine(source.refining(), target.refining(), start, ip).pose;
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
}

}  // namespace

// A cloud made ready once for all its pairs: at the refinement scale with normals, and at the
// first try's working voxel with normals and features.
struct Prepared {
  Level fine;
  Working first;
  int32_t points = 0;  // finite input points
};

void PreparedDeleter::operator()(Prepared* prepared) const { delete prepared; }

namespace {

// The finite points of a caller's cloud, with the sensor origin the options give; an error when
// it has no shape to register.
int32_t SanitizeChecked(const CloudView& view,
                        const Options& options,
                        const char* name,
                        Cloud& cloud,
                        std::string& error) {
  cloud = Sanitize(view);
  if (options.sensorOrigin && !cloud.hasViewpoint) {
    cloud.hasViewpoint = true;  // the caller says: scans centred on their sensor
    cloud.viewpoint.setZero();
  }
  if (cloud.size() < kMinPoints) {
    error = "the " + std::string(name) + " cloud has " + std::to_string(cloud.size()) +
            " finite points; at least " + std::to_string(kMinPoints) + " are needed";
    return kTooFewPoints;
  }
  const Eigen::Vector3f extent =
      cloud.points.rowwise().maxCoeff() - cloud.points.rowwise().minCoeff();
  if (!(extent.maxCoeff() > 0.0f)) {
    error = "all finite points of the " + std::string(name) +
            " cloud coincide: there is no shape to register";
    return kTooFewPoints;
  }
  return kOk;
}

// The refinement level of a sanitized cloud: thinned at `thin` (0: as it is), indexed.
Level FineLevel(Cloud cloud, double thin) {
  Level level;
  level.cloud = std::move(cloud);
  if (thin > 0.0) level = Thin(level, thin);
  level.index();
  return level;
}

// Fine normals, then the first try's working cloud: the prepared cloud.
std::unique_ptr<Prepared> Finish(
    Level fine, const Scales& scales, const Options& options, int32_t points, StageClock& clock) {
  auto prepared = std::make_unique<Prepared>();
  prepared->points = points;
  prepared->fine = std::move(fine);
  EstimateNormals(*prepared->fine.tree,
                  kNormalRadius * static_cast<float>(scales.refineUnit),
                  kFineNormalNeighbours,
                  prepared->fine.cloud);
  clock.lap("scale");
  const Refiner& refiner = RefinerOf(options);
  prepared->fine.describe(refiner, clock);
  const Steps& steps = StepsOf(options.mode);
  prepared->first = MakeWorking(
      prepared->fine, scales.voxel, steps.features, steps.hypotheses ? &refiner : nullptr, clock);
  return prepared;
}

// Clouds prepared for another refiner lack this one's extras: made here once for all the tries.
RefineCloud RefiningWith(const Refiner& refiner,
                         const Level& level,
                         std::unique_ptr<CloudExtras>& own) {
  RefineCloud view = level.refining();
  if (view.extras == nullptr) {
    own = refiner.Describe(level.cloud, *level.tree);
    view.extras = own.get();
  }
  return view;
}

// What stays the same over the tries of one registration.
struct Registration {
  Registration(const Prepared& target, const Prepared& source, const Scales& s, const Options& o)
      : fineTarget(target.fine),
        fineSource(source.fine),
        scales(s),
        options(o),
        steps(StepsOf(o.mode)),
        refiner(RefinerOf(o)),
        refineTarget(RefiningWith(refiner, target.fine, ownTargetExtras)),
        refineSource(RefiningWith(refiner, source.fine, ownSourceExtras)),
        targetSight(target.fine.cloud),
        sourceSight(source.fine.cloud),
        centre(source.fine.cloud.points.cast<double>().rowwise().mean()) {
    if (!steps.countMatches) rules.minConsistentPairs = 0;
  }

  // Whether two motions are distinct answers for a try at voxel v.
  bool Distinct(const Pose& a, const Pose& b, double v) const {
    return RotationBetween(a, b) > kDistinctAngle ||
           ShiftBetween(a, b, centre) > kDistinctShift * v;
  }

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

// Whether the try at this scale is left out: never finer than the spacing allows, and a finer try
// costs the square of its extra samples in matching: it is for small clouds, whose first try kept
// well under the budget.
bool SkipScale(int32_t attempt, double tryVoxel, int32_t firstSamples, const Registration& reg) {
  if (attempt > 0 && tryVoxel < kSpacingFloor * reg.scales.spacing * 0.99) return true;
  return kTryScales[attempt] < 1.0 && firstSamples * 2 > reg.options.pointBudget;
}

// The try's working clouds: the prepared ones at the first scale, made anew at the others.
void OpenTry(TryResult& tr,
             const Prepared& target,
             const Prepared& source,
             int32_t attempt,
             double tryVoxel,
             const Registration& reg,
             StageClock& clock) {
  if (attempt == 0) {
    tr.target = &target.first;
    tr.source = &source.first;
    return;
  }
  const bool describe = reg.steps.features;
  const Refiner* tryRefiner = reg.steps.hypotheses ? &reg.refiner : nullptr;
  tr.ownTarget =
      std::make_unique<Working>(MakeWorking(reg.fineTarget, tryVoxel, describe, tryRefiner, clock));
  tr.ownSource =
      std::make_unique<Working>(MakeWorking(reg.fineSource, tryVoxel, describe, tryRefiner, clock));
  tr.target = tr.ownTarget.get();
  tr.source = tr.ownSource.get();
}

// The smoother normals the fine-scale verdict judges a cloud with: its working-scale samples'.
SmoothNormals SmoothOf(const Working& working) {
  return {&working.level.cloud, working.level.tree.get()};
}

struct Screening {
  bool refine = false;  // the answer may pass after dense refinement
  Evidence coarse;      // measured at the working scale
};

// The coarse judgement of a try's answer at its working scale, so that dense refinement is kept
// for answers that may pass.
Screening ScreenTry(const TryResult& tr, double tryVoxel, const VerdictRules& rules) {
  Screening out;
  Evidence& coarse = out.coarse;
  coarse.distance = kInlierDistance * tryVoxel;
  coarse.overlap = MeasureOverlap(tr.source->level.cloud,
                                  *tr.source->level.tree,
                                  tr.target->level.cloud,
                                  *tr.target->level.tree,
                                  tr.best.pose,
                                  static_cast<float>(coarse.distance),
                                  kVerdictNear * static_cast<float>(coarse.distance));
  coarse.consistentPairs = tr.consistentPairs;
  coarse.chancePairs = tr.chancePairs;
  out.refine = !tr.candidates.empty() && WorthRefining(coarse, rules);
  return out;
}

// The parameters of the dense passes, in the refinement unit.
IcpParams DenseParams(const Registration& reg) {
  const double unit = reg.scales.refineUnit;
  IcpParams ip;
  ip.maxDistance = kFineIcpDistance * static_cast<float>(unit);
  // The kernel is wider than the unit: sensor noise of a few spacings must still pull.
  ip.kernel = kFineKernel * unit;
  ip.maxIterations = reg.steps.denseIterations;
  ip.stopShift = 1e-3 * unit;
  return ip;
}

struct Refined {
  Pose pose = Pose::Identity();
  double residual = 0.0;  // residual scale of the last pass
};

// Dense refinement on the refinement clouds from a try's answer: a wide pass, then one narrowed to
// the residuals it measured. Local mode pulls its guess in first with a pass at the working scale;
// evaluate mode only measures the residual of the pose as given.
Refined RefineDensely(const TryResult& tr,
                      const Pose& start,
                      double tryVoxel,
                      const Registration& reg) {
  const IcpParams ip = DenseParams(reg);
  const double unit = reg.scales.refineUnit;
  const Refiner& refiner = reg.refiner;
  Refined out;
  out.pose = start;
  if (reg.steps.pullIn) {
    IcpParams coarse = ip;
    coarse.maxDistance = kFineIcpDistance * static_cast<float>(tryVoxel);
    coarse.kernel = tryVoxel;
    // On the working clouds: at this distance their samples pull as well, at a fraction of the
    // points.
    out.pose =
        refiner.Refine(tr.source->level.refining(), tr.target->level.refining(), out.pose, coarse)
            .pose;
  }
  if (reg.steps.probe) {
    IcpParams probe = ip;
    probe.maxIterations = 1;  // the residual of the pose as given; the step is not taken
    out.residual =
        refiner.Refine(reg.refineSource, reg.refineTarget, out.pose, probe).residualScale;
    return out;
  }
  const IcpOutcome wide = refiner.Refine(reg.refineSource, reg.refineTarget, out.pose, ip);
  // Then narrow to the residuals the data shows: clean scans settle on their exact overlap, noisy
  // sensors keep a kernel as wide as their noise.
  IcpParams narrow = ip;
  narrow.kernel = std::max(kNarrowKernel * wide.residualScale, kNarrowFloor * unit);
  narrow.maxDistance = static_cast<float>(std::max(kNarrowDistance * narrow.kernel, unit));
  narrow.maxIterations = 30;
  const IcpOutcome settled = refiner.Refine(reg.refineSource, reg.refineTarget, wide.pose, narrow);
  out.pose = settled.pose;
  out.residual = settled.residualScale;
  return out;
}

// The evidence at the fine scale: its lengths follow the refinement clouds' spacing and the
// residual noise the refinement measured, never the working voxel.
Evidence GatherEvidence(const TryResult& tr, const Refined& refined, const Registration& reg) {
  const double spacing = reg.scales.spacing;
  const Level& fineSource = reg.fineSource;
  const Level& fineTarget = reg.fineTarget;
  Evidence evidence;
  evidence.distance = std::clamp(
      kVerdictNoise * refined.residual, kVerdictSpacing * spacing, kVerdictSpacingMax * spacing);
  const float distance = static_cast<float>(evidence.distance);
  evidence.overlap = MeasureOverlap(
      fineSource.cloud,
      *fineSource.tree,
      fineTarget.cloud,
      *fineTarget.tree,
      refined.pose,
      distance,
      kVerdictNear * distance,
      SmoothOf(*tr.source),
      SmoothOf(*tr.target),
      static_cast<float>(
          std::clamp(kVerdictNoise * refined.residual, kPlaneFloor * spacing, evidence.distance)));
  evidence.consistentPairs = tr.consistentPairs;
  evidence.chancePairs = tr.chancePairs;
  const float margin = kFreeSpaceMargin * distance;
  evidence.freeSpaceConflict =
      std::max(reg.targetSight.Conflict(fineSource.cloud, refined.pose, margin),
               reg.sourceSight.Conflict(fineTarget.cloud, Pose(refined.pose.inverse()), margin));
  return evidence;
}

// A densely refined answer and its fine-scale score.
struct Seen {
  Pose pose = Pose::Identity();
  double score = 0.0;
};

// The try's best hypothesis distinct from its answer, refined the same way and scored at the same
// scale (distance: the evidence's inlier distance). False when there is none, or when refinement
// brings it onto the answer.
bool FindRival(const TryResult& tr,
               const Pose& answer,
               double tryVoxel,
               double distance,
               const Registration& reg,
               Seen& rival) {
  for (const Candidate& c : tr.candidates) {
    if (!reg.Distinct(c.pose, answer, tryVoxel)) continue;
    const Pose pose =
        reg.refiner.Refine(reg.refineSource, reg.refineTarget, c.pose, DenseParams(reg)).pose;
    if (!reg.Distinct(pose, answer, tryVoxel)) return false;
    rival.pose = pose;
    rival.score = Score(MeasureOverlap(reg.fineSource.cloud,
                                       *reg.fineSource.tree,
                                       reg.fineTarget.cloud,
                                       *reg.fineTarget.tree,
                                       pose,
                                       static_cast<float>(distance),
                                       0.0f,
                                       SmoothOf(*tr.source),
                                       SmoothOf(*tr.target)));
    return true;
  }
  return false;
}

// The answer's rival share among the answers seen so far: any try's may rival it (a symmetric
// object seen two ways).
double RivalShareAmong(const std::vector<Seen>& seen,
                       const Pose& answer,
                       double score,
                       double tryVoxel,
                       const Registration& reg) {
  double share = 0.0;
  for (const Seen& other : seen) {
    if (reg.Distinct(other.pose, answer, tryVoxel))
      share = std::max(share, RivalShare(score, other.score));
  }
  return share;
}

// The answer a registration reports: the best ranked of its tries.
class BestAnswer {
 public:
  explicit BestAnswer(Outcome& result) : result_(result) {}

  // Takes a try's answer when it ranks above the best so far.
  void Offer(double rank,
             const Pose& pose,
             std::string reason,
             const Evidence& evidence,
             const TryResult& tr,
             double tryVoxel) {
    if (have_ && !(rank > rank_)) return;
    have_ = true;
    rank_ = rank;
    result_.transform = pose;
    result_.registered = reason.empty();
    result_.reason = std::move(reason);
    result_.evidence = evidence;
    result_.matches = tr.matches;
    result_.voxel = tryVoxel;
    result_.targetSamples = tr.targetSamples;
    result_.sourceSamples = tr.sourceSamples;
  }

 private:
  Outcome& result_;
  bool have_ = false;
  double rank_ = -1.0;
};

// Registers two prepared clouds: the tries in turn, each screened, densely refined and judged,
// until one passes.
void RegisterPrepared(const Prepared& target,
                      const Prepared& source,
                      const Scales& scales,
                      const Options& options,
                      Outcome& result,
                      StageClock& clock) {
  const Registration reg(target, source, scales, options);
  result.targetPoints = target.points;
  result.sourcePoints = source.points;
  BestAnswer best(result);
  std::vector<Seen> seen;  // densely refined answers of every try, with their fine-scale score
  const int32_t tries = reg.steps.retries ? std::clamp(options.maxTries, 1, kMaxTries) : 1;
  int32_t firstSamples = 0;
  for (int32_t attempt = 0; attempt < tries; ++attempt) {
    const double tryVoxel = scales.voxel * kTryScales[attempt];
    if (SkipScale(attempt, tryVoxel, firstSamples, reg)) continue;
    TryResult tr;
    OpenTry(tr, target, source, attempt, tryVoxel, reg, clock);
    TryScale(tr, tryVoxel, options, clock);
    ++result.tries;
    if (attempt == 0) firstSamples = std::min(tr.targetSamples, tr.sourceSamples);
    if (reg.steps.screen) {
      const Screening screening = ScreenTry(tr, tryVoxel, reg.rules);
      if (!screening.refine) {
        best.Offer(ScreenedRank(screening.coarse),
                   tr.best.pose,
                   ScreenedReason(screening.coarse, reg.rules),
                   screening.coarse,
                   tr,
                   tryVoxel);
        clock.lap("verdict");
        continue;
      }
    }
    const Refined refined = RefineDensely(tr, tr.best.pose, tryVoxel, reg);
    clock.lap("refine");
    Evidence evidence = GatherEvidence(tr, refined, reg);
    const double score = Score(evidence.overlap);
    Seen rival;
    if (FindRival(tr, refined.pose, tryVoxel, evidence.distance, reg, rival)) seen.push_back(rival);
    evidence.rivalShare = RivalShareAmong(seen, refined.pose, score, tryVoxel, reg);
    seen.push_back({refined.pose, score});
    std::string reason = Decide(evidence, reg.rules);
    clock.lap("verdict");
    const double rank = RankOf(score, reason.empty());
    best.Offer(rank, refined.pose, std::move(reason), evidence, tr, tryVoxel);
    if (result.registered) break;
  }
}

}  // namespace

int32_t MeasureScale(const CloudView& view,
                     const Options& options,
                     OwnScale& scale,
                     std::string& error) {
  Cloud cloud;
  if (const int32_t code = SanitizeChecked(view, options, "scan's", cloud, error); code != kOk)
    return code;
  scale.thin = VoxelForBudget(cloud, options.refineBudget);
  const Level fine = FineLevel(std::move(cloud), scale.thin);
  scale.spacing = MedianSpacing(*fine.tree);
  scale.voxel = VoxelForBudget(fine.cloud, options.pointBudget);
  if (!(scale.spacing > 0.0)) {
    error = "the scan's points all coincide: there is no scale to work at";
    return kTooFewPoints;
  }
  return kOk;
}

OwnScale TypicalScale(const std::vector<OwnScale>& scales) {
  OwnScale out;
  if (scales.empty()) return out;
  auto median = [&](double OwnScale::*field) {
    std::vector<double> values;
    for (const OwnScale& s : scales) values.push_back(s.*field);
    std::nth_element(
        values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
    return values[values.size() / 2];
  };
  out.thin = median(&OwnScale::thin);
  out.spacing = median(&OwnScale::spacing);
  out.voxel = median(&OwnScale::voxel);
  return out;
}

Scales CommonScales(const std::vector<OwnScale>& scales, const Options& options) {
  Scales out;
  if (scales.empty()) return out;
  const OwnScale typical = TypicalScale(scales);
  out.thin = typical.thin;
  out.spacing = typical.spacing;
  out.voxel =
      options.voxel > 0.0 ? options.voxel : std::max(typical.voxel, kSpacingFloor * out.spacing);
  out.refineUnit = std::min(out.spacing, out.voxel);
  return out;
}

int32_t Prepare(const CloudView& view,
                const Scales& scales,
                const Options& options,
                PreparedScan& prepared,
                std::string& error) {
  ThreadScope threads(options.threads);
  std::vector<StageTime> unused;
  StageClock clock(unused);
  Cloud cloud;
  if (const int32_t code = SanitizeChecked(view, options, "scan's", cloud, error); code != kOk)
    return code;
  const int32_t points = cloud.size();
  prepared.reset(
      Finish(FineLevel(std::move(cloud), scales.thin), scales, options, points, clock).release());
  return kOk;
}

int32_t RegisterPrepared(const Prepared& target,
                         const Prepared& source,
                         const Scales& scales,
                         const Options& options,
                         Outcome& outcome) {
  ThreadScope threads(options.threads);
  Outcome result;
  StageClock clock(result.stages);
  RegisterPrepared(target, source, scales, options, result, clock);
  outcome = std::move(result);
  return kOk;
}

namespace {

// Register, on clouds already in a frame where float holds their coordinates.
int32_t RegisterShared(const CloudView& targetView,
                       const CloudView& sourceView,
                       const Options& options,
                       Outcome& outcome,
                       std::string& error) {
  ThreadScope threads(options.threads);
  Outcome result;
  StageClock clock(result.stages);
  Cloud t, s;
  if (const int32_t code = SanitizeChecked(targetView, options, "target", t, error); code != kOk)
    return code;
  if (const int32_t code = SanitizeChecked(sourceView, options, "source", s, error); code != kOk)
    return code;
  clock.lap("prepare");
  const int32_t targetPoints = t.size(), sourcePoints = s.size();
  // The pair's scales: the refinement voxel keeps both clouds within the refinement budget; the
  // working voxel both within the point budget, never below 1.5 x the refined spacing.
  Scales scales;
  scales.thin =
      std::max(VoxelForBudget(t, options.refineBudget), VoxelForBudget(s, options.refineBudget));
  Level fineTarget = FineLevel(std::move(t), scales.thin);
  Level fineSource = FineLevel(std::move(s), scales.thin);
  scales.spacing = std::max(MedianSpacing(*fineTarget.tree), MedianSpacing(*fineSource.tree));
  if (!(scales.spacing > 0.0)) {
    error = "the clouds' points all coincide: there is no scale to work at";
    return kTooFewPoints;
  }
  scales.voxel = options.voxel;
  if (!(scales.voxel > 0.0)) {
    scales.voxel = std::max(VoxelForBudget(fineTarget.cloud, options.pointBudget),
                            VoxelForBudget(fineSource.cloud, options.pointBudget));
    scales.voxel = std::max(scales.voxel, kSpacingFloor * scales.spacing);
  }
  scales.refineUnit = std::min(scales.spacing, scales.voxel);
  const std::unique_ptr<Prepared> target =
      Finish(std::move(fineTarget), scales, options, targetPoints, clock);
  const std::unique_ptr<Prepared> source =
      Finish(std::move(fineSource), scales, options, sourcePoints, clock);
  RegisterPrepared(*target, *source, scales, options, result, clock);
  outcome = std::move(result);
  return kOk;
}

}  // namespace

int32_t Register(const CloudView& target,
                 const CloudView& source,
                 const Options& options,
                 Outcome& outcome,
                 std::string& error) {
  const SharedFrame frame({target, source}, options.sensorOrigin);
  Options shared = options;
  shared.initial = frame.ToShared(options.initial);
  const int32_t code = RegisterShared(frame.view(0), frame.view(1), shared, outcome, error);
  if (code == kOk) outcome.transform = frame.ToCaller(outcome.transform);
  return code;
}

}  // namespace qorv::engine
