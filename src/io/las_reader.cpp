// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/las_reader.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "io/text_fields.hpp"

namespace qorv::io {

const char kLazNotRead[] =
    "it is LAZ (compressed LAS) and no decompressor for it is among the system's packages; "
    "convert it to LAS first (for example: pdal translate in.laz out.las, or laszip -i in.laz -o "
    "out.las)";

namespace {

// Little-endian fields at a byte offset (the caller has checked they lie inside the bytes).
uint64_t Unsigned(const unsigned char* at, int size) {
  uint64_t v = 0;
  for (int i = size; i-- > 0;) v = (v << 8) | at[i];
  return v;
}

int32_t Int32(const unsigned char* at) {
  const uint32_t u = static_cast<uint32_t>(Unsigned(at, 4));
  int32_t v;
  std::memcpy(&v, &u, 4);
  return v;
}

double Float64(const unsigned char* at) {
  const uint64_t u = Unsigned(at, 8);
  double v;
  std::memcpy(&v, &u, 8);
  return v;
}

// Where a point format keeps what we read, in bytes from the start of its record (-1: absent).
struct PointLayout {
  int size;       // the smallest record of the format
  int classByte;  // formats 0-5 share it with flags (low 5 bits); 6-10 give it a byte
  int gpsTime;
  int rgb;
  bool hasNir;
  bool hasWaveform;
};

const PointLayout kLayouts[11] = {
    {20, 15, -1, -1, false, false},  // 0
    {28, 15, 20, -1, false, false},  // 1
    {26, 15, -1, 20, false, false},  // 2
    {34, 15, 20, 28, false, false},  // 3
    {57, 15, 20, -1, false, true},   // 4
    {63, 15, 20, 28, false, true},   // 5
    {30, 16, 22, -1, false, false},  // 6
    {36, 16, 22, 30, false, false},  // 7
    {38, 16, 22, 30, true, false},   // 8
    {59, 16, 22, -1, false, true},   // 9
    {67, 16, 22, 30, true, true},    // 10
};

// The public header's size up to the fields each minor version added (1.3: the waveform start;
// 1.4: the extended records and 64-bit counts).
int HeaderSizeOf(int minor) { return minor >= 4 ? 375 : minor == 3 ? 235 : 227; }

std::string Num(uint64_t v) { return std::to_string(v); }

}  // namespace

CloudData ParseLas(std::string_view bytes, const std::string& path) {
  auto fail = [&](const std::string& what) -> IoError {
    return IoError(IoError::kFormat, "'" + path + "': " + what);
  };
  if (Extension(path) == ".laz") throw fail(kLazNotRead);
  if (bytes.substr(0, 4) != "LASF") {
    const std::string found = Quote(bytes.substr(0, 4));
    throw IoError(IoError::kFormat,
                  "'" + path + "' is not a LAS file: it should start with 'LASF', not " + found);
  }
  const uint64_t fileSize = bytes.size();
  if (fileSize < 227) {
    throw fail("the file ends inside the LAS header (" + Num(fileSize) +
               " bytes; the header alone takes 227)");
  }
  const auto* raw = reinterpret_cast<const unsigned char*>(bytes.data());
  const int major = raw[24], minor = raw[25];
  if (major != 1 || minor > 4) {
    throw fail("unsupported LAS version " + std::to_string(major) + "." + std::to_string(minor) +
               " (1.0 to 1.4 are read)");
  }
  const int formatByte = raw[104];
  // LAZ writers mark the point format with bit 7 (bit 6 in some older ones).
  if ((formatByte & 0xc0) != 0) throw fail(kLazNotRead);
  if (formatByte > 10) {
    throw fail("unknown LAS point format " + std::to_string(formatByte) + " (0 to 10 are read)");
  }
  const PointLayout& layout = kLayouts[formatByte];

  const uint64_t headerSize = Unsigned(raw + 94, 2);
  const uint64_t dataOffset = Unsigned(raw + 96, 4);
  const uint64_t recordLength = Unsigned(raw + 105, 2);
  const int needHeader = HeaderSizeOf(minor);
  if (headerSize < static_cast<uint64_t>(needHeader)) {
    throw fail("LAS " + std::to_string(major) + "." + std::to_string(minor) + " header size is " +
               Num(headerSize) + " bytes, smaller than the version's " +
               std::to_string(needHeader));
  }
  if (headerSize > fileSize) {
    throw fail("the LAS header size is " + Num(headerSize) + " bytes but the file holds " +
               Num(fileSize));
  }
  if (dataOffset < headerSize || dataOffset > fileSize) {
    throw fail("the offset to the point data is " + Num(dataOffset) +
               (dataOffset < headerSize
                    ? ", inside the header of " + Num(headerSize) + " bytes"
                    : ", past the end of the file of " + Num(fileSize) + " bytes"));
  }
  if (recordLength < static_cast<uint64_t>(layout.size)) {
    throw fail("the point record length is " + Num(recordLength) + " bytes, less than the " +
               std::to_string(layout.size) + " that point format " + std::to_string(formatByte) +
               " needs");
  }
  // 1.4 keeps the count in 64 bits; its legacy 32-bit count may be 0 (formats 6-10, or more
  // points than 32 bits hold).
  uint64_t count = Unsigned(raw + 107, 4);
  if (minor >= 4) {
    const uint64_t wide = Unsigned(raw + 247, 8);
    if (wide != 0) count = wide;
  }
  if (count == 0) {
    throw IoError(IoError::kFormat, "'" + path + "' holds no point (its LAS header counts 0)");
  }
  if (count > (fileSize - dataOffset) / recordLength) {
    throw fail("the LAS header says " + Num(count) + " points of " + Num(recordLength) +
               " bytes from byte " + Num(dataOffset) + ", but the file holds only " +
               Num(fileSize) + " bytes (room for " + Num((fileSize - dataOffset) / recordLength) +
               " points)");
  }
  if (count > static_cast<uint64_t>(kMaxPoints)) {
    throw IoError(IoError::kFormat,
                  "'" + path + "' holds " + Num(count) + " points, more than supported (" +
                      Num(kMaxPoints) + ")");
  }

  CloudData cloud;
  cloud.hasLasQuantum = true;
  static const char* kAxes = "XYZ";
  for (int c = 0; c < 3; ++c) {
    cloud.lasScale[c] = Float64(raw + 131 + 8 * c);
    cloud.lasOffset[c] = Float64(raw + 155 + 8 * c);
    if (!std::isfinite(cloud.lasScale[c]) || cloud.lasScale[c] == 0.0) {
      throw fail(std::string("the LAS ") + kAxes[c] + " scale is " +
                 std::to_string(cloud.lasScale[c]) + " (it should be a finite non-zero number)");
    }
    if (!std::isfinite(cloud.lasOffset[c])) {
      throw fail(std::string("the LAS ") + kAxes[c] + " offset is " +
                 std::to_string(cloud.lasOffset[c]) + " (it should be a finite number)");
    }
  }

  const size_t n = static_cast<size_t>(count);
  const size_t stride = static_cast<size_t>(recordLength);
  const unsigned char* data = raw + dataOffset;
  cloud.points.resize(3 * n);
  cloud.intensity.resize(n);
  cloud.classification.resize(n);
  if (layout.gpsTime >= 0) cloud.gpsTime.resize(n);
  // Colours are 16-bit in the file, but many writers store 8-bit values in them unscaled: a file
  // whose every colour value is at most 255 holds 8-bit colours, taken as they are; any other
  // file's are scaled down to 8 bits (value >> 8).
  int colourShift = 0;
  if (layout.rgb >= 0) {
    cloud.colours.resize(3 * n);
    uint64_t brightest = 0;
    for (size_t i = 0; i < n && brightest <= 255; ++i) {
      for (int c = 0; c < 3; ++c) {
        brightest = std::max(brightest, Unsigned(data + i * stride + layout.rgb + 2 * c, 2));
      }
    }
    colourShift = brightest > 255 ? 8 : 0;
  }
  for (size_t i = 0; i < n; ++i) {
    const unsigned char* record = data + i * stride;
    double v[3];
    for (int c = 0; c < 3; ++c) {
      v[c] = static_cast<double>(Int32(record + 4 * c)) * cloud.lasScale[c] + cloud.lasOffset[c];
    }
    cloud.setPoint(i, v[0], v[1], v[2]);
    cloud.intensity[i] = static_cast<float>(Unsigned(record + 12, 2));
    const uint8_t classByte = record[layout.classByte];
    cloud.classification[i] = formatByte <= 5 ? classByte & 0x1f : classByte;
    if (layout.gpsTime >= 0) cloud.gpsTime[i] = Float64(record + layout.gpsTime);
    for (int c = 0; layout.rgb >= 0 && c < 3; ++c) {
      cloud.colours[3 * i + static_cast<size_t>(c)] =
          static_cast<uint8_t>(Unsigned(record + layout.rgb + 2 * c, 2) >> colourShift);
    }
  }

  cloud.width = static_cast<int64_t>(count);
  cloud.height = 1;
  cloud.format = "las " + std::to_string(major) + "." + std::to_string(minor) + " (point format " +
                 std::to_string(formatByte) + ")";
  cloud.fields = {"x", "y", "z", "intensity", "return_number", "number_of_returns"};
  if (formatByte >= 6) cloud.fields.insert(cloud.fields.end(), {"classification_flags"});
  cloud.fields.insert(cloud.fields.end(),
                      {"classification", "scan_angle", "user_data", "point_source_id"});
  if (layout.gpsTime >= 0) cloud.fields.push_back("gps_time");
  if (layout.rgb >= 0) cloud.fields.insert(cloud.fields.end(), {"red", "green", "blue"});
  if (layout.hasNir) cloud.fields.push_back("nir");
  if (layout.hasWaveform) cloud.fields.push_back("wave_packet");
  if (recordLength > static_cast<uint64_t>(layout.size)) cloud.fields.push_back("extra_bytes");
  cloud.countNonFinite();
  return cloud;
}

}  // namespace qorv::io
