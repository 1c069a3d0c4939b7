// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qorv {

// Arrays read from an ASC file, `count` points. normals is empty unless the file has 6 or 9
// columns, colours unless it has 9.
struct AscCloud {
  std::vector<float> points;
  std::vector<float> normals;
  std::vector<unsigned char> colours;
  int64_t count = 0;
  int32_t columns = 3;
};

// Tokenizes ASC text of `size` bytes; text[size] must be a readable zero byte, which ends every
// scan without a bound test. Separators are space, tab, line feed (and zero bytes); a token that
// starts with a sign, a point or a digit yields one number, any other token none. The layout is
// chosen from numbers per line feed (above 8.99: 9 columns, above 5.99: 6, else 3) and numbers are
// grouped in file order; a remainder that fills no point is dropped. Never reads or writes outside
// the text, whatever it holds.
AscCloud ParseAsc(const char* text, size_t size);

// Reads the whole file and parses it. False when path is null, the file cannot be opened or read
// in full, is 4 GiB or larger, or its buffer cannot be allocated; a file holding no point is read
// successfully with count 0.
bool ReadPointsFromAsc(const char* path, AscCloud& cloud);

// Writes one line a point: "%f %f %f", with normals six values, with normals and colours also the
// three colour bytes as "%d". Colours without normals are ignored. False when path is null, the
// file cannot be opened, or flushing or closing it reports an error.
bool WritePointsToAsc(const char* path,
                      const float* points,
                      const float* normals,
                      const unsigned char* colours,
                      int64_t count);

}  // namespace qorv
