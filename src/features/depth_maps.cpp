// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "features/depth_maps.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

#include "geometry/vec3.hpp"

namespace qorv {
namespace {

// Adds the triangle's unit normal to the normals of its three pixels if it faces the camera.
inline void AddTriangle(
    const float* a, const float* b, const float* c, float* na, float* nb, float* nc) {
  if (!(a[2] > 0.0f && b[2] > 0.0f && c[2] > 0.0f)) return;  // NaN fails too
  const float ca[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
  const float ba[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
  float n[3];
  Cross(ca, ba, n);
  NormalizeInPlace(n);
  // A degenerate triangle (n = 0) fails these tests as well.
  if (!(Dot(n, a) < 0.0f && Dot(n, b) < 0.0f && Dot(n, c) < 0.0f)) return;
  for (float* target : {na, nb, nc}) {
    target[0] += n[0];
    target[1] += n[1];
    target[2] += n[2];
  }
}

}  // namespace

void DepthToVertexMap(const ImageView<const float>& depth,
                      const Intrinsics& intrinsics,
                      const ImageView<float, 3>& vertices) {
  if (depth.empty() || vertices.empty()) return;
  const int32_t rows = std::min(depth.rows, vertices.rows);
  const int32_t cols = std::min(depth.cols, vertices.cols);
  std::vector<float> xs(static_cast<size_t>(cols));
  for (int32_t c = 0; c < cols; ++c) {
    xs[static_cast<size_t>(c)] = (static_cast<float>(c) - intrinsics.cx) / intrinsics.fx;
  }
  for (int32_t r = 0; r < rows; ++r) {
    const float* z = depth.row(r);
    float* v = vertices.row(r);
    std::fill(v, v + static_cast<size_t>(cols) * 3, 0.0f);
    const float ys = (static_cast<float>(r) - intrinsics.cy) / intrinsics.fy;
    for (int32_t c = 0; c < cols; ++c, v += 3) {
      const float zc = z[c];
      if (zc == 0.0f) continue;
      v[0] = zc * xs[static_cast<size_t>(c)];
      v[1] = zc * ys;
      v[2] = zc;
    }
  }
}

void VertexToNormalMap(const ImageView<const float, 3>& vertices,
                       const ImageView<float, 3>& normals) {
  if (normals.empty()) return;
  for (int32_t r = 0; r < normals.rows; ++r) {
    float* n = normals.row(r);
    std::fill(n, n + static_cast<size_t>(normals.cols) * 3, 0.0f);
  }
  if (vertices.empty()) return;
  const int32_t rows = std::min(vertices.rows, normals.rows);
  const int32_t cols = std::min(vertices.cols, normals.cols);
  // Every pixel receives its triangles in a fixed order: row r - 1 before row r, and within a row
  // the first pass over the columns before the second.
  for (int32_t r = 0; r + 1 < rows; ++r) {
    const float* v0 = vertices.row(r);
    const float* v1 = vertices.row(r + 1);
    float* n0 = normals.row(r);
    float* n1 = normals.row(r + 1);
    for (int32_t c = 0; c + 1 < cols; ++c) {
      const size_t i = static_cast<size_t>(c) * 3;
      AddTriangle(v0 + i, v0 + i + 3, v1 + i, n0 + i, n0 + i + 3, n1 + i);
    }
    for (int32_t c = 0; c + 1 < cols; ++c) {
      const size_t i = static_cast<size_t>(c) * 3;
      AddTriangle(v0 + i + 3, v1 + i + 3, v1 + i, n0 + i + 3, n1 + i + 3, n1 + i);
    }
  }
  for (int32_t r = 0; r < rows; ++r) {
    float* n = normals.row(r);
    for (int32_t c = 0; c < cols; ++c, n += 3) NormalizeInPlace(n);
  }
}

int64_t ComputeValidMask(const ImageView<const float, 3>& vertices,
                         const ImageView<const float, 3>& normals,
                         const ImageView<uint8_t>& mask) {
  if (vertices.empty() || mask.empty()) return 0;
  const bool useNormals =
      !normals.empty() && normals.cols == vertices.cols && normals.rows == vertices.rows;
  const int32_t rows = std::min(vertices.rows, mask.rows);
  const int32_t cols = std::min(vertices.cols, mask.cols);
  int64_t validCount = 0;
  for (int32_t r = 0; r < rows; ++r) {
    const float* v = vertices.row(r);
    const float* n = useNormals ? normals.row(r) : nullptr;
    uint8_t* m = mask.row(r);
    std::fill(m, m + mask.cols, uint8_t{0});
    for (int32_t c = 0; c < cols; ++c) {
      const size_t i = static_cast<size_t>(c) * 3;
      bool valid = v[i + 2] != 0.0f;
      if (valid && n != nullptr) {
        valid = n[i] != 0.0f || n[i + 1] != 0.0f || n[i + 2] != 0.0f;
      }
      if (valid) {
        m[c] = 255;
        ++validCount;
      }
    }
  }
  return validCount;
}

}  // namespace qorv
