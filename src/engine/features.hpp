// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

#include "engine/cloud.hpp"
#include "search/kd_tree.hpp"

namespace qorv::engine {

// 33-float feature histograms at every point of a cloud that has normals (the library's fast
// point feature histograms: each point's own histogram within histogramRadius, neighbours' summed
// within featureRadius). valid[i] is false where a histogram block is empty or not finite, or the
// normal is zero: such points are not matched.
struct Features {
  std::vector<float> descriptors;  // 33 a point
  std::vector<uint8_t> valid;
};

Features DescribePoints(const PointKdTree& tree,
                        const Cloud& cloud,
                        float featureRadius,
                        float histogramRadius);

}  // namespace qorv::engine
