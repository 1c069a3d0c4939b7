// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>
#include <string_view>

#include "io/cloud_data.hpp"
#include "io/cloud_writers.hpp"
#include "io/depth_image.hpp"

namespace qorv::io {

// Reads a cloud file, recognised by its first bytes: PLY, PCD, LAS, a depth image (PNG or TIFF,
// turned into a cloud with `camera`), else ASC text (the library's reader). Without keepOrganized
// only the finite points are kept. Throws IoError; a file holding no finite point is an error.
CloudData ReadCloudFile(const std::string& path, bool keepOrganized, const DepthCamera& camera);

// The same from bytes already in memory (TIFF excepted: libtiff reads files).
CloudData ParseCloud(std::string_view bytes,
                     const std::string& path,
                     bool keepOrganized,
                     const DepthCamera& camera);

// Writes by the extension: .ply, .pcd, .las, else ASC text (.asc, .xyz, .txt). Throws IoError.
void WriteCloudFile(const std::string& path, const CloudData& cloud, Encoding encoding);

}  // namespace qorv::io
