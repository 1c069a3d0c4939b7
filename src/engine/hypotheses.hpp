// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "engine/cloud.hpp"
#include "engine/matching.hpp"
#include "engine/rigid_fit.hpp"

namespace qorv::engine {

// How a try turns its matches into candidate motions. Each method is one hypothesis maker, listed
// in hypotheses.cpp.
enum class HypothesisMethod : int32_t {
  kCompatibleRansac = 0,  // three-match RANSAC drawn from the pair-length compatibility graph
};

struct HypothesisParams {
  double voxel = 0.0;  // the try's working voxel: the unit of every length
  int32_t maxIterations = 100000;
  double confidence = 0.999;
  uint64_t seed = 1;
};

// Candidate motions of the source onto the target from putative matches between the working
// clouds. Implementations are stateless and may be called from several threads at once.
class Hypothesiser {
 public:
  virtual ~Hypothesiser() = default;

  // Pairwise distinct motions, the most supported first; the same bits for the same seed at any
  // thread count. Empty when the matches support none.
  virtual std::vector<Pose> Propose(const Cloud& source,
                                    const Cloud& target,
                                    const std::vector<Match>& matches,
                                    const HypothesisParams& params) const = 0;
};

// The hypothesis maker of a method (one instance each, shared); null for a method none is listed
// for.
const Hypothesiser* FindHypothesiser(HypothesisMethod method);

// Factories of the listed hypothesis makers, each defined in its own file.
std::unique_ptr<Hypothesiser> MakeCompatibleRansac();

}  // namespace qorv::engine
