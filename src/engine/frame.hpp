// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <vector>

#include <Eigen/Core>

#include "engine/engine.hpp"

namespace qorv::engine {

// Where clouds are registered. Survey and mapping scans sit hundreds of kilometres from their
// coordinates' zero, where float steps are centimetres; the engine works in float, so they are
// moved next to a shared origin first (whole metres, per axis, only where the first cloud reaches
// beyond kLargeCoordinate). Clouds already in that frame are used as they are, without a copy, so
// small clouds give the bits they always gave.
class SharedFrame {
 public:
  explicit SharedFrame(const std::vector<CloudView>& clouds, bool sensorOrigin);

  // Cloud i in the shared frame (a view of the caller's points, or of a copy owned here).
  const CloudView& view(size_t i) const { return views_[i]; }
  const Eigen::Vector3d& origin() const { return origin_; }
  bool moved() const { return !origin_.isZero(); }

  // A motion between clouds, from the caller's frame into the shared one and back.
  Eigen::Matrix4d ToShared(const Eigen::Matrix4d& motion) const;
  Eigen::Matrix4d ToCaller(const Eigen::Matrix4d& motion) const;

 private:
  Eigen::Vector3d origin_ = Eigen::Vector3d::Zero();
  std::vector<CloudView> views_;
  std::vector<std::vector<float>> copies_;
};

}  // namespace qorv::engine
