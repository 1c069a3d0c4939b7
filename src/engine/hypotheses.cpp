// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/hypotheses.hpp"

#include "engine/listing.hpp"

namespace qorv::engine {
namespace {

// Every hypothesis maker the engine knows. A new one is a file defining its factory and a line
// here.
const Listed<Hypothesiser, HypothesisMethod> kHypothesisers[] = {
    {HypothesisMethod::kCompatibleRansac, "ransac", &MakeCompatibleRansac},
};

}  // namespace

const Hypothesiser* FindHypothesiser(HypothesisMethod method) {
  return FindListed(kHypothesisers, method);
}

}  // namespace qorv::engine
