// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/scale.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "engine/voxel_grid.hpp"

namespace qorv::engine {

namespace {

// The first counts span voxels from 1/64 to 2^15 x the first guess; a guess more than 64 times too
// coarse (a few far outliers stretching the extent) moves the ladder 4,096 times finer.
constexpr double kLadderBelow = 64.0;
constexpr double kLadderShift = 4096.0;
// Counts made at the interpolated voxel to correct it, and the share of the budget within which
// an answer stands.
constexpr int kChecks = 1;
constexpr double kClose = 0.05;
// Answers are snapped to steps of 1/64 octave (about 1 %): the counts of the same scene given in
// another frame (survey coordinates moved near the origin, where float rounding falls otherwise)
// differ by a few voxels, which would otherwise move the voxel, and every length after it.
constexpr double kStepsAnOctave = 64.0;

double Snapped(double voxel, double minimum) {
  return std::max(std::exp2(std::round(std::log2(voxel) * kStepsAnOctave) / kStepsAnOctave),
                  minimum);
}

}  // namespace

double VoxelForBudget(const Cloud& cloud, int32_t budget) {
  if (cloud.size() <= budget) return 0.0;
  const Eigen::Vector3f extentF = cloud.bounds().extent();
  std::array<double, 3> extent = {extentF[0], extentF[1], extentF[2]};
  std::sort(extent.begin(), extent.end());
  // A first guess from the extent, as if the cloud were a surface filling its two largest extents.
  const double guess =
      std::sqrt(std::max(extent[2] * extent[1], extent[2] * extent[2] * 1e-4) / budget);
  const double minimum = MinimumVoxelFor(cloud);
  if (!(std::max(guess, minimum) > 0.0)) return 0.0;
  // Occupied voxels at every power-of-two multiple of the finest edge, from one sort.
  double finest = std::max(guess / kLadderBelow, minimum);
  std::vector<int64_t> counts = OccupiedVoxelLadder(cloud, finest);
  if (counts.front() < budget && finest > minimum) {
    finest = std::max(finest / kLadderShift, minimum);
    counts = OccupiedVoxelLadder(cloud, finest);
  }
  // Even the finest voxels keep fewer than the budget (repeated points): any finer keeps no more.
  if (counts.front() < budget) return Snapped(finest, minimum);
  size_t k = 0;
  while (k + 1 < counts.size() && counts[k + 1] >= budget) ++k;
  const double below = std::ldexp(finest, static_cast<int>(k));
  if (k + 1 == counts.size())
    return Snapped(below, minimum);  // one voxel holds them all and meets it
  // The bracket [lowV, highV] with N(lowV) >= budget > N(highV), narrowed on the log-log curve
  // (N(v) ~ v^-d, d from 1 for lines to 3 for volumes, bends where voxels hold single points).
  double lowV = std::log(below), lowN = std::log(static_cast<double>(counts[k]));
  double highV = lowV + std::log(2.0), highN = std::log(static_cast<double>(counts[k + 1]));
  const double want = std::log(static_cast<double>(budget));
  double voxel = below;
  for (int check = 0; check <= kChecks; ++check) {
    const double at = lowV + (want - lowN) * (highV - lowV) / (highN - lowN);
    voxel = std::exp(at);
    if (check == kChecks) break;
    const double count = static_cast<double>(CountOccupiedVoxels(cloud, voxel));
    if (std::abs(count / budget - 1.0) < kClose) break;
    // Off-power-of-two grids need not nest, so a count may fall outside the bracket: then the
    // bracket stands and the interpolated voxel is kept.
    if (count >= budget && count <= std::exp(lowN) && at >= lowV) {
      lowV = at;
      lowN = std::log(count);
    } else if (count < budget && count >= std::exp(highN) && at <= highV) {
      highV = at;
      highN = std::log(count);
    } else {
      break;
    }
    if (!(highN < lowN)) break;
  }
  return Snapped(voxel, minimum);
}

double MedianSpacing(const PointKdTree& tree) {
  const std::vector<int32_t>& indexed = tree.indices();
  if (indexed.size() < 2) return 0.0;
  const size_t samples = std::min<size_t>(indexed.size(), 2000);
  std::vector<float> nearest;
  nearest.reserve(samples);
  for (size_t s = 0; s < samples; ++s) {
    const int32_t i = indexed[s * indexed.size() / samples];
    int32_t found[2];
    float distSq[2];
    if (tree.knnSearch(tree.element(i), 2, found, distSq) == 2) nearest.push_back(distSq[1]);
  }
  if (nearest.empty()) return 0.0;
  std::nth_element(
      nearest.begin(), nearest.begin() + static_cast<long>(nearest.size() / 2), nearest.end());
  return std::sqrt(static_cast<double>(nearest[nearest.size() / 2]));
}

}  // namespace qorv::engine
