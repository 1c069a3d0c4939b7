// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>
#include <string_view>

#include "io/cloud_data.hpp"

namespace qorv::io {

// A LAS file, versions 1.0 to 1.4, point formats 0 to 10 (the waveform packets of formats 4, 5, 9
// and 10 are passed over, and so are the extra bytes of records longer than their format). Keeps
// x y z (in double, then relative to the cloud's origin), intensity, classification, GPS time and
// colour, and the file's scale and offset (lasScale, lasOffset). LAZ is refused with what to do.
// Throws IoError (format) naming the file and the numbers that disagree; never allocates more than
// the file's size can justify.
CloudData ParseLas(std::string_view bytes, const std::string& path);

// What to do with a LAZ file, which nothing on the system decompresses.
extern const char kLazNotRead[];

}  // namespace qorv::io
