// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// The PLY reader on arbitrary bytes: it reads or refuses with IoError, never crashes, hangs or
// over-allocates; what it reads, written back, reads back to the same points.
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "io/cloud_writers.hpp"
#include "io/ply_reader.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  qorv::io::CloudData cloud;
  try {
    cloud = qorv::io::ParsePly(bytes, "fuzz.ply");
  } catch (const qorv::io::IoError&) {
    return 0;
  }
  if (cloud.size() == 0 || cloud.size() > 4096 || cloud.hasOrigin())
    return 0;  // see pcd_reader_fuzz
  const qorv::io::CloudData back =
      qorv::io::ParsePly(qorv::io::FormatPly(cloud, qorv::io::Encoding::kBinary), "again.ply");
  if (back.size() != cloud.size() ||
      std::memcmp(back.points.data(), cloud.points.data(), cloud.points.size() * sizeof(float)) !=
          0) {
    __builtin_trap();
  }
  return 0;
}
