// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/sanitize.hpp"

#include <cmath>

namespace qorv::engine {

Cloud Sanitize(const CloudView& view) {
  Cloud cloud;
  int64_t finite = 0;
  for (int64_t i = 0; i < view.count; ++i) {
    const float* p = view.points + 3 * i;
    finite += std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
  }
  cloud.points.resize(3, finite);
  int64_t k = 0;
  for (int64_t i = 0; i < view.count; ++i) {
    const float* p = view.points + 3 * i;
    if (!(std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]))) continue;
    cloud.points.col(k++) = Eigen::Vector3f(p[0], p[1], p[2]);
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
