// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Preparing clouds: sanitize, choose the scales, thin, normals, features. A pair's clouds are
// prepared for it; the many scans of a collection once each, at scales they share.
#include <algorithm>
#include <string>

#include "engine/normals.hpp"
#include "engine/sanitize.hpp"
#include "engine/scale.hpp"
#include "engine/steps.hpp"
#include "engine/voxel_grid.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv::engine {
namespace {

// Lengths in units of the voxel they are used at (the fine normals' in the refinement unit).
// Normals from the neighbours within 2.5 voxels, at most 30 of them (12 at the refinement scale,
// where points are denser and sensor noise would tilt a small patch): wide enough to average the
// noise, narrow enough to keep an edge.
constexpr float kNormalRadius = 2.5f;
constexpr int32_t kNormalNeighbours = 30;
constexpr int32_t kFineNormalNeighbours = 12;
// Feature histograms: each point's own within 2.5 voxels, its neighbours' summed within 5.
constexpr float kFeatureRadius = 5.0f;
constexpr float kHistogramRadius = 2.5f;
// Fewer finite points than this have no shape worth registering.
constexpr int32_t kMinPoints = 5;

// Runs job(0) and job(1), the pair's target and source, side by side (each on a thread of its own
// when there are two), so that the serial parts of preparing one (sorts, cell tables) overlap the
// other's. Trees are built afterwards, on the calling thread, as their node pools require.
template <typename Job>
void ForBoth(Job job) {
  ForBlocks(2, [&](int32_t c) { job(c); });
}

Level Thin(const Level& from, double voxel) {
  Level out;
  out.cloud = VoxelAverage(from.cloud, from.weights, voxel, out.weights);
  return out;
}

// The refinement level of a sanitized cloud, thinned at `thin` (0: as it is), not yet indexed.
Level ThinLevel(Cloud cloud, double thin) {
  Level level;
  level.cloud = std::move(cloud);
  if (thin > 0.0) level = Thin(level, thin);
  return level;
}

}  // namespace

void Level::describe(const Refiner& refiner, StageClock& clock) {
  extras = refiner.Describe(cloud, *tree);
  if (extras) clock.lap("covariances");
}

void PreparedDeleter::operator()(Prepared* prepared) const { delete prepared; }

int32_t SanitizeChecked(const CloudView& view,
                        const Options& options,
                        const char* name,
                        Cloud& cloud,
                        std::string& error) {
  cloud = Sanitize(view);
  if (options.sensorOrigin && !cloud.hasViewpoint) {
    cloud.hasViewpoint = true;  // the caller says: scans centred on their sensor
    cloud.viewpoint.setZero();
  }
  if (cloud.size() < kMinPoints) {
    error = "the " + std::string(name) + " cloud has " + std::to_string(cloud.size()) +
            " finite points; at least " + std::to_string(kMinPoints) + " are needed";
    return kTooFewPoints;
  }
  const Eigen::Vector3f extent = cloud.bounds().extent();
  if (!(extent.maxCoeff() > 0.0f)) {
    error = "all finite points of the " + std::string(name) +
            " cloud coincide: there is no shape to register";
    return kTooFewPoints;
  }
  return kOk;
}

int32_t SanitizePair(const CloudView& targetView,
                     const CloudView& sourceView,
                     const Options& options,
                     Cloud& target,
                     Cloud& source,
                     std::string& error) {
  const CloudView* views[2] = {&targetView, &sourceView};
  const char* names[2] = {"target", "source"};
  Cloud* clouds[2] = {&target, &source};
  int32_t codes[2];
  std::string errors[2];
  ForBoth([&](int32_t c) {
    codes[c] = SanitizeChecked(*views[c], options, names[c], *clouds[c], errors[c]);
  });
  for (int c = 0; c < 2; ++c) {
    if (codes[c] != kOk) {
      error = errors[c];
      return codes[c];
    }
  }
  return kOk;
}

Level FineLevel(Cloud cloud, double thin) {
  Level level = ThinLevel(std::move(cloud), thin);
  level.index();
  return level;
}

Working MakeWorking(
    const Level& fine, double v, bool describe, const Refiner* refiner, StageClock& clock) {
  Working out;
  out.level = Thin(fine, v);
  out.level.index();
  const float vf = static_cast<float>(v);
  EstimateNormals(*out.level.tree, kNormalRadius * vf, kNormalNeighbours, out.level.cloud);
  clock.lap("normals");
  if (refiner != nullptr) out.level.describe(*refiner, clock);
  if (describe) {
    out.features = DescribePoints(
        *out.level.tree, out.level.cloud, kFeatureRadius * vf, kHistogramRadius * vf);
    clock.lap("features");
  }
  return out;
}

std::unique_ptr<Prepared> Finish(
    Level fine, const Scales& scales, const Options& options, int32_t points, StageClock& clock) {
  auto prepared = std::make_unique<Prepared>();
  prepared->points = points;
  prepared->fine = std::move(fine);
  EstimateNormals(*prepared->fine.tree,
                  kNormalRadius * static_cast<float>(scales.refineUnit),
                  kFineNormalNeighbours,
                  prepared->fine.cloud);
  clock.lap("scale");
  const Refiner& refiner = RefinerOf(options);
  prepared->fine.describe(refiner, clock);
  const Steps& steps = StepsOf(options.mode);
  prepared->first = MakeWorking(
      prepared->fine, scales.voxel, steps.features, steps.hypotheses ? &refiner : nullptr, clock);
  return prepared;
}

int32_t PreparePair(Cloud target,
                    Cloud source,
                    const Options& options,
                    Scales& scales,
                    PreparedPair& pair,
                    StageClock& clock,
                    std::string& error) {
  const int32_t targetPoints = target.size(), sourcePoints = source.size();
  Cloud clouds[2] = {std::move(target), std::move(source)};
  // The refinement voxel keeps both clouds within the refinement budget; the working voxel both
  // within the point budget, never below kSpacingFloor x the refined spacing.
  double thin[2];
  ForBoth([&](int32_t c) { thin[c] = VoxelForBudget(clouds[c], options.refineBudget); });
  scales.thin = std::max(thin[0], thin[1]);
  Level fine[2];
  double voxel[2] = {0.0, 0.0};
  ForBoth([&](int32_t c) {
    fine[c] = ThinLevel(std::move(clouds[c]), scales.thin);
    if (!(options.voxel > 0.0)) voxel[c] = VoxelForBudget(fine[c].cloud, options.pointBudget);
  });
  for (Level& level : fine) level.index();
  scales.spacing = std::max(MedianSpacing(*fine[0].tree), MedianSpacing(*fine[1].tree));
  if (!(scales.spacing > 0.0)) {
    error = "the clouds' points all coincide: there is no scale to work at";
    return kTooFewPoints;
  }
  scales.voxel = options.voxel;
  if (!(scales.voxel > 0.0)) {
    scales.voxel = std::max(voxel[0], voxel[1]);
    scales.voxel = std::max(scales.voxel, kSpacingFloor * scales.spacing);
  }
  scales.refineUnit = std::min(scales.spacing, scales.voxel);
  pair.target = Finish(std::move(fine[0]), scales, options, targetPoints, clock);
  pair.source = Finish(std::move(fine[1]), scales, options, sourcePoints, clock);
  return kOk;
}

int32_t MeasureScale(const CloudView& view,
                     const Options& options,
                     OwnScale& scale,
                     std::string& error) {
  Cloud cloud;
  if (const int32_t code = SanitizeChecked(view, options, "scan's", cloud, error); code != kOk)
    return code;
  scale.thin = VoxelForBudget(cloud, options.refineBudget);
  const Level fine = FineLevel(std::move(cloud), scale.thin);
  scale.spacing = MedianSpacing(*fine.tree);
  scale.voxel = VoxelForBudget(fine.cloud, options.pointBudget);
  if (!(scale.spacing > 0.0)) {
    error = "the scan's points all coincide: there is no scale to work at";
    return kTooFewPoints;
  }
  return kOk;
}

OwnScale TypicalScale(const std::vector<OwnScale>& scales) {
  OwnScale out;
  if (scales.empty()) return out;
  auto median = [&](double OwnScale::*field) {
    std::vector<double> values;
    for (const OwnScale& s : scales) values.push_back(s.*field);
    std::nth_element(
        values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
    return values[values.size() / 2];
  };
  out.thin = median(&OwnScale::thin);
  out.spacing = median(&OwnScale::spacing);
  out.voxel = median(&OwnScale::voxel);
  return out;
}

Scales CommonScales(const std::vector<OwnScale>& scales, const Options& options) {
  Scales out;
  if (scales.empty()) return out;
  const OwnScale typical = TypicalScale(scales);
  out.thin = typical.thin;
  out.spacing = typical.spacing;
  out.voxel =
      options.voxel > 0.0 ? options.voxel : std::max(typical.voxel, kSpacingFloor * out.spacing);
  out.refineUnit = std::min(out.spacing, out.voxel);
  return out;
}

int32_t Prepare(const CloudView& view,
                const Scales& scales,
                const Options& options,
                PreparedScan& prepared,
                std::string& error) {
  ThreadScope threads(options.threads);
  std::vector<StageTime> unused;
  StageClock clock(unused);
  Cloud cloud;
  if (const int32_t code = SanitizeChecked(view, options, "scan's", cloud, error); code != kOk)
    return code;
  const int32_t points = cloud.size();
  prepared.reset(
      Finish(FineLevel(std::move(cloud), scales.thin), scales, options, points, clock).release());
  return kOk;
}

}  // namespace qorv::engine
