// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The weighted rigid fit against a solver that shares nothing with it (the unit quaternion that
// maximises the weighted correlation, as the top eigenvector of a symmetric 4 x 4 matrix), and on
// the sets that break naive fits: planar and collinear points, reflections, one or two points,
// zero weights.
#include "engine/rigid_fit.hpp"

#include <cmath>
#include <random>

#include <Eigen/Eigenvalues>
#include <Eigen/Geometry>
#include <gtest/gtest.h>

namespace qorv::engine {
namespace {

using Points = std::vector<Eigen::Vector3d>;

Pose RandomMotion(std::mt19937& random, double reach) {
  std::normal_distribution<double> gauss(0.0, 1.0);
  const Eigen::Quaterniond q =
      Eigen::Quaterniond(gauss(random), gauss(random), gauss(random), gauss(random)).normalized();
  Pose m = Pose::Identity();
  m.topLeftCorner<3, 3>() = q.toRotationMatrix();
  m.topRightCorner<3, 1>() = reach * Eigen::Vector3d(gauss(random), gauss(random), gauss(random));
  return m;
}

Eigen::Vector3d Move(const Pose& m, const Eigen::Vector3d& p) {
  return m.topLeftCorner<3, 3>() * p + m.topRightCorner<3, 1>();
}

double Cost(const Pose& m, const Points& from, const Points& to, const std::vector<double>& w) {
  double sum = 0.0;
  for (size_t i = 0; i < from.size(); ++i)
    sum += (w.empty() ? 1.0 : w[i]) * (Move(m, from[i]) - to[i]).squaredNorm();
  return sum;
}

// The rotation maximising sum w_i (R a_i) . b_i over centred points is the unit quaternion of the
// largest eigenvalue of a 4 x 4 matrix built from the weighted correlation; the shift then carries
// the weighted mean across.
Pose QuaternionFit(const Points& from, const Points& to, const std::vector<double>& w) {
  double total = 0.0;
  Eigen::Vector3d a0 = Eigen::Vector3d::Zero(), b0 = Eigen::Vector3d::Zero();
  for (size_t i = 0; i < from.size(); ++i) {
    total += w[i];
    a0 += w[i] * from[i];
    b0 += w[i] * to[i];
  }
  a0 /= total;
  b0 /= total;
  Eigen::Matrix3d s = Eigen::Matrix3d::Zero();  // s(x, y) = sum w a_x b_y
  for (size_t i = 0; i < from.size(); ++i) s += w[i] * (from[i] - a0) * (to[i] - b0).transpose();
  const double xx = s(0, 0), xy = s(0, 1), xz = s(0, 2), yx = s(1, 0), yy = s(1, 1), yz = s(1, 2),
               zx = s(2, 0), zy = s(2, 1), zz = s(2, 2);
  Eigen::Matrix4d n;
  n << xx + yy + zz, yz - zy, zx - xz, xy - yx,  //
      yz - zy, xx - yy - zz, xy + yx, zx + xz,   //
      zx - xz, xy + yx, -xx + yy - zz, yz + zy,  //
      xy - yx, zx + xz, yz + zy, -xx - yy + zz;
  const Eigen::SelfAdjointEigenSolver<Eigen::Matrix4d> eigen(n);
  const Eigen::Vector4d q = eigen.eigenvectors().col(3);
  Pose m = Pose::Identity();
  m.topLeftCorner<3, 3>() = Eigen::Quaterniond(q[0], q[1], q[2], q[3]).toRotationMatrix();
  m.topRightCorner<3, 1>() = b0 - m.topLeftCorner<3, 3>() * a0;
  return m;
}

// How far apart two rotation blocks are (Frobenius norm): unlike the angle, which comes through an
// arc cosine, it resolves differences down to rounding.
double Turn(const Pose& a, const Pose& b) {
  return (a.topLeftCorner<3, 3>() - b.topLeftCorner<3, 3>()).norm();
}

// A rotation block that is orthonormal with determinant +1 (no reflection), and a rigid last row.
void ExpectProperMotion(const Pose& m) {
  ASSERT_TRUE(m.allFinite());
  const Eigen::Matrix3d r = m.topLeftCorner<3, 3>();
  EXPECT_LT((r.transpose() * r - Eigen::Matrix3d::Identity()).norm(), 1e-12);
  EXPECT_NEAR(r.determinant(), 1.0, 1e-12);
  EXPECT_EQ(m.row(3), Eigen::RowVector4d(0, 0, 0, 1));
}

TEST(RigidFit, AgreesWithAnIndependentSolverOnNoisyWeightedSetsAndMirrorImages) {
  std::mt19937 random(11);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  std::uniform_int_distribution<int> sizes(3, 40);
  for (int trial = 0; trial < 200; ++trial) {
    const Pose truth = RandomMotion(random, 5.0);
    const double noise = trial % 4 == 0 ? 0.0 : 0.05 * (trial % 4);
    const size_t n = static_cast<size_t>(sizes(random));
    Points from(n), to(n);
    std::vector<double> w(n);
    for (size_t i = 0; i < n; ++i) {
      from[i] = Eigen::Vector3d(unit(random), unit(random), unit(random)) * 3.0;
      to[i] = Move(truth, from[i]) + noise * Eigen::Vector3d(unit(random), unit(random), 0.0);
      w[i] = trial % 3 == 0 ? 1.0 : 0.01 + unit(random) + 1.0;
    }
    // Every fifth set is a mirror image: no rotation carries it, the best proper one is wanted.
    if (trial % 5 == 1) {
      for (Eigen::Vector3d& p : to) p.x() = -p.x();
    }
    const Pose fit = FitRigid(from, to, trial % 3 == 0 ? std::vector<double>() : w);
    const Pose oracle = QuaternionFit(from, to, w);
    SCOPED_TRACE(trial);
    ExpectProperMotion(fit);
    const double cost = Cost(fit, from, to, w), best = Cost(oracle, from, to, w);
    EXPECT_LE(cost, best * (1 + 1e-9) + 1e-18);
    EXPECT_LT(Turn(fit, oracle), 1e-6);
    EXPECT_LT((fit.topRightCorner<3, 1>() - oracle.topRightCorner<3, 1>()).norm(), 1e-6);
    if (noise == 0.0 && trial % 5 != 1) {
      EXPECT_LT(Turn(fit, truth), 1e-9);
      EXPECT_LT((fit.topRightCorner<3, 1>() - truth.topRightCorner<3, 1>()).norm(), 1e-9);
    }
  }
}

TEST(RigidFit, WeightsActAsMultiplicitiesAndZeroLeavesAPointOut) {
  std::mt19937 random(5);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  const Pose truth = RandomMotion(random, 2.0);
  Points from, to;
  for (int i = 0; i < 12; ++i) {
    from.emplace_back(unit(random), unit(random), unit(random));
    to.push_back(Move(truth, from.back()) + 0.1 * Eigen::Vector3d(unit(random), unit(random), 0));
  }
  const Pose plain = FitRigid(from, to, {});

  // Wild outliers of weight zero change nothing.
  Points fromOut = from, toOut = to;
  std::vector<double> w(from.size(), 1.0);
  for (int i = 0; i < 5; ++i) {
    fromOut.insert(fromOut.begin() + 2 * i, Eigen::Vector3d(unit(random), 40, unit(random)));
    toOut.insert(toOut.begin() + 2 * i, Eigen::Vector3d(-30, unit(random), 7));
    w.insert(w.begin() + 2 * i, 0.0);
  }
  const Pose withZeros = FitRigid(fromOut, toOut, w);
  EXPECT_LT((withZeros - plain).norm(), 1e-12);

  // A weight of 3 is the point counted three times; scaling every weight changes nothing.
  std::vector<double> three(from.size(), 1.0);
  three[4] = 3.0;
  Points fromRepeated = from, toRepeated = to;
  for (int k = 0; k < 2; ++k) {
    fromRepeated.push_back(from[4]);
    toRepeated.push_back(to[4]);
  }
  const Pose weighted = FitRigid(from, to, three);
  EXPECT_LT((weighted - FitRigid(fromRepeated, toRepeated, {})).norm(), 1e-12);
  EXPECT_GT((weighted - plain).norm(), 1e-6);  // the weight did matter
  std::vector<double> scaled = three;
  for (double& x : scaled) x *= 1e-6;
  EXPECT_LT((FitRigid(from, to, scaled) - weighted).norm(), 1e-10);

  // No weight at all, or no points: the identity.
  EXPECT_EQ(FitRigid(from, to, std::vector<double>(from.size(), 0.0)), Pose::Identity());
  EXPECT_EQ(FitRigid({}, {}, {}), Pose::Identity());
}

TEST(RigidFit, DegenerateSetsGiveAProperMotionThatCarriesThem) {
  std::mt19937 random(8);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  auto carries = [](const Pose& m, const Points& from, const Points& to, double tolerance) {
    for (size_t i = 0; i < from.size(); ++i) {
      if ((Move(m, from[i]) - to[i]).norm() > tolerance) return false;
    }
    return true;
  };
  for (int trial = 0; trial < 20; ++trial) {
    SCOPED_TRACE(trial);
    const Pose truth = RandomMotion(random, 3.0);
    // Planar points: a reflection through the plane fits them as well as the rotation, but only
    // the rotation is a rigid motion, and it is unique.
    Points plane, line, pair, single, same;
    for (int i = 0; i < 8; ++i) plane.emplace_back(unit(random), unit(random), 0.0);
    const Eigen::Vector3d base(unit(random), unit(random), unit(random));
    const Eigen::Vector3d along(unit(random), unit(random), unit(random));
    for (int i = 0; i < 6; ++i) line.push_back(base + unit(random) * along);
    pair = {base, base + along};
    single = {base};
    same = {base, base, base};
    for (const Points* from : {&plane, &line, &pair, &single, &same}) {
      Points to;
      for (const Eigen::Vector3d& p : *from) to.push_back(Move(truth, p));
      const Pose fit = FitRigid(*from, to, {});
      ExpectProperMotion(fit);
      EXPECT_TRUE(carries(fit, *from, to, 1e-9)) << "set of " << from->size();
      if (from == &plane) {
        EXPECT_LT(Turn(fit, truth), 1e-9);
      }
    }
    // Far from the origin, small sets keep their precision in double.
    Points far, farTo;
    for (int i = 0; i < 5; ++i) {
      far.push_back(Eigen::Vector3d(4.5e5, -2.1e6, 310.0) +
                    Eigen::Vector3d(unit(random), unit(random), unit(random)));
      farTo.push_back(Move(truth, far.back()));
    }
    const Pose fit = FitRigid(far, farTo, {});
    EXPECT_LT(Turn(fit, truth), 1e-8);
    EXPECT_TRUE(carries(fit, far, farTo, 1e-6));
  }
}

TEST(RigidFit, MotionDistancesMeasureTheRelativeTurnAndWhereAPointIsCarried) {
  std::mt19937 random(2);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  for (int trial = 0; trial < 50; ++trial) {
    const Pose a = RandomMotion(random, 2.0), b = RandomMotion(random, 2.0);
    const Eigen::Matrix3d relative = a.topLeftCorner<3, 3>() * b.topLeftCorner<3, 3>().transpose();
    EXPECT_NEAR(RotationBetween(a, b), Eigen::AngleAxisd(relative).angle(), 1e-7);
    EXPECT_NEAR(RotationBetween(a, b), RotationBetween(b, a), 1e-12);
    const Eigen::Vector3d at(unit(random) * 10, unit(random) * 10, unit(random) * 10);
    EXPECT_NEAR(ShiftBetween(a, b, at), (Move(a, at) - Move(b, at)).norm(), 1e-12);
  }
  // A half turn and no turn at all, where the arc cosine is least forgiving.
  Pose half = Pose::Identity();
  half.topLeftCorner<3, 3>() =
      Eigen::AngleAxisd(M_PI, Eigen::Vector3d(1, 2, 3).normalized()).toRotationMatrix();
  EXPECT_NEAR(RotationBetween(half, Pose::Identity()), M_PI, 1e-6);
  EXPECT_NEAR(RotationBetween(half, half), 0.0, 1e-7);
}

}  // namespace
}  // namespace qorv::engine
