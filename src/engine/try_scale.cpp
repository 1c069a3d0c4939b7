// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// One try at a working voxel: match the two working clouds, make hypotheses of the matches, and
// refine each at the working scale.
#include <algorithm>

#include "engine/ransac.hpp"
#include "engine/steps.hpp"

namespace qorv::engine {
namespace {

// The coarse refinement of a hypothesis: pairs within 2 voxels, a kernel of one voxel, 15 steps.
constexpr float kCoarseIcpDistance = 2.0f;
constexpr int32_t kCoarseIterations = 15;

}  // namespace

// Never finer than the spacing allows; and a finer try costs the square of its extra samples in
// matching: it is for small clouds, whose first try kept well under the budget.
bool SkipScale(int32_t attempt, double tryVoxel, int32_t firstSamples, const Registration& reg) {
  if (attempt > 0 && tryVoxel < kSpacingFloor * reg.scales.spacing * 0.99) return true;
  return kTryScales[attempt] < 1.0 && firstSamples * 2 > reg.options.pointBudget;
}

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

void TryScale(TryResult& out, double v, const Registration& reg, StageClock& clock) {
  const Options& options = reg.options;
  const Level& target = out.target->level;
  const Level& source = out.source->level;
  out.targetSamples = target.cloud.size();
  out.sourceSamples = source.cloud.size();
  const float vf = static_cast<float>(v);
  if (!reg.steps.features) {
    out.best.pose = options.initial;
    return;
  }
  const std::vector<Match> matches = MatcherOf(options).Find(
      {&source.cloud, &out.source->features}, {&target.cloud, &out.target->features});
  out.matches = static_cast<int32_t>(matches.size());
  clock.lap("matching");
  auto consistent = [&](const Pose& pose) {
    return static_cast<int32_t>(
        InlierMatches(source.cloud, target.cloud, matches, pose, kInlierDistance * vf).size());
  };
  auto chance = [&](const Pose& pose) {
    return ChanceMatches(source.cloud, target.cloud, matches, pose, kInlierDistance * vf);
  };
  if (!reg.steps.hypotheses) {
    out.best.pose = options.initial;
    out.consistentPairs = consistent(options.initial);
    out.chancePairs = chance(options.initial);
    return;
  }

  HypothesisParams hp;
  hp.voxel = v;
  hp.maxIterations = options.maxRansacIterations;
  hp.confidence = options.ransacConfidence;
  hp.seed = options.seed;
  std::vector<Pose> starts =
      HypothesiserOf(options).Propose(source.cloud, target.cloud, matches, hp);
  clock.lap("ransac");
  if (options.hasInitial) starts.push_back(options.initial);

  std::vector<Candidate> refined;
  for (const Pose& start : starts) {
    IcpParams ip;
    ip.maxDistance = kCoarseIcpDistance * vf;
    ip.kernel = v;
    ip.maxIterations = kCoarseIterations;
    ip.stopShift = 1e-3 * v;
    Candidate c;
    c.pose = reg.refiner.Refine(source.refining(), target.refining(), start, ip).pose;
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

}  // namespace qorv::engine
