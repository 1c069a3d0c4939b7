// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include <qorv/qorv.h>

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

}  // namespace qorv
