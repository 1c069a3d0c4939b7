// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <memory>

#include "engine/cloud.hpp"
#include "engine/rigid_fit.hpp"
#include "search/kd_tree.hpp"

namespace qorv::engine {

// What a sensor saw: the direction of each point of its cloud from the sensor origin, indexed, so
// that for any point we can ask how far along its ray the sensor saw a surface.
class SensorView {
 public:
  // cloud must have its viewpoint and normals, and outlive the view.
  explicit SensorView(const Cloud& cloud);
  SensorView(const SensorView&) = delete;
  SensorView& operator=(const SensorView&) = delete;
  ~SensorView();

  bool usable() const { return tree_ != nullptr; }

  // Share of the points of `other`, moved by pose into this cloud's frame, that lie nearer the
  // sensor than the surface it saw along the same ray, by more than margin (plus 3 % of the range,
  // for range noise): space the sensor saw through, where a right motion puts no point. Only points
  // on rays the sensor measured count; -1 when fewer than 50 do.
  double Conflict(const Cloud& other, const Pose& pose, float margin) const;

 private:
  const Cloud& cloud_;
  Eigen::Matrix3Xf directions_;  // unit vectors from the viewpoint
  std::unique_ptr<PointKdTree> tree_;
  float tolerance_ = 0.0f;  // chord between directions that still share a ray
};

}  // namespace qorv::engine
