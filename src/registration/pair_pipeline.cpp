// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/pair_pipeline.hpp"

#include <cmath>
#include <cstddef>

#include "geometry/gather.hpp"
#include "geometry/vec3.hpp"
#include "registration/correspondences.hpp"
#include "registration/iterative_matching.hpp"
#include "registration/ransac_matching.hpp"
#include "search/kd_tree.hpp"
#include "surface/gaussian_filter.hpp"
#include "surface/normal_estimation.hpp"
#include "surface/outlier_filter.hpp"
#include "surface/voxel_filter.hpp"

namespace qorv {
namespace {

constexpr int32_t kOutlierNeighbours = 50;
constexpr float kOutlierDeviations = 3.4f;
// The detector bounds are meant for sharply featured parts: smooth scanned surfaces, whose
// neighbourhoods are far from linear at 2s, yield no key point under them.
constexpr float kEigenRatio = 0.01f;
constexpr float kEdgeRatio = 0.995f;

// Lengths of the chain, in float from s exactly as the pipeline defines them.
struct Lengths {
  float s;
  float twoS;
  float fiveS;
  float thirdS;

  explicit Lengths(float resolution)
      : s(resolution), twoS(s + s), fiveS(s * 5.0f), thirdS(s / 3.0f) {}
};

int32_t CountOf(const std::vector<float>& points) {
  return static_cast<int32_t>(points.size() / 3);
}

KeyPointSet SetOf(const KeyPointFeatures& features, bool withNormals) {
  return {features.positions.data(),
          withNormals ? features.normals.data() : nullptr,
          features.descriptors.data(),
          features.count()};
}

}  // namespace

PreparedCloud PrepareCloud(const float* points,
                           int32_t count,
                           float resolution,
                           const Execution& exec) {
  const Lengths len(resolution);
  PreparedCloud out;
  // The voxel filter keeps nothing on such a grid; skip the work that would lead there (an
  // infinite radius would make the smoothing quadratic).
  if (!(resolution > 0.0f) || !std::isfinite(resolution)) return out;

  // A NaN point would leave the smoothing as NaN and shift the outlier statistics: it carries no
  // surface, so it is dropped before anything else looks at the cloud.
  std::vector<float> cloud;
  cloud.reserve(3 * static_cast<size_t>(count));
  for (int32_t i = 0; i < count; ++i) {
    const float* p = points + 3 * static_cast<size_t>(i);
    if (!HasNaN(p)) cloud.insert(cloud.end(), p, p + 3);
  }
  if (cloud.empty()) return out;

  cloud = GatherPoints(
      cloud.data(),
      OutlierFilter(cloud.data(), CountOf(cloud), kOutlierNeighbours, kOutlierDeviations, exec));
  if (cloud.empty()) return out;

  {
    std::vector<float> smoothed(cloud.size());
    const PointKdTree64 tree(cloud.data(), CountOf(cloud));
    GaussianFilter(tree, len.s, exec, smoothed.data());
    cloud.swap(smoothed);
  }

  out.points = GatherPoints(cloud.data(), VoxelFilter(cloud.data(), CountOf(cloud), len.s));
  out.normals.assign(out.points.size(), 0.0f);
  if (!out.points.empty()) {
    const PointKdTree tree(out.points.data(), out.count());
    EstimateNormals(tree, len.twoS, exec, out.normals.data());
  }
  return out;
}

KeyPointFeatures PipelineKeyPoints(const PreparedCloud& cloud,
                                   float resolution,
                                   const Execution& exec) {
  if (cloud.count() == 0) return {};
  const Lengths len(resolution);
  KeyPointParams params;
  params.keyPointRadius = len.twoS;
  params.nonMaxRadius = len.thirdS;
  params.ratio21 = kEigenRatio;
  params.ratio32 = kEigenRatio;
  params.maxKeyPoints = 0;
  const PointKdTree tree(cloud.points.data(), cloud.count());
  return DetectAndCompute(tree, cloud.normals.data(), params, len.s, len.fiveS, exec);
}

int32_t MatchPipelineKeyPoints(const KeyPointFeatures& first,
                               const KeyPointFeatures& second,
                               const PairPipelineParams& params,
                               bool crossCheck,
                               const Execution& exec,
                               uint32_t timeSeed,
                               double* transform,
                               std::vector<int32_t>& matches) {
  const bool iterative = params.kernelScale > 0.0f;
  KeyPointSet firstSet = SetOf(first, !iterative);
  KeyPointSet secondSet = SetOf(second, !iterative);
  // Nothing can pair up when one side has no key point; the matchers then run on no
  // correspondence, which gives their documented empty results.
  if (firstSet.count == 0 || secondSet.count == 0) {
    firstSet.count = 0;
    secondSet.count = 0;
  }
  if (iterative) {
    const IterativeParams refine{params.iterations, params.kernelScale, params.resolution};
    return IterativeMatch(firstSet, secondSet, refine, crossCheck, exec, transform, matches);
  }
  const RansacParams ransac{
      params.iterations, static_cast<double>(kEdgeRatio), static_cast<double>(params.resolution)};
  return RansacMatch(firstSet, secondSet, ransac, crossCheck, exec, timeSeed, transform, matches);
}

int32_t MatchPairPointCloud(const float* points1,
                            int32_t count1,
                            const float* points2,
                            int32_t count2,
                            const PairPipelineParams& params,
                            bool crossCheck,
                            const Execution& exec,
                            uint32_t timeSeed,
                            double* transform,
                            std::vector<int32_t>& matches) {
  const float s = params.resolution;
  const KeyPointFeatures second =
      PipelineKeyPoints(PrepareCloud(points2, count2, s, exec), s, exec);
  const KeyPointFeatures first = PipelineKeyPoints(PrepareCloud(points1, count1, s, exec), s, exec);
  return MatchPipelineKeyPoints(
      first, second, params, crossCheck, exec, timeSeed, transform, matches);
}

}  // namespace qorv
