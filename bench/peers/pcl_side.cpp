// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// PCL's side of the comparison (Debian's libpcl-dev). Thread counts go to the OMP classes through
// setNumberOfThreads; the classes without an OMP variant (VoxelGrid, StatisticalOutlierRemoval,
// SampleConsensusPrerejective) run on one thread whatever the count.

#include <memory>
#include <string>
#include <vector>

#include "peers.hpp"

#include <pcl/features/fpfh_omp.h>
#include <pcl/features/normal_3d_omp.h>
#include <pcl/filters/statistical_outlier_removal.h>
#include <pcl/filters/voxel_grid.h>
#include <pcl/io/ascii_io.h>
#include <pcl/kdtree/kdtree_flann.h>
#include <pcl/keypoints/iss_3d.h>
#include <pcl/point_cloud.h>
#include <pcl/point_types.h>
#include <pcl/registration/sample_consensus_prerejective.h>
#include <pcl/search/kdtree.h>

namespace qorv::peers {
namespace {

using Xyz = pcl::PointXYZ;
using XyzCloud = pcl::PointCloud<Xyz>;
using NormalCloud = pcl::PointCloud<pcl::Normal>;
using Fpfh = pcl::FPFHSignature33;
using FpfhCloud = pcl::PointCloud<Fpfh>;
using PointNormal = pcl::PointNormal;
using PointNormalCloud = pcl::PointCloud<PointNormal>;

XyzCloud::Ptr ToPcl(const Cloud& cloud) {
  auto out = std::make_shared<XyzCloud>();
  out->resize(static_cast<size_t>(cloud.size()));
  for (int64_t i = 0; i < cloud.size(); ++i) {
    (*out)[i] = Xyz(cloud.xyz[3 * i], cloud.xyz[3 * i + 1], cloud.xyz[3 * i + 2]);
  }
  return out;
}

NormalCloud::Ptr EstimateNormals(const XyzCloud::ConstPtr& cloud, double radius, int threads) {
  pcl::NormalEstimationOMP<Xyz, pcl::Normal> estimation(static_cast<unsigned>(threads));
  estimation.setSearchMethod(std::make_shared<pcl::search::KdTree<Xyz>>(false));
  estimation.setInputCloud(cloud);
  estimation.setRadiusSearch(radius);
  auto normals = std::make_shared<NormalCloud>();
  estimation.compute(*normals);
  return normals;
}

XyzCloud::Ptr IssKeypoints(const XyzCloud::ConstPtr& cloud, const Params& p) {
  pcl::ISSKeypoint3D<Xyz, Xyz> iss;
  iss.setSearchMethod(std::make_shared<pcl::search::KdTree<Xyz>>(false));
  iss.setSalientRadius(p.salientRadius);
  iss.setNonMaxRadius(p.nonMaxRadius);
  iss.setThreshold21(p.gamma21);
  iss.setThreshold32(p.gamma32);
  iss.setMinNeighbors(p.minNeighbors);
  iss.setNumberOfThreads(static_cast<unsigned>(p.threads));
  iss.setInputCloud(cloud);
  auto keypoints = std::make_shared<XyzCloud>();
  iss.compute(*keypoints);
  return keypoints;
}

FpfhCloud::Ptr FpfhAt(const XyzCloud::ConstPtr& keypoints,
                      const XyzCloud::ConstPtr& surface,
                      const NormalCloud::ConstPtr& normals,
                      double radius,
                      int threads) {
  pcl::FPFHEstimationOMP<Xyz, pcl::Normal, Fpfh> fpfh(static_cast<unsigned>(threads));
  fpfh.setSearchMethod(std::make_shared<pcl::search::KdTree<Xyz>>(false));
  fpfh.setInputCloud(keypoints);
  fpfh.setSearchSurface(surface);
  fpfh.setInputNormals(normals);
  fpfh.setRadiusSearch(radius);
  auto features = std::make_shared<FpfhCloud>();
  fpfh.compute(*features);
  return features;
}

class PclSide final : public Side {
 public:
  std::string name() const override { return "PCL"; }

  void setCloud(const Cloud& cloud, const Params&) override {
    cloud_ = ToPcl(cloud);
    tree_.reset();
    normals_.reset();
    keypoints_.reset();
  }

  Outcome run(Op op, const Params& p) override {
    const auto n = static_cast<int64_t>(cloud_->size());
    switch (op) {
      case Op::kKdBuild: {
        auto tree = std::make_unique<pcl::KdTreeFLANN<Xyz>>(false);
        Stopwatch watch;
        tree->setInputCloud(cloud_);
        const double t = watch.seconds();
        return Timed(t, static_cast<int64_t>(tree->getInputCloud()->size()));
      }
      case Op::kKnn:
        ensureTree();
        return TimePerPoint(n, p.threads, Buffers(), [&](int64_t i, Buffers& b) {
          return tree_->nearestKSearch((*cloud_)[i], p.k, b.first, b.second);
        });
      case Op::kRadius:
        ensureTree();
        return TimePerPoint(n, p.threads, Buffers(), [&](int64_t i, Buffers& b) {
          return tree_->radiusSearch((*cloud_)[i], p.searchRadius, b.first, b.second);
        });
      case Op::kNormals: {
        Stopwatch watch;
        auto normals = EstimateNormals(cloud_, p.searchRadius, p.threads);
        const double t = watch.seconds();
        return Timed(t, static_cast<int64_t>(normals->size()));
      }
      case Op::kVoxel: {
        pcl::VoxelGrid<Xyz> grid;
        XyzCloud out;
        Stopwatch watch;
        grid.setInputCloud(cloud_);
        grid.setLeafSize(p.voxelSize, p.voxelSize, p.voxelSize);
        grid.filter(out);
        const double t = watch.seconds();
        return Timed(t, static_cast<int64_t>(out.size()), "centroid of each voxel");
      }
      case Op::kSor: {
        pcl::StatisticalOutlierRemoval<Xyz> sor;
        XyzCloud out;
        Stopwatch watch;
        sor.setInputCloud(cloud_);
        sor.setMeanK(p.sorK);
        sor.setStddevMulThresh(p.sorStd);
        sor.filter(out);
        const double t = watch.seconds();
        return Timed(t, static_cast<int64_t>(out.size()));
      }
      case Op::kKeypoints: {
        Stopwatch watch;
        auto keypoints = IssKeypoints(cloud_, p);
        const double t = watch.seconds();
        return Timed(t, static_cast<int64_t>(keypoints->size()));
      }
      case Op::kDescriptors: {
        ensureNormals(p);
        if (!keypoints_) keypoints_ = IssKeypoints(cloud_, p);
        Stopwatch watch;
        auto features = FpfhAt(keypoints_, cloud_, normals_, p.featureRadius, p.threads);
        const double t = watch.seconds();
        return Timed(t, static_cast<int64_t>(features->size()), "FPFH at the ISS key points");
      }
      case Op::kDetectDescribe: {
        ensureNormals(p);
        Stopwatch watch;
        auto keypoints = IssKeypoints(cloud_, p);
        auto features = FpfhAt(keypoints, cloud_, normals_, p.featureRadius, p.threads);
        const double t = watch.seconds();
        return Timed(t, static_cast<int64_t>(features->size()));
      }
      case Op::kReadFile: {
        pcl::ASCIIReader reader;
        reader.setInputFields<Xyz>();
        reader.setSepChars(" \t\r\n");
        const auto dot = p.filePath.rfind('.');
        reader.setExtension(dot == std::string::npos ? std::string() : p.filePath.substr(dot));
        XyzCloud out;
        Stopwatch watch;
        const int r = reader.read(p.filePath, out);
        const double t = watch.seconds();
        if (r < 0) {
          Outcome o;
          o.status = Outcome::kFailed;
          o.note = "pcl::ASCIIReader::read returned " + std::to_string(r);
          return o;
        }
        return Timed(t, static_cast<int64_t>(out.size()));
      }
    }
    return NotApplicable("unknown operation");
  }

  std::vector<std::string> registrationMethods() const override { return {"prerejective"}; }

  // Down-sampling to the resolution r, normals within 2 r, FPFH within 5 r, then
  // SampleConsensusPrerejective; all of it timed.
  RegOutcome registerPair(const Cloud& first,
                          const Cloud& second,
                          const RegParams& p,
                          int) override {
    const XyzCloud::Ptr target = ToPcl(first);
    const XyzCloud::Ptr source = ToPcl(second);
    const double r = p.resolution;
    Stopwatch watch;
    PointNormalCloud::Ptr targetDown;
    PointNormalCloud::Ptr sourceDown;
    FpfhCloud::Ptr targetFeatures;
    FpfhCloud::Ptr sourceFeatures;
    Prepare(target, r, p.threads, targetDown, targetFeatures);
    Prepare(source, r, p.threads, sourceDown, sourceFeatures);
    pcl::SampleConsensusPrerejective<PointNormal, PointNormal, Fpfh> align;
    align.setInputSource(sourceDown);
    align.setSourceFeatures(sourceFeatures);
    align.setInputTarget(targetDown);
    align.setTargetFeatures(targetFeatures);
    align.setMaximumIterations(kIterations);
    align.setNumberOfSamples(3);
    align.setCorrespondenceRandomness(5);
    align.setSimilarityThreshold(0.9f);
    align.setMaxCorrespondenceDistance(1.5 * r);
    align.setInlierFraction(0.25f);
    PointNormalCloud aligned;
    align.align(aligned);
    RegOutcome out;
    out.seconds = watch.seconds();
    const Eigen::Matrix4f m = align.getFinalTransformation();
    for (int row = 0; row < 3; ++row) {
      for (int col = 0; col < 4; ++col) out.transform[4 * row + col] = m(row, col);
    }
    out.note = std::string(align.hasConverged() ? "converged" : "not converged") + ", " +
               std::to_string(align.getInliers().size()) + " inliers";
    return out;
  }

  // Bounded so that a pair stays within about 20 s on this class of machine (PCL's alignment has
  // no early stop and runs every iteration).
  static constexpr int kIterations = 20000;

 private:
  // Result buffers of one thread's queries.
  using Buffers = std::pair<pcl::Indices, std::vector<float>>;

  static void Prepare(const XyzCloud::ConstPtr& cloud,
                      double r,
                      int threads,
                      PointNormalCloud::Ptr& down,
                      FpfhCloud::Ptr& features) {
    pcl::VoxelGrid<Xyz> grid;
    grid.setInputCloud(cloud);
    const auto leaf = static_cast<float>(r);
    grid.setLeafSize(leaf, leaf, leaf);
    auto thinned = std::make_shared<XyzCloud>();
    grid.filter(*thinned);
    auto normals = EstimateNormals(thinned, 2.0 * r, threads);
    down = std::make_shared<PointNormalCloud>();
    pcl::concatenateFields(*thinned, *normals, *down);
    features = FpfhAt(thinned, thinned, normals, 5.0 * r, threads);
  }

  void ensureTree() {
    if (tree_) return;
    tree_ = std::make_unique<pcl::KdTreeFLANN<Xyz>>(false);
    tree_->setInputCloud(cloud_);
  }

  void ensureNormals(const Params& p) {
    if (!normals_) normals_ = EstimateNormals(cloud_, p.searchRadius, p.threads);
  }

  XyzCloud::Ptr cloud_;
  std::unique_ptr<pcl::KdTreeFLANN<Xyz>> tree_;
  NormalCloud::Ptr normals_;
  XyzCloud::Ptr keypoints_;
};

}  // namespace

std::unique_ptr<Side> MakePclSide() { return std::make_unique<PclSide>(); }

}  // namespace qorv::peers
