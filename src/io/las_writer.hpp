// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>

#include "io/cloud_data.hpp"

namespace qorv::io {

// LAS 1.2, point format 0, 1 (GPS time), 2 (colour) or 3 (both), which every LAS reader takes; a
// cloud with a class above 31 (which those formats cannot hold) is written as LAS 1.4, point
// format 6 or 7 (colour). Coordinates are quantised with the cloud's own LAS scale and offset when
// it has them, else at 0.1 mm (1 mm when the extent needs it) from its origin, or from the bounding
// box's minimum rounded to a metre. Intensity (clamped to 16 bits), classification, GPS time and
// colour (scaled to 16 bits) are kept; normals are not, and points with a non-finite coordinate
// are left out. Throws IoError (file) when no point is finite or a coordinate does not fit.
std::string FormatLas(const CloudData& cloud);

}  // namespace qorv::io
