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
    ++kept;
  }
  points.resize(3 * kept);
  if (!normals.empty()) normals.resize(3 * kept);
  if (!colours.empty()) colours.resize(3 * kept);
  if (!intensity.empty()) intensity.resize(kept);
  width = static_cast<int64_t>(kept);
  height = 1;
}

}  // namespace qorv::io
