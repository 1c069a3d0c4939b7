// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "features/fpfh_descriptor.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

#include "features/pair_features.hpp"

namespace qorv {
namespace {

constexpr float kEpsilon = FLT_EPSILON;       // 1.1920929e-07
constexpr float kBinsPerUnit = 5.5f;          // [-1, 1] onto [0, 11)
constexpr float kBinsPerRadian = 1.7507044f;  // 5.5 / pi: [-pi, pi] onto [0, 11)

inline int32_t WrapBin(int32_t b) {
  return ((b % kHistogramBins) + kHistogramBins) % kHistogramBins;
}

// Soft circular binning: the weight is shared linearly between the two bins around x, and the
// bin after the last is bin 0, for the angle as for the two cosine features.
inline void AddCircular(float* histogram, float x, float weight) {
  if (x < 0.0f) x += static_cast<float>(kHistogramBins);
  // NaN features (NaN normals) and values far outside every range would give no valid bin.
  if (!(std::fabs(x) < 1.0e9f)) return;
  const int32_t b = static_cast<int32_t>(x);
  const float t = x - static_cast<float>(b);
  histogram[WrapBin(b)] += (1.0f - t) * weight;
  histogram[WrapBin(b + 1)] += t * weight;
}

// A neighbour of a key point that contributes to its descriptor, with its distance weight.
struct WeightedNeighbour {
  int32_t index;
  float weight;
};

struct alignas(64) DescriptorScratch {
  RadiusResult neighbours;
  std::vector<WeightedNeighbour> weighted;  // this worker's key points, in key-point order
};

}  // namespace

void ComputePairHistograms(const PointKdTree& tree,
                           const float* normals,
                           int32_t pointIndex,
                           float histogramRadiusSq,
                           RadiusResult& neighbours,
                           float* histogram) {
  std::fill(histogram, histogram + kDescriptorSize, 0.0f);
  float* angle = histogram;
  float* spread = histogram + kHistogramBins;
  float* direction = histogram + 2 * kHistogramBins;
  const float* points = tree.data();
  const float* ps = points + static_cast<size_t>(pointIndex) * 3;
  const float* ns = normals + static_cast<size_t>(pointIndex) * 3;
  neighbours.clear();
  tree.radiusSearch(ps, histogramRadiusSq, neighbours, false);
  for (size_t n = 0; n < neighbours.size(); ++n) {
    const int32_t j = neighbours.indices[n];
    if (j == pointIndex) continue;
    const float d = std::sqrt(neighbours.distSq[n]);
    if (d < kEpsilon) continue;
    const size_t offset = static_cast<size_t>(j) * 3;
    const PairFeatures f = ComputePairFeatures(ps, ns, points + offset, normals + offset, d);
    AddCircular(spread, (f.alpha + 1.0f) * kBinsPerUnit, f.weight);
    AddCircular(angle, f.theta * kBinsPerRadian + kBinsPerUnit, f.weight);
    AddCircular(direction, (f.phi + 1.0f) * kBinsPerUnit, f.weight);
  }
}

void ComputeDescriptors(const PointKdTree& tree,
                        const float* normals,
                        const int32_t* keyPointIndices,
                        int32_t keyPointCount,
                        float featureRadius,
                        float histogramRadius,
                        const Execution& exec,
                        float* descriptors) {
  if (keyPointCount < 1) return;
  std::fill(descriptors, descriptors + static_cast<size_t>(keyPointCount) * kDescriptorSize, 0.0f);
  const float featureRadiusSq = featureRadius * featureRadius;
  const float featureWeightScale = featureRadiusSq / 9.0f;
  const float histogramRadiusSq = histogramRadius * histogramRadius;
  const size_t slots = static_cast<size_t>(exec.slots());
  std::vector<DescriptorScratch> scratch(slots);

  // 1. The contributing neighbours of every key point, in search order, with their weights.
  std::vector<int32_t> neighbourCount(static_cast<size_t>(keyPointCount));
  RunFor(exec, 0, keyPointCount, [&](int32_t begin, int32_t end, int32_t threadIndex) {
    DescriptorScratch& s = scratch[static_cast<size_t>(threadIndex)];
    for (int32_t k = begin; k < end; ++k) {
      const int32_t keyPoint = keyPointIndices[k];
      s.neighbours.clear();
      tree.radiusSearch(tree.element(keyPoint), featureRadiusSq, s.neighbours, false);
      int32_t used = 0;
      for (size_t n = 0; n < s.neighbours.size(); ++n) {
        const int32_t j = s.neighbours.indices[n];
        const float distSq = s.neighbours.distSq[n];
        if (j == keyPoint || distSq < kEpsilon) continue;
        s.weighted.push_back({j, std::sqrt(featureWeightScale / (featureWeightScale + distSq))});
        ++used;
      }
      neighbourCount[static_cast<size_t>(k)] = used;
    }
  });
  // Worker chunks are contiguous and in order: concatenated, the lists follow the key points.
  std::vector<WeightedNeighbour> weighted;
  for (DescriptorScratch& s : scratch) {
    weighted.insert(weighted.end(), s.weighted.begin(), s.weighted.end());
    s.weighted.clear();
    s.weighted.shrink_to_fit();
  }

  // 2. One histogram per distinct point needed, key points and their neighbours alike: a point
  // histogram depends only on the point, so sharing it changes no bit of any descriptor.
  std::vector<int32_t> slotOf(static_cast<size_t>(tree.count()), -1);
  std::vector<int32_t> needed;
  auto require = [&](int32_t point) {
    int32_t& slot = slotOf[static_cast<size_t>(point)];
    if (slot < 0) {
      slot = static_cast<int32_t>(needed.size());
      needed.push_back(point);
    }
  };
  for (int32_t k = 0; k < keyPointCount; ++k) require(keyPointIndices[k]);
  for (const WeightedNeighbour& n : weighted) require(n.index);
  std::vector<float> histograms(needed.size() * kDescriptorSize);
  RunFor(exec,
         0,
         static_cast<int32_t>(needed.size()),
         [&](int32_t begin, int32_t end, int32_t threadIndex) {
           RadiusResult& found = scratch[static_cast<size_t>(threadIndex)].neighbours;
           for (int32_t q = begin; q < end; ++q) {
             ComputePairHistograms(tree,
                                   normals,
                                   needed[static_cast<size_t>(q)],
                                   histogramRadiusSq,
                                   found,
                                   histograms.data() + static_cast<size_t>(q) * kDescriptorSize);
           }
         });

  // 3. Weighted sums, the key point's own histogram weighing as much as all its neighbours.
  std::vector<size_t> first(static_cast<size_t>(keyPointCount) + 1, 0);
  for (int32_t k = 0; k < keyPointCount; ++k) {
    first[static_cast<size_t>(k) + 1] =
        first[static_cast<size_t>(k)] + static_cast<size_t>(neighbourCount[static_cast<size_t>(k)]);
  }
  auto histogramOf = [&](int32_t point) {
    return histograms.data() +
           static_cast<size_t>(slotOf[static_cast<size_t>(point)]) * kDescriptorSize;
  };
  RunFor(exec, 0, keyPointCount, [&](int32_t begin, int32_t end, int32_t) {
    for (int32_t k = begin; k < end; ++k) {
      float* descriptor = descriptors + static_cast<size_t>(k) * kDescriptorSize;
      float totalWeight = 0.0f;
      for (size_t n = first[static_cast<size_t>(k)]; n < first[static_cast<size_t>(k) + 1]; ++n) {
        const float w = weighted[n].weight;
        const float* histogram = histogramOf(weighted[n].index);
        for (int32_t b = 0; b < kDescriptorSize; ++b) descriptor[b] += w * histogram[b];
        totalWeight += w;
      }
      if (totalWeight <= 0.0f) totalWeight = 1.0f;
      const float* own = histogramOf(keyPointIndices[k]);
      for (int32_t b = 0; b < kDescriptorSize; ++b) descriptor[b] += totalWeight * own[b];
      NormaliseBlocks(descriptor);
    }
  });
}

}  // namespace qorv
