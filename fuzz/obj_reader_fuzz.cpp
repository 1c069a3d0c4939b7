// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// The OBJ reader (tinyobjloader underneath, then our checks of its face indices) on arbitrary
// bytes: it reads or refuses with IoError, never crashes or indexes outside the vertices; normals
// and colours come one a vertex or not at all.
#include <cstdint>
#include <string>
#include <string_view>

#include "io/obj_reader.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  qorv::io::CloudData cloud;
  try {
    cloud = qorv::io::ParseObj(bytes, "fuzz.obj");
  } catch (const qorv::io::IoError&) {
    return 0;
  }
  const size_t n = static_cast<size_t>(cloud.size());
  if (n == 0 || (!cloud.normals.empty() && cloud.normals.size() != 3 * n) ||
      (!cloud.colours.empty() && cloud.colours.size() != 3 * n)) {
    __builtin_trap();
  }
  return 0;
}
