// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>
#include <string_view>

#include "io/cloud_data.hpp"

namespace qorv::io {

// A Wavefront OBJ mesh's vertices ('v' lines, read by tinyobjloader), with their colours when
// every 'v' line carries r g b (0-1), and their normals when the faces give each vertex exactly
// one normal. Faces, texture coordinates and materials are passed over (mtllib is not followed).
// Throws IoError (format) naming the file and what is wrong: no 'v' line, a face index out of
// range, a line tinyobjloader refuses.
CloudData ParseObj(std::string_view bytes, const std::string& path);

}  // namespace qorv::io
