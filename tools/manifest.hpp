// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qorv::tools {

// A manifest of batch or multiway: its lines that say something (blank lines and lines starting
// with '#' passed over, line ends trimmed), each with its number for messages. Throws ToolError
// when the file cannot be read.
struct ManifestLine {
  int64_t number = 0;
  std::string text;
  std::string where;  // "manifest 'PATH' line N"
};
std::vector<ManifestLine> ReadManifestLines(const std::string& path);

// A path a manifest names: relative paths are relative to the manifest, as in a playlist.
std::string ResolveBeside(const std::string& manifestPath, const std::string& named);

}  // namespace qorv::tools
