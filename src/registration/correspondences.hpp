// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/parallel_for.hpp"

namespace qorv {

// Key points of one cloud as the caller holds them: count positions (3 floats each), optional
// normals (null when not given) and count descriptors (33 floats each).
struct KeyPointSet {
  const float* points = nullptr;
  const float* normals = nullptr;
  const float* descriptors = nullptr;
  int32_t count = 0;
};

// Pairs (first-set point, second-set point), in the order of the second set's key points.
struct Correspondences {
  std::vector<float> first;          // 3 floats per pair
  std::vector<float> second;         // 3 floats per pair
  std::vector<float> firstNormals;   // filled only when hasNormals
  std::vector<float> secondNormals;  // likewise
  bool hasNormals = false;

  int32_t size() const { return static_cast<int32_t>(second.size() / 3); }
};

// Match of every key point of the second set into the first (-1: rejected by the cross check), by
// the exhaustive descriptor matcher; the descriptor distances are not kept.
std::vector<int32_t> MatchKeyPoints(const KeyPointSet& first,
                                    const KeyPointSet& second,
                                    bool crossCheck,
                                    const Execution& exec);

// One pair per second-set key point j with matches[j] != -1, in order of j. Normals are copied when
// withNormals is set and both sets have normals.
Correspondences BuildCorrespondences(const KeyPointSet& first,
                                     const KeyPointSet& second,
                                     const std::vector<int32_t>& matches,
                                     bool withNormals);

}  // namespace qorv
