// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "geometry/absolute_orientation.hpp"

#include <limits>

#include <Eigen/Eigenvalues>

namespace qorv {
namespace {

using Matrix4 = Eigen::Matrix<float, 4, 4, Eigen::RowMajor>;

std::array<float, 3> Centroid(const float* points, int32_t n) {
  float sum[3] = {0.0f, 0.0f, 0.0f};
  for (int64_t i = 0; i < n; ++i) {
    for (int d = 0; d < 3; ++d) sum[d] += points[3 * i + d];
  }
  const float count = static_cast<float>(n);
  return {sum[0] / count, sum[1] / count, sum[2] / count};
}

// Horn's symmetric matrix: the sum over pairs of the product of the left-multiplication matrix of
// the pure quaternion (0, b) and the right-multiplication matrix of (0, a), b and a being the
// centred points of B and A. Each pair adds its products b_j * a_k straight into the entries.
Matrix4 HornMatrix(const float* pointsA,
                   const float* pointsB,
                   int32_t n,
                   const std::array<float, 3>& centroidA,
                   const std::array<float, 3>& centroidB) {
  float n00 = 0, n11 = 0, n22 = 0, n33 = 0, n01 = 0, n02 = 0, n03 = 0, n12 = 0, n13 = 0, n23 = 0;
  for (int64_t i = 0; i < n; ++i) {
    const float bx = pointsB[3 * i] - centroidB[0], by = pointsB[3 * i + 1] - centroidB[1],
                bz = pointsB[3 * i + 2] - centroidB[2];
    const float ax = pointsA[3 * i] - centroidA[0], ay = pointsA[3 * i + 1] - centroidA[1],
                az = pointsA[3 * i + 2] - centroidA[2];
    const float sxx = bx * ax, sxy = bx * ay, sxz = bx * az;
    const float syx = by * ax, syy = by * ay, syz = by * az;
    const float szx = bz * ax, szy = bz * ay, szz = bz * az;
    n00 += sxx + syy + szz;
    n11 += sxx - syy - szz;
    n22 += -sxx + syy - szz;
    n33 += -sxx - syy + szz;
    n01 += syz - szy;
    n02 += szx - sxz;
    n03 += sxy - syx;
    n12 += sxy + syx;
    n13 += szx + sxz;
    n23 += syz + szy;
  }
  Matrix4 horn;
  horn << n00, n01, n02, n03,  //
      n01, n11, n12, n13,      //
      n02, n12, n22, n23,      //
      n03, n13, n23, n33;
  return horn;
}

}  // namespace

std::array<float, 12> AbsoluteOrientation(const float* pointsA, const float* pointsB, int32_t n) {
  const std::array<float, 3> cB = Centroid(pointsB, n);
  const std::array<float, 3> cA = Centroid(pointsA, n);
  const Matrix4 horn = HornMatrix(pointsA, pointsB, n, cA, cB);
  std::array<float, 12> result;
  // A non-finite coordinate (or sums overflowing) leaves the solver without a decomposition and its
  // vectors partly unset: the motion is then NaN throughout, the same on every call.
  if (!horn.allFinite()) {
    result.fill(std::numeric_limits<float>::quiet_NaN());
    return result;
  }

  // The general solver, not the symmetric one: its eigenvalue order decides among equal maxima.
  const Eigen::EigenSolver<Matrix4> solver(horn, true);
  const auto& values = solver.eigenvalues();
  int best = 0;
  float bestValue = values(0).real();
  for (int j = 1; j < 4; ++j) {
    if (values(j).real() > bestValue) {
      bestValue = values(j).real();
      best = j;
    }
  }
  const auto vectors = solver.eigenvectors();  // unit columns
  const float w = vectors(0, best).real(), x = vectors(1, best).real(), y = vectors(2, best).real(),
              z = vectors(3, best).real();

  float* r = result.data();
  r[0] = w * w + x * x - y * y - z * z;
  r[1] = 2.0f * (x * y - w * z);
  r[2] = 2.0f * (x * z + w * y);
  r[3] = 2.0f * (x * y + w * z);
  r[4] = w * w - x * x + y * y - z * z;
  r[5] = 2.0f * (y * z - w * x);
  r[6] = 2.0f * (x * z - w * y);
  r[7] = 2.0f * (y * z + w * x);
  r[8] = w * w - x * x - y * y + z * z;
  for (size_t row = 0; row < 3; ++row) {
    r[9 + row] = cA[row] - (r[3 * row] * cB[0] + r[3 * row + 1] * cB[1] + r[3 * row + 2] * cB[2]);
  }
  return result;
}

}  // namespace qorv
