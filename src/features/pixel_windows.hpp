// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "features/organized_keypoints.hpp"

namespace qorv {

// Pixel windows of the organized key-point detector and descriptor.

// Rows (or columns) i with h <= i < size - h, clipped to [0, size); empty when begin >= end.
struct PixelSpan {
  int32_t begin;
  int32_t end;
};

inline PixelSpan InnerSpan(int32_t h, int32_t size) {
  const int64_t begin = std::max<int64_t>(h, 0);
  const int64_t end = std::min<int64_t>(static_cast<int64_t>(size) - h, size);
  if (begin >= end) return {0, 0};
  return {static_cast<int32_t>(begin), static_cast<int32_t>(end)};
}

// Window rows (or columns) center - h .. center + h clipped to the image; empty for h < 0.
inline PixelSpan WindowSpan(int32_t center, int32_t h, int32_t size) {
  const int64_t begin = std::max<int64_t>(static_cast<int64_t>(center) - h, 0);
  const int64_t end = std::min<int64_t>(static_cast<int64_t>(center) + h + 1, size);
  if (begin >= end) return {0, 0};
  return {static_cast<int32_t>(begin), static_cast<int32_t>(end)};
}

inline size_t PixelIndex(const OrganizedMaps& maps, int32_t row, int32_t col) {
  return static_cast<size_t>(row) * static_cast<size_t>(maps.width) + static_cast<size_t>(col);
}

}  // namespace qorv
