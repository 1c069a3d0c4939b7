// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>
#include <string_view>

#include "io/cloud_data.hpp"

namespace qorv::io {

// A PLY file's vertices (ascii, binary little or big endian; any scalar types; x y z, nx ny nz,
// red green blue as bytes or unit floats, intensity). Other elements (faces of a mesh, ...) and
// comments are passed over. Throws IoError (format) naming what is wrong.
CloudData ParsePly(std::string_view bytes, const std::string& path);

}  // namespace qorv::io
