// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// Generalized ICP against a plain reference (brute-force neighbours, numerical Jacobians), on its
// own and inside the engine.
#include "engine/gicp.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>

#include <Eigen/Geometry>
#include <Eigen/SVD>
#include <gtest/gtest.h>

#include "engine/engine.hpp"
#include "engine/normals.hpp"
#include "runtime/parallel_for.hpp"
#include "support/clouds.hpp"

namespace qorv::engine {
namespace {

Pose Motion(double angleDegrees, const Eigen::Vector3d& axis, const Eigen::Vector3d& shift) {
  Pose m = Pose::Identity();
  m.topLeftCorner<3, 3>() =
      Eigen::AngleAxisd(angleDegrees * M_PI / 180.0, axis.normalized()).toRotationMatrix();
  m.topRightCorner<3, 1>() = shift;
  return m;
}

Cloud Moved(const Pose& m, const Cloud& in) {
  Cloud out;
  out.points =
      ((m.topLeftCorner<3, 3>() * in.points.cast<double>()).colwise() + m.topRightCorner<3, 1>())
          .cast<float>();
  return out;
}

Cloud FromPoints(const std::vector<float>& points) {
  Cloud cloud;
  cloud.points = Eigen::Map<const Eigen::Matrix3Xf>(
      points.data(), 3, static_cast<Eigen::Index>(points.size() / 3));
  return cloud;
}

// Three walls of a room's corner, 0.6 m a side, sampled at random with 2 mm of noise: every
// direction of motion is held, and no two neighbour distances tie.
Cloud Corner() {
  std::mt19937 random(11);
  std::uniform_real_distribution<float> side(0.0f, 0.6f);
  std::normal_distribution<float> noise(0.0f, 0.002f);
  constexpr int kPerWall = 300;
  Cloud cloud;
  cloud.points.resize(3, 3 * kPerWall);
  for (int i = 0; i < 3 * kPerWall; ++i) {
    const int wall = i / kPerWall;
    Eigen::Vector3f p(side(random), side(random), side(random));
    p[wall] = noise(random);
    cloud.points.col(i) = p;
  }
  return cloud;
}

double AngleDegrees(const Pose& a, const Pose& b) {
  const Eigen::Matrix3d r = a.topLeftCorner<3, 3>() * b.topLeftCorner<3, 3>().transpose();
  return std::acos(std::clamp((r.trace() - 1.0) / 2.0, -1.0, 1.0)) * 180.0 / M_PI;
}

// The textbook covariance of each point: its kGicpNeighbours nearest points by brute force, their
// scatter decomposed by SVD and the spreads replaced by (flatness, 1, 1).
std::vector<Eigen::Matrix3d> ReferenceCovariances(const Cloud& cloud) {
  const int32_t n = cloud.size();
  std::vector<Eigen::Matrix3d> out;
  std::vector<int32_t> order(static_cast<size_t>(n));
  for (int32_t i = 0; i < n; ++i) {
    std::vector<float> distSq(static_cast<size_t>(n));
    for (int32_t j = 0; j < n; ++j)
      distSq[static_cast<size_t>(j)] =
          test::DistSq(cloud.points.col(i).data(), cloud.points.col(j).data());
    std::iota(order.begin(), order.end(), 0);
    std::partial_sort(
        order.begin(), order.begin() + kGicpNeighbours, order.end(), [&](int32_t a, int32_t b) {
          return distSq[static_cast<size_t>(a)] < distSq[static_cast<size_t>(b)];
        });
    Eigen::MatrixXd neighbours(3, kGicpNeighbours);
    for (int32_t k = 0; k < kGicpNeighbours; ++k)
      neighbours.col(k) = cloud.points.col(order[static_cast<size_t>(k)]).cast<double>();
    const Eigen::MatrixXd centred = neighbours.colwise() - neighbours.rowwise().mean();
    const Eigen::JacobiSVD<Eigen::MatrixXd> svd(centred, Eigen::ComputeFullU);
    const Eigen::Matrix3d u = svd.matrixU();  // singular values decreasing: the normal last
    out.push_back(u * Eigen::Vector3d(1.0, 1.0, kGicpFlatness).asDiagonal() * u.transpose());
  }
  return out;
}

struct Reference {
  Eigen::Matrix<double, 6, 6> hessian = Eigen::Matrix<double, 6, 6>::Zero();
  Eigen::Matrix<double, 6, 1> gradient = Eigen::Matrix<double, 6, 1>::Zero();
  double cost = 0.0;  // sum of w r^2
  int32_t pairs = 0;
};

// One Gauss-Newton step written out plainly: pairs by brute force, the weight of each pair's
// Mahalanobis residual from its combined covariance, and the Jacobian of d(x) = q - Exp(x) T p by
// central differences of the motion itself.
Reference ReferenceStep(const Cloud& source,
                        const std::vector<Eigen::Matrix3d>& cs,
                        const Cloud& target,
                        const std::vector<Eigen::Matrix3d>& ct,
                        const Pose& pose,
                        double maxDistance,
                        double kernel) {
  Reference out;
  const Eigen::Matrix3d r = pose.topLeftCorner<3, 3>();
  auto exp = [](const Eigen::Matrix<double, 6, 1>& x) {
    Pose m = Pose::Identity();
    if (x.head<3>().norm() > 0.0)
      m.topLeftCorner<3, 3>() =
          Eigen::AngleAxisd(x.head<3>().norm(), x.head<3>().normalized()).toRotationMatrix();
    m.topRightCorner<3, 1>() = x.tail<3>();
    return m;
  };
  for (int32_t i = 0; i < source.size(); ++i) {
    const Eigen::Vector3d p = (pose * source.points.col(i).cast<double>().homogeneous()).head<3>();
    int32_t best = -1;
    double bestSq = maxDistance * maxDistance;
    for (int32_t j = 0; j < target.size(); ++j) {
      const double dSq = (target.points.col(j).cast<double>() - p).squaredNorm();
      if (dSq < bestSq) {
        bestSq = dSq;
        best = j;
      }
    }
    if (best < 0) continue;
    const Eigen::Vector3d q = target.points.col(best).cast<double>();
    const Eigen::Matrix3d info =
        2.0 * kGicpFlatness *
        (ct[static_cast<size_t>(best)] + r * cs[static_cast<size_t>(i)] * r.transpose()).inverse();
    auto residual = [&](const Eigen::Matrix<double, 6, 1>& x) -> Eigen::Vector3d {
      return q - (exp(x) * p.homogeneous()).head<3>();
    };
    const Eigen::Vector3d d = residual(Eigen::Matrix<double, 6, 1>::Zero());
    Eigen::Matrix<double, 3, 6> jacobian;
    constexpr double kStep = 1e-6;
    for (int k = 0; k < 6; ++k) {
      Eigen::Matrix<double, 6, 1> dx = Eigen::Matrix<double, 6, 1>::Zero();
      dx[k] = kStep;
      jacobian.col(k) = (residual(dx) - residual(-dx)) / (2.0 * kStep);
    }
    const double rSq = d.dot(info * d);
    const double e = kernel * kernel / (kernel * kernel + rSq);
    out.hessian += e * e * jacobian.transpose() * info * jacobian;
    out.gradient -= e * e * jacobian.transpose() * info * d;
    out.cost += e * e * rSq;
    ++out.pairs;
  }
  return out;
}

IcpParams Params(double maxDistance, double kernel) {
  IcpParams params;
  params.maxDistance = static_cast<float>(maxDistance);
  params.kernel = kernel;
  params.maxIterations = 60;
  params.stopShift = 1e-8;
  params.stopAngle = 1e-8;
  return params;
}

TEST(Gicp, CovariancesAndOneStepAgreeWithAPlainReference) {
  const Cloud target = Corner();
  const PointKdTree targetTree(target.points.data(), target.size());
  const Pose truth = Motion(2.0, {1, 2, 3}, {0.01, -0.005, 0.008});
  const Cloud source = Moved(truth.inverse(), target);
  const PointKdTree sourceTree(source.points.data(), source.size());

  const std::vector<Eigen::Matrix3d> ct = GicpCovariances(target, targetTree);
  const std::vector<Eigen::Matrix3d> cs = GicpCovariances(source, sourceTree);
  const std::vector<Eigen::Matrix3d> refT = ReferenceCovariances(target);
  for (size_t i = 0; i < ct.size(); ++i)
    ASSERT_LT((ct[i] - refT[i]).norm(), 1e-6) << "point " << i << "\n" << ct[i] << "\n" << refT[i];
  const std::vector<Eigen::Matrix3d> refS = ReferenceCovariances(source);

  // At a pose part-way to the truth, with a kernel narrow enough to weigh pairs unequally.
  const Pose at = Motion(0.7, {1, 2, 3}, {0.004, -0.002, 0.003});
  const double maxDistance = 0.03, kernel = 0.004;
  const GicpSystem got =
      GicpStep(source, cs, target, ct, targetTree, at, Params(maxDistance, kernel));
  const Reference want = ReferenceStep(source, refS, target, refT, at, maxDistance, kernel);
  ASSERT_GT(want.pairs, 800);
  EXPECT_EQ(got.pairs, want.pairs);
  const double scale = want.hessian.norm();
  EXPECT_LT((got.hessian - want.hessian).norm(), 1e-5 * scale) << got.hessian << "\n\n"
                                                               << want.hessian;
  EXPECT_LT((got.gradient - want.gradient).norm(), 1e-5 * want.gradient.norm() + 1e-9 * scale)
      << got.gradient.transpose() << "\n"
      << want.gradient.transpose();
  EXPECT_NEAR(got.weightedSq, want.cost, 1e-5 * want.cost);
}

TEST(Gicp, ThePairWeightOfTwoNormalsIsTheInverseOfTheirCovariances) {
  std::mt19937 random(3);
  std::normal_distribution<double> gauss(0.0, 1.0);
  auto unit = [&] {
    return Eigen::Vector3d(gauss(random), gauss(random), gauss(random)).normalized();
  };
  std::vector<std::pair<Eigen::Vector3d, Eigen::Vector3d>> cases;
  for (int i = 0; i < 50; ++i) cases.emplace_back(unit(), unit());
  // Parallel, opposite and nearly parallel normals: the closed form's 2 x 2 system is at its
  // least well conditioned there.
  const Eigen::Vector3d u = unit();
  cases.emplace_back(u, u);
  cases.emplace_back(u, -u);
  cases.emplace_back(u, (u + 1e-4 * unit()).normalized());
  for (const auto& [a, b] : cases) {
    const Eigen::Matrix3d want =
        2.0 * kGicpFlatness * (GicpCovarianceOfNormal(a) + GicpCovarianceOfNormal(b)).inverse();
    const Eigen::Matrix3d got = GicpWeightOfNormals(a, b);
    EXPECT_LT((got - want).norm(), 1e-9 * want.norm()) << got << "\n\n" << want;
  }
}

TEST(Gicp, TheStepOnNormalsIsTheStepOnTheirCovariances) {
  Cloud target = Corner();
  const PointKdTree targetTree(target.points.data(), target.size());
  const Pose truth = Motion(2.0, {1, 2, 3}, {0.01, -0.005, 0.008});
  Cloud source = Moved(truth.inverse(), target);
  const PointKdTree sourceTree(source.points.data(), source.size());
  EstimateNormals(targetTree, 0.03f, 20, target);
  EstimateNormals(sourceTree, 0.03f, 20, source);
  std::vector<Eigen::Matrix3d> ct, cs;
  for (int32_t i = 0; i < target.size(); ++i)
    ct.push_back(GicpCovarianceOfNormal(target.normals.col(i).cast<double>().normalized()));
  for (int32_t i = 0; i < source.size(); ++i)
    cs.push_back(GicpCovarianceOfNormal(source.normals.col(i).cast<double>().normalized()));
  const Pose at = Motion(0.7, {1, 2, 3}, {0.004, -0.002, 0.003});
  const IcpParams params = Params(0.03, 0.004);
  const GicpSystem want = GicpStep(source, cs, target, ct, targetTree, at, params);
  const GicpSystem got = GicpStepOnNormals(source, target, targetTree, at, params);
  ASSERT_GT(want.pairs, 800);
  EXPECT_EQ(got.pairs, want.pairs);
  EXPECT_LT((got.hessian - want.hessian).norm(), 1e-8 * want.hessian.norm());
  EXPECT_LT((got.gradient - want.gradient).norm(), 1e-8 * want.hessian.norm());
  EXPECT_NEAR(got.weightedSq, want.weightedSq, 1e-8 * want.weightedSq);
}

TEST(Gicp, RecoversAKnownMotionTightlyAndWithTheSameBitsOnAnyThreadCount) {
  const std::vector<float> scan = test::LoadSample("dragon_res4.asc");
  ASSERT_FALSE(scan.empty());
  const Cloud target = FromPoints(scan);
  const PointKdTree targetTree(target.points.data(), target.size());
  const Pose motion = Motion(4.0, {0.2, 1, 0.3}, {0.003, 0.002, -0.002});
  const Cloud source = Moved(motion, target);
  const PointKdTree sourceTree(source.points.data(), source.size());
  const Refiner& gicp = *FindRefiner(RefineMethod::kGeneralized);
  const auto targetExtras = gicp.Describe(target, targetTree);
  const auto sourceExtras = gicp.Describe(source, sourceTree);
  const RefineCloud s{&source, &sourceTree, sourceExtras.get()};
  const RefineCloud t{&target, &targetTree, targetExtras.get()};
  const IcpParams params = Params(0.02, 0.004);

  IcpOutcome serial, parallel;
  {
    ThreadScope one(1);
    serial = gicp.Refine(s, t, Pose::Identity(), params);
  }
  {
    ThreadScope two(2);
    parallel = gicp.Refine(s, t, Pose::Identity(), params);
  }
  EXPECT_EQ(0, std::memcmp(serial.pose.data(), parallel.pose.data(), sizeof(double) * 16));
  EXPECT_EQ(serial.residualScale, parallel.residualScale);
  const Pose truth = motion.inverse();
  EXPECT_LT(AngleDegrees(serial.pose, truth), 2e-3);
  EXPECT_LT((serial.pose.topRightCorner<3, 1>() - truth.topRightCorner<3, 1>()).norm(), 1e-5);
  EXPECT_LT(serial.residualScale, 1e-5);

  // Without the clouds' covariances made beforehand the refiner makes its own: the same answer.
  const IcpOutcome unprepared = gicp.Refine(
      {&source, &sourceTree, nullptr}, {&target, &targetTree, nullptr}, Pose::Identity(), params);
  EXPECT_EQ(0, std::memcmp(serial.pose.data(), unprepared.pose.data(), sizeof(double) * 16));
}

CloudView View(const Cloud& cloud) {
  CloudView v;
  v.points = cloud.points.data();
  v.count = cloud.size();
  return v;
}

TEST(Gicp, TheEngineRegistersWithItOnAnyThreadCountAndFromEitherPreparation) {
  const std::vector<float> scan = test::LoadSample("dragon_res4.asc");
  ASSERT_FALSE(scan.empty());
  const Cloud target = FromPoints(scan);
  const Pose motion = Motion(50.0, {0, 1, 1}, {0.05, 0.0, 0.01});
  const Cloud source = Moved(motion, target);
  Options options;
  options.refine = RefineMethod::kGeneralized;
  options.threads = 2;
  Outcome two, one;
  std::string error;
  ASSERT_EQ(Register(View(target), View(source), options, two, error), kOk) << error;
  options.threads = 1;
  ASSERT_EQ(Register(View(target), View(source), options, one, error), kOk) << error;
  EXPECT_TRUE(two.registered) << two.reason;
  EXPECT_EQ(0, std::memcmp(two.transform.data(), one.transform.data(), sizeof(double) * 16));
  EXPECT_LT(AngleDegrees(two.transform, motion.inverse()), 0.05);
  // The engine's clouds carry normals, which give each pair's weight: no covariances are kept.
  for (const StageTime& stage : two.stages) EXPECT_NE(stage.name, "covariances");

  // Clouds prepared for point-to-plane and registered with GICP give what clouds prepared for
  // GICP give: the covariances made for the call are those the preparation would have kept.
  Options plane = options;
  plane.refine = RefineMethod::kPointToPlane;
  OwnScale ownTarget, ownSource;
  ASSERT_EQ(MeasureScale(View(target), options, ownTarget, error), kOk);
  ASSERT_EQ(MeasureScale(View(source), options, ownSource, error), kOk);
  const Scales scales = CommonScales({ownTarget, ownSource}, options);
  PreparedScan gicpTarget, gicpSource, planeTarget, planeSource;
  ASSERT_EQ(Prepare(View(target), scales, options, gicpTarget, error), kOk);
  ASSERT_EQ(Prepare(View(source), scales, options, gicpSource, error), kOk);
  ASSERT_EQ(Prepare(View(target), scales, plane, planeTarget, error), kOk);
  ASSERT_EQ(Prepare(View(source), scales, plane, planeSource, error), kOk);
  Outcome cached, made;
  ASSERT_EQ(RegisterPrepared(*gicpTarget, *gicpSource, scales, options, cached), kOk);
  ASSERT_EQ(RegisterPrepared(*planeTarget, *planeSource, scales, options, made), kOk);
  EXPECT_TRUE(cached.registered) << cached.reason;
  EXPECT_EQ(0, std::memcmp(cached.transform.data(), made.transform.data(), sizeof(double) * 16));
}

}  // namespace
}  // namespace qorv::engine
