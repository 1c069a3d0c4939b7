// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "manifest.hpp"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "session.hpp"

namespace qorv::tools {

std::vector<ManifestLine> ReadManifestLines(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw ToolError("cannot open manifest '" + path + "': " + std::strerror(errno));
  std::vector<ManifestLine> lines;
  int64_t number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
      line.pop_back();
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    lines.push_back({number, line, "manifest '" + path + "' line " + std::to_string(number)});
  }
  if (in.bad()) throw ToolError("cannot read manifest '" + path + "'");
  return lines;
}

std::string ResolveBeside(const std::string& manifestPath, const std::string& named) {
  const std::filesystem::path given(named);
  if (given.is_absolute()) return named;
  return (std::filesystem::path(manifestPath).parent_path() / given).lexically_normal().string();
}

}  // namespace qorv::tools
