// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

namespace qorv::test {

// A pinhole camera at the origin looking along +z, image rows along +y.
struct DepthCamera {
  int32_t width = 160;
  int32_t height = 120;
  double fx = 150.0;
  double fy = 150.0;
  double cx = 79.5;
  double cy = 59.5;

  std::array<double, 9> matrix() const { return {fx, 0.0, cx, 0.0, fy, cy, 0.0, 0.0, 1.0}; }
};

// A cube of half-side halfSide, centred at center, turned by yaw (about y) then pitch (about x),
// optionally in front of a wall z = wallDepth (0: no wall, background depth 0).
struct BoxScene {
  double center[3] = {0.0, 0.0, 3.0};
  double halfSide = 0.6;
  double yaw = 0.6;
  double pitch = 0.5;
  double wallDepth = 0.0;

  // world = R * local + center, R row-major.
  std::array<double, 9> rotation() const {
    const double cy = std::cos(yaw), sy = std::sin(yaw), cp = std::cos(pitch), sp = std::sin(pitch);
    // Ry(yaw) * Rx(pitch)
    return {cy, sy * sp, sy * cp, 0.0, cp, -sp, -sy, cy * sp, cy * cp};
  }

  // Depth along the optical axis of the first surface hit by each pixel's ray, row-major.
  std::vector<float> render(const DepthCamera& cam) const {
    const std::array<double, 9> r = rotation();
    std::vector<float> depth(static_cast<size_t>(cam.width) * cam.height, 0.0f);
    for (int32_t row = 0; row < cam.height; ++row) {
      for (int32_t col = 0; col < cam.width; ++col) {
        const double d[3] = {(col - cam.cx) / cam.fx, (row - cam.cy) / cam.fy, 1.0};
        double o[3], dl[3];  // ray origin and direction in the box frame: R^T (x - center)
        for (int i = 0; i < 3; ++i) {
          o[i] = -(r[i] * center[0] + r[3 + i] * center[1] + r[6 + i] * center[2]);
          dl[i] = r[i] * d[0] + r[3 + i] * d[1] + r[6 + i] * d[2];
        }
        double tNear = -1e30, tFar = 1e30;
        for (int i = 0; i < 3; ++i) {
          const double t1 = (-halfSide - o[i]) / dl[i];
          const double t2 = (halfSide - o[i]) / dl[i];
          tNear = std::max(tNear, std::min(t1, t2));
          tFar = std::min(tFar, std::max(t1, t2));
        }
        double z = tNear <= tFar && tNear > 0.0 ? tNear : 0.0;  // d has z = 1: t is the depth
        if (z == 0.0 || (wallDepth > 0.0 && z > wallDepth)) z = wallDepth;
        depth[static_cast<size_t>(row) * cam.width + col] = static_cast<float>(z);
      }
    }
    return depth;
  }

  // Image position (column, row) and depth of the eight corners.
  std::vector<std::array<double, 3>> projectedCorners(const DepthCamera& cam) const {
    const std::array<double, 9> r = rotation();
    std::vector<std::array<double, 3>> corners;
    for (int k = 0; k < 8; ++k) {
      const double l[3] = {
          k & 1 ? halfSide : -halfSide, k & 2 ? halfSide : -halfSide, k & 4 ? halfSide : -halfSide};
      double w[3];
      for (int i = 0; i < 3; ++i) {
        w[i] = r[3 * i] * l[0] + r[3 * i + 1] * l[1] + r[3 * i + 2] * l[2] + center[i];
      }
      corners.push_back({cam.fx * w[0] / w[2] + cam.cx, cam.fy * w[1] / w[2] + cam.cy, w[2]});
    }
    return corners;
  }
};

}  // namespace qorv::test
