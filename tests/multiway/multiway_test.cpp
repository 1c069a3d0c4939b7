// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// Many scans: a shuffled ring of views placed right, a stranger and a second group left unplaced,
// a wrong edge rejected, and the same bits at any thread count.
#include "multiway/multiway.hpp"

#include <algorithm>
#include <random>

#include <Eigen/Geometry>
#include <gtest/gtest.h>

#include "support/clouds.hpp"

namespace qorv::multiway {
namespace {

using Points = std::vector<float>;

// Views of a scan seen from `count` directions around it, each moved by a random motion;
// truth[k] carries view k's points back into the scan's frame.
struct Views {
  std::vector<Points> clouds;
  std::vector<Pose> truth;
};

Views Around(const Points& scan, int count, uint32_t seed) {
  Eigen::Vector3f centre = Eigen::Vector3f::Zero();
  const size_t n = scan.size() / 3;
  for (size_t i = 0; i < n; ++i)
    centre += Eigen::Vector3f(scan[3 * i], scan[3 * i + 1], scan[3 * i + 2]);
  centre /= static_cast<float>(n);
  std::mt19937 random(seed);
  std::normal_distribution<double> normal(0.0, 1.0);
  Views out;
  for (int k = 0; k < count; ++k) {
    const double angle = 2.0 * M_PI * k / count;
    const Eigen::Vector3f direction(
        static_cast<float>(std::cos(angle)), static_cast<float>(std::sin(angle)), 0.3f);
    Pose motion = Pose::Identity();
    motion.topLeftCorner<3, 3>() =
        Eigen::AngleAxisd(
            M_PI * normal(random),
            Eigen::Vector3d(normal(random), normal(random), normal(random)).normalized())
            .toRotationMatrix();
    motion.topRightCorner<3, 1>() =
        0.1 * Eigen::Vector3d(normal(random), normal(random), normal(random));
    Points view;
    for (size_t i = 0; i < n; ++i) {
      const Eigen::Vector3f p(scan[3 * i], scan[3 * i + 1], scan[3 * i + 2]);
      if ((p - centre).dot(direction) < -0.25f * (p - centre).norm()) continue;
      const Eigen::Vector3d q =
          motion.topLeftCorner<3, 3>() * p.cast<double>() + motion.topRightCorner<3, 1>();
      view.insert(view.end(),
                  {static_cast<float>(q[0]), static_cast<float>(q[1]), static_cast<float>(q[2])});
    }
    out.clouds.push_back(view);
    out.truth.push_back(motion.inverse());
  }
  return out;
}

std::vector<engine::CloudView> ViewsOf(const std::vector<Points>& clouds) {
  std::vector<engine::CloudView> views;
  for (const Points& c : clouds) {
    engine::CloudView v;
    v.points = c.data();
    v.count = static_cast<int64_t>(c.size() / 3);
    views.push_back(v);
  }
  return views;
}

// Largest rotation (degrees) between each placed pose and the truth relative to the reference.
double WorstError(const std::vector<Pose>& poses,
                  const std::vector<Pose>& truth,
                  const std::vector<ScanReport>& reports,
                  size_t reference) {
  double worst = 0.0;
  for (size_t i = 0; i < poses.size(); ++i) {
    if (!reports[i].placed) continue;
    const Pose expected = truth[reference].inverse() * truth[i];
    const Eigen::Matrix3d r =
        poses[i].topLeftCorner<3, 3>() * expected.topLeftCorner<3, 3>().transpose();
    worst = std::max(worst, Eigen::AngleAxisd(r).angle() * 180.0 / M_PI);
  }
  return worst;
}

class Ring : public ::testing::Test {
 protected:
  void SetUp() override {
    const Points scan = test::LoadSample("dragon_res4.asc");
    ASSERT_FALSE(scan.empty());
    views_ = Around(scan, 6, 7);
    // Shuffled: the collection's order says nothing about which scans overlap.
    order_ = {3, 0, 5, 1, 4, 2};
    for (int k : order_) {
      clouds_.push_back(views_.clouds[static_cast<size_t>(k)]);
      truth_.push_back(views_.truth[static_cast<size_t>(k)]);
    }
  }
  Views views_;
  std::vector<int> order_;
  std::vector<Points> clouds_;
  std::vector<Pose> truth_;
};

TEST_F(Ring, ShuffledViewsAreAllPlacedRightWithAnyThreadCount) {
  engine::Options options;
  MultiwayOptions multiway;
  multiway.reference = 2;
  int32_t calls = 0, lastDone = 0, planned = 0, prepared = 0;
  multiway.progress = [&](const Progress& p) {
    ++calls;
    prepared = p.scansPrepared;
    EXPECT_GE(p.pairsDone, lastDone);
    lastDone = p.pairsDone;
    planned = p.pairsPlanned;
  };
  std::vector<Pose> poses, serial;
  std::vector<ScanReport> reports, serialReports;
  std::vector<EdgeReport> edges, serialEdges;
  std::string error;
  ASSERT_EQ(AlignScans(ViewsOf(clouds_), options, multiway, {}, poses, reports, edges, error), 0)
      << error;
  for (const ScanReport& r : reports) {
    EXPECT_TRUE(r.placed);
    EXPECT_EQ(r.group, 0);
  }
  EXPECT_LT(WorstError(poses, truth_, reports, 2), 0.5);
  EXPECT_TRUE(poses[2].isApprox(Pose::Identity()));
  EXPECT_GE(planned, 15);  // every pair of six
  EXPECT_EQ(lastDone, planned);
  EXPECT_GT(calls, 1);
  EXPECT_EQ(prepared, 6);  // each scan's samples and features made once, for all its pairs
  for (const EdgeReport& e : edges) {
    if (e.registered && !e.edge.rejected) {
      EXPECT_LT(e.residual, 5.0);
    }
  }
  options.threads = 1;
  multiway.progress = nullptr;
  ASSERT_EQ(AlignScans(
                ViewsOf(clouds_), options, multiway, {}, serial, serialReports, serialEdges, error),
            0);
  for (size_t i = 0; i < poses.size(); ++i) EXPECT_EQ(poses[i], serial[i]) << "scan " << i;
}

TEST_F(Ring, AStrangerAndASecondGroupAreReportedNotPlaced) {
  Points bunny = test::LoadSample("bunny.asc");
  ASSERT_FALSE(bunny.empty());
  for (float& v : bunny) v *= 0.6f;  // about the dragon's size
  const Views others = Around(bunny, 4, 9);
  std::vector<Points> clouds = clouds_;
  clouds.insert(clouds.begin() + 1, others.clouds[0]);  // a lone stranger among the dragon's views
  std::vector<Pose> poses;
  std::vector<ScanReport> reports;
  std::vector<EdgeReport> edges;
  std::string error;
  ASSERT_EQ(
      AlignScans(
          ViewsOf(clouds), engine::Options(), MultiwayOptions(), {}, poses, reports, edges, error),
      0)
      << error;
  EXPECT_FALSE(reports[1].placed);
  EXPECT_GT(reports[1].group, 0);
  EXPECT_TRUE(poses[1].isApprox(Pose::Identity()));
  std::vector<Pose> truth = truth_;
  truth.insert(truth.begin() + 1, Pose::Identity());
  for (size_t i = 0; i < clouds.size(); ++i) {
    if (i != 1) {
      EXPECT_TRUE(reports[i].placed) << "scan " << i;
    }
  }
  EXPECT_LT(WorstError(poses, truth, reports, 0), 0.5);  // nothing else moved

  // Four views of the bunny beside the dragon's: two groups, the second not placed.
  clouds = clouds_;
  clouds.insert(clouds.end(), others.clouds.begin(), others.clouds.end());
  ASSERT_EQ(
      AlignScans(
          ViewsOf(clouds), engine::Options(), MultiwayOptions(), {}, poses, reports, edges, error),
      0)
      << error;
  for (size_t i = 0; i < clouds.size(); ++i) {
    EXPECT_EQ(reports[i].placed, i < clouds_.size()) << "scan " << i;
    EXPECT_EQ(reports[i].group, i < clouds_.size() ? 0 : 1) << "scan " << i;
  }
}

TEST_F(Ring, AWrongEdgeIsRejected) {
  Edge wrong;
  wrong.from = 0;
  wrong.to = 1;
  wrong.motion = Pose::Identity();
  wrong.motion.topLeftCorner<3, 3>() =
      Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitZ()).toRotationMatrix();
  wrong.rotationSigma = 0.01;
  wrong.shiftSigma = 0.001;
  std::vector<Pose> poses;
  std::vector<ScanReport> reports;
  std::vector<EdgeReport> edges;
  std::string error;
  ASSERT_EQ(AlignScans(ViewsOf(clouds_),
                       engine::Options(),
                       MultiwayOptions(),
                       {wrong},
                       poses,
                       reports,
                       edges,
                       error),
            0)
      << error;
  ASSERT_TRUE(edges.back().given);
  EXPECT_TRUE(edges.back().edge.rejected);
  EXPECT_LT(WorstError(poses, truth_, reports, 0), 0.5);
}

}  // namespace
}  // namespace qorv::multiway
