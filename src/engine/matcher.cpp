// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/matcher.hpp"

#include "engine/listing.hpp"

namespace qorv::engine {
namespace {

// Every matcher the engine knows. A new one is a file defining its factory and a line here.
const Listed<Matcher, MatchMethod> kMatchers[] = {
    {MatchMethod::kMutualFeatures, "features", &MakeMutualFeatureMatcher},
};

}  // namespace

const Matcher* FindMatcher(MatchMethod method) { return FindListed(kMatchers, method); }

}  // namespace qorv::engine
