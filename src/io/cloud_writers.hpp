// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>
#include <vector>

#include "io/cloud_data.hpp"
#include "io/text_fields.hpp"

namespace qorv::io {

enum class Encoding { kDefault, kAscii, kBinary, kCompressed };

// Every format writes x y z as float, or as double when the cloud keeps an origin (survey-scale
// coordinates), and the fields the cloud has among normals, colour, intensity, classification and
// GPS time, as far as the format holds them. Text is the shortest that reads back the same value.

// PLY: binary little endian (default) or ascii. Organized clouds are written as their points.
std::string FormatPly(const CloudData& cloud, Encoding encoding);

// PCD 0.7: binary (default), binary_compressed (liblzf) or ascii; rgb packed with an opaque alpha
// (in a float's bits in binary data, as an unsigned integer in text, as PCD writers do); WIDTH x
// HEIGHT and VIEWPOINT as the cloud has them.
std::string FormatPcd(const CloudData& cloud, Encoding encoding);

// ASC text: x y z [nx ny nz [red green blue]] a line.
std::string FormatAsc(const CloudData& cloud);

// The fields of cloud that a file of `format` ("ply", "pcd", "las", "asc") cannot hold, as words
// for a warning.
std::vector<std::string> FieldsLeftOut(const CloudData& cloud, const std::string& format);

}  // namespace qorv::io
