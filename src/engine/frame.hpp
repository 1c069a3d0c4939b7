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
// beyond kLargeCoordinate). The views name the frame and Sanitize moves the points into it as it
// copies them (in double, then to float); clouds already in it are copied as they are, so small
// clouds give the bits they always gave.
// Whether a view's points are already in its frame, as float: then they are used as they are.
inline bool InFrame(const CloudView& view) {
  return view.points64 == nullptr && view.origin == view.frame;
}

// Point i of a view where the caller has it, in double.
inline Eigen::Vector3d CallerPosition(const CloudView& view, int64_t i) {
  const size_t at = 3 * static_cast<size_t>(i);
  if (view.points64 != nullptr)
    return Eigen::Vector3d(view.points64[at], view.points64[at + 1], view.points64[at + 2]);
  return Eigen::Vector3d(view.points[at], view.points[at + 1], view.points[at + 2]) + view.origin;
}

// Point i of a view in its frame, in float as the engine keeps it: moved in double, then rounded
// (not finite when the caller's is not, or when it lies beyond float's reach).
inline Eigen::Vector3f PointInFrame(const CloudView& view, int64_t i) {
  const size_t at = 3 * static_cast<size_t>(i);
  if (InFrame(view)) return {view.points[at], view.points[at + 1], view.points[at + 2]};
  return (CallerPosition(view, i) - view.frame).cast<float>();
}

class SharedFrame {
 public:
  explicit SharedFrame(const std::vector<CloudView>& clouds, bool sensorOrigin);

  // Cloud i, naming the shared frame (a view of the caller's points).
  const CloudView& view(size_t i) const { return views_[i]; }
  const Eigen::Vector3d& origin() const { return origin_; }
  bool moved() const { return !origin_.isZero(); }

  // A motion between clouds, from the caller's frame into the shared one and back.
  Eigen::Matrix4d ToShared(const Eigen::Matrix4d& motion) const;
  Eigen::Matrix4d ToCaller(const Eigen::Matrix4d& motion) const;

 private:
  Eigen::Vector3d origin_ = Eigen::Vector3d::Zero();
  std::vector<CloudView> views_;
};

}  // namespace qorv::engine
