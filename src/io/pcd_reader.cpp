// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/pcd_reader.hpp"

#include <cmath>
#include <cstring>
#include <vector>

#include "io/field_layout.hpp"
#include "io/text_fields.hpp"

#include <lzf.h>

namespace qorv::io {
namespace {

// LZF inflates at most about 90-fold (a 3-byte back reference copies 264 bytes): a claimed
// uncompressed size beyond that is a lie, not a reason to allocate.
constexpr uint64_t kMaxLzfRatio = 100;

struct Header {
  std::vector<std::string> fields;
  std::vector<int64_t> sizes, counts;
  std::vector<char> types;
  int64_t points = -1, width = -1, height = 1;
  double viewpoint[7] = {0, 0, 0, 1, 0, 0, 0};
  bool hasViewpoint = false;
  std::string data;
};

Header ReadHeader(const std::vector<std::string>& lines, const std::string& path) {
  Header h;
  for (const std::string& line : lines) {
    const std::vector<std::string> w = Words(line);
    if (w.empty() || w[0][0] == '#') continue;
    const std::string& key = w[0];
    if (key == "FIELDS") {
      h.fields.assign(w.begin() + 1, w.end());
    } else if (key == "SIZE") {
      for (size_t i = 1; i < w.size(); ++i) h.sizes.push_back(ParseCount(w[i], path, "SIZE"));
    } else if (key == "TYPE") {
      for (size_t i = 1; i < w.size(); ++i) h.types.push_back(w[i].size() == 1 ? w[i][0] : '?');
    } else if (key == "COUNT") {
      for (size_t i = 1; i < w.size(); ++i) h.counts.push_back(ParseCount(w[i], path, "COUNT"));
    } else if (key == "POINTS" && w.size() == 2) {
      h.points = ParseCount(w[1], path, "POINTS");
    } else if (key == "WIDTH" && w.size() == 2) {
      h.width = ParseCount(w[1], path, "WIDTH");
    } else if (key == "HEIGHT" && w.size() == 2) {
      h.height = ParseCount(w[1], path, "HEIGHT");
    } else if (key == "VIEWPOINT" && w.size() == 8) {
      for (int i = 0; i < 7; ++i) {
        char* end = nullptr;
        h.viewpoint[i] = std::strtod(w[static_cast<size_t>(i) + 1].c_str(), &end);
        if (*end != '\0' || !std::isfinite(h.viewpoint[i])) {
          throw IoError(IoError::kFormat, "'" + path + "': bad PCD VIEWPOINT " + Quote(line));
        }
      }
      h.hasViewpoint = true;
    } else if (key == "DATA" && w.size() == 2) {
      h.data = w[1];
    }
  }
  if (h.counts.empty()) h.counts.assign(h.fields.size(), 1);
  if (h.fields.empty() || h.sizes.size() != h.fields.size() || h.types.size() != h.fields.size() ||
      h.counts.size() != h.fields.size()) {
    throw IoError(
        IoError::kFormat,
        "'" + path + "': PCD header needs FIELDS, SIZE, TYPE (and COUNT) of equal length");
  }
  if (h.width >= 0 && h.height > 0 &&
      static_cast<double>(h.width) * static_cast<double>(h.height) >
          static_cast<double>(kMaxPoints)) {
    throw IoError(IoError::kFormat, "'" + path + "' holds more points than supported");
  }
  if (h.points < 0 && h.width >= 0) h.points = h.width * h.height;
  if (h.points < 0) throw IoError(IoError::kFormat, "'" + path + "': PCD header has no POINTS");
  if (h.points > kMaxPoints)
    throw IoError(IoError::kFormat, "'" + path + "' holds more points than supported");
  if (h.width < 0 || h.height < 1 || h.width * h.height != h.points) {
    h.width = h.points;  // an inconsistent layout is read as a plain list of points
    h.height = 1;
  }
  if (h.data != "ascii" && h.data != "binary" && h.data != "binary_compressed") {
    throw IoError(IoError::kFormat, "'" + path + "': unsupported PCD DATA " + Quote(h.data));
  }
  return h;
}

Scalar PcdScalar(char type, int64_t size, const std::string& path) {
  const bool isSigned = type == 'I';
  if (type == 'F' && size == 4) return Scalar::kFloat32;
  if (type == 'F' && size == 8) return Scalar::kFloat64;
  if (type == 'I' || type == 'U') {
    switch (size) {
      case 1:
        return isSigned ? Scalar::kInt8 : Scalar::kUint8;
      case 2:
        return isSigned ? Scalar::kInt16 : Scalar::kUint16;
      case 4:
        return isSigned ? Scalar::kInt32 : Scalar::kUint32;
      case 8:
        return isSigned ? Scalar::kInt64 : Scalar::kUint64;
      default:
        break;
    }
  }
  throw IoError(IoError::kFormat,
                "'" + path + "': unsupported PCD field type " +
                    Quote(std::string(1, type) + std::to_string(size)));
}

}  // namespace

CloudData ParsePcd(std::string_view bytes, const std::string& path) {
  std::vector<std::string> lines;
  const size_t body = SplitHeader(bytes, "DATA", path, "PCD", lines);
  const Header h = ReadHeader(lines, path);

  // One slot a field element: a field with COUNT n takes n slots.
  struct Slot {
    Scalar type;
    size_t offsetInRow;    // binary: byte offset within a point's row
    size_t offsetInBlock;  // compressed: byte offset of the point-0 value within the data
    size_t stride;         // compressed: bytes from one point's value to the next
  };
  std::vector<Slot> slots;
  FieldSlots keep;
  static const char* kXyz[3] = {"x", "y", "z"};
  static const char* kNormals[3] = {"normal_x", "normal_y", "normal_z"};
  size_t rowBytes = 0;
  for (size_t f = 0; f < h.fields.size(); ++f) {
    if (h.counts[f] < 1 || h.counts[f] > 4096)
      throw IoError(IoError::kFormat, "'" + path + "': bad PCD COUNT");
    const Scalar type = PcdScalar(h.types[f], h.sizes[f], path);
    const int first = static_cast<int>(slots.size());
    for (int c = 0; c < 3; ++c) {
      if (h.fields[f] == kXyz[c]) keep.xyz[c] = first;
      if (h.fields[f] == kNormals[c]) keep.normal[c] = first;
    }
    if ((h.fields[f] == "rgb" || h.fields[f] == "rgba") && h.sizes[f] == 4) keep.packedRgb = first;
    if (h.fields[f] == "intensity") keep.intensity = first;
    if (h.fields[f] == "classification") keep.classification = first;
    if (h.fields[f] == "gps_time") keep.gpsTime = first;
    for (int64_t c = 0; c < h.counts[f]; ++c) {
      slots.push_back({type, rowBytes, 0, 0});
      rowBytes += static_cast<size_t>(h.sizes[f]);
    }
  }
  if (!keep.hasXyz()) throw IoError(IoError::kFormat, "'" + path + "': PCD fields lack x, y or z");
  const uint64_t points = static_cast<uint64_t>(h.points);
  const size_t available = bytes.size() - body;

  CloudData cloud;
  cloud.format = "pcd (" + h.data + ")";
  cloud.fields = h.fields;
  cloud.width = h.width;
  cloud.height = h.height;
  // Every PCD writer puts a VIEWPOINT line; the default one (the origin, no turn) tells where the
  // sensor sat only for an organized frame, which is in its sensor's coordinates.
  const bool defaultViewpoint = h.viewpoint[0] == 0.0 && h.viewpoint[1] == 0.0 &&
                                h.viewpoint[2] == 0.0 && h.viewpoint[3] == 1.0 &&
                                h.viewpoint[4] == 0.0 && h.viewpoint[5] == 0.0 &&
                                h.viewpoint[6] == 0.0;
  cloud.hasViewpoint = h.hasViewpoint && (h.height > 1 || !defaultViewpoint);
  std::memcpy(cloud.viewpoint, h.viewpoint, sizeof(h.viewpoint));
  std::vector<double> values(slots.size(), 0.0);

  if (h.data == "ascii") {
    if (points > available) throw IoError(IoError::kFormat, "'" + path + "': PCD data ends early");
    keep.reserve(cloud, h.points);
    TextNumbers text(bytes, body, path);
    for (uint64_t i = 0; i < points; ++i) {
      for (size_t s = 0; s < slots.size(); ++s) values[s] = text.next();
      if (keep.packedRgb >= 0) {
        // The packed colour is written either as a float holding the bits or as the integer.
        const double v = values[static_cast<size_t>(keep.packedRgb)];
        uint32_t bits = 0;
        if (v >= 0.0 && v <= 4294967295.0 && v == std::floor(v) && v >= 1.0) {
          bits = static_cast<uint32_t>(v);
        } else {
          const float asFloat = static_cast<float>(v);
          std::memcpy(&bits, &asFloat, 4);
        }
        values[static_cast<size_t>(keep.packedRgb)] = bits;
      }
      keep.store(cloud, static_cast<size_t>(i), values.data());
    }
    cloud.countNonFinite();
    return cloud;
  }

  const unsigned char* data = reinterpret_cast<const unsigned char*>(bytes.data()) + body;
  std::vector<unsigned char> inflated;
  size_t rowStride = rowBytes;
  if (h.data == "binary") {
    if (rowBytes > 0 && points > available / rowBytes) {
      throw IoError(IoError::kFormat, "'" + path + "': PCD data ends early");
    }
  } else {
    if (available < 8)
      throw IoError(IoError::kFormat, "'" + path + "': PCD compressed data ends early");
    uint32_t packedSize = 0, fullSize = 0;
    std::memcpy(&packedSize, data, 4);
    std::memcpy(&fullSize, data + 4, 4);
    if (packedSize > available - 8)
      throw IoError(IoError::kFormat, "'" + path + "': PCD compressed data ends early");
    if (static_cast<uint64_t>(fullSize) != points * rowBytes) {
      throw IoError(IoError::kFormat,
                    "'" + path + "': PCD compressed data holds " + std::to_string(fullSize) +
                        " bytes, the header asks for " + std::to_string(points * rowBytes));
    }
    if (static_cast<uint64_t>(fullSize) > kMaxLzfRatio * packedSize + 64) {
      throw IoError(IoError::kFormat,
                    "'" + path + "': PCD compressed size is implausible for its data");
    }
    inflated.resize(fullSize);
    if (fullSize > 0) {
      const unsigned int got = lzf_decompress(data + 8, packedSize, inflated.data(), fullSize);
      if (got != fullSize)
        throw IoError(IoError::kFormat, "'" + path + "': PCD compressed data is corrupt");
    }
    data = inflated.data();
    // Field after field: each slot's values lie in a run of their own.
    size_t blockStart = 0;
    size_t s = 0;
    for (size_t f = 0; f < h.fields.size(); ++f) {
      const size_t fieldBytes = static_cast<size_t>(h.sizes[f] * h.counts[f]);
      for (int64_t c = 0; c < h.counts[f]; ++c, ++s) {
        slots[s].offsetInBlock = blockStart + static_cast<size_t>(c * h.sizes[f]);
        slots[s].stride = fieldBytes;
      }
      blockStart += fieldBytes * static_cast<size_t>(points);
    }
    rowStride = 0;
  }
  keep.reserve(cloud, h.points);
  auto at = [&](const Slot& slot, uint64_t i) {
    return rowStride > 0 ? data + i * rowStride + slot.offsetInRow
                         : data + slot.offsetInBlock + i * slot.stride;
  };
  // Each kept attribute is copied column by column; 4-byte floats (nearly every file) straight.
  auto column = [&](int slotIndex, float* out, size_t outStride) {
    if (slotIndex < 0) return;
    const Slot& slot = slots[static_cast<size_t>(slotIndex)];
    if (slot.type == Scalar::kFloat32) {
      for (uint64_t i = 0; i < points; ++i) std::memcpy(out + i * outStride, at(slot, i), 4);
    } else {
      for (uint64_t i = 0; i < points; ++i)
        out[i * outStride] = static_cast<float>(DecodeScalar(at(slot, i), slot.type, false));
    }
  };
  if (points == 0) {
    cloud.countNonFinite();
    return cloud;
  }
  bool floatXyz = true;
  for (int c = 0; c < 3; ++c)
    floatXyz = floatXyz && slots[static_cast<size_t>(keep.xyz[c])].type == Scalar::kFloat32;
  if (floatXyz) {
    for (int c = 0; c < 3; ++c) column(keep.xyz[c], cloud.points.data() + c, 3);
  } else {
    // Double (or integer) coordinates keep their precision relative to the cloud's origin.
    for (uint64_t i = 0; i < points; ++i) {
      double v[3];
      for (int c = 0; c < 3; ++c) {
        const Slot& slot = slots[static_cast<size_t>(keep.xyz[c])];
        v[c] = DecodeScalar(at(slot, i), slot.type, false);
      }
      cloud.setPoint(static_cast<size_t>(i), v[0], v[1], v[2]);
    }
  }
  for (int c = 0; c < 3 && !cloud.normals.empty(); ++c)
    column(keep.normal[c], cloud.normals.data() + c, 3);
  if (!cloud.intensity.empty()) column(keep.intensity, cloud.intensity.data(), 1);
  if (!cloud.classification.empty() || !cloud.gpsTime.empty()) {
    for (uint64_t i = 0; i < points; ++i) {
      if (!cloud.classification.empty()) {
        const Slot& slot = slots[static_cast<size_t>(keep.classification)];
        const double v = DecodeScalar(at(slot, i), slot.type, false);
        cloud.classification[i] = ClampByte(v);
      }
      if (!cloud.gpsTime.empty()) {
        const Slot& slot = slots[static_cast<size_t>(keep.gpsTime)];
        cloud.gpsTime[i] = DecodeScalar(at(slot, i), slot.type, false);
      }
    }
  }
  if (keep.packedRgb >= 0) {
    const Slot& slot = slots[static_cast<size_t>(keep.packedRgb)];
    for (uint64_t i = 0; i < points; ++i) {
      uint32_t bits;
      std::memcpy(&bits, at(slot, i), 4);
      cloud.colours[3 * i] = static_cast<uint8_t>((bits >> 16) & 0xff);
      cloud.colours[3 * i + 1] = static_cast<uint8_t>((bits >> 8) & 0xff);
      cloud.colours[3 * i + 2] = static_cast<uint8_t>(bits & 0xff);
    }
  }
  cloud.countNonFinite();
  return cloud;
}

}  // namespace qorv::io
