// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/frame.hpp"

#include <cmath>

namespace qorv::engine {
namespace {

// Beyond this magnitude float steps exceed 0.1 mm (in metres; in the clouds' unit in general).
constexpr double kLargeCoordinate = 1024.0;

// The shared origin: the first cloud's bounding-box centre rounded to a metre, on the axes where
// its coordinates are large.
Eigen::Vector3d ChooseOrigin(const CloudView& view) {
  Eigen::Vector3d low = Eigen::Vector3d::Constant(INFINITY), high = -low;
  for (int64_t i = 0; i < view.count; ++i) {
    const Eigen::Vector3d p = CallerPosition(view, i);
    if (!p.allFinite()) continue;
    low = low.cwiseMin(p);
    high = high.cwiseMax(p);
  }
  Eigen::Vector3d origin = Eigen::Vector3d::Zero();
  for (int c = 0; c < 3; ++c) {
    if (low[c] <= high[c] && std::max(std::fabs(low[c]), std::fabs(high[c])) >= kLargeCoordinate)
      origin[c] = std::round(0.5 * (low[c] + high[c]));
  }
  return origin;
}

}  // namespace

SharedFrame::SharedFrame(const std::vector<CloudView>& clouds, bool sensorOrigin) {
  if (!clouds.empty()) origin_ = ChooseOrigin(clouds[0]);
  views_ = clouds;
  // Sanitize moves the points into the frame as it copies them.
  for (CloudView& view : views_) view.frame = origin_;
  for (CloudView& view : views_) {
    // Viewpoints are in the caller's frame; a sensor at a cloud's zero is at -origin here.
    // An organized frame without one was taken from its own zero, as Sanitize takes it.
    if (view.hasViewpoint) {
      view.viewpoint -= origin_;
    } else if ((sensorOrigin || view.height > 1) && moved()) {
      view.hasViewpoint = true;
      view.viewpoint = -origin_;
    }
  }
}

Eigen::Matrix4d SharedFrame::ToShared(const Eigen::Matrix4d& motion) const {
  // p' = R (p + o) + t - o: the rotation stays, the shift takes up the origin.
  Eigen::Matrix4d out = motion;
  out.block<3, 1>(0, 3) = motion.block<3, 3>(0, 0) * origin_ + motion.block<3, 1>(0, 3) - origin_;
  return out;
}

Eigen::Matrix4d SharedFrame::ToCaller(const Eigen::Matrix4d& motion) const {
  Eigen::Matrix4d out = motion;
  out.block<3, 1>(0, 3) = motion.block<3, 1>(0, 3) + origin_ - motion.block<3, 3>(0, 0) * origin_;
  return out;
}

}  // namespace qorv::engine
