// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>

#include "io/cloud_data.hpp"

namespace qorv::io {

enum class Encoding { kDefault, kAscii, kBinary, kCompressed };

// PLY: binary little endian (default) or ascii; x y z as float, nx ny nz, red green blue as bytes,
// intensity, when the cloud has them. Organized clouds are written as their list of points.
std::string FormatPly(const CloudData& cloud, Encoding encoding);

// PCD 0.7: binary (default), binary_compressed (liblzf) or ascii; x y z, normal_x/y/z, rgb (packed
// in a float's bits, as PCD writers do), intensity; WIDTH x HEIGHT and VIEWPOINT as the cloud has
// them.
std::string FormatPcd(const CloudData& cloud, Encoding encoding);

}  // namespace qorv::io
