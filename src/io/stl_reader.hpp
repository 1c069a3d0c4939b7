// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>
#include <string_view>

#include "io/cloud_data.hpp"

namespace qorv::io {

// An STL mesh's vertices, binary (80-byte header, triangle count, 50 bytes a triangle) or ASCII
// (solid ... facet normal ... vertex x y z ...). Binary is told by its size agreeing with the
// count, since binary headers may begin with "solid" too. Each distinct vertex becomes one point,
// in the order first met; the facet normals are not kept (they belong to faces). Throws IoError
// (format) naming what is wrong; a count the size cannot hold is an error, never an allocation.
CloudData ParseStl(std::string_view bytes, const std::string& path);

}  // namespace qorv::io
