// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace qorv {

// An image the caller owns: rows of `cols` elements of Channels values of T. `step` is the distance
// in bytes from one row to the next; 0 or negative means packed rows. Sizes are int32, offsets
// are computed in size_t so that rows * cols beyond the int32 range stay addressable.
template <typename T, int Channels = 1>
struct ImageView {
  T* data = nullptr;
  int32_t step = 0;
  int32_t cols = 0;
  int32_t rows = 0;

  bool empty() const { return data == nullptr || cols < 1 || rows < 1; }
  size_t rowBytes() const {
    return step > 0 ? static_cast<size_t>(step) : static_cast<size_t>(cols) * Channels * sizeof(T);
  }
  T* row(int32_t r) const {
    using Byte = std::conditional_t<std::is_const_v<T>, const unsigned char, unsigned char>;
    return reinterpret_cast<T*>(reinterpret_cast<Byte*>(data) +
                                static_cast<size_t>(r) * rowBytes());
  }
};

// Pinhole intrinsics in pixels.
struct Intrinsics {
  float fx = 1.0f;
  float fy = 1.0f;
  float cx = 0.0f;
  float cy = 0.0f;
};

// Back-projects every pixel (r, c) of depth z to (z * (c - cx) / fx, z * (r - cy) / fy, z) in
// the camera frame. A depth of exactly 0 gives (0, 0, 0); any other value is used as it is, so a
// negative depth gives a point behind the camera and NaN a NaN point. Processes the rows and
// columns both views have.
void DepthToVertexMap(const ImageView<const float>& depth,
                      const Intrinsics& intrinsics,
                      const ImageView<float, 3>& vertices);

// Unit normal per pixel: the sum of the unit normals (C - A) x (B - A) of the two triangles of each
// 2 x 2 pixel block it belongs to, (r, c) (r, c+1) (r+1, c) and (r, c+1) (r+1, c+1) (r+1, c),
// normalised. A triangle counts only when its three vertices have z > 0 and its normal faces the
// camera at the origin from each of them (negative dot product with each vertex); one seen
// edge-on or from behind is dropped, never flipped. Pixels without a counted triangle get
// (0, 0, 0). The normal map is cleared first; it must have the size of the vertex map.
void VertexToNormalMap(const ImageView<const float, 3>& vertices,
                       const ImageView<float, 3>& normals);

// Writes 255 for a valid pixel and 0 for the others, returns the number of valid pixels. A pixel
// is valid when its z is not 0 (NaN counts as valid) and, if `normals` is non-empty and of the
// vertex map's size, its normal is not exactly (0, 0, 0) (a NaN component counts as non-zero).
// Otherwise the normals are ignored.
int64_t ComputeValidMask(const ImageView<const float, 3>& vertices,
                         const ImageView<const float, 3>& normals,
                         const ImageView<uint8_t>& mask);

}  // namespace qorv
