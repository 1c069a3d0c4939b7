// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/cloud_files.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "io/column_text.hpp"
#include "io/las_reader.hpp"
#include "io/las_writer.hpp"
#include "io/obj_reader.hpp"
#include "io/pcd_reader.hpp"
#include "io/ply_reader.hpp"
#include "io/stl_reader.hpp"
#include "io/text_fields.hpp"

namespace qorv::io {
namespace {

bool StartsWith(std::string_view bytes, std::string_view head) {
  return bytes.substr(0, head.size()) == head;
}

bool IsTiff(std::string_view bytes) {
  return StartsWith(bytes, std::string_view("II*\0", 4)) ||
         StartsWith(bytes, std::string_view("MM\0*", 4));
}

// Kinds of file people hand us that we do not read (yet), and what to do about them.
const char* NotReadWhy(const std::string& ext) {
  if (ext == ".e57")
    return "no decompressor for it is among the system's packages; convert it to PLY or PCD first "
           "(for example: pdal translate in.e57 out.ply, or CloudCompare)";
  if (ext == ".off") return "OFF meshes are not read; export their vertices as PLY";
  return nullptr;
}

CloudData Finish(CloudData cloud, const std::string& path, bool keepOrganized) {
  if (!keepOrganized) cloud.keepFinite();
  if (cloud.size() - (keepOrganized ? cloud.nonFinite : 0) <= 0) {
    throw IoError(IoError::kFormat, "'" + path + "' holds no point with finite coordinates");
  }
  return cloud;
}

}  // namespace

CloudData ParseCloud(std::string_view bytes,
                     const std::string& path,
                     bool keepOrganized,
                     const DepthCamera& camera,
                     const std::string& columns) {
  if (StartsWith(bytes, "ply\n") || StartsWith(bytes, "ply\r\n")) {
    return Finish(ParsePly(bytes, path), path, keepOrganized);
  }
  if (StartsWith(bytes, "# .PCD") || StartsWith(bytes, "VERSION") || StartsWith(bytes, "FIELDS")) {
    return Finish(ParsePcd(bytes, path), path, keepOrganized);
  }
  if (StartsWith(bytes, "LASF")) return Finish(ParseLas(bytes, path), path, keepOrganized);
  if (StartsWith(bytes, "\x89PNG"))
    return Finish(DepthToCloud(DecodePng(bytes, path), camera), path, keepOrganized);
  const std::string ext = Extension(path);
  if (ext == ".ply" || ext == ".pcd" || ext == ".png" || ext == ".tif" || ext == ".tiff") {
    throw IoError(
        IoError::kFormat,
        "'" + path + "' is not a " + ext.substr(1) + " file (its first bytes say otherwise)");
  }
  // Without the signature: ParseLas says what it found instead (or refuses LAZ).
  if (ext == ".las" || ext == ".laz") return Finish(ParseLas(bytes, path), path, keepOrganized);
  if (const char* why = NotReadWhy(ext))
    throw IoError(IoError::kFormat, "'" + path + "' is not read: " + why);
  if (ext == ".obj") return Finish(ParseObj(bytes, path), path, keepOrganized);
  if (ext == ".stl") return Finish(ParseStl(bytes, path), path, keepOrganized);
  if (!IsColumnTextExtension(ext)) {
    throw IoError(IoError::kFormat,
                  "'" + path +
                      "' is of no kind Qorv reads: its first bytes are no PLY, PCD, LAS, PNG or "
                      "TIFF header, and " +
                      (ext.empty() ? std::string("it has no extension")
                                   : "its extension '" + ext +
                                         "' is none of .asc .xyz .xyzn "
                                         ".xyzrgb .pts .txt .csv (column text), .obj or .stl"));
  }
  return Finish(ParseColumnText(bytes, path, columns), path, keepOrganized);
}

CloudData ReadCloudFile(const std::string& path,
                        bool keepOrganized,
                        const DepthCamera& camera,
                        const std::string& columns) {
  const std::string bytes = ReadFileBytes(path);
  if (IsTiff(bytes)) return Finish(DepthToCloud(ReadTiff(path), camera), path, keepOrganized);
  return ParseCloud(bytes, path, keepOrganized, camera, columns);
}

CloudData ReadCloudFile(const std::string& path, const ReadOptions& options) {
  return ReadCloudFile(path, options.keepOrganized, options.camera, options.columns);
}

void WriteCloudFile(const std::string& path, const CloudData& cloud, Encoding encoding) {
  const std::string ext = Extension(path);
  if (cloud.size() == 0)
    throw IoError(IoError::kFile, "nothing to write to '" + path + "': no point");
  if (ext != ".ply" && ext != ".pcd" && ext != ".las" && ext != ".asc" && ext != ".xyz") {
    throw IoError(IoError::kFile,
                  "cannot write '" + path +
                      "': " + (ext.empty() ? std::string("it has no extension") : "'" + ext + "'") +
                      " names no format Qorv writes (.ply, .pcd, .las, .asc or .xyz)");
  }
  if (cloud.organized() && ext != ".pcd") {
    // Only PCD holds a sensor's grid: the others get the points it saw.
    CloudData seen = cloud;
    seen.keepFinite();
    seen.fileWidth = seen.fileHeight = 0;
    WriteCloudFile(path, seen, encoding);
    return;
  }
  std::string bytes;
  try {
    bytes = ext == ".ply"   ? FormatPly(cloud, encoding)
            : ext == ".pcd" ? FormatPcd(cloud, encoding)
            : ext == ".las" ? FormatLas(cloud)
                            : FormatAsc(cloud);
  } catch (const IoError& e) {
    throw IoError(e.kind(), "cannot write '" + path + "': " + e.what());
  }
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw IoError(IoError::kFile, "cannot write '" + path + "': " + std::strerror(errno));
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) throw IoError(IoError::kFile, "cannot write '" + path + "'");
}

std::vector<std::string> FieldsLeftOutOf(const std::string& path, const CloudData& cloud) {
  const std::string ext = Extension(path);
  return FieldsLeftOut(cloud,
                       ext == ".ply"   ? "ply"
                       : ext == ".pcd" ? "pcd"
                       : ext == ".las" ? "las"
                                       : "asc");
}

}  // namespace qorv::io
