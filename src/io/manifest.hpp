// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qorv::io {

// One pair of a batch manifest.
struct ManifestPair {
  int64_t line = 0;                    // where the manifest lists it (from 1)
  std::string target, source;          // as the manifest writes them (results repeat them so)
  std::string targetPath, sourcePath;  // where they are read: relative to the manifest's folder
  bool hasInitial = false;
  double initial[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};  // row-major 4 x 4
};

// A pair manifest: CSV whose header names `target` and `source` (and optionally `initial`: 12 or
// 16 numbers, 3 x 4 [R | t] or 4 x 4 row by row, separated by spaces), or JSON lines with those
// keys (`initial` a list of 12 or 16 numbers or of rows). Blank lines and lines starting with '#'
// are passed over. `path` names the manifest in messages and is where relative paths start.
// Throws IoError (format) naming the manifest and the line at fault, or when it lists no pair.
std::vector<ManifestPair> ParsePairManifest(std::string_view text, const std::string& path);
std::vector<ManifestPair> ReadPairManifest(const std::string& path);

// A scan list: one path a line, relative to the list's folder; blank lines and '#' lines passed
// over. Throws IoError when it cannot be read.
std::vector<std::string> ParseScanList(std::string_view text, const std::string& path);
std::vector<std::string> ReadScanList(const std::string& path);

}  // namespace qorv::io
