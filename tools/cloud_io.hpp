// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <qorv/qorv.h>

namespace qorv::tools {

// A point cloud as the exports take it: packed float triples, optional normals and colours.
struct Cloud {
  std::vector<float> points;           // 3 per point
  std::vector<float> normals;          // empty or 3 per point
  std::vector<unsigned char> colours;  // empty or 3 per point
  std::string format;                  // "asc", "ply (ascii)", "pcd (binary)", ...
  int64_t droppedNonFinite = 0;        // points with a NaN or infinite coordinate left out

  int32_t size() const { return static_cast<int32_t>(points.size() / 3); }
  bool hasNormals() const { return !normals.empty(); }
  bool hasColours() const { return !colours.empty(); }
  // The points at the given indices, normals and colours carried along.
  Cloud subset(const std::vector<int32_t>& indices) const;
};

// Reads ASC (through the library), PLY (ascii, binary little or big endian) or PCD (ascii,
// binary). The format is recognised by the file's first bytes ("ply", a PCD header), else ASC.
// Throws ToolError with a readable message for a missing or unreadable file, an unsupported
// or malformed format, or a cloud without points.
Cloud ReadCloud(QorvInstance* inst, const std::string& path);

// Writes ASC text through the library: x y z, with normals six columns, with normals and
// colours nine. Refuses .ply and .pcd names, since the content would be ASC text.
void WriteCloud(QorvInstance* inst, const std::string& path, const Cloud& cloud);

// Parsers of the PLY and PCD formats from a file's bytes (exposed for the tool's tests).
Cloud ParsePly(const std::string& bytes, const std::string& path);
Cloud ParsePcd(const std::string& bytes, const std::string& path);

}  // namespace qorv::tools
