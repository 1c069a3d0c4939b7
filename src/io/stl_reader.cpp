// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/stl_reader.hpp"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "io/text_fields.hpp"

namespace qorv::io {
namespace {

constexpr size_t kHeaderBytes = 80;
constexpr size_t kTriangleBytes = 50;

// Vertices keyed by their exact coordinates (bit patterns, with -0 taken as 0), in the order
// first met.
class UniqueVertices {
 public:
  void add(double x, double y, double z) {
    const Key key{Bits(x), Bits(y), Bits(z)};
    if (index_.emplace(key, coordinates_.size() / 3).second) {
      coordinates_.insert(coordinates_.end(), {x, y, z});
    }
  }
  CloudData take(const char* format) {
    CloudData cloud;
    const size_t n = coordinates_.size() / 3;
    cloud.points.resize(3 * n);
    for (size_t i = 0; i < n; ++i)
      cloud.setPoint(i, coordinates_[3 * i], coordinates_[3 * i + 1], coordinates_[3 * i + 2]);
    cloud.width = static_cast<int64_t>(n);
    cloud.format = format;
    cloud.fields = {"x", "y", "z"};
    cloud.countNonFinite();
    return cloud;
  }
  size_t size() const { return coordinates_.size() / 3; }

 private:
  struct Key {
    uint64_t v[3];
    bool operator==(const Key& o) const {
      return v[0] == o.v[0] && v[1] == o.v[1] && v[2] == o.v[2];
    }
  };
  struct Hash {
    size_t operator()(const Key& k) const {
      uint64_t h = k.v[0] * 0x9E3779B97F4A7C15ull;
      h = (h ^ (h >> 29) ^ k.v[1]) * 0xBF58476D1CE4E5B9ull;
      h = (h ^ (h >> 32) ^ k.v[2]) * 0x94D049BB133111EBull;
      return static_cast<size_t>(h ^ (h >> 31));
    }
  };
  static uint64_t Bits(double v) {
    if (v == 0.0) v = 0.0;  // one key for -0 and 0
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
  }
  std::unordered_map<Key, size_t, Hash> index_;
  std::vector<double> coordinates_;
};

bool StartsWithSolid(std::string_view bytes) {
  size_t i = 0;
  while (i < bytes.size() &&
         (bytes[i] == ' ' || bytes[i] == '\t' || bytes[i] == '\r' || bytes[i] == '\n'))
    ++i;
  return bytes.substr(i, 5) == "solid";
}

CloudData ParseBinary(std::string_view bytes, uint64_t triangles, const std::string& path) {
  UniqueVertices vertices;
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data()) + kHeaderBytes + 4;
  for (uint64_t t = 0; t < triangles; ++t, data += kTriangleBytes) {
    for (size_t corner = 1; corner <= 3; ++corner) {  // 0 is the facet normal
      const unsigned char* v = data + 12 * corner;
      vertices.add(DecodeScalar(v, Scalar::kFloat32, false),
                   DecodeScalar(v + 4, Scalar::kFloat32, false),
                   DecodeScalar(v + 8, Scalar::kFloat32, false));
    }
  }
  if (vertices.size() == 0) {
    throw IoError(IoError::kFormat, "'" + path + "': binary STL with no triangle");
  }
  return vertices.take("stl (binary)");
}

// Words of ASCII STL; only "vertex" and its three numbers matter, the rest is structure we pass
// over. `binaryNote` is added to errors: why the file was not taken for binary.
CloudData ParseAscii(std::string_view bytes,
                     const std::string& path,
                     const std::string& binaryNote) {
  UniqueVertices vertices;
  size_t pos = 0, line = 1, corners = 0;
  auto isSpace = [](char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
  };
  auto nextWord = [&](std::string_view& word) {
    while (pos < bytes.size() && isSpace(bytes[pos])) line += bytes[pos++] == '\n';
    const size_t start = pos;
    while (pos < bytes.size() && !isSpace(bytes[pos])) ++pos;
    word = bytes.substr(start, pos - start);
    return !word.empty();
  };
  auto fail = [&](const std::string& what) {
    throw IoError(IoError::kFormat,
                  "'" + path + "' line " + std::to_string(line) + ": " + what + binaryNote);
  };
  std::string_view word;
  while (nextWord(word)) {
    for (char c : word) {
      const auto b = static_cast<unsigned char>(c);
      if (b < 0x20 || b == 0x7f) fail("expected ASCII STL text but found binary bytes");
    }
    if (word != "vertex") continue;
    double xyz[3];
    for (double& v : xyz) {
      if (!nextWord(word)) fail("the file ends inside a vertex");
      const char* begin = word.data() + (word[0] == '+' ? 1 : 0);
      const auto [stop, error] = std::from_chars(begin, word.data() + word.size(), v);
      if (stop != word.data() + word.size() || error != std::errc()) {
        fail("expected a vertex coordinate but found " + Quote(word));
      }
    }
    vertices.add(xyz[0], xyz[1], xyz[2]);
    ++corners;
  }
  if (corners == 0) fail("expected ASCII STL 'vertex x y z' lines but found none");
  if (corners % 3 != 0) {
    fail(std::to_string(corners) + " vertices, which make no whole number of triangles");
  }
  return vertices.take("stl (ascii)");
}

}  // namespace

CloudData ParseStl(std::string_view bytes, const std::string& path) {
  std::string note;
  if (bytes.size() >= kHeaderBytes + 4) {
    const uint64_t triangles = static_cast<uint64_t>(
        DecodeScalar(reinterpret_cast<const unsigned char*>(bytes.data()) + kHeaderBytes,
                     Scalar::kUint32,
                     false));
    const uint64_t expected = kHeaderBytes + 4 + kTriangleBytes * triangles;
    if (expected == bytes.size()) return ParseBinary(bytes, triangles, path);
    note = " (nor is it binary STL: its count of " + std::to_string(triangles) +
           " triangles needs " + std::to_string(expected) + " bytes, the file has " +
           std::to_string(bytes.size()) + ")";
  } else {
    note = " (nor is it binary STL: " + std::to_string(bytes.size()) +
           " bytes are fewer than a binary header's 84)";
  }
  if (!StartsWithSolid(bytes)) {
    throw IoError(IoError::kFormat,
                  "'" + path + "' is no STL: expected 'solid' (ASCII STL) but found " +
                      Quote(bytes.substr(0, 16)) + note);
  }
  return ParseAscii(bytes, path, note);
}

}  // namespace qorv::io
