// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/sanitize.hpp"

#include <cmath>

#include "engine/frame.hpp"

namespace qorv::engine {

namespace {

// Copies the finite points, each got(i, p) (false: not finite) into float p.
template <typename Get>
void CopyFinite(int64_t count, Cloud& cloud, Get got) {
  int64_t finite = 0;
  Eigen::Vector3f p = Eigen::Vector3f::Zero();
  for (int64_t i = 0; i < count; ++i) finite += got(i, p);
  cloud.points.resize(3, finite);
  int64_t k = 0;
  for (int64_t i = 0; i < count; ++i) {
    if (got(i, p)) cloud.points.col(k++) = p;
  }
}

bool Finite(const Eigen::Vector3f& p) {
  return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

}  // namespace

Cloud Sanitize(const CloudView& view) {
  Cloud cloud;
  if (InFrame(view)) {
    CopyFinite(view.count, cloud, [&](int64_t i, Eigen::Vector3f& p) {
      p = Eigen::Map<const Eigen::Vector3f>(view.points + 3 * i);
      return Finite(p);
    });
  } else {
    CopyFinite(view.count, cloud, [&](int64_t i, Eigen::Vector3f& p) {
      p = PointInFrame(view, i);
      return Finite(p);
    });
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
