// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>
#include <string_view>

#include "io/cloud_data.hpp"

namespace qorv::io {

// Rows of numbers, one point a row: .asc, .xyz, .xyzn, .xyzrgb, .pts, .txt, .csv. Columns are
// separated by whitespace, or by commas or semicolons; blank lines and lines starting with # or //
// are passed over. Every row has the same number of columns.
//
// What each column holds comes from, first to last:
//  - `columns` when not empty: names separated by commas or spaces ("x,y,z,skip,intensity"); skip
//    or _ passes a column over, and columns past the last name are passed over too;
//  - a header line of names before the rows (x y z; nx ny nz or normal_x ...; r g b or red green
//    blue; i or intensity; other names are passed over), also written as a # or // comment;
//  - the number of columns: 3 x y z, 4 x y z intensity, 6 x y z nx ny nz (.asc, .xyz, .xyzn) or
//    x y z r g b (.xyzrgb, .pts), 7 x y z intensity r g b, 9 x y z nx ny nz r g b.
// A first line holding one integer alone is the number of rows, and must be right. Colours are
// 0-255, or 0-1 when every colour of the file lies in [0, 1] and one at least has a fraction.
// The extension of `path` picks among the layouts; throws IoError (format) naming the file, the
// line and what was wrong.
CloudData ParseColumnText(std::string_view bytes,
                          const std::string& path,
                          const std::string& columns = "");

// Whether ParseColumnText reads files of this extension (lower case, with its dot).
bool IsColumnTextExtension(const std::string& ext);

}  // namespace qorv::io
