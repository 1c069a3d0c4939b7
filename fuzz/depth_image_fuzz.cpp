// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// The depth-image readers on arbitrary bytes: PNG from memory, TIFF through a scratch file (libtiff
// reads files). Each reads or refuses with IoError; never a crash, a hang or a huge allocation.
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "io/depth_image.hpp"

#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  try {
    if (size >= 4 && (bytes.substr(0, 4) == std::string_view("II*\0", 4) ||
                      bytes.substr(0, 4) == std::string_view("MM\0*", 4))) {
      static const std::string path = "/tmp/qorv_fuzz_depth_" + std::to_string(getpid()) + ".tif";
      std::FILE* f = std::fopen(path.c_str(), "wb");
      if (f == nullptr) return 0;
      std::fwrite(data, 1, size, f);
      std::fclose(f);
      const qorv::io::DepthImage image = qorv::io::ReadTiff(path);
      if (image.depth.size() < 100000) (void)qorv::io::DepthToCloud(image, qorv::io::DepthCamera());
    } else {
      const qorv::io::DepthImage image = qorv::io::DecodePng(bytes, "fuzz.png");
      if (image.depth.size() < 100000) (void)qorv::io::DepthToCloud(image, qorv::io::DepthCamera());
    }
  } catch (const qorv::io::IoError&) {
  }
  return 0;
}
