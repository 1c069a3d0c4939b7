// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "engine/features.hpp"

namespace qorv::engine {

// A putative correspondence: source point s matches target point t.
struct Match {
  int32_t source = 0;
  int32_t target = 0;
  float distance = 0.0f;  // descriptor distance
};

// Nearest valid descriptors between the two sets by the library's exhaustive matcher (the work is
// bounded by the point budget). Mutual nearest pairs are kept; when fewer than minMutual are
// mutual, every source's nearest target instead. Matches come out by source index. The same bits
// for any thread count.
std::vector<Match> MatchFeatures(const Features& source, const Features& target, int32_t minMutual);

}  // namespace qorv::engine
