// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "io/cloud_data.hpp"

namespace qorv::io {

// A pinhole depth camera. The defaults are those of the common 640 x 480 depth cameras; depth
// values are divided by depthScale to give metres (1000: millimetres).
struct DepthCamera {
  double fx = 525.0, fy = 525.0, cx = 319.5, cy = 239.5;
  double depthScale = 1000.0;
};

// Depth in the file's units, one value a pixel row after row; 0 means no depth.
struct DepthImage {
  int32_t width = 0, height = 0;
  std::vector<float> depth;
};

// A single-channel 16-bit PNG (libpng) or a 16-bit or 32-bit float TIFF (libtiff). Throws IoError
// (format) for any other kind (colour, 8-bit, ...), a truncated or corrupt file, or more than
// 2^31 pixels.
DepthImage DecodePng(std::string_view bytes, const std::string& path);
DepthImage ReadTiff(const std::string& path);

// The organized cloud of a depth image: pixel (u, v) with depth d metres at
// ((u - cx) d / fx, (v - cy) d / fy, d), NaN where there is no depth, normals from the image grid
// (the library's vertex and normal maps), seen from the camera at the origin.
CloudData DepthToCloud(const DepthImage& image, const DepthCamera& camera);

}  // namespace qorv::io
