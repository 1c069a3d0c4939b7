// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// A registration as a plan of its steps (steps.hpp lists them and the file of each): prepare both
// clouds, then try scales in turn - match, hypothesise, refine coarsely, screen, refine densely,
// gather the evidence, judge - until an answer passes. The mode picks which steps run (StepsOf).
#include "engine/engine.hpp"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "engine/frame.hpp"
#include "engine/steps.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv::engine {

const Steps& StepsOf(Mode mode) {
  //                            features hypotheses retries screen pullIn probe iterations count
  static constexpr Steps kGlobal{true, true, true, true, false, false, 20, true};
  static constexpr Steps kLocal{false, false, false, false, true, false, 40, false};
  static constexpr Steps kEvaluate{true, false, false, false, false, true, 20, true};
  if (mode == Mode::kLocal) return kLocal;
  if (mode == Mode::kEvaluate) return kEvaluate;
  return kGlobal;
}

void StageClock::lap(const char* name) {
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

const Refiner& RefinerOf(const Options& options) {
  const Refiner* refiner = FindRefiner(options.refine);
  return refiner != nullptr ? *refiner : *FindRefiner(Options().refine);
}

const Matcher& MatcherOf(const Options& options) {
  const Matcher* matcher = FindMatcher(options.match);
  return matcher != nullptr ? *matcher : *FindMatcher(MatchMethod::kMutualFeatures);
}

const Hypothesiser& HypothesiserOf(const Options& options) {
  const Hypothesiser* maker = FindHypothesiser(options.hypotheses);
  return maker != nullptr ? *maker : *FindHypothesiser(HypothesisMethod::kCompatibleRansac);
}

namespace {

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

}  // namespace

Registration::Registration(const Prepared& target,
                           const Prepared& source,
                           const Scales& s,
                           const Options& o)
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

bool Registration::Distinct(const Pose& a, const Pose& b, double v) const {
  return RotationBetween(a, b) > kDistinctAngle || ShiftBetween(a, b, centre) > kDistinctShift * v;
}

namespace {
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
    TryScale(tr, tryVoxel, reg, clock);
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
  if (const int32_t code = SanitizePair(targetView, sourceView, options, t, s, error); code != kOk)
    return code;
  clock.lap("prepare");
  Scales scales;
  PreparedPair pair;
  if (const int32_t code =
          PreparePair(std::move(t), std::move(s), options, scales, pair, clock, error);
      code != kOk)
    return code;
  RegisterPrepared(*pair.target, *pair.source, scales, options, result, clock);
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
