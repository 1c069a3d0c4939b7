// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/compatibility.hpp"
#include "engine/hypotheses.hpp"
#include "engine/ransac.hpp"
#include "engine/steps.hpp"

namespace qorv::engine {
namespace {

// x the voxel: two matches are compatible when the lengths between their source points and
// between their target points agree within this, as they do under any rigid motion up to noise.
constexpr float kCompatibility = 1.5f;
// x the voxel: shorter pairs say little about rotation and are left out of the graph.
constexpr float kMinPairLength = 3.0f;

class CompatibleRansac final : public Hypothesiser {
 public:
  std::vector<Pose> Propose(const Cloud& source,
                            const Cloud& target,
                            const std::vector<Match>& matches,
                            const HypothesisParams& params) const override {
    const float vf = static_cast<float>(params.voxel);
    const CompatibilityGraph graph =
        BuildCompatibility(source, target, matches, kCompatibility * vf, kMinPairLength * vf);
    RansacParams rp;
    rp.inlierDistance = kInlierDistance * vf;
    rp.maxIterations = params.maxIterations;
    rp.confidence = params.confidence;
    rp.seed = params.seed;
    rp.distinctAngle = kDistinctAngle;
    rp.distinctShift = kDistinctShift * params.voxel;
    rp.centre = source.points.cast<double>().rowwise().mean();
    int32_t iterations = 0;
    std::vector<Pose> poses;
    for (const Hypothesis& h : EstimateByRansac(source, target, matches, graph, rp, iterations))
      poses.push_back(h.pose);
    return poses;
  }
};

}  // namespace

std::unique_ptr<Hypothesiser> MakeCompatibleRansac() {
  return std::make_unique<CompatibleRansac>();
}

}  // namespace qorv::engine
