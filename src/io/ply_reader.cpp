// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/ply_reader.hpp"

#include <utility>
#include <vector>

#include "io/field_layout.hpp"
#include "io/text_fields.hpp"

namespace qorv::io {
namespace {

struct Property {
  std::string name;
  Scalar type = Scalar::kFloat32;
  bool isList = false;
  Scalar countType = Scalar::kUint8;
};

struct Element {
  std::string name;
  int64_t count = 0;
  std::vector<Property> properties;
};

Scalar PlyScalar(const std::string& name, const std::string& path) {
  static const std::pair<const char*, Scalar> kNames[] = {{"char", Scalar::kInt8},
                                                          {"int8", Scalar::kInt8},
                                                          {"uchar", Scalar::kUint8},
                                                          {"uint8", Scalar::kUint8},
                                                          {"short", Scalar::kInt16},
                                                          {"int16", Scalar::kInt16},
                                                          {"ushort", Scalar::kUint16},
                                                          {"uint16", Scalar::kUint16},
                                                          {"int", Scalar::kInt32},
                                                          {"int32", Scalar::kInt32},
                                                          {"uint", Scalar::kUint32},
                                                          {"uint32", Scalar::kUint32},
                                                          {"float", Scalar::kFloat32},
                                                          {"float32", Scalar::kFloat32},
                                                          {"double", Scalar::kFloat64},
                                                          {"float64", Scalar::kFloat64}};
  for (const auto& [text, type] : kNames) {
    if (name == text) return type;
  }
  throw IoError(IoError::kFormat, "'" + path + "': unknown PLY property type " + Quote(name));
}

FieldSlots VertexSlots(const Element& element) {
  static const char* kXyz[3] = {"x", "y", "z"};
  static const char* kNormals[3] = {"nx", "ny", "nz"};
  static const char* kColours[3] = {"red", "green", "blue"};
  static const char* kDiffuse[3] = {"diffuse_red", "diffuse_green", "diffuse_blue"};
  FieldSlots slots;
  for (size_t p = 0; p < element.properties.size(); ++p) {
    const Property& property = element.properties[p];
    if (property.isList) continue;
    const int slot = static_cast<int>(p);
    for (int c = 0; c < 3; ++c) {
      if (property.name == kXyz[c]) slots.xyz[c] = slot;
      if (property.name == kNormals[c]) slots.normal[c] = slot;
      if (property.name == kColours[c] || property.name == kDiffuse[c]) {
        slots.colour[c] = slot;
        slots.colourIsUnit = property.type == Scalar::kFloat32 || property.type == Scalar::kFloat64;
      }
    }
    if (property.name == "intensity" || property.name == "scalar_intensity") slots.intensity = slot;
    if (property.name == "classification" || property.name == "scalar_classification")
      slots.classification = slot;
    if (property.name == "gps_time" || property.name == "scalar_gps_time") slots.gpsTime = slot;
  }
  return slots;
}

}  // namespace

CloudData ParsePly(std::string_view bytes, const std::string& path) {
  if (bytes.substr(0, 4) != "ply\n" && bytes.substr(0, 5) != "ply\r\n") {
    throw IoError(IoError::kFormat, "'" + path + "' is not a ply file (no 'ply' magic line)");
  }
  std::vector<std::string> lines;
  const size_t body = SplitHeader(bytes, "end_header", path, "PLY", lines);
  std::string format;
  std::vector<Element> elements;
  for (const std::string& line : lines) {
    const std::vector<std::string> w = Words(line);
    if (w.empty() || w[0] == "comment" || w[0] == "obj_info" || w[0] == "ply" ||
        w[0] == "end_header") {
      continue;
    }
    if (w[0] == "format" && w.size() >= 2) {
      format = w[1];
    } else if (w[0] == "element" && w.size() == 3) {
      elements.push_back({w[1], ParseCount(w[2], path, "element count"), {}});
    } else if (w[0] == "property" && !elements.empty()) {
      Property property;
      if (w.size() == 5 && w[1] == "list") {
        property.isList = true;
        property.countType = PlyScalar(w[2], path);
        property.type = PlyScalar(w[3], path);
        property.name = w[4];
      } else if (w.size() == 3) {
        property.type = PlyScalar(w[1], path);
        property.name = w[2];
      } else {
        throw IoError(IoError::kFormat, "'" + path + "': bad PLY property line " + Quote(line));
      }
      elements.back().properties.push_back(property);
    } else {
      throw IoError(IoError::kFormat, "'" + path + "': unexpected PLY header line " + Quote(line));
    }
  }
  const bool ascii = format == "ascii";
  const bool bigEndian = format == "binary_big_endian";
  if (!ascii && !bigEndian && format != "binary_little_endian") {
    throw IoError(IoError::kFormat, "'" + path + "': unsupported PLY format " + Quote(format));
  }
  CloudData cloud;
  cloud.format = std::string("ply (") +
                 (ascii       ? "ascii"
                  : bigEndian ? "binary big endian"
                              : "binary little endian") +
                 ")";
  TextNumbers text(bytes, body, path);
  size_t pos = body;
  const auto* raw = reinterpret_cast<const unsigned char*>(bytes.data());
  auto value = [&](Scalar type) {
    if (ascii) return text.next();
    const size_t size = static_cast<size_t>(ScalarSize(type));
    if (bytes.size() - pos < size)
      throw IoError(IoError::kFormat, "'" + path + "': PLY data ends early");
    const double v = DecodeScalar(raw + pos, type, bigEndian);
    pos += size;
    return v;
  };

  for (const Element& element : elements) {
    const bool isVertex = element.name == "vertex";
    FieldSlots slots;
    if (isVertex) {
      slots = VertexSlots(element);
      if (!slots.hasXyz())
        throw IoError(IoError::kFormat, "'" + path + "': PLY vertex element lacks x, y or z");
      if (element.count > kMaxPoints) {
        throw IoError(IoError::kFormat, "'" + path + "' holds more points than supported");
      }
      // Each vertex takes at least a byte: a count beyond the file's size is a broken header.
      if (static_cast<uint64_t>(element.count) > bytes.size() - body) {
        throw IoError(IoError::kFormat, "'" + path + "': PLY data ends early");
      }
      for (const Property& property : element.properties) cloud.fields.push_back(property.name);
      slots.reserve(cloud, element.count);
    }
    if (element.properties.empty()) {
      if (isVertex) break;
      continue;
    }
    std::vector<double> values(element.properties.size());
    for (int64_t i = 0; i < element.count; ++i) {
      for (size_t p = 0; p < element.properties.size(); ++p) {
        const Property& property = element.properties[p];
        if (property.isList) {
          const double n = value(property.countType);
          if (!(n >= 0) || n > 1e6)
            throw IoError(IoError::kFormat, "'" + path + "': bad PLY list length");
          for (int64_t k = 0; k < static_cast<int64_t>(n); ++k) value(property.type);
          values[p] = 0.0;
        } else {
          values[p] = value(property.type);
        }
      }
      if (isVertex) slots.store(cloud, static_cast<size_t>(i), values.data());
    }
    if (isVertex) {
      cloud.width = element.count;
      cloud.height = 1;
      cloud.countNonFinite();
      return cloud;  // later elements (faces, ...) are not needed
    }
  }
  throw IoError(IoError::kFormat, "'" + path + "': PLY file has no vertex element");
}

}  // namespace qorv::io
