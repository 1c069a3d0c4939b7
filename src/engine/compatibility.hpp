// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "engine/cloud.hpp"
#include "engine/matching.hpp"

namespace qorv::engine {

// Pairwise consistency of matches: a rigid motion keeps distances, so two right matches (a, b)
// span the same length in both clouds. Matches i and j are compatible when both lengths exceed
// minLength and differ by less than tolerance. Stored as adjacency lists (ascending), one list a
// match; building it takes matches^2 length tests, which the match cap bounds.
struct CompatibilityGraph {
  std::vector<int64_t> offsets;  // size matches + 1
  std::vector<int32_t> neighbours;

  int32_t degree(int32_t i) const {
    return static_cast<int32_t>(offsets[static_cast<size_t>(i) + 1] -
                                offsets[static_cast<size_t>(i)]);
  }
  const int32_t* begin(int32_t i) const {
    return neighbours.data() + offsets[static_cast<size_t>(i)];
  }
  bool linked(int32_t i, int32_t j) const;
};

CompatibilityGraph BuildCompatibility(const Cloud& source,
                                      const Cloud& target,
                                      const std::vector<Match>& matches,
                                      float tolerance,
                                      float minLength);

}  // namespace qorv::engine
