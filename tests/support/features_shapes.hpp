// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "geometry/axis_angle.hpp"

// Synthetic clouds with known key points and analytic normals, for the key-point and descriptor
// tests.
namespace qorv::test {

struct OrientedCloud {
  std::vector<float> points;
  std::vector<float> normals;

  int32_t count() const { return static_cast<int32_t>(points.size() / 3); }
  void add(float x, float y, float z, float nx, float ny, float nz) {
    points.insert(points.end(), {x, y, z});
    normals.insert(normals.end(), {nx, ny, nz});
  }
};

// The surface of the unit cube [0, 1]^3 sampled on a grid of spacing 1/n; outward normals (a
// face's own at edges and corners).
inline OrientedCloud BoxSurface(int n) {
  OrientedCloud cloud;
  const float h = 1.0f / static_cast<float>(n);
  for (int i = 0; i <= n; ++i) {
    for (int j = 0; j <= n; ++j) {
      for (int k = 0; k <= n; ++k) {
        float nx = 0.0f, ny = 0.0f, nz = 0.0f;
        if (i == 0 || i == n) {
          nx = i == 0 ? -1.0f : 1.0f;
        } else if (j == 0 || j == n) {
          ny = j == 0 ? -1.0f : 1.0f;
        } else if (k == 0 || k == n) {
          nz = k == 0 ? -1.0f : 1.0f;
        } else {
          continue;
        }
        cloud.add(static_cast<float>(i) * h,
                  static_cast<float>(j) * h,
                  static_cast<float>(k) * h,
                  nx,
                  ny,
                  nz);
      }
    }
  }
  return cloud;
}

// The lateral surface of an open cone with its apex at the origin, axis +z, radius 0.7 z, in rings
// of spacing 0.02 (ring r holds 6 r points); the apex is point 0.
inline OrientedCloud OpenCone(int rings) {
  OrientedCloud cloud;
  const float slope = 0.7f;
  const float norm = std::sqrt(1.0f + slope * slope);
  cloud.add(0.0f, 0.0f, 0.0f, 0.0f, 0.0f, -1.0f);
  for (int r = 1; r <= rings; ++r) {
    const float z = static_cast<float>(r) * 0.02f;
    const int m = 6 * r;
    for (int a = 0; a < m; ++a) {
      const float t = 6.2831853f * static_cast<float>(a) / static_cast<float>(m);
      const float c = std::cos(t), s = std::sin(t);
      cloud.add(slope * z * c, slope * z * s, z, c / norm, s / norm, -slope / norm);
    }
  }
  return cloud;
}

// A smooth height field z = 0.15 sin(3x) cos(2y) over [0, nx h) x [0, ny h), jittered grid of
// spacing h (deterministic), unit normals from the analytic gradient.
inline OrientedCloud WavySurface(int nx, int ny, float h) {
  OrientedCloud cloud;
  uint32_t state = 12345u;
  auto jitter = [&state]() {
    state = state * 1664525u + 1013904223u;
    return (static_cast<float>(state >> 8) / 16777216.0f - 0.5f) * 0.4f;
  };
  for (int i = 0; i < nx; ++i) {
    for (int j = 0; j < ny; ++j) {
      const float x = (static_cast<float>(i) + jitter()) * h;
      const float y = (static_cast<float>(j) + jitter()) * h;
      const float z = 0.15f * std::sin(3.0f * x) * std::cos(2.0f * y);
      const float dx = 0.45f * std::cos(3.0f * x) * std::cos(2.0f * y);
      const float dy = -0.3f * std::sin(3.0f * x) * std::sin(2.0f * y);
      const float len = std::sqrt(dx * dx + dy * dy + 1.0f);
      cloud.add(x, y, z, -dx / len, -dy / len, 1.0f / len);
    }
  }
  return cloud;
}

// Applies the rotation about the axis (1, 2, 3)/|.| by `angle` and the translation t to points and
// normals (normals rotated only).
inline OrientedCloud RigidlyMoved(const OrientedCloud& in, float angle, const float* t) {
  const double axis[3] = {1.0, 2.0, 3.0};
  const std::array<double, 9> r = AxisAngleRotation(axis, angle);
  OrientedCloud out;
  for (int32_t i = 0; i < in.count(); ++i) {
    const float* p = &in.points[static_cast<size_t>(i) * 3];
    const float* n = &in.normals[static_cast<size_t>(i) * 3];
    float q[3], m[3];
    for (int row = 0; row < 3; ++row) {
      q[row] = static_cast<float>(r[row * 3] * p[0] + r[row * 3 + 1] * p[1] +
                                  r[row * 3 + 2] * p[2] + t[row]);
      m[row] =
          static_cast<float>(r[row * 3] * n[0] + r[row * 3 + 1] * n[1] + r[row * 3 + 2] * n[2]);
    }
    out.add(q[0], q[1], q[2], m[0], m[1], m[2]);
  }
  return out;
}

}  // namespace qorv::test
