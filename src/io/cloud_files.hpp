// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>
#include <string_view>

#include "io/cloud_data.hpp"
#include "io/cloud_writers.hpp"
#include "io/depth_image.hpp"

namespace qorv::io {

// Reads a cloud file, recognised by its first bytes: PLY, PCD, a depth image (PNG or TIFF, turned
// into a cloud with `camera`); else by its extension: .obj and .stl meshes (their vertices), column
// text (.asc .xyz .xyzn .xyzrgb .pts .txt .csv; `columns` names the columns when not empty, see
// ParseColumnText). A file whose contents are not what its extension says is refused. Without
// keepOrganized only the finite points are kept. Throws IoError; a file holding no finite point is
// an error.
CloudData ReadCloudFile(const std::string& path,
                        bool keepOrganized,
                        const DepthCamera& camera,
                        const std::string& columns = "");

// The same from bytes already in memory (TIFF excepted: libtiff reads files).
CloudData ParseCloud(std::string_view bytes,
                     const std::string& path,
                     bool keepOrganized,
                     const DepthCamera& camera,
                     const std::string& columns = "");

// Writes by the extension: .ply, .pcd, else ASC text (.asc, .xyz, .txt). Throws IoError.
void WriteCloudFile(const std::string& path, const CloudData& cloud, Encoding encoding);

}  // namespace qorv::io
