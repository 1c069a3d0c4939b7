// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "rigid.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "geometry/axis_angle.hpp"
#include "session.hpp"

namespace qorv::tools {

Rigid Rigid::FromMatrix3x4(const double* m) {
  Rigid out;
  for (int row = 0; row < 3; ++row) {
    for (int col = 0; col < 3; ++col) out.r[3 * row + col] = m[4 * row + col];
    out.t[row] = m[4 * row + 3];
  }
  return out;
}

std::array<double, 12> Rigid::matrix3x4() const {
  std::array<double, 12> m{};
  for (int row = 0; row < 3; ++row) {
    for (int col = 0; col < 3; ++col) m[4 * row + col] = r[3 * row + col];
    m[4 * row + 3] = t[row];
  }
  return m;
}

std::array<double, 12> Rigid::transformLayout() const {
  std::array<double, 12> m{};
  std::copy(r.begin(), r.end(), m.begin());
  std::copy(t.begin(), t.end(), m.begin() + 9);
  return m;
}

Rigid Rigid::FromAxisAngle(const std::array<double, 3>& axis,
                           double angleRadians,
                           const std::array<double, 3>& translation) {
  Rigid out;
  out.r = AxisAngleRotation(axis.data(), angleRadians);
  out.t = translation;
  return out;
}

Rigid Rigid::inverse() const {
  Rigid out;
  for (int row = 0; row < 3; ++row) {
    for (int col = 0; col < 3; ++col) out.r[3 * row + col] = r[3 * col + row];
  }
  for (int row = 0; row < 3; ++row) {
    out.t[row] = -(out.r[3 * row] * t[0] + out.r[3 * row + 1] * t[1] + out.r[3 * row + 2] * t[2]);
  }
  return out;
}

Rigid Rigid::operator*(const Rigid& other) const {
  Rigid out;
  for (int row = 0; row < 3; ++row) {
    for (int col = 0; col < 3; ++col) {
      double sum = 0.0;
      for (int k = 0; k < 3; ++k) sum += r[3 * row + k] * other.r[3 * k + col];
      out.r[3 * row + col] = sum;
    }
    out.t[row] = r[3 * row] * other.t[0] + r[3 * row + 1] * other.t[1] +
                 r[3 * row + 2] * other.t[2] + t[row];
  }
  return out;
}

std::array<double, 3> Rigid::apply(const float* p) const {
  std::array<double, 3> out{};
  for (int row = 0; row < 3; ++row) {
    out[row] = r[3 * row] * p[0] + r[3 * row + 1] * p[1] + r[3 * row + 2] * p[2] + t[row];
  }
  return out;
}

double Rigid::rotationAngleDegrees() const {
  const double cosine = std::clamp((r[0] + r[4] + r[8] - 1.0) / 2.0, -1.0, 1.0);
  return std::acos(cosine) * 180.0 / 3.14159265358979323846;
}

Rigid ParseMatrix(const std::string& text) {
  std::vector<double> values;
  const char* at = text.c_str();
  while (*at != '\0') {
    if (*at == ',' || *at == ';' || *at == '[' || *at == ']' || std::isspace(*at)) {
      ++at;
      continue;
    }
    char* end = nullptr;
    const double v = std::strtod(at, &end);
    if (end == at || !std::isfinite(v)) {
      throw ToolError("bad matrix value near '" + std::string(at).substr(0, 16) + "'", 2);
    }
    values.push_back(v);
    at = end;
  }
  if (values.size() == 16) {
    if (values[12] != 0 || values[13] != 0 || values[14] != 0 || values[15] != 1) {
      throw ToolError("a 4 x 4 matrix must end with the row 0 0 0 1", 2);
    }
    values.resize(12);
  }
  if (values.size() != 12) {
    throw ToolError("a matrix needs 12 numbers (3 x 4 [R | t]) or 16 (4 x 4), got " +
                        std::to_string(values.size()),
                    2);
  }
  return Rigid::FromMatrix3x4(values.data());
}

std::vector<float> Apply(const Rigid& motion, const std::vector<float>& points) {
  std::vector<float> out(points.size());
  for (size_t i = 0; i + 2 < points.size(); i += 3) {
    const std::array<double, 3> q = motion.apply(&points[i]);
    for (int c = 0; c < 3; ++c) out[i + c] = static_cast<float>(q[c]);
  }
  return out;
}

Rigid MatrixArgument(const std::string& value) {
  const std::string path = !value.empty() && value[0] == '@' ? value.substr(1) : value;
  std::error_code ignored;
  if (value[0] == '@' || std::filesystem::is_regular_file(path, ignored)) {
    std::ifstream in(path);
    if (!in) throw ToolError("cannot open matrix file '" + path + "'");
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    try {
      return ParseMatrix(text);
    } catch (const ToolError& e) {
      throw ToolError("matrix file '" + path + "': " + e.what());
    }
  }
  return ParseMatrix(value);
}

Rigid Rigid::between(const double* from, const double* to) const {
  Rigid out = *this;
  for (int row = 0; row < 3; ++row) {
    double shift = t[static_cast<size_t>(row)] - to[row];
    for (int c = 0; c < 3; ++c) shift += r[static_cast<size_t>(3 * row + c)] * from[c];
    out.t[static_cast<size_t>(row)] = shift;
  }
  return out;
}

}  // namespace qorv::tools
