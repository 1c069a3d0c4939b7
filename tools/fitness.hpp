// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

namespace qorv::tools {

// Share of `query` points (packed triples) with a `reference` point within `radius` (inclusive),
// found through a uniform grid of cell size `radius` over the reference: each query looks at the
// 27 cells around it, so the cost is linear in the point counts for surface-like clouds.
// Non-finite points never match. Returns 0 for an empty query or a radius that is not > 0.
double Fitness(const std::vector<float>& reference, const std::vector<float>& query, float radius);

}  // namespace qorv::tools
