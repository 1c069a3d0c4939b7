// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include <qorv/qorv.h>

#include "api/guard.hpp"

namespace qorv {

// Hands the surviving matches (entries != -1, as (j, matches[j]) in order of j) to the callback
// with `count` as its count, logging "Match condition error." when their number differs from count.
// pairs is null when count is 0. The array holds at least max(count, survivors) entries; entries
// past the survivors (possible only when count exceeds them) are all bits set. No-op without a
// callback.
void DeliverMatches(const std::vector<int32_t>& matches,
                    uint32_t count,
                    QorvMatchCallback callback,
                    void* user);

// The body the matching exports share: `match` fills a per-point match array and returns the
// count it reports; the pairs then go to the callback. Any failure becomes a result code.
template <class Matcher>
QorvResult MatchThenDeliver(QorvMatchCallback callback, void* user, Matcher&& match) noexcept {
  return Guarded([&] {
    std::vector<int32_t> matches;
    const int32_t count = match(matches);
    DeliverMatches(matches, static_cast<uint32_t>(count), callback, user);
    return QORV_OK;
  });
}

}  // namespace qorv
