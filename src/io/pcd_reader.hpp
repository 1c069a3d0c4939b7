// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>
#include <string_view>

#include "io/cloud_data.hpp"

namespace qorv::io {

// A PCD file (DATA ascii, binary or binary_compressed; fields in any order, F/I/U of 1, 2, 4 or
// 8 bytes, COUNT > 1; x y z, normal_x/y/z, rgb or rgba, intensity; WIDTH x HEIGHT organized
// layout and VIEWPOINT kept). Compressed data is inflated with liblzf. Throws IoError (format)
// naming what is wrong; never allocates more than the file's size can justify.
CloudData ParsePcd(std::string_view bytes, const std::string& path);

}  // namespace qorv::io
