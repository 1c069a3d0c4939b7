// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "surface/scatter_eigen.hpp"

#include <cmath>
#include <random>

#include <Eigen/Dense>
#include <gtest/gtest.h>

namespace qorv {
namespace {

// Both forms of the cubic solver against a double-precision solver, each in its documented root
// order, on scatters of three distinct eigenvalues.
TEST(ScatterEigen, BothCubicFormsMatchDoublePrecisionSolverInTheirRootOrder) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> coord(-1.0f, 1.0f);
  for (int trial = 0; trial < 200; ++trial) {
    Eigen::Matrix3d c = Eigen::Matrix3d::Zero();
    Scatter scatter;
    for (int n = 0; n < 12; ++n) {
      const Eigen::Vector3f v(coord(rng), coord(rng), 0.3f * coord(rng));
      c += v.cast<double>() * v.cast<double>().transpose();
      scatter.add(v.x(), v.y(), v.z());
    }
    const Eigen::Matrix3f cf = c.cast<float>();
    const Eigen::Vector3d ref =
        Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d>(cf.cast<double>()).eigenvalues();
    const double tol = 1e-4 * ref(2);

    const ScatterEigenvalues e =
        ComputeScatterEigenvalues(cf(0, 0), cf(1, 1), cf(2, 2), cf(0, 1), cf(0, 2), cf(1, 2));
    EXPECT_NEAR(e.e0, ref(2), tol);  // largest
    EXPECT_NEAR(e.e2, ref(1), tol);  // middle
    EXPECT_NEAR(e.e1, ref(0), tol);  // smallest

    const CubicRoots roots(scatter);
    EXPECT_NEAR(roots.root(0.0f), ref(2), tol);
    EXPECT_NEAR(roots.root(CubicRoots::kTwoThirdsTurn), ref(1), tol);
    EXPECT_NEAR(roots.root(CubicRoots::kThirdTurn), ref(0), tol);
  }
  // A planar scatter has no third direction: a zero or NaN eigenvalue, never a key point.
  const ScatterEigenvalues flat = ComputeScatterEigenvalues(2.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.0f);
  EXPECT_TRUE(std::isnan(flat.e1) || std::fabs(flat.e1) < 1e-6f);
}

}  // namespace
}  // namespace qorv
