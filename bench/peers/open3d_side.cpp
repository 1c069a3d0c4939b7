// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Open3D's side of the comparison (Debian's libopen3d-dev). Open3D takes its thread count from
// OpenMP (OMP_NUM_THREADS, set by the driver for each run); it stores points as doubles.

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "peers.hpp"

#include <open3d/geometry/KDTreeFlann.h>
#include <open3d/geometry/KDTreeSearchParam.h>
#include <open3d/geometry/Keypoint.h>
#include <open3d/geometry/PointCloud.h>
#include <open3d/io/PointCloudIO.h>
#include <open3d/pipelines/registration/CorrespondenceChecker.h>
#include <open3d/pipelines/registration/FastGlobalRegistration.h>
#include <open3d/pipelines/registration/Feature.h>
#include <open3d/pipelines/registration/Registration.h>
#include <open3d/pipelines/registration/TransformationEstimation.h>

namespace qorv::peers {
namespace {

namespace o3g = open3d::geometry;
namespace o3r = open3d::pipelines::registration;

std::shared_ptr<o3g::PointCloud> ToOpen3d(const Cloud& cloud) {
  auto out = std::make_shared<o3g::PointCloud>();
  out->points_.resize(static_cast<size_t>(cloud.size()));
  for (int64_t i = 0; i < cloud.size(); ++i) {
    out->points_[i] = Eigen::Vector3d(cloud.xyz[3 * i], cloud.xyz[3 * i + 1], cloud.xyz[3 * i + 2]);
  }
  return out;
}

class Open3dSide final : public Side {
 public:
  std::string name() const override { return "Open3D"; }

  void setCloud(const Cloud& cloud, const Params&) override {
    cloud_ = ToOpen3d(cloud);
    tree_.reset();
    withNormals_.reset();
  }

  Outcome run(Op op, const Params& p) override {
    const auto n = static_cast<int64_t>(cloud_->points_.size());
    switch (op) {
      case Op::kKdBuild: {
        auto tree = std::make_unique<o3g::KDTreeFlann>();
        Stopwatch watch;
        tree->SetGeometry(*cloud_);
        const double t = watch.seconds();
        return Timed(t, n);
      }
      case Op::kKnn:
        ensureTree();
        return TimePerPoint(n, p.threads, Buffers(), [&](int64_t i, Buffers& b) {
          return tree_->SearchKNN(cloud_->points_[i], p.k, b.first, b.second);
        });
      case Op::kRadius:
        ensureTree();
        return TimePerPoint(n, p.threads, Buffers(), [&](int64_t i, Buffers& b) {
          return tree_->SearchRadius(cloud_->points_[i], p.searchRadius, b.first, b.second);
        });
      case Op::kNormals: {
        // Existing normals would steer the orientation: start without any, as the others do.
        cloud_->normals_.clear();
        Stopwatch watch;
        cloud_->EstimateNormals(o3g::KDTreeSearchParamRadius(p.searchRadius));
        const double t = watch.seconds();
        const auto count = static_cast<int64_t>(cloud_->normals_.size());
        cloud_->normals_.clear();
        return Timed(t, count);
      }
      case Op::kVoxel: {
        Stopwatch watch;
        auto out = cloud_->VoxelDownSample(p.voxelSize);
        const double t = watch.seconds();
        return Timed(t, static_cast<int64_t>(out->points_.size()), "centroid of each voxel");
      }
      case Op::kSor: {
        Stopwatch watch;
        auto result = cloud_->RemoveStatisticalOutliers(static_cast<size_t>(p.sorK), p.sorStd);
        const double t = watch.seconds();
        return Timed(t, static_cast<int64_t>(std::get<1>(result).size()));
      }
      case Op::kKeypoints: {
        Stopwatch watch;
        auto keypoints = o3g::keypoint::ComputeISSKeypoints(
            *cloud_, p.salientRadius, p.nonMaxRadius, p.gamma21, p.gamma32, p.minNeighbors);
        const double t = watch.seconds();
        return Timed(t, static_cast<int64_t>(keypoints->points_.size()));
      }
      case Op::kDescriptors: {
        ensureNormals(p);
        Stopwatch watch;
        auto features =
            o3r::ComputeFPFHFeature(*withNormals_, o3g::KDTreeSearchParamRadius(p.featureRadius));
        const double t = watch.seconds();
        return Timed(t, static_cast<int64_t>(features->Num()), "FPFH at every point");
      }
      case Op::kDetectDescribe: {
        ensureNormals(p);
        Stopwatch watch;
        auto keypoints = o3g::keypoint::ComputeISSKeypoints(
            *withNormals_, p.salientRadius, p.nonMaxRadius, p.gamma21, p.gamma32, p.minNeighbors);
        auto features =
            o3r::ComputeFPFHFeature(*withNormals_, o3g::KDTreeSearchParamRadius(p.featureRadius));
        const double t = watch.seconds();
        return Timed(t,
                     static_cast<int64_t>(keypoints->points_.size()),
                     "FPFH at every point (no index selection in 0.16)");
      }
      case Op::kReadFile: {
        o3g::PointCloud out;
        Stopwatch watch;
        const bool ok =
            open3d::io::ReadPointCloud(p.filePath, out, open3d::io::ReadPointCloudOption("xyz"));
        const double t = watch.seconds();
        if (!ok) {
          Outcome o;
          o.status = Outcome::kFailed;
          o.note = "open3d::io::ReadPointCloud failed";
          return o;
        }
        return Timed(t, static_cast<int64_t>(out.points_.size()));
      }
    }
    return NotApplicable("unknown operation");
  }

  // variant 0: RANSAC on FPFH matches; variant 1: fast global registration. Both after
  // down-sampling to r, normals within 2 r and FPFH within 5 r, all of it timed.
  std::vector<std::string> registrationMethods() const override { return {"RANSAC", "FGR"}; }

  RegOutcome registerPair(const Cloud& first,
                          const Cloud& second,
                          const RegParams& p,
                          int method) override {
    const bool fgr = method == 1;
    const auto target = ToOpen3d(first);
    const auto source = ToOpen3d(second);
    const double r = p.resolution;
    Stopwatch watch;
    auto targetDown = target->VoxelDownSample(r);
    auto sourceDown = source->VoxelDownSample(r);
    targetDown->EstimateNormals(o3g::KDTreeSearchParamRadius(2.0 * r));
    sourceDown->EstimateNormals(o3g::KDTreeSearchParamRadius(2.0 * r));
    auto targetFeatures =
        o3r::ComputeFPFHFeature(*targetDown, o3g::KDTreeSearchParamRadius(5.0 * r));
    auto sourceFeatures =
        o3r::ComputeFPFHFeature(*sourceDown, o3g::KDTreeSearchParamRadius(5.0 * r));
    o3r::RegistrationResult result;
    if (fgr) {
      o3r::FastGlobalRegistrationOption option;
      option.maximum_correspondence_distance_ = 0.5 * r;
      result = o3r::FastGlobalRegistrationBasedOnFeatureMatching(
          *sourceDown, *targetDown, *sourceFeatures, *targetFeatures, option);
    } else {
      o3r::CorrespondenceCheckerBasedOnEdgeLength edgeLength(0.9);
      o3r::CorrespondenceCheckerBasedOnDistance distance(1.5 * r);
      result = o3r::RegistrationRANSACBasedOnFeatureMatching(
          *sourceDown,
          *targetDown,
          *sourceFeatures,
          *targetFeatures,
          true,
          1.5 * r,
          o3r::TransformationEstimationPointToPoint(false),
          3,
          {edgeLength, distance},
          o3r::RANSACConvergenceCriteria(100000, 0.999));
    }
    RegOutcome out;
    out.seconds = watch.seconds();
    for (int row = 0; row < 3; ++row) {
      for (int col = 0; col < 4; ++col)
        out.transform[4 * row + col] = result.transformation_(row, col);
    }
    out.note = std::to_string(result.correspondence_set_.size()) + " correspondences";
    return out;
  }

 private:
  // Result buffers of one thread's queries.
  using Buffers = std::pair<std::vector<int>, std::vector<double>>;

  void ensureTree() {
    if (tree_) return;
    tree_ = std::make_unique<o3g::KDTreeFlann>();
    tree_->SetGeometry(*cloud_);
  }

  void ensureNormals(const Params& p) {
    if (withNormals_) return;
    withNormals_ = std::make_shared<o3g::PointCloud>(*cloud_);
    withNormals_->EstimateNormals(o3g::KDTreeSearchParamRadius(p.searchRadius));
  }

  std::shared_ptr<o3g::PointCloud> cloud_;
  std::unique_ptr<o3g::KDTreeFlann> tree_;
  std::shared_ptr<o3g::PointCloud> withNormals_;
};

}  // namespace

std::unique_ptr<Side> MakeOpen3dSide() { return std::make_unique<Open3dSide>(); }

}  // namespace qorv::peers
