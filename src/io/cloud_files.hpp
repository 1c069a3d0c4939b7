// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "io/cloud_data.hpp"
#include "io/cloud_writers.hpp"
#include "io/depth_image.hpp"

namespace qorv::io {

// How a file is read: keepOrganized keeps an organized cloud's layout with its NaN holes (else only
// the finite points); camera turns depth images into points; columns names column text's columns
// ("" : from the file).
struct ReadOptions {
  bool keepOrganized = false;
  DepthCamera camera;
  std::string columns;
};

CloudData ReadCloudFile(const std::string& path, const ReadOptions& options);

// Reads a cloud file, recognised by its first bytes: PLY, PCD, LAS, a depth image (PNG or TIFF,
// turned into a cloud with `camera`); else by its extension: .obj and .stl meshes (their vertices),
// column text (.asc .xyz .xyzn .xyzrgb .pts .txt .csv; `columns` names the columns when not empty,
// see ParseColumnText). A file whose contents are not what its extension says is refused. Without
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

// Writes by the extension: .ply, .pcd, .las, .asc or .xyz (ASC text); any other is an error. Throws
// IoError.
void WriteCloudFile(const std::string& path, const CloudData& cloud, Encoding encoding);

// The fields of cloud that the file at path, by its extension, cannot hold.
std::vector<std::string> FieldsLeftOutOf(const std::string& path, const CloudData& cloud);

}  // namespace qorv::io
