// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/text_fields.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "io/cloud_data.hpp"

namespace qorv::io {

int ScalarSize(Scalar type) {
  switch (type) {
    case Scalar::kInt8:
    case Scalar::kUint8:
      return 1;
    case Scalar::kInt16:
    case Scalar::kUint16:
      return 2;
    case Scalar::kInt32:
    case Scalar::kUint32:
    case Scalar::kFloat32:
      return 4;
    case Scalar::kInt64:
    case Scalar::kUint64:
    case Scalar::kFloat64:
      return 8;
  }
  return 0;
}

namespace {

template <typename T>
double As(const unsigned char* bytes) {
  T v;
  std::memcpy(&v, bytes, sizeof(T));
  return static_cast<double>(v);
}

}  // namespace

double DecodeScalar(const unsigned char* data, Scalar type, bool bigEndian) {
  unsigned char bytes[8];
  const int size = ScalarSize(type);
  for (int i = 0; i < size; ++i) bytes[i] = data[bigEndian ? size - 1 - i : i];
  switch (type) {
    case Scalar::kInt8:
      return As<int8_t>(bytes);
    case Scalar::kUint8:
      return bytes[0];
    case Scalar::kInt16:
      return As<int16_t>(bytes);
    case Scalar::kUint16:
      return As<uint16_t>(bytes);
    case Scalar::kInt32:
      return As<int32_t>(bytes);
    case Scalar::kUint32:
      return As<uint32_t>(bytes);
    case Scalar::kInt64:
      return As<int64_t>(bytes);
    case Scalar::kUint64:
      return As<uint64_t>(bytes);
    case Scalar::kFloat32:
      return As<float>(bytes);
    case Scalar::kFloat64:
      return As<double>(bytes);
  }
  return 0.0;
}

TextNumbers::TextNumbers(std::string_view text, size_t offset, std::string path)
    : text_(text), pos_(offset), path_(std::move(path)) {}

double TextNumbers::next() {
  while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
  if (pos_ >= text_.size()) throw IoError(IoError::kFormat, "'" + path_ + "': data ends early");
  // strtod needs a terminated string: copy the word (numbers are short).
  size_t end = pos_;
  while (end < text_.size() && !std::isspace(static_cast<unsigned char>(text_[end])) &&
         end - pos_ < 64)
    ++end;
  const std::string word(text_.substr(pos_, end - pos_));
  char* stop = nullptr;
  const double value = std::strtod(word.c_str(), &stop);
  if (stop == word.c_str())
    throw IoError(IoError::kFormat, "'" + path_ + "': not a number: " + Quote(word));
  pos_ += static_cast<size_t>(stop - word.c_str());
  return value;
}

size_t SplitHeader(std::string_view bytes,
                   const std::string& last,
                   const std::string& path,
                   const char* format,
                   std::vector<std::string>& lines) {
  size_t pos = 0;
  while (pos < bytes.size() && lines.size() < 10000) {
    const size_t end = bytes.find('\n', pos);
    if (end == std::string_view::npos) break;
    std::string line(bytes.substr(pos, end - pos));
    if (!line.empty() && line.back() == '\r') line.pop_back();
    pos = end + 1;
    lines.push_back(line);
    const std::vector<std::string> w = Words(line);
    if (!w.empty() && w[0] == last) return pos;
  }
  throw IoError(IoError::kFormat,
                "'" + path + "': " + format + " header has no '" + last + "' line");
}

std::vector<std::string> Words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

int64_t ParseCount(const std::string& text, const std::string& path, const char* what) {
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end == text.c_str() || *end != '\0' || value < 0) {
    throw IoError(IoError::kFormat, "'" + path + "': bad " + what + " " + Quote(text));
  }
  return value;
}

std::string Quote(std::string_view text) {
  std::string out(text.substr(0, 40));
  for (char& c : out) {
    if (c < 0x20 || c > 0x7e) c = '?';
  }
  return "'" + out + (text.size() > 40 ? "...'" : "'");
}

std::string ReadFileBytes(const std::string& path) {
  std::error_code error;
  if (std::filesystem::is_directory(path, error))
    throw IoError(IoError::kFile, "'" + path + "' is a folder");
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) throw IoError(IoError::kFile, "cannot open '" + path + "': " + std::strerror(errno));
  const std::streamoff size = in.tellg();
  if (size < 0) throw IoError(IoError::kFile, "cannot read '" + path + "'");
  // One copy of the file, read straight into place.
  std::string bytes(static_cast<size_t>(size), '\0');
  in.seekg(0);
  if (size > 0 && !in.read(bytes.data(), size))
    throw IoError(IoError::kFile, "cannot read '" + path + "'");
  return bytes;
}

std::string Extension(const std::string& path) {
  const size_t dot = path.find_last_of('.');
  const size_t slash = path.find_last_of('/');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string ext = path.substr(dot);
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) {
    return static_cast<char>(std::tolower(c));
  });
  return ext;
}

}  // namespace qorv::io
