// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "engine/cloud.hpp"
#include "engine/features.hpp"
#include "engine/matching.hpp"

namespace qorv::engine {

// How a try pairs the points of its two working clouds. Each method is one matcher, listed in
// matcher.cpp.
enum class MatchMethod : int32_t {
  kMutualFeatures = 0,  // mutual nearest feature histograms, the closest few thousand kept
};

// One side of a try as a matcher sees it: the working samples and their features.
struct MatchSide {
  const Cloud* cloud = nullptr;
  const Features* features = nullptr;
};

// Putative correspondences between two working clouds. Implementations are stateless and may be
// called from several threads at once.
class Matcher {
 public:
  virtual ~Matcher() = default;

  // The matches, ordered by source index; the same bits for any thread count.
  virtual std::vector<Match> Find(const MatchSide& source, const MatchSide& target) const = 0;
};

// The matcher of a method (one instance each, shared); null for a method none is listed for.
const Matcher* FindMatcher(MatchMethod method);

// Factories of the listed matchers, each defined in its own file.
std::unique_ptr<Matcher> MakeMutualFeatureMatcher();

}  // namespace qorv::engine
