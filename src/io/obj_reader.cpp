// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/obj_reader.hpp"

#include <cmath>
#include <cstdint>
#include <vector>

#include "io/text_fields.hpp"

#include <tiny_obj_loader.h>

namespace qorv::io {
namespace {

// tinyobjloader's messages end in line feeds and may run over several lines: one line, trimmed.
std::string OneLine(const std::string& message) {
  std::string out;
  for (char c : message) {
    if (c == '\n' || c == '\r') {
      if (!out.empty() && out.back() != ' ') out += ' ';
    } else {
      out += c;
    }
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out.size() > 200 ? out.substr(0, 200) + "..." : out;
}

bool HasVertexLine(std::string_view bytes) {
  for (size_t pos = 0; pos < bytes.size();) {
    while (pos < bytes.size() && (bytes[pos] == ' ' || bytes[pos] == '\t')) ++pos;
    if (bytes.substr(pos, 2) == "v " || bytes.substr(pos, 2) == "v\t") return true;
    const size_t end = bytes.find('\n', pos);
    if (end == std::string_view::npos) break;
    pos = end + 1;
  }
  return false;
}

}  // namespace

CloudData ParseObj(std::string_view bytes, const std::string& path) {
  if (!HasVertexLine(bytes)) {
    throw IoError(IoError::kFormat,
                  "'" + path +
                      "': expected OBJ vertex lines ('v x y z') but found none (it begins " +
                      Quote(bytes.substr(0, 40)) + ")");
  }
  tinyobj::ObjReaderConfig config;
  // Faces are kept as written: triangulating them would only cost time, and its code reads
  // vertices through the face indices before we have checked them.
  config.triangulate = false;
  config.vertex_color = false;  // colours only when every vertex has them
  tinyobj::ObjReader reader;
  if (!reader.ParseFromString(std::string(bytes), "", config)) {
    throw IoError(IoError::kFormat,
                  "'" + path + "' is no OBJ we read: " +
                      OneLine(reader.Error().empty() ? reader.Warning() : reader.Error()));
  }
  const tinyobj::attrib_t& attrib = reader.GetAttrib();
  const size_t n = attrib.vertices.size() / 3;
  const size_t normalCount = attrib.normals.size() / 3;
  if (n == 0) throw IoError(IoError::kFormat, "'" + path + "': OBJ without vertices");
  if (n > static_cast<size_t>(kMaxPoints))
    throw IoError(IoError::kFormat, "'" + path + "' holds more points than supported");

  auto face = [](const tinyobj::shape_t& shape) {
    return shape.name.empty() ? std::string("a face") : "a face of '" + shape.name + "'";
  };
  // Each vertex's normal index through the faces: -1 none yet, -2 several or a corner without one.
  std::vector<int64_t> normalOf(n, -1);
  bool faceNormals = normalCount > 0;
  for (const tinyobj::shape_t& shape : reader.GetShapes()) {
    for (const tinyobj::index_t& corner : shape.mesh.indices) {
      if (corner.vertex_index < 0 || static_cast<size_t>(corner.vertex_index) >= n) {
        throw IoError(IoError::kFormat,
                      "'" + path + "': " + face(shape) + " refers to vertex " +
                          std::to_string(static_cast<int64_t>(corner.vertex_index) + 1) +
                          " but the file has " + std::to_string(n) + " vertices" +
                          (reader.Warning().empty() ? "" : " (" + OneLine(reader.Warning()) + ")"));
      }
      if (corner.normal_index >= 0 && static_cast<size_t>(corner.normal_index) >= normalCount) {
        throw IoError(IoError::kFormat,
                      "'" + path + "': " + face(shape) + " refers to normal " +
                          std::to_string(static_cast<int64_t>(corner.normal_index) + 1) +
                          " but the file has " + std::to_string(normalCount) +
                          (normalCount == 1 ? " normal" : " normals"));
      }
      int64_t& of = normalOf[static_cast<size_t>(corner.vertex_index)];
      if (corner.normal_index < 0) {
        of = -2;
      } else if (of == -1) {
        of = corner.normal_index;
      } else if (of != corner.normal_index) {
        of = -2;
      }
    }
  }
  for (int64_t k : normalOf) faceNormals = faceNormals && k >= 0;

  CloudData cloud;
  cloud.format = "obj";
  cloud.fields = {"x", "y", "z"};
  cloud.width = static_cast<int64_t>(n);
  cloud.points.resize(3 * n);
  for (size_t i = 0; i < n; ++i) {
    cloud.setPoint(i,
                   static_cast<double>(attrib.vertices[3 * i]),
                   static_cast<double>(attrib.vertices[3 * i + 1]),
                   static_cast<double>(attrib.vertices[3 * i + 2]));
  }
  if (faceNormals) {
    cloud.normals.resize(3 * n);
    for (size_t i = 0; i < n; ++i) {
      const size_t k = static_cast<size_t>(normalOf[i]);
      for (size_t c = 0; c < 3; ++c)
        cloud.normals[3 * i + c] = static_cast<float>(attrib.normals[3 * k + c]);
    }
    cloud.fields.insert(cloud.fields.end(), {"nx", "ny", "nz"});
  }
  if (attrib.colors.size() == 3 * n) {
    cloud.colours.resize(3 * n);
    for (size_t k = 0; k < 3 * n; ++k) {
      const double v = static_cast<double>(attrib.colors[k]);
      cloud.colours[k] = static_cast<uint8_t>(std::lround(v >= 0.0 && v <= 1.0 ? v * 255.0
                                                          : v > 1.0            ? 255.0
                                                                               : 0.0));
    }
    cloud.fields.insert(cloud.fields.end(), {"red", "green", "blue"});
  }
  cloud.countNonFinite();
  return cloud;
}

}  // namespace qorv::io
