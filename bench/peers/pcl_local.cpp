// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// PCL's local refinement as its users run it, for the local-refinement benchmark: both clouds
// voxel-filtered at VOXEL, then point-to-plane ICP (normals from 20 neighbours, by OMP) or
// generalized ICP (PCL's defaults: covariances from 20 neighbours), pairs within 4 x VOXEL, at
// most 50 iterations, from the initial pose.
//   qorv_pcl_local TARGET.pcd SOURCE.pcd VOXEL plane|gicp THREADS M00 M01 ... M33 (row-major)
// Prints one JSON line: the transform (row-major) and the seconds from the clouds in memory to
// the answer (reading excluded).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <Eigen/Core>

#include <pcl/features/normal_3d_omp.h>
#include <pcl/filters/voxel_grid.h>
#include <pcl/io/pcd_io.h>
#include <pcl/point_cloud.h>
#include <pcl/point_types.h>
#include <pcl/registration/gicp.h>
#include <pcl/registration/icp.h>
#include <pcl/search/kdtree.h>

namespace {

using Xyz = pcl::PointXYZ;
using PointNormal = pcl::PointNormal;

pcl::PointCloud<Xyz>::Ptr Down(const pcl::PointCloud<Xyz>::Ptr& cloud, float voxel) {
  pcl::VoxelGrid<Xyz> grid;
  grid.setInputCloud(cloud);
  grid.setLeafSize(voxel, voxel, voxel);
  auto out = std::make_shared<pcl::PointCloud<Xyz>>();
  grid.filter(*out);
  return out;
}

pcl::PointCloud<PointNormal>::Ptr WithNormals(const pcl::PointCloud<Xyz>::Ptr& cloud, int threads) {
  pcl::NormalEstimationOMP<Xyz, PointNormal> estimation(static_cast<unsigned>(threads));
  estimation.setSearchMethod(std::make_shared<pcl::search::KdTree<Xyz>>(false));
  estimation.setInputCloud(cloud);
  estimation.setKSearch(20);
  auto out = std::make_shared<pcl::PointCloud<PointNormal>>();
  estimation.compute(*out);
  for (size_t i = 0; i < cloud->size(); ++i) {
    (*out)[i].x = (*cloud)[i].x;
    (*out)[i].y = (*cloud)[i].y;
    (*out)[i].z = (*cloud)[i].z;
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 22) {
    std::fprintf(stderr,
                 "usage: qorv_pcl_local TARGET.pcd SOURCE.pcd VOXEL plane|gicp THREADS M00..M33\n");
    return 2;
  }
  auto target = std::make_shared<pcl::PointCloud<Xyz>>();
  auto source = std::make_shared<pcl::PointCloud<Xyz>>();
  if (pcl::io::loadPCDFile(argv[1], *target) != 0 || pcl::io::loadPCDFile(argv[2], *source) != 0)
    return 1;
  const float voxel = std::strtof(argv[3], nullptr);
  const std::string method = argv[4];
  const int threads = std::atoi(argv[5]);
  Eigen::Matrix4f initial;
  for (int i = 0; i < 16; ++i) initial(i / 4, i % 4) = std::strtof(argv[6 + i], nullptr);

  const auto start = std::chrono::steady_clock::now();
  const auto t = Down(target, voxel);
  const auto s = Down(source, voxel);
  Eigen::Matrix4f answer;
  if (method == "plane") {
    pcl::IterativeClosestPointWithNormals<PointNormal, PointNormal> icp;
    icp.setInputTarget(WithNormals(t, threads));
    icp.setInputSource(WithNormals(s, threads));
    icp.setMaxCorrespondenceDistance(4.0 * voxel);
    icp.setMaximumIterations(50);
    pcl::PointCloud<PointNormal> aligned;
    icp.align(aligned, initial);
    answer = icp.getFinalTransformation();
  } else {
    pcl::GeneralizedIterativeClosestPoint<Xyz, Xyz> gicp;
    gicp.setInputTarget(t);
    gicp.setInputSource(s);
    gicp.setMaxCorrespondenceDistance(4.0 * voxel);
    gicp.setMaximumIterations(50);
    pcl::PointCloud<Xyz> aligned;
    gicp.align(aligned, initial);
    answer = gicp.getFinalTransformation();
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("{\"seconds\": %.6f, \"transform\": [", seconds);
  for (int i = 0; i < 16; ++i) std::printf("%s%.9g", i ? ", " : "", answer(i / 4, i % 4));
  std::printf("]}\n");
  return 0;
}
