// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// The manifest readers on arbitrary bytes: a pair manifest reads or is refused with IoError, never
// crashes; every pair it gives has both paths, lines in order, and a guess that is finite and
// ends with the row 0 0 0 1. A scan list gives no more paths than the text has lines.
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>

#include "io/cloud_data.hpp"
#include "io/manifest.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  size_t lines = 1;
  for (char c : text) lines += c == '\n' ? 1 : 0;
  if (qorv::io::ParseScanList(text, "dir/scans.txt").size() > lines) __builtin_trap();
  std::vector<qorv::io::ManifestPair> pairs;
  try {
    pairs = qorv::io::ParsePairManifest(text, "dir/pairs.csv");
  } catch (const qorv::io::IoError&) {
    return 0;
  }
  if (pairs.empty() || pairs.size() > lines) __builtin_trap();
  int64_t last = 0;
  for (const qorv::io::ManifestPair& pair : pairs) {
    if (pair.line <= last || pair.target.empty() || pair.source.empty() ||
        pair.targetPath.empty() || pair.sourcePath.empty())
      __builtin_trap();
    last = pair.line;
    for (double v : pair.initial) {
      if (!std::isfinite(v)) __builtin_trap();
    }
    if (pair.initial[12] != 0 || pair.initial[13] != 0 || pair.initial[14] != 0 ||
        pair.initial[15] != 1)
      __builtin_trap();
  }
  return 0;
}
