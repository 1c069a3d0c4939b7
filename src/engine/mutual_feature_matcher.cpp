// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <algorithm>

#include "engine/matcher.hpp"

namespace qorv::engine {
namespace {

// Below this many mutual pairs every source's nearest target is taken instead: a few mutual
// pairs are too few for RANSAC to find three right ones among.
constexpr int32_t kMinMutual = 30;
// The closest descriptors kept: beyond a few thousand, more matches add RANSAC and compatibility
// work faster than right matches.
constexpr int32_t kMaxMatches = 3000;

class MutualFeatureMatcher final : public Matcher {
 public:
  std::vector<Match> Find(const MatchSide& source, const MatchSide& target) const override {
    std::vector<Match> matches = MatchFeatures(*source.features, *target.features, kMinMutual);
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
    return matches;
  }
};

}  // namespace

std::unique_ptr<Matcher> MakeMutualFeatureMatcher() {
  return std::make_unique<MutualFeatureMatcher>();
}

}  // namespace qorv::engine
