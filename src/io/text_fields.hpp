// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qorv::io {

// Scalar types of per-point fields, as PLY and PCD files name them.
enum class Scalar {
  kInt8,
  kUint8,
  kInt16,
  kUint16,
  kInt32,
  kUint32,
  kInt64,
  kUint64,
  kFloat32,
  kFloat64
};

int ScalarSize(Scalar type);

// The value of one scalar stored at data (little endian unless bigEndian), as a double.
double DecodeScalar(const unsigned char* data, Scalar type, bool bigEndian);

// Whitespace-separated numbers of a text body; next() throws IoError (format) past the end or on
// a word that is no number.
class TextNumbers {
 public:
  TextNumbers(std::string_view text, size_t offset, std::string path);
  double next();

 private:
  std::string_view text_;
  size_t pos_;
  std::string path_;
};

// The header lines up to and including the first whose first word is `last`; returns the offset of
// the body. Lines may end in "\r\n". Throws IoError when no such line comes within 10,000 lines.
size_t SplitHeader(std::string_view bytes,
                   const std::string& last,
                   const std::string& path,
                   const char* format,
                   std::vector<std::string>& lines);

std::vector<std::string> Words(const std::string& line);

// A non-negative decimal count of a header, or IoError naming what it was.
int64_t ParseCount(const std::string& text, const std::string& path, const char* what);

// File content quoted in a message: at most 40 bytes, anything but printable ASCII as '?'.
std::string Quote(std::string_view text);

// The whole file, or IoError (file).
std::string ReadFileBytes(const std::string& path);

// The lower-case extension with its dot ("" when none).
std::string Extension(const std::string& path);

}  // namespace qorv::io
