// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qorv {

// out = the 3-float elements of `points` at the given positions, in their order.
inline void GatherPoints(const float* points,
                         const std::vector<int32_t>& indices,
                         std::vector<float>& out) {
  out.resize(indices.size() * 3);
  for (size_t k = 0; k < indices.size(); ++k) {
    const float* p = points + static_cast<size_t>(indices[k]) * 3;
    std::copy(p, p + 3, out.begin() + static_cast<std::ptrdiff_t>(k * 3));
  }
}

inline std::vector<float> GatherPoints(const float* points, const std::vector<int32_t>& indices) {
  std::vector<float> out;
  GatherPoints(points, indices, out);
  return out;
}

}  // namespace qorv
