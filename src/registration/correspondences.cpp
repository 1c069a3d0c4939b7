// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/correspondences.hpp"

#include <algorithm>

#include "registration/descriptor_matching.hpp"

namespace qorv {

std::vector<int32_t> MatchKeyPoints(const KeyPointSet& first,
                                    const KeyPointSet& second,
                                    bool crossCheck,
                                    const Execution& exec) {
  std::vector<int32_t> matches(static_cast<size_t>(std::max(second.count, 0)), 0);
  MatchDescriptorsExhaustive(first.descriptors,
                             first.count,
                             second.descriptors,
                             second.count,
                             crossCheck,
                             exec,
                             matches.data(),
                             nullptr);
  return matches;
}

Correspondences BuildCorrespondences(const KeyPointSet& first,
                                     const KeyPointSet& second,
                                     const std::vector<int32_t>& matches,
                                     bool withNormals) {
  Correspondences pairs;
  pairs.hasNormals = withNormals && first.normals != nullptr && second.normals != nullptr;
  const size_t n = static_cast<size_t>(
      std::count_if(matches.begin(), matches.end(), [](int32_t m) { return m != -1; }));
  pairs.first.reserve(3 * n);
  pairs.second.reserve(3 * n);
  if (pairs.hasNormals) {
    pairs.firstNormals.reserve(3 * n);
    pairs.secondNormals.reserve(3 * n);
  }
  for (size_t j = 0; j < matches.size(); ++j) {
    if (matches[j] == -1) continue;
    const size_t i = static_cast<size_t>(matches[j]);
    pairs.first.insert(pairs.first.end(), first.points + 3 * i, first.points + 3 * i + 3);
    pairs.second.insert(pairs.second.end(), second.points + 3 * j, second.points + 3 * j + 3);
    if (pairs.hasNormals) {
      pairs.firstNormals.insert(
          pairs.firstNormals.end(), first.normals + 3 * i, first.normals + 3 * i + 3);
      pairs.secondNormals.insert(
          pairs.secondNormals.end(), second.normals + 3 * j, second.normals + 3 * j + 3);
    }
  }
  return pairs;
}

}  // namespace qorv
