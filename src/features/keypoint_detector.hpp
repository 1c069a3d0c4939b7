// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/parallel_for.hpp"
#include "search/kd_tree.hpp"

namespace qorv {

struct KeyPointParams {
  float keyPointRadius = 0.0f;  // neighbourhood of the scatter matrix
  float nonMaxRadius = 0.0f;    // suppression radius; no suppression when not greater than 0
  float ratio21 = 0.0f;         // upper bound (strict) of lambda2 / lambda1
  float ratio32 = 0.0f;         // upper bound (strict) of lambda3 / lambda2
  int32_t maxKeyPoints = 0;     // >= 1: rank by score and keep at most this many; else neither
};

// Eigenvalue-ratio key points (Zhong, "Intrinsic shape signatures", ICCV workshops 2009) of the
// points tree.data()[0 .. tree.count()), which the tree indexes. A point is a candidate when it
// has at least 9 neighbours (itself included) strictly within keyPointRadius and the eigenvalues
// lambda1 >= lambda2 >= lambda3 of its distance-weighted scatter matrix satisfy
// lambda2 / lambda1 < ratio21 and lambda3 / lambda2 < ratio32; its score is lambda3.
//
// With maxKeyPoints >= 1 candidates are ranked by descending score, equal scores in the reverse of
// the order a stable ascending sort leaves them after the first minimum is swapped to the front.
// Otherwise they stay in ascending index order. Non-maximum suppression drops a candidate when
// another one strictly within nonMaxRadius has a strictly greater score (suppressed candidates
// still suppress, equal scores never do); then the list is capped at maxKeyPoints.
//
// indices receives the key points' positions in the cloud, positions their coordinates (3 floats
// each, same order); both are cleared first. Points with a NaN coordinate are never key points.
// The result does not depend on exec. The tree must have been built on the calling thread, which
// also builds and destroys the suppression tree.
void DetectKeyPoints(const PointKdTree& tree,
                     const KeyPointParams& params,
                     const Execution& exec,
                     std::vector<int32_t>& indices,
                     std::vector<float>& positions);

// Orders candidates by descending score exactly as an insertion sort (ascending, the first minimum
// first swapped to the front, entries moved only past strictly greater ones) followed by a
// reversal would, in O(n log n). indices and scores are parallel; scores must not be NaN.
void RankByScore(std::vector<int32_t>& indices, std::vector<float>& scores);

}  // namespace qorv
