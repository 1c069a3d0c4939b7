// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <qorv/engine.h>

#include <nlohmann/json.hpp>

namespace qorv::tools {

// One pair of a batch manifest: its position in the manifest, the paths as given, a guess.
struct BatchPair {
  int64_t index = 0;
  std::string target, source;          // as the manifest writes them (and the results repeat)
  std::string targetPath, sourcePath;  // where they are read: relative to the manifest's folder
  bool hasInitial = false;
  double initial[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
};

// Reads a manifest: CSV with a header naming `target` and `source` (and optionally `initial`: 12
// or 16 numbers separated by spaces), or JSON lines with those keys. Throws ToolError naming the
// line at fault.
std::vector<BatchPair> ReadManifest(const std::string& path);

// The pairs already in a results file (their "pair" numbers). A last line without its line feed
// is what a killed run left: it is cut off the file, so that the pair runs again.
std::set<int64_t> DonePairs(const std::string& resultsPath);

// One pair registered (files read, engine run with one thread) into its results line. Failures to
// read become a line with "error" set. The same line, field for field, as the Python batch writes.
nlohmann::ordered_json RunPair(const BatchPair& pair, const QorvEngineOptions& options);

// Appends one complete line to the results file with a single write and flushes it to disk.
void AppendLine(int fd, const std::string& line);

}  // namespace qorv::tools
