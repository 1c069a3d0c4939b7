// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstring>
#include <vector>

namespace qorv::test {

// Bitwise equality of two arrays, so that NaN payloads and signed zeros count.
template <typename T>
bool SameBits(const std::vector<T>& a, const std::vector<T>& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

// True when a point (3 floats) has a NaN coordinate. The export tests see only the public header,
// so they keep this copy of the library's own.
inline bool HasNaN(const float* p) { return p[0] != p[0] || p[1] != p[1] || p[2] != p[2]; }

}  // namespace qorv::test
