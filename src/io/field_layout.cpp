// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/field_layout.hpp"

#include <algorithm>
#include <cmath>

namespace qorv::io {
uint8_t ClampByte(double v) {
  if (!(v > 0.0)) return 0;
  return static_cast<uint8_t>(std::min(std::round(v), 255.0));
}

void FieldSlots::reserve(CloudData& cloud, int64_t count) const {
  const size_t n = static_cast<size_t>(count);
  cloud.points.assign(3 * n, 0.0f);
  if (hasNormals()) cloud.normals.assign(3 * n, 0.0f);
  if (hasColours()) cloud.colours.assign(3 * n, 0);
  if (intensity >= 0) cloud.intensity.assign(n, 0.0f);
  if (classification >= 0) cloud.classification.assign(n, 0);
  if (gpsTime >= 0) cloud.gpsTime.assign(n, 0.0);
}

void FieldSlots::store(CloudData& cloud, size_t i, const double* values) const {
  cloud.setPoint(i, values[xyz[0]], values[xyz[1]], values[xyz[2]]);
  if (!cloud.normals.empty()) {
    for (int c = 0; c < 3; ++c) {
      cloud.normals[3 * i + static_cast<size_t>(c)] = static_cast<float>(values[normal[c]]);
    }
  }
  if (!cloud.colours.empty()) {
    if (packedRgb >= 0) {
      const auto bits = static_cast<uint32_t>(values[packedRgb]);
      cloud.colours[3 * i] = static_cast<uint8_t>((bits >> 16) & 0xff);
      cloud.colours[3 * i + 1] = static_cast<uint8_t>((bits >> 8) & 0xff);
      cloud.colours[3 * i + 2] = static_cast<uint8_t>(bits & 0xff);
    } else {
      for (int c = 0; c < 3; ++c) {
        const double v = values[colour[c]];
        cloud.colours[3 * i + static_cast<size_t>(c)] = ClampByte(colourIsUnit ? 255.0 * v : v);
      }
    }
  }
  if (!cloud.intensity.empty()) cloud.intensity[i] = static_cast<float>(values[intensity]);
  if (!cloud.classification.empty())
    cloud.classification[i] = ClampByte(values[classification]);  // a byte, clamped alike
  if (!cloud.gpsTime.empty()) cloud.gpsTime[i] = values[gpsTime];
}

}  // namespace qorv::io
