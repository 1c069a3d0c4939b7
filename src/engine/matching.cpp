// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/matching.hpp"

#include <algorithm>
#include <cmath>

#include "registration/descriptor_matching.hpp"

namespace qorv::engine {
namespace {

// Compacts the valid descriptors of a set; map[k] is the point index of row k.
std::vector<float> ValidRows(const Features& f, std::vector<int32_t>& map) {
  std::vector<float> rows;
  map.clear();
  for (size_t i = 0; i < f.valid.size(); ++i) {
    if (!f.valid[i]) continue;
    map.push_back(static_cast<int32_t>(i));
    rows.insert(rows.end(),
                f.descriptors.begin() + static_cast<long>(i * kDescriptorSize),
                f.descriptors.begin() + static_cast<long>((i + 1) * kDescriptorSize));
  }
  return rows;
}

}  // namespace

std::vector<Match> MatchFeatures(const Features& source,
                                 const Features& target,
                                 int32_t minMutual) {
  std::vector<int32_t> sourceMap, targetMap;
  const std::vector<float> s = ValidRows(source, sourceMap);
  const std::vector<float> t = ValidRows(target, targetMap);
  const int32_t ns = static_cast<int32_t>(sourceMap.size());
  const int32_t nt = static_cast<int32_t>(targetMap.size());
  if (ns == 0 || nt == 0) return {};
  Execution exec;
  exec.multiThread = MaxThreads() > 1;
  std::vector<int32_t> nearest(static_cast<size_t>(ns));
  std::vector<float> distance(static_cast<size_t>(ns));
  auto collect = [&]() {
    std::vector<Match> matches;
    for (int32_t q = 0; q < ns; ++q) {
      const int32_t j = nearest[static_cast<size_t>(q)];
      if (j < 0) continue;
      matches.push_back({sourceMap[static_cast<size_t>(q)],
                         targetMap[static_cast<size_t>(j)],
                         distance[static_cast<size_t>(q)]});
    }
    return matches;
  };
  // The cross check keeps a pair only when no other source is closer to its target: with the
  // source's own nearest target that makes the pair mutual.
  MatchDescriptorsExhaustive(
      t.data(), nt, s.data(), ns, true, exec, nearest.data(), distance.data());
  std::vector<Match> matches = collect();
  if (static_cast<int32_t>(matches.size()) < minMutual) {
    MatchDescriptorsExhaustive(
        t.data(), nt, s.data(), ns, false, exec, nearest.data(), distance.data());
    matches = collect();
  }
  return matches;
}

}  // namespace qorv::engine
