// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <array>
#include <string>
#include <vector>

namespace qorv::tools {

// A rigid motion p -> R p + t in double precision.
struct Rigid {
  std::array<double, 9> r{1, 0, 0, 0, 1, 0, 0, 0, 1};  // row after row
  std::array<double, 3> t{0, 0, 0};

  // From / to the 3 x 4 [R | t] layout of the registration exports (translation at 3, 7, 11).
  static Rigid FromMatrix3x4(const double* m);
  std::array<double, 12> matrix3x4() const;
  // The layout QorvTransformPoints takes: nine rotation values, then tx, ty, tz.
  std::array<double, 12> transformLayout() const;

  // Rotation of `angleRadians` about `axis` (normalised here) followed by translation t.
  static Rigid FromAxisAngle(const std::array<double, 3>& axis,
                             double angleRadians,
                             const std::array<double, 3>& translation);

  Rigid inverse() const;
  // The same motion on points kept relative to origins: it takes a point relative to `from` to
  // the moved point relative to `to` (p -> R (p + from) + t - to).
  Rigid between(const double* from, const double* to) const;
  Rigid operator*(const Rigid& other) const;  // this after other
  std::array<double, 3> apply(const float* p) const;
  double rotationAngleDegrees() const;  // angle of R
};

// Parses 12 numbers (3 x 4 [R | t]) or 16 numbers (4 x 4, last row 0 0 0 1) separated by
// commas, spaces or line breaks. Throws ToolError on anything else.
Rigid ParseMatrix(const std::string& text);

// A matrix option's value: the numbers themselves, or a file holding them (its path, or @path).
Rigid MatrixArgument(const std::string& value);

// R p + t applied to packed points (in double, rounded to float), for checks and rendering.
std::vector<float> Apply(const Rigid& motion, const std::vector<float>& points);

}  // namespace qorv::tools
