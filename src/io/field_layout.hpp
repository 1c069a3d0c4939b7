// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "io/cloud_data.hpp"
#include "io/text_fields.hpp"

namespace qorv::io {

// A value as a byte: rounded, clamped to 0-255 (NaN: 0).
uint8_t ClampByte(double v);

// Where the attributes the cloud keeps sit among a point's values (-1: absent).
struct FieldSlots {
  int xyz[3] = {-1, -1, -1};
  int normal[3] = {-1, -1, -1};
  int colour[3] = {-1, -1, -1};
  bool colourIsUnit = false;  // float colours in [0, 1]
  int packedRgb = -1;         // PCD rgb / rgba: 0x00RRGGBB in the bits of a 4-byte value
  int intensity = -1;
  int classification = -1;
  int gpsTime = -1;

  bool hasXyz() const { return xyz[0] >= 0 && xyz[1] >= 0 && xyz[2] >= 0; }
  bool hasNormals() const { return normal[0] >= 0 && normal[1] >= 0 && normal[2] >= 0; }
  bool hasColours() const {
    return (colour[0] >= 0 && colour[1] >= 0 && colour[2] >= 0) || packedRgb >= 0;
  }

  // Sizes the cloud's arrays for count points.
  void reserve(CloudData& cloud, int64_t count) const;
  // Stores point i from its decoded values (packed colours as the raw 32 bits in a double).
  void store(CloudData& cloud, size_t i, const double* values) const;
};

}  // namespace qorv::io
