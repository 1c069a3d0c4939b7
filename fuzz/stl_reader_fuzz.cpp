// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// The STL reader on arbitrary bytes (binary with any count, ASCII with any words): it reads or
// refuses with IoError, never crashes or allocates past what the size holds; no two points it
// returns from binary STL are the same vertex, and there are no more than three a triangle the size
// allows.
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <tuple>

#include "io/stl_reader.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  qorv::io::CloudData cloud;
  try {
    cloud = qorv::io::ParseStl(bytes, "fuzz.stl");
  } catch (const qorv::io::IoError&) {
    return 0;
  }
  const size_t n = static_cast<size_t>(cloud.size());
  // A binary triangle takes 50 bytes, an ASCII vertex at least 12 ("vertex 0 0 0"): either way
  // fewer than 20 bytes a point.
  if (n == 0 || n > size / 4 || !cloud.normals.empty()) __builtin_trap();
  // Binary vertices are floats already, so distinct keys stay distinct points (ASCII ones are
  // parsed as double and may meet in float).
  // Coordinates kept relative to a large origin may meet in float as well.
  if (n > 4096 || cloud.format != "stl (binary)" || cloud.hasOrigin()) return 0;
  std::set<std::tuple<uint32_t, uint32_t, uint32_t>> seen;
  for (size_t i = 0; i < n; ++i) {
    uint32_t bits[3];
    for (size_t c = 0; c < 3; ++c) {
      float v = cloud.points[3 * i + c];
      if (v == 0.0f) v = 0.0f;
      std::memcpy(&bits[c], &v, 4);
    }
    // NaN coordinates never compare equal, but their bits are kept as they came.
    if (!seen.emplace(bits[0], bits[1], bits[2]).second && cloud.nonFinite == 0) __builtin_trap();
  }
  return 0;
}
