// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include <Eigen/Core>

namespace qorv::engine {

// A working cloud: points as columns (3 packed floats a point, so data() feeds the search trees),
// optional unit normals of the same layout, and where the sensor sat when it is known.
struct Cloud {
  Eigen::Matrix3Xf points;
  Eigen::Matrix3Xf normals;  // empty, or one column per point
  // The neighbours the normals were estimated from: up to neighbourSlots a point (its nearest
  // other points within the normal radius, nearest first, -1 past the end), or empty.
  std::vector<int32_t> neighbours;
  int32_t neighbourSlots = 0;
  bool hasViewpoint = false;
  Eigen::Vector3f viewpoint = Eigen::Vector3f::Zero();

  int32_t size() const { return static_cast<int32_t>(points.cols()); }
  bool hasNormals() const { return normals.cols() == points.cols() && points.cols() > 0; }

  // The corners of the points' bounding box (zero for no points), in one plain pass: Eigen's
  // row-wise reductions over a 3 x n matrix take several times as long.
  struct Box {
    Eigen::Vector3f low = Eigen::Vector3f::Zero(), high = Eigen::Vector3f::Zero();
    Eigen::Vector3f extent() const { return high - low; }
  };
  Box bounds() const {
    Box box;
    if (points.cols() == 0) return box;
    box.low = box.high = points.col(0);
    for (Eigen::Index i = 1; i < points.cols(); ++i) {
      box.low = box.low.cwiseMin(points.col(i));
      box.high = box.high.cwiseMax(points.col(i));
    }
    return box;
  }
};

}  // namespace qorv::engine
