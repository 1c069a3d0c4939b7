// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// The LAS reader on arbitrary bytes: it reads or refuses with IoError, never crashes, hangs or
// over-allocates; what it reads, written back, reads back with the same finite points, classes
// and intensities.
#include <cstdint>
#include <string>
#include <string_view>

#include "io/las_reader.hpp"
#include "io/las_writer.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  qorv::io::CloudData cloud;
  try {
    cloud = qorv::io::ParseLas(bytes, "fuzz.las");
  } catch (const qorv::io::IoError&) {
    return 0;
  }
  if (cloud.size() == 0 || cloud.size() > 4096) return 0;
  cloud.keepFinite();
  std::string written;
  try {
    written = qorv::io::FormatLas(cloud);
  } catch (const qorv::io::IoError&) {
    return 0;  // nothing finite, or coordinates beyond 32 bits at the file's own scale
  }
  const qorv::io::CloudData back = qorv::io::ParseLas(written, "again.las");
  if (back.size() != cloud.size() || back.classification != cloud.classification ||
      back.intensity != cloud.intensity) {
    __builtin_trap();
  }
  return 0;
}
