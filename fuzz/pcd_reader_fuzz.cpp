// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// The PCD reader on arbitrary bytes (ascii, binary and compressed bodies behind any header): it
// reads or refuses with IoError, never crashes, hangs or over-allocates; what it reads, written
// back in each encoding, reads back to the same points.
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "io/cloud_writers.hpp"
#include "io/pcd_reader.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  qorv::io::CloudData cloud;
  try {
    cloud = qorv::io::ParsePcd(bytes, "fuzz.pcd");
  } catch (const qorv::io::IoError&) {
    return 0;
  }
  // Nothing to compare, too dear, or kept relative to an origin (its origin comes from the first
  // large coordinate read, which a double written back from float may round the other way).
  if (cloud.size() == 0 || cloud.size() > 4096 || cloud.hasOrigin()) return 0;
  for (qorv::io::Encoding e : {qorv::io::Encoding::kBinary, qorv::io::Encoding::kCompressed}) {
    const qorv::io::CloudData back = qorv::io::ParsePcd(qorv::io::FormatPcd(cloud, e), "again.pcd");
    if (back.size() != cloud.size() ||
        std::memcmp(back.points.data(), cloud.points.data(), cloud.points.size() * sizeof(float)) !=
            0) {
      __builtin_trap();
    }
  }
  return 0;
}
