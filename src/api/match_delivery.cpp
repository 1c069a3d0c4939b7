// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "api/match_delivery.hpp"

#include <cstddef>

#include "runtime/log.hpp"

namespace qorv {

void DeliverMatches(const std::vector<int32_t>& matches,
                    uint32_t count,
                    QorvMatchCallback callback,
                    void* user) {
  if (callback == nullptr) return;
  std::vector<QorvMatchPair> pairs;
  pairs.reserve(matches.size());
  for (std::size_t j = 0; j < matches.size(); ++j) {
    if (matches[j] != -1) {
      pairs.push_back({static_cast<uint32_t>(j), static_cast<uint32_t>(matches[j])});
    }
  }
  if (pairs.size() != count) LogInfo("Match condition error.");
  if (pairs.size() < count) pairs.resize(count, QorvMatchPair{UINT32_MAX, UINT32_MAX});
  callback(count == 0 ? nullptr : pairs.data(), count, user);
}

}  // namespace qorv
