// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <new>
#include <vector>

#include "features/descriptor_layout.hpp"
#include "features/organized_keypoints.hpp"
#include "features/pair_features.hpp"
#include "features/pixel_windows.hpp"
#include "geometry/vec3.hpp"

namespace qorv {
namespace {

constexpr float kEpsilon = FLT_EPSILON;

inline int32_t HardBin(float x) {
  if (x >= 10.0f) return 10;
  if (x >= 0.0f) return static_cast<int32_t>(x);
  return 0;  // negative, or NaN from a NaN normal
}

struct KeyPixel {
  int32_t row;
  int32_t col;
  size_t descriptor;  // position among all key pixels
};

}  // namespace

void ComputePixelHistogram(
    const OrganizedMaps& maps, int32_t row, int32_t col, int32_t histogramWindow, int32_t* counts) {
  std::fill(counts, counts + kDescriptorSize, 0);
  const size_t s = PixelIndex(maps, row, col);
  const float* ps = maps.vertices + 3 * s;
  const float* ns = maps.normals + 3 * s;
  const int32_t h = histogramWindow / 2;
  const PixelSpan rows = WindowSpan(row, h, maps.height);
  const PixelSpan cols = WindowSpan(col, h, maps.width);
  for (int32_t jr = rows.begin; jr < rows.end; ++jr) {
    const size_t rowStart = PixelIndex(maps, jr, 0);
    for (int32_t jc = cols.begin; jc < cols.end; ++jc) {
      const size_t j = rowStart + static_cast<size_t>(jc);
      if (maps.mask[j] == 0) continue;
      const float* pj = maps.vertices + 3 * j;
      const float d[3] = {pj[0] - ps[0], pj[1] - ps[1], pj[2] - ps[2]};
      const float distance = std::sqrt(Dot(d, d));
      if (!(distance >= kEpsilon)) continue;  // the pixel itself, coincident and NaN points
      const PairFeatures f = ComputePairFeatures(ps, ns, pj, maps.normals + 3 * j, distance);
      // Bin scales: 5.5 for the cosines in [-1, 1], 5.5 / pi for the angle in [-pi, pi].
      ++counts[HardBin(f.theta * 1.7507044f + 5.5f)];
      ++counts[kHistogramBins + HardBin(f.alpha * 5.5f + 5.5f)];
      ++counts[2 * kHistogramBins + HardBin(f.phi * 5.5f + 5.5f)];
    }
  }
}

std::vector<float> ComputeKeyPixelDescriptors(const OrganizedMaps& maps,
                                              const uint8_t* keyFlags,
                                              int32_t descriptorHalfWindow,
                                              int32_t histogramWindow,
                                              const Execution& exec) {
  const size_t pixelCount = maps.pixelCount();
  const int32_t h = descriptorHalfWindow;
  const PixelSpan keyRows = InnerSpan(h, maps.height);
  const PixelSpan keyCols = InnerSpan(h, maps.width);
  size_t keyCount = 0;
  std::vector<KeyPixel> inner;  // key pixels that get a computed descriptor, in pixel order
  for (size_t i = 0; i < pixelCount; ++i) {
    if (keyFlags[i] == 0) continue;
    const auto row = static_cast<int32_t>(i / static_cast<size_t>(maps.width));
    const auto col = static_cast<int32_t>(i % static_cast<size_t>(maps.width));
    if (row >= keyRows.begin && row < keyRows.end && col >= keyCols.begin && col < keyCols.end) {
      inner.push_back({row, col, keyCount});
    }
    ++keyCount;
  }
  std::vector<float> descriptors(keyCount * kDescriptorSize, 0.0f);
  // A negative half-window has no pixel to sum: every block stays zero.
  if (inner.empty() || h < 0) return descriptors;
  if (inner.size() > static_cast<size_t>(INT32_MAX)) throw std::bad_alloc();

  // Pixels some descriptor window needs: marked per image row from the key pixels within h rows.
  constexpr int32_t kUnused = -1;
  std::vector<int32_t> slotOf(pixelCount, kUnused);
  const auto keysFromRow = [&](int64_t row) {
    return std::lower_bound(
        inner.begin(), inner.end(), row, [](const KeyPixel& k, int64_t r) { return k.row < r; });
  };
  RunFor(exec, 0, maps.height, [&](int32_t begin, int32_t end, int32_t) {
    for (int32_t r = begin; r < end; ++r) {
      const size_t rowStart = PixelIndex(maps, r, 0);
      const auto last = keysFromRow(static_cast<int64_t>(r) + h + 1);
      for (auto key = keysFromRow(static_cast<int64_t>(r) - h); key != last; ++key) {
        const PixelSpan cols = WindowSpan(key->col, h, maps.width);
        for (int32_t c = cols.begin; c < cols.end; ++c) {
          if (maps.mask[rowStart + static_cast<size_t>(c)] != 0)
            slotOf[rowStart + static_cast<size_t>(c)] = 0;
        }
      }
    }
  });
  std::vector<size_t> needed;
  for (size_t i = 0; i < pixelCount; ++i) {
    if (slotOf[i] == kUnused) continue;
    if (needed.size() >= static_cast<size_t>(INT32_MAX)) throw std::bad_alloc();
    slotOf[i] = static_cast<int32_t>(needed.size());
    needed.push_back(i);
  }

  std::vector<int32_t> histograms(needed.size() * kDescriptorSize);
  RunFor(exec, 0, static_cast<int32_t>(needed.size()), [&](int32_t begin, int32_t end, int32_t) {
    for (int32_t k = begin; k < end; ++k) {
      const size_t pixel = needed[static_cast<size_t>(k)];
      ComputePixelHistogram(maps,
                            static_cast<int32_t>(pixel / static_cast<size_t>(maps.width)),
                            static_cast<int32_t>(pixel % static_cast<size_t>(maps.width)),
                            histogramWindow,
                            histograms.data() + static_cast<size_t>(k) * kDescriptorSize);
    }
  });

  RunFor(exec, 0, static_cast<int32_t>(inner.size()), [&](int32_t begin, int32_t end, int32_t) {
    for (int32_t k = begin; k < end; ++k) {
      const KeyPixel& key = inner[static_cast<size_t>(k)];
      float* descriptor = descriptors.data() + key.descriptor * kDescriptorSize;
      const float* vp = maps.vertices + 3 * PixelIndex(maps, key.row, key.col);
      const PixelSpan rows = WindowSpan(key.row, h, maps.height);
      const PixelSpan cols = WindowSpan(key.col, h, maps.width);
      for (int32_t qr = rows.begin; qr < rows.end; ++qr) {
        const size_t rowStart = PixelIndex(maps, qr, 0);
        for (int32_t qc = cols.begin; qc < cols.end; ++qc) {
          const size_t q = rowStart + static_cast<size_t>(qc);
          if (maps.mask[q] == 0) continue;
          const float root = std::sqrt(Dot(maps.vertices + 3 * q, vp));
          if (!(root >= kEpsilon)) continue;  // negative or NaN dot products too
          const float weight = 1.0f / root;
          const int32_t* counts =
              histograms.data() + static_cast<size_t>(slotOf[q]) * kDescriptorSize;
          for (int32_t b = 0; b < kDescriptorSize; ++b) {
            descriptor[b] += static_cast<float>(counts[b]) * weight;
          }
        }
      }
      NormaliseBlocks(descriptor);
    }
  });
  return descriptors;
}

}  // namespace qorv
