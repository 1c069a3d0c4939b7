// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/sanitize.hpp"

#include <cmath>

#include "engine/frame.hpp"

namespace qorv::engine {

Cloud Sanitize(const CloudView& view) {
  Cloud cloud;
  auto finite = [](const Eigen::Vector3f& p) {
    return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
  };
  int64_t count = 0;
  for (int64_t i = 0; i < view.count; ++i) count += finite(PointInFrame(view, i));
  cloud.points.resize(3, count);
  int64_t k = 0;
  for (int64_t i = 0; i < view.count; ++i) {
    const Eigen::Vector3f p = PointInFrame(view, i);
    if (finite(p)) cloud.points.col(k++) = p;
  }
  if (view.hasViewpoint) {
    cloud.hasViewpoint = true;
    cloud.viewpoint = view.viewpoint.cast<float>();
  } else if (view.height > 1) {
    cloud.hasViewpoint = true;  // a frame in its camera's coordinates
    cloud.viewpoint.setZero();
  }
  return cloud;
}

}  // namespace qorv::engine
