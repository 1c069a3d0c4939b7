// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/las_writer.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <limits>
#include <vector>

namespace qorv::io {
namespace {

// Little-endian fields, whatever the machine.
void PutUnsigned(std::string& out, uint64_t v, int size) {
  for (int i = 0; i < size; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}

void PutDouble(std::string& out, double v) {
  uint64_t bits;
  std::memcpy(&bits, &v, 8);
  PutUnsigned(out, bits, 8);
}

void PutText(std::string& out, const std::string& text, size_t size) {
  std::string field = text.substr(0, size);
  field.resize(size, '\0');
  out += field;
}

constexpr double kFineScale = 0.0001;
constexpr double kCoarseScale = 0.001;

// Whether every offset from `offset`, at most `reach` away, is a whole int32 number of `scale`.
bool Fits(double reach, double scale) {
  return reach / std::fabs(scale) < static_cast<double>(std::numeric_limits<int32_t>::max());
}

}  // namespace

std::string FormatLas(const CloudData& cloud) {
  const size_t total = static_cast<size_t>(cloud.size());
  std::vector<size_t> kept;
  kept.reserve(total);
  double low[3], high[3];
  for (int c = 0; c < 3; ++c) {
    low[c] = std::numeric_limits<double>::infinity();
    high[c] = -low[c];
  }
  for (size_t i = 0; i < total; ++i) {
    double p[3];
    cloud.position(i, p);
    if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) continue;
    kept.push_back(i);
    for (int c = 0; c < 3; ++c) {
      low[c] = std::min(low[c], p[c]);
      high[c] = std::max(high[c], p[c]);
    }
  }
  if (kept.empty()) throw IoError(IoError::kFile, "no point with finite coordinates to write");

  double scale[3], offset[3];
  static const char* kAxes = "xyz";
  for (int c = 0; c < 3; ++c) {
    if (cloud.hasLasQuantum) {
      scale[c] = cloud.lasScale[c];
      offset[c] = cloud.lasOffset[c];
    } else {
      offset[c] = cloud.hasOrigin() ? cloud.origin[c] : std::round(low[c]);
    }
    const double reach = std::max(std::fabs(low[c] - offset[c]), std::fabs(high[c] - offset[c]));
    if (!cloud.hasLasQuantum) scale[c] = Fits(reach, kFineScale) ? kFineScale : kCoarseScale;
    if (!std::isfinite(scale[c]) || scale[c] == 0.0 || !Fits(reach, scale[c])) {
      throw IoError(IoError::kFile,
                    std::string("the cloud's ") + kAxes[c] + " coordinates reach " +
                        std::to_string(reach) + " from the LAS offset " +
                        std::to_string(offset[c]) + ", which 32-bit integers at scale " +
                        std::to_string(scale[c]) + " cannot hold");
    }
  }

  const bool colours = !cloud.colours.empty(), gpsTime = !cloud.gpsTime.empty(),
             intensity = !cloud.intensity.empty(), classes = !cloud.classification.empty();
  // Formats 0-3 keep the class in 5 bits; a larger class needs 1.4's byte of its own.
  const bool wide =
      classes && *std::max_element(cloud.classification.begin(), cloud.classification.end()) > 31;
  const int format = wide ? (colours ? 7 : 6) : (gpsTime ? 1 : 0) + (colours ? 2 : 0);
  static const int kRecordLength[8] = {20, 28, 26, 34, 0, 0, 30, 36};
  const int recordLength = kRecordLength[format];
  const int headerSize = wide ? 375 : 227;
  const uint64_t n = kept.size();

  // The points first: the header's bounds are those of the quantised coordinates.
  std::string points;
  points.reserve(n * static_cast<size_t>(recordLength));
  int64_t qLow[3], qHigh[3];
  for (int c = 0; c < 3; ++c) {
    qLow[c] = std::numeric_limits<int64_t>::max();
    qHigh[c] = std::numeric_limits<int64_t>::min();
  }
  for (size_t i : kept) {
    double p[3];
    cloud.position(i, p);
    for (int c = 0; c < 3; ++c) {
      const int64_t q = std::llround((p[c] - offset[c]) / scale[c]);
      qLow[c] = std::min(qLow[c], q);
      qHigh[c] = std::max(qHigh[c], q);
      PutUnsigned(points, static_cast<uint32_t>(static_cast<int32_t>(q)), 4);
    }
    const float level = intensity ? cloud.intensity[i] : 0.0f;
    PutUnsigned(points,
                level >= 0.0f ? static_cast<uint64_t>(std::lround(std::min(level, 65535.0f))) : 0,
                2);
    const uint8_t cls = classes ? cloud.classification[i] : 0;
    if (wide) {
      PutUnsigned(points, 0x11, 1);  // return 1 of 1
      PutUnsigned(points, 0, 1);     // flags, scanner channel, scan direction, edge of flight
      PutUnsigned(points, cls, 1);
      PutUnsigned(points, 0, 1);  // user data
      PutUnsigned(points, 0, 2);  // scan angle
      PutUnsigned(points, 0, 2);  // point source
      PutDouble(points, gpsTime ? cloud.gpsTime[i] : 0.0);
    } else {
      PutUnsigned(points, 0x09, 1);  // return 1 of 1
      PutUnsigned(points, cls, 1);
      PutUnsigned(points, 0, 1);  // scan angle rank
      PutUnsigned(points, 0, 1);  // user data
      PutUnsigned(points, 0, 2);  // point source
      if (gpsTime) PutDouble(points, cloud.gpsTime[i]);
    }
    for (int c = 0; colours && c < 3; ++c)
      PutUnsigned(points, 257u * cloud.colours[3 * i + static_cast<size_t>(c)], 2);
  }

  std::string out;
  out.reserve(static_cast<size_t>(headerSize) + points.size());
  out += "LASF";
  PutUnsigned(out, 0, 2);                // file source
  PutUnsigned(out, wide ? 0x10 : 0, 2);  // 1.4 formats 6+ describe their CRS as WKT
  PutText(out, "", 16);                  // project GUID
  PutUnsigned(out, 1, 1);
  PutUnsigned(out, wide ? 4 : 2, 1);
  PutText(out, "Qorv", 32);
  PutText(out, std::string("qorv ") + QORV_VERSION_TEXT, 32);
  const std::time_t now = std::time(nullptr);
  std::tm day{};
  gmtime_r(&now, &day);
  PutUnsigned(out, static_cast<uint64_t>(day.tm_yday + 1), 2);
  PutUnsigned(out, static_cast<uint64_t>(day.tm_year + 1900), 2);
  PutUnsigned(out, static_cast<uint64_t>(headerSize), 2);
  PutUnsigned(out, static_cast<uint64_t>(headerSize), 4);  // the points follow, no VLR between
  PutUnsigned(out, 0, 4);
  PutUnsigned(out, static_cast<uint64_t>(format), 1);
  PutUnsigned(out, static_cast<uint64_t>(recordLength), 2);
  // 1.4's formats 6-10 leave the 32-bit counts at 0 and give the 64-bit ones.
  PutUnsigned(out, wide ? 0 : n, 4);
  PutUnsigned(out, wide ? 0 : n, 4);  // every point is a first return
  for (int r = 1; r < 5; ++r) PutUnsigned(out, 0, 4);
  for (int c = 0; c < 3; ++c) PutDouble(out, scale[c]);
  for (int c = 0; c < 3; ++c) PutDouble(out, offset[c]);
  for (int c = 0; c < 3; ++c) {
    const double a = static_cast<double>(qLow[c]) * scale[c] + offset[c];
    const double b = static_cast<double>(qHigh[c]) * scale[c] + offset[c];
    PutDouble(out, std::max(a, b));  // a file's own scale may be negative
    PutDouble(out, std::min(a, b));
  }
  if (wide) {
    PutUnsigned(out, 0, 8);  // waveform data
    PutUnsigned(out, 0, 8);  // first extended record
    PutUnsigned(out, 0, 4);  // extended records
    PutUnsigned(out, n, 8);
    PutUnsigned(out, n, 8);
    for (int r = 1; r < 15; ++r) PutUnsigned(out, 0, 8);
  }
  out += points;
  return out;
}

}  // namespace qorv::io
