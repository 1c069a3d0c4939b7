// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/cloud_writers.hpp"

#include <cstdio>
#include <cstring>
#include <vector>

#include <lzf.h>

namespace qorv::io {
namespace {

// Shortest text that reads back as the same float.
void AppendFloat(std::string& out, float v) {
  char buffer[32];
  std::snprintf(buffer, sizeof(buffer), "%.9g", static_cast<double>(v));
  out += buffer;
}

template <typename T>
void AppendBinary(std::string& out, T v) {
  char bytes[sizeof(T)];
  std::memcpy(bytes, &v, sizeof(T));
  out.append(bytes, sizeof(T));
}

uint32_t PackedRgb(const uint8_t* c) {
  return (static_cast<uint32_t>(c[0]) << 16) | (static_cast<uint32_t>(c[1]) << 8) | c[2];
}

}  // namespace

std::string FormatPly(const CloudData& cloud, Encoding encoding) {
  const bool ascii = encoding == Encoding::kAscii;
  const size_t n = static_cast<size_t>(cloud.size());
  const bool normals = !cloud.normals.empty(), colours = !cloud.colours.empty(),
             intensity = !cloud.intensity.empty();
  std::string out = "ply\nformat ";
  out += ascii ? "ascii 1.0\n" : "binary_little_endian 1.0\n";
  out += "comment written by qorv\nelement vertex " + std::to_string(n) + "\n";
  out += "property float x\nproperty float y\nproperty float z\n";
  if (normals) out += "property float nx\nproperty float ny\nproperty float nz\n";
  if (colours) out += "property uchar red\nproperty uchar green\nproperty uchar blue\n";
  if (intensity) out += "property float intensity\n";
  out += "end_header\n";
  out.reserve(out.size() + n * (ascii ? 40 : 28));
  for (size_t i = 0; i < n; ++i) {
    if (ascii) {
      for (size_t c = 0; c < 3; ++c) {
        if (c > 0) out += ' ';
        AppendFloat(out, cloud.points[3 * i + c]);
      }
      for (size_t c = 0; normals && c < 3; ++c) {
        out += ' ';
        AppendFloat(out, cloud.normals[3 * i + c]);
      }
      for (size_t c = 0; colours && c < 3; ++c)
        out += ' ' + std::to_string(cloud.colours[3 * i + c]);
      if (intensity) {
        out += ' ';
        AppendFloat(out, cloud.intensity[i]);
      }
      out += '\n';
    } else {
      out.append(reinterpret_cast<const char*>(&cloud.points[3 * i]), 12);
      if (normals) out.append(reinterpret_cast<const char*>(&cloud.normals[3 * i]), 12);
      if (colours) out.append(reinterpret_cast<const char*>(&cloud.colours[3 * i]), 3);
      if (intensity) AppendBinary(out, cloud.intensity[i]);
    }
  }
  return out;
}

std::string FormatPcd(const CloudData& cloud, Encoding encoding) {
  const size_t n = static_cast<size_t>(cloud.size());
  const bool normals = !cloud.normals.empty(), colours = !cloud.colours.empty(),
             intensity = !cloud.intensity.empty();
  const char* data = encoding == Encoding::kAscii        ? "ascii"
                     : encoding == Encoding::kCompressed ? "binary_compressed"
                                                         : "binary";
  std::string fields = "x y z", sizes = "4 4 4", types = "F F F", counts = "1 1 1";
  int columns = 3;
  if (normals) {
    fields += " normal_x normal_y normal_z", sizes += " 4 4 4", types += " F F F",
        counts += " 1 1 1";
    columns += 3;
  }
  if (colours) fields += " rgb", sizes += " 4", types += " F", counts += " 1", ++columns;
  if (intensity) fields += " intensity", sizes += " 4", types += " F", counts += " 1", ++columns;
  const bool organized = cloud.organized() && static_cast<int64_t>(n) == cloud.width * cloud.height;
  char viewpoint[256];
  std::snprintf(viewpoint,
                sizeof(viewpoint),
                "%.9g %.9g %.9g %.9g %.9g %.9g %.9g",
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
  // Column c of point i, as the float the file stores.
  auto value = [&](size_t i, int c) -> float {
    if (c < 3) return cloud.points[3 * i + static_cast<size_t>(c)];
    int k = c - 3;
    if (normals) {
      if (k < 3) return cloud.normals[3 * i + static_cast<size_t>(k)];
      k -= 3;
    }
    if (colours) {
      if (k == 0) {
        const uint32_t bits = PackedRgb(&cloud.colours[3 * i]);
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
      }
      --k;
    }
    return cloud.intensity[i];
  };
  if (encoding == Encoding::kAscii) {
    for (size_t i = 0; i < n; ++i) {
      for (int c = 0; c < columns; ++c) {
        if (c > 0) out += ' ';
        const bool rgb = colours && c == (normals ? 6 : 3);
        if (rgb) {
          out += std::to_string(PackedRgb(&cloud.colours[3 * i]));  // the integer form
        } else {
          AppendFloat(out, value(i, c));
        }
      }
      out += '\n';
    }
    return out;
  }
  std::vector<float> block(n * static_cast<size_t>(columns));
  for (size_t i = 0; i < n; ++i) {
    for (int c = 0; c < columns; ++c) {
      // binary: point after point; compressed: column after column.
      const size_t at = encoding == Encoding::kCompressed
                            ? static_cast<size_t>(c) * n + i
                            : i * static_cast<size_t>(columns) + static_cast<size_t>(c);
      block[at] = value(i, c);
    }
  }
  const size_t raw = block.size() * sizeof(float);
  if (encoding == Encoding::kCompressed && raw > 0xffffffffull - raw / 16 - 128) {
    throw IoError(IoError::kFile,
                  "the cloud is too large for compressed PCD (4 GiB of data at most)");
  }
  if (encoding != Encoding::kCompressed) {
    out.append(reinterpret_cast<const char*>(block.data()), raw);
    return out;
  }
  // LZF may not shrink noise: room for the worst case it documents (input + input / 16 + 64).
  std::vector<unsigned char> packed(raw + raw / 16 + 64 + 8);
  const unsigned int size = raw == 0 ? 0
                                     : lzf_compress(block.data(),
                                                    static_cast<unsigned int>(raw),
                                                    packed.data(),
                                                    static_cast<unsigned int>(packed.size()));
  if (raw > 0 && size == 0) throw IoError(IoError::kFile, "compressing the PCD data failed");
  AppendBinary(out, static_cast<uint32_t>(size));
  AppendBinary(out, static_cast<uint32_t>(raw));
  out.append(reinterpret_cast<const char*>(packed.data()), size);
  return out;
}

}  // namespace qorv::io
