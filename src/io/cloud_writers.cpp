// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/cloud_writers.hpp"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <vector>

#include <lzf.h>

namespace qorv::io {
namespace {

// One per-point value a file stores, and how.
enum class Value {
  kX,
  kY,
  kZ,
  kNx,
  kNy,
  kNz,
  kRed,
  kGreen,
  kBlue,
  kRgb,
  kIntensity,
  kClass,
  kTime
};

struct Column {
  Value value;
  Scalar type;  // kFloat32, kFloat64, kUint8 or kUint32
  const char* ply;
  const char* pcd;
};

// The columns a cloud's fields need. Coordinates are written in double when the cloud keeps an
// origin (survey-scale files), else as the floats they are.
std::vector<Column> Columns(const CloudData& cloud, bool packedColour) {
  const Scalar xyz = cloud.hasOrigin() ? Scalar::kFloat64 : Scalar::kFloat32;
  std::vector<Column> columns = {
      {Value::kX, xyz, "x", "x"}, {Value::kY, xyz, "y", "y"}, {Value::kZ, xyz, "z", "z"}};
  if (!cloud.normals.empty()) {
    columns.push_back({Value::kNx, Scalar::kFloat32, "nx", "normal_x"});
    columns.push_back({Value::kNy, Scalar::kFloat32, "ny", "normal_y"});
    columns.push_back({Value::kNz, Scalar::kFloat32, "nz", "normal_z"});
  }
  if (!cloud.colours.empty() && packedColour) {
    columns.push_back({Value::kRgb, Scalar::kUint32, "rgb", "rgb"});
  } else if (!cloud.colours.empty()) {
    columns.push_back({Value::kRed, Scalar::kUint8, "red", "red"});
    columns.push_back({Value::kGreen, Scalar::kUint8, "green", "green"});
    columns.push_back({Value::kBlue, Scalar::kUint8, "blue", "blue"});
  }
  if (!cloud.intensity.empty())
    columns.push_back({Value::kIntensity, Scalar::kFloat32, "intensity", "intensity"});
  if (!cloud.classification.empty())
    columns.push_back({Value::kClass, Scalar::kUint8, "classification", "classification"});
  if (!cloud.gpsTime.empty())
    columns.push_back({Value::kTime, Scalar::kFloat64, "gps_time", "gps_time"});
  return columns;
}

// Packed colour as PCD readers expect it: 0xAARRGGBB with an opaque alpha.
uint32_t PackedRgb(const uint8_t* c) {
  return 0xff000000u | (static_cast<uint32_t>(c[0]) << 16) | (static_cast<uint32_t>(c[1]) << 8) |
         c[2];
}

double ValueOf(const CloudData& cloud, size_t i, Value value) {
  switch (value) {
    case Value::kX:
    case Value::kY:
    case Value::kZ: {
      const size_t c = static_cast<size_t>(value) - static_cast<size_t>(Value::kX);
      const double v = cloud.points[3 * i + c];
      return cloud.origin[c] == 0.0 ? v : v + cloud.origin[c];  // -0 stays -0
    }
    case Value::kNx:
    case Value::kNy:
    case Value::kNz:
      return cloud.normals[3 * i + static_cast<size_t>(value) - static_cast<size_t>(Value::kNx)];
    case Value::kRed:
    case Value::kGreen:
    case Value::kBlue:
      return cloud.colours[3 * i + static_cast<size_t>(value) - static_cast<size_t>(Value::kRed)];
    case Value::kRgb:
      return PackedRgb(&cloud.colours[3 * i]);
    case Value::kIntensity:
      return cloud.intensity[i];
    case Value::kClass:
      return cloud.classification[i];
    case Value::kTime:
      return cloud.gpsTime[i];
  }
  return 0.0;
}

// A float column's value as stored, bit for bit (a NaN keeps its payload, which a trip through
// double would change).
float StoredFloat(const CloudData& cloud, size_t i, Value value) {
  switch (value) {
    case Value::kX:
    case Value::kY:
    case Value::kZ:
      return cloud.points[3 * i + static_cast<size_t>(value) - static_cast<size_t>(Value::kX)];
    case Value::kNx:
    case Value::kNy:
    case Value::kNz:
      return cloud.normals[3 * i + static_cast<size_t>(value) - static_cast<size_t>(Value::kNx)];
    case Value::kIntensity:
      return cloud.intensity[i];
    default:
      return static_cast<float>(ValueOf(cloud, i, value));
  }
}

// The shortest text that reads back as the same value of the column's type.
void AppendText(std::string& out, double v, Scalar type) {
  char buffer[40];
  std::to_chars_result r{};
  if (type == Scalar::kFloat32) {
    r = std::to_chars(buffer, buffer + sizeof(buffer), static_cast<float>(v));
  } else if (type == Scalar::kFloat64) {
    r = std::to_chars(buffer, buffer + sizeof(buffer), v);
  } else {
    r = std::to_chars(buffer, buffer + sizeof(buffer), static_cast<uint64_t>(v));
  }
  out.append(buffer, r.ptr);
}

void AppendBinary(std::string& out, double v, Scalar type);

// Column c of point i in binary: float columns straight from storage.
void AppendColumn(std::string& out, const CloudData& cloud, size_t i, const Column& column) {
  if (column.type == Scalar::kFloat32) {
    const float f = StoredFloat(cloud, i, column.value);
    out.append(reinterpret_cast<const char*>(&f), sizeof(f));
  } else {
    AppendBinary(out, ValueOf(cloud, i, column.value), column.type);
  }
}

void AppendBinary(std::string& out, double v, Scalar type) {
  char bytes[8];
  size_t size = 0;
  if (type == Scalar::kFloat32) {
    const float f = static_cast<float>(v);
    std::memcpy(bytes, &f, size = 4);
  } else if (type == Scalar::kFloat64) {
    std::memcpy(bytes, &v, size = 8);
  } else if (type == Scalar::kUint32) {
    const uint32_t u = static_cast<uint32_t>(v);
    std::memcpy(bytes, &u, size = 4);
  } else {
    bytes[0] = static_cast<char>(static_cast<uint8_t>(v));
    size = 1;
  }
  out.append(bytes, size);
}

const char* PlyType(Scalar type) {
  switch (type) {
    case Scalar::kFloat64:
      return "double";
    case Scalar::kUint8:
      return "uchar";
    case Scalar::kUint32:
      return "uint";
    default:
      return "float";
  }
}

// Text rows of every point (PLY ascii, PCD ascii, ASC).
void AppendRows(std::string& out, const CloudData& cloud, const std::vector<Column>& columns) {
  const size_t n = static_cast<size_t>(cloud.size());
  out.reserve(out.size() + n * 12 * columns.size());
  for (size_t i = 0; i < n; ++i) {
    for (size_t c = 0; c < columns.size(); ++c) {
      if (c > 0) out += ' ';
      AppendText(out, ValueOf(cloud, i, columns[c].value), columns[c].type);
    }
    out += '\n';
  }
}

}  // namespace

std::vector<std::string> FieldsLeftOut(const CloudData& cloud, const std::string& format) {
  std::vector<std::string> out;
  const bool text = format == "asc";
  if (format == "las" && !cloud.normals.empty()) out.push_back("normals");
  if (text && !cloud.intensity.empty()) out.push_back("intensity");
  if (text && !cloud.classification.empty()) out.push_back("classification");
  if (text && !cloud.gpsTime.empty()) out.push_back("gps_time");
  if (format != "pcd" && cloud.organized()) out.push_back("organized layout");
  if (format != "pcd" && cloud.hasViewpoint) out.push_back("viewpoint");
  if (text && !cloud.colours.empty() && cloud.normals.empty())
    out.push_back("colour (ASC holds colour only after normals)");
  return out;
}

std::string FormatAsc(const CloudData& cloud) {
  const bool colours = !cloud.colours.empty() && !cloud.normals.empty();
  std::vector<Column> columns = Columns(cloud, false);
  std::vector<Column> kept;
  for (const Column& column : columns) {
    if (column.value <= Value::kNz || (colours && column.value <= Value::kBlue))
      kept.push_back(column);
  }
  std::string out;
  AppendRows(out, cloud, kept);
  return out;
}

std::string FormatPly(const CloudData& cloud, Encoding encoding) {
  const bool ascii = encoding == Encoding::kAscii;
  const size_t n = static_cast<size_t>(cloud.size());
  const std::vector<Column> columns = Columns(cloud, false);
  std::string out = "ply\nformat ";
  out += ascii ? "ascii 1.0\n" : "binary_little_endian 1.0\n";
  out += "comment written by qorv\nelement vertex " + std::to_string(n) + "\n";
  for (const Column& column : columns)
    out += std::string("property ") + PlyType(column.type) + " " + column.ply + "\n";
  out += "end_header\n";
  if (ascii) {
    AppendRows(out, cloud, columns);
    return out;
  }
  out.reserve(out.size() + n * 8 * columns.size());
  for (size_t i = 0; i < n; ++i) {
    for (const Column& column : columns) AppendColumn(out, cloud, i, column);
  }
  return out;
}

std::string FormatPcd(const CloudData& cloud, Encoding encoding) {
  const size_t n = static_cast<size_t>(cloud.size());
  const char* data = encoding == Encoding::kAscii        ? "ascii"
                     : encoding == Encoding::kCompressed ? "binary_compressed"
                                                         : "binary";
  std::vector<Column> columns = Columns(cloud, true);
  std::string fields, sizes, types, counts;
  for (const Column& column : columns) {
    // Binary rgb is the packed bits under a float type, as PCD writers store it; text rgb is the
    // packed integer under an unsigned type, which is how they print it.
    const bool floatRgb = column.value == Value::kRgb && encoding != Encoding::kAscii;
    const int size = ScalarSize(column.type);
    const char type = floatRgb                                                             ? 'F'
                      : column.type == Scalar::kFloat32 || column.type == Scalar::kFloat64 ? 'F'
                                                                                           : 'U';
    fields += std::string(fields.empty() ? "" : " ") + column.pcd;
    sizes += std::string(sizes.empty() ? "" : " ") + std::to_string(size);
    types += std::string(types.empty() ? "" : " ") + type;
    counts += std::string(counts.empty() ? "" : " ") + "1";
  }
  const bool organized = cloud.organized() && static_cast<int64_t>(n) == cloud.width * cloud.height;
  char viewpoint[256];
  std::snprintf(viewpoint,
                sizeof(viewpoint),
                "%.17g %.17g %.17g %.9g %.9g %.9g %.9g",
                cloud.viewpoint[0],
                cloud.viewpoint[1],
                cloud.viewpoint[2],
                cloud.viewpoint[3],
                cloud.viewpoint[4],
                cloud.viewpoint[5],
                cloud.viewpoint[6]);
  std::string out = "# .PCD v0.7 - Point Cloud Data file format\nVERSION 0.7\nFIELDS " + fields +
                    "\nSIZE " + sizes + "\nTYPE " + types + "\nCOUNT " + counts + "\nWIDTH " +
                    std::to_string(organized ? cloud.width : static_cast<int64_t>(n)) +
                    "\nHEIGHT " + std::to_string(organized ? cloud.height : 1) + "\nVIEWPOINT " +
                    (cloud.hasViewpoint ? std::string(viewpoint) : std::string("0 0 0 1 0 0 0")) +
                    "\nPOINTS " + std::to_string(n) + "\nDATA " + data + "\n";
  if (encoding == Encoding::kAscii) {
    AppendRows(out, cloud, columns);
    return out;
  }
  size_t rowBytes = 0;
  for (const Column& column : columns) rowBytes += static_cast<size_t>(ScalarSize(column.type));
  std::string block;
  block.reserve(n * rowBytes);
  if (encoding == Encoding::kCompressed) {
    for (const Column& column : columns) {  // column after column
      for (size_t i = 0; i < n; ++i) AppendColumn(block, cloud, i, column);
    }
  } else {
    for (size_t i = 0; i < n; ++i) {  // point after point
      for (const Column& column : columns) AppendColumn(block, cloud, i, column);
    }
  }
  const size_t raw = block.size();
  if (encoding == Encoding::kCompressed && raw > 0xffffffffull - raw / 16 - 128) {
    throw IoError(IoError::kFile,
                  "the cloud is too large for compressed PCD (4 GiB of data at most)");
  }
  if (encoding != Encoding::kCompressed) return out + block;
  // LZF may not shrink noise: room for the worst case it documents (input + input / 16 + 64).
  std::vector<unsigned char> packed(raw + raw / 16 + 64 + 8);
  const unsigned int size = raw == 0 ? 0
                                     : lzf_compress(block.data(),
                                                    static_cast<unsigned int>(raw),
                                                    packed.data(),
                                                    static_cast<unsigned int>(packed.size()));
  if (raw > 0 && size == 0) throw IoError(IoError::kFile, "compressing the PCD data failed");
  AppendBinary(out, static_cast<double>(size), Scalar::kUint32);
  AppendBinary(out, static_cast<double>(raw), Scalar::kUint32);
  out.append(reinterpret_cast<const char*>(packed.data()), size);
  return out;
}

}  // namespace qorv::io
