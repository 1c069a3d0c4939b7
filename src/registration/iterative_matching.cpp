// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/iterative_matching.hpp"

#include <cmath>

#include <Eigen/Cholesky>
#include <Eigen/Core>

#include "geometry/pose.hpp"
#include "runtime/log.hpp"

namespace qorv {
namespace {

using Matrix6 = Eigen::Matrix<double, 6, 6>;
using Vector6 = Eigen::Matrix<double, 6, 1>;

// Pivots below this fraction of the largest make the system singular.
constexpr double kSingularRatio = 1e-12;

// p1 - (R * p2 + t) in float.
void Residual(const float* pose, const float* p1, const float* p2, float q[3], float r[3]) {
  for (int row = 0; row < 3; ++row) {
    q[row] = pose[3 * row] * p2[0] + pose[3 * row + 1] * p2[1] + pose[3 * row + 2] * p2[2] +
             pose[9 + row];
    r[row] = p1[row] - q[row];
  }
}

// Normal equations of the linearised motion q + w x q + tau (unknowns wx, wy, wz, tx, ty, tz): the
// Jacobian rows of the x, y, z residuals are (0, z, -y, 1, 0, 0), (-z, 0, x, 0, 1, 0) and
// (y, -x, 0, 0, 0, 1) at q = (x, y, z), so each pair adds w J^T J and w J^T r = w (q x r, r).
void Accumulate(double w, const float qf[3], const float rf[3], Matrix6& h, Vector6& g) {
  const double x = qf[0];
  const double y = qf[1];
  const double z = qf[2];
  const double rx = rf[0];
  const double ry = rf[1];
  const double rz = rf[2];
  h(0, 0) += w * (y * y + z * z);
  h(0, 1) += w * (-x * y);
  h(0, 2) += w * (-x * z);
  h(0, 4) += w * (-z);
  h(0, 5) += w * y;
  h(1, 1) += w * (x * x + z * z);
  h(1, 2) += w * (-y * z);
  h(1, 3) += w * z;
  h(1, 5) += w * (-x);
  h(2, 2) += w * (x * x + y * y);
  h(2, 3) += w * (-y);
  h(2, 4) += w * x;
  h(3, 3) += w;
  h(4, 4) += w;
  h(5, 5) += w;
  g(0) += w * (y * rz - z * ry);
  g(1) += w * (z * rx - x * rz);
  g(2) += w * (x * ry - y * rx);
  g(3) += w * rx;
  g(4) += w * ry;
  g(5) += w * rz;
}

// Solves the symmetric positive semi-definite system by LDL^T with pivoting; false when a pivot is
// not finite or negligible against the largest, i.e. the motion is not determined.
bool Solve(const Matrix6& upper, const Vector6& g, Vector6& delta) {
  const Matrix6 h = upper.selfadjointView<Eigen::Upper>();
  const Eigen::LDLT<Matrix6, Eigen::Upper> ldlt(h);
  if (ldlt.info() != Eigen::Success) return false;
  const Vector6 pivots = ldlt.vectorD();
  if (!pivots.allFinite()) return false;
  const double largest = pivots.cwiseAbs().maxCoeff();
  if (!(pivots.minCoeff() > kSingularRatio * largest)) return false;
  delta = ldlt.solve(g);
  return delta.allFinite();
}

// pose <- (dR, tau) applied after pose, dR = Rz(wz) Ry(wy) Rx(wx) in float.
void Compose(const Vector6& delta, float pose[12]) {
  const float wx = static_cast<float>(delta(0));
  const float wy = static_cast<float>(delta(1));
  const float wz = static_cast<float>(delta(2));
  const float cx = std::cos(wx), sx = std::sin(wx);
  const float cy = std::cos(wy), sy = std::sin(wy);
  const float cz = std::cos(wz), sz = std::sin(wz);
  // clang-format off
  const float d[9] = {cz * cy, cz * sy * sx - sz * cx, cz * sy * cx + sz * sx,
                      sz * cy, sz * sy * sx + cz * cx, sz * sy * cx - sx * cz,
                      -sy,     cy * sx,                cy * cx};
  // clang-format on
  float next[12];
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) {
      next[3 * r + c] =
          d[3 * r] * pose[c] + d[3 * r + 1] * pose[3 + c] + d[3 * r + 2] * pose[6 + c];
    }
    next[9 + r] = d[3 * r] * pose[9] + d[3 * r + 1] * pose[10] + d[3 * r + 2] * pose[11] +
                  static_cast<float>(delta(3 + r));
  }
  std::copy(next, next + 12, pose);
}

}  // namespace

int32_t RefinePose(const Correspondences& pairs, const IterativeParams& params, float pose[12]) {
  const float boundSq = params.maxDistance * params.maxDistance;
  const size_t n = static_cast<size_t>(pairs.size());
  float mu = params.kernelScale;
  int32_t steps = 0;
  for (int32_t it = 0; it < params.iterations; ++it) {
    if (boundSq > mu) break;
    // Once mu is 0, infinite or NaN, every weight is 0 or NaN and no later step can move the pose:
    // stopping here gives the same result without running out the iteration limit.
    if (!(mu > 0.0f) || std::isinf(mu)) break;
    Matrix6 h = Matrix6::Zero();
    Vector6 g = Vector6::Zero();
    for (size_t i = 0; i < n; ++i) {
      float q[3];
      float r[3];
      Residual(pose, &pairs.first[3 * i], &pairs.second[3 * i], q, r);
      // Geman-McClure: the weight of a pair at squared distance e is (mu / (e + mu))^2.
      const float s = mu / (r[0] * r[0] + r[1] * r[1] + r[2] * r[2] + mu);
      Accumulate(static_cast<double>(s * s), q, r, h, g);
    }
    Vector6 delta;
    if (Solve(h, g, delta)) Compose(delta, pose);
    ++steps;
    if (it != 0 && it % 8 == 0) mu *= 0.5f;
  }
  return steps;
}

int32_t IterativeMatch(const KeyPointSet& first,
                       const KeyPointSet& second,
                       const IterativeParams& params,
                       bool crossCheck,
                       const Execution& exec,
                       double* transform,
                       std::vector<int32_t>& matches) {
  matches = MatchKeyPoints(first, second, crossCheck, exec);
  const Correspondences pairs = BuildCorrespondences(first, second, matches, false);
  LogInfo("IterativeMatch: %d", pairs.size());

  float pose[12];
  MatrixToPose(transform, pose);
  RefinePose(pairs, params, pose);
  PoseToMatrix(pose, transform);
  MatrixToPose(transform, pose);

  // NaN residuals do not compare at or above the bound and so count as survivors.
  const float boundSq = params.maxDistance * params.maxDistance;
  int32_t inliers = 0;
  size_t next = 0;
  for (int32_t& match : matches) {
    if (match == -1) continue;
    float q[3];
    float r[3];
    Residual(pose, &pairs.first[3 * next], &pairs.second[3 * next], q, r);
    ++next;
    if (r[0] * r[0] + r[1] * r[1] + r[2] * r[2] >= boundSq) {
      match = -1;
    } else {
      ++inliers;
    }
  }
  return inliers;
}

}  // namespace qorv
