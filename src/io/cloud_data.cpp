// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/cloud_data.hpp"

#include <cmath>

namespace qorv::io {
namespace {

bool Finite(const float* p) {
  return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

}  // namespace

void CloudData::countNonFinite() {
  nonFinite = 0;
  for (int64_t i = 0; i < size(); ++i) nonFinite += !Finite(&points[3 * static_cast<size_t>(i)]);
}

void CloudData::keepFinite() {
  countNonFinite();
  if (organized()) {
    fileWidth = width;
    fileHeight = height;
  }
  const int64_t n = size();
  size_t kept = 0;
  for (int64_t i = 0; i < n; ++i) {
    const size_t from = static_cast<size_t>(i);
    if (!Finite(&points[3 * from])) continue;
    for (size_t c = 0; c < 3; ++c) {
      points[3 * kept + c] = points[3 * from + c];
      if (!normals.empty()) normals[3 * kept + c] = normals[3 * from + c];
      if (!colours.empty()) colours[3 * kept + c] = colours[3 * from + c];
    }
    if (!intensity.empty()) intensity[kept] = intensity[from];
    if (!classification.empty()) classification[kept] = classification[from];
    if (!gpsTime.empty()) gpsTime[kept] = gpsTime[from];
    ++kept;
  }
  points.resize(3 * kept);
  if (!normals.empty()) normals.resize(3 * kept);
  if (!colours.empty()) colours.resize(3 * kept);
  if (!intensity.empty()) intensity.resize(kept);
  if (!classification.empty()) classification.resize(kept);
  if (!gpsTime.empty()) gpsTime.resize(kept);
  width = static_cast<int64_t>(kept);
  height = 1;
}

void CloudData::setPoint(size_t i, double x, double y, double z) {
  const double v[3] = {x, y, z};
  for (size_t c = 0; c < 3; ++c) {
    if (origin[c] == 0.0 && std::isfinite(v[c]) && std::fabs(v[c]) >= kLargeCoordinate) {
      origin[c] = std::round(v[c]);
      // The points before it are small on this axis: moving them loses nothing they had.
      for (size_t k = 0; k < i; ++k) {
        float& p = points[3 * k + c];
        p = static_cast<float>(static_cast<double>(p) - origin[c]);
      }
    }
    points[3 * i + c] = static_cast<float>(origin[c] == 0.0 ? v[c] : v[c] - origin[c]);
  }
}

void CloudData::position(size_t i, double out[3]) const {
  for (size_t c = 0; c < 3; ++c) {
    out[c] = points[3 * i + c];
    if (origin[c] != 0.0) out[c] += origin[c];  // -0 stays -0
  }
}

}  // namespace qorv::io
