// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "features/organized_keypoints.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

#include "features/pixel_windows.hpp"
#include "surface/scatter_eigen.hpp"

namespace qorv {
namespace {

constexpr float kEpsilon = FLT_EPSILON;

// Scatter sums of the unit directions from each pixel of a row segment, per worker.
struct ScatterRow {
  std::vector<float> c00, c01, c02, c11, c12, c22;
  std::vector<int64_t> count;

  void reset(size_t n) {
    for (std::vector<float>* c : {&c00, &c01, &c02, &c11, &c12, &c22}) c->assign(n, 0.0f);
    count.assign(n, 0);
  }
};

// The vertex map split into one plane per coordinate, so that neighbouring pixels' coordinates
// are adjacent in memory.
struct VertexPlanes {
  std::vector<float> x, y, z;
};

inline uint32_t Bits(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

inline float FromBits(uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

// Adds, for i < n, the unit direction from pixel p_i to pixel q_i when q_i is valid and at least
// float epsilon away. A skipped pixel becomes the direction 0 / 1 through bit masks (a branch
// would keep the compiler from working on several pixels at once) and adds +0, which leaves
// every sum's bits unchanged: sums start at +0 and never become -0. A NaN length is counted and
// spoils the score, as it should. Parameters, not locals, carry restrict: only they tell the
// compiler that the arrays do not overlap.
void AddDirections(const float* __restrict qx,
                   const float* __restrict qy,
                   const float* __restrict qz,
                   const uint8_t* __restrict valid,
                   const float* __restrict px,
                   const float* __restrict py,
                   const float* __restrict pz,
                   size_t n,
                   float* __restrict c00,
                   float* __restrict c01,
                   float* __restrict c02,
                   float* __restrict c11,
                   float* __restrict c12,
                   float* __restrict c22,
                   int64_t* __restrict count) {
  const uint32_t one = Bits(1.0f);
  for (size_t i = 0; i < n; ++i) {
    const float dx = qx[i] - px[i];
    const float dy = qy[i] - py[i];
    const float dz = qz[i] - pz[i];
    const float length = std::sqrt(dx * dx + dy * dy + dz * dz);
    const bool use = (valid[i] != 0) & !(length < kEpsilon);
    const uint32_t keep = 0u - static_cast<uint32_t>(use);
    const float divisor = FromBits((Bits(length) & keep) | (one & ~keep));
    const float ux = FromBits(Bits(dx) & keep) / divisor;
    const float uy = FromBits(Bits(dy) & keep) / divisor;
    const float uz = FromBits(Bits(dz) & keep) / divisor;
    c00[i] += ux * ux;
    c01[i] += ux * uy;
    c02[i] += ux * uz;
    c11[i] += uy * uy;
    c12[i] += uy * uz;
    c22[i] += uz * uz;
    count[i] += use;
  }
}

// Accumulates, for every pixel of columns cols of `row`, the directions to the valid pixels of
// its window. The loops run window offset first and pixel second, so that several pixels are
// worked on at once while each pixel still sums its window in row-major order.
void AccumulateScatterRow(const OrganizedMaps& maps,
                          const VertexPlanes& planes,
                          int32_t row,
                          PixelSpan cols,
                          int32_t h,
                          ScatterRow& s) {
  const size_t n = static_cast<size_t>(cols.end - cols.begin);
  s.reset(n);
  const size_t center = PixelIndex(maps, row, cols.begin);
  for (int32_t dr = -h; dr <= h; ++dr) {
    for (int32_t dc = -h; dc <= h; ++dc) {
      const size_t first = PixelIndex(maps, row + dr, cols.begin + dc);
      AddDirections(planes.x.data() + first,
                    planes.y.data() + first,
                    planes.z.data() + first,
                    maps.mask + first,
                    planes.x.data() + center,
                    planes.y.data() + center,
                    planes.z.data() + center,
                    n,
                    s.c00.data(),
                    s.c01.data(),
                    s.c02.data(),
                    s.c11.data(),
                    s.c12.data(),
                    s.c22.data(),
                    s.count.data());
    }
  }
}

// Score from the scatter sums of one pixel, NaN when it is no candidate.
float ScoreOf(const ScatterRow& s, size_t i, const OrganizedKeyPointParams& params) {
  const float none = std::numeric_limits<float>::quiet_NaN();
  if (s.count[i] < params.scoreWindow) return none;
  const ScatterEigenvalues e =
      ComputeScatterEigenvalues(s.c00[i], s.c11[i], s.c22[i], s.c01[i], s.c02[i], s.c12[i]);
  if (std::signbit(e.e0) != std::signbit(e.e1)) return none;
  float l1 = e.e0, l2 = e.e1, l3 = e.e2;
  if (l1 < l2) std::swap(l1, l2);
  if (l2 < l3) std::swap(l2, l3);
  if (l1 < l2) std::swap(l1, l2);
  if (l2 / l1 < params.ratio21 && l3 / l2 < params.ratio32) return l3;
  return none;
}

// Flag of a scored pixel: 255 unless its window holds a strictly greater score (NaN never is).
uint8_t SuppressionFlag(
    const OrganizedMaps& maps, const float* scores, int32_t row, int32_t col, int32_t h) {
  const float score = scores[PixelIndex(maps, row, col)];
  const PixelSpan rows = WindowSpan(row, h, maps.height);
  const PixelSpan cols = WindowSpan(col, h, maps.width);
  for (int32_t qr = rows.begin; qr < rows.end; ++qr) {
    const float* rowScores = scores + PixelIndex(maps, qr, 0);
    for (int32_t qc = cols.begin; qc < cols.end; ++qc) {
      if (rowScores[qc] > score) return 0;
    }
  }
  return 255;
}

// Keeps the maxKeyPoints flags of best score, ties to the lower pixel index. The kept set is the
// first maxKeyPoints records of a sort by that total order, found in linear time.
void CapKeyPixels(const OrganizedMaps& maps,
                  const float* scores,
                  int32_t maxKeyPoints,
                  uint8_t* keyFlags) {
  if (maxKeyPoints < 1) return;
  struct Record {
    float score;
    size_t pixel;
  };
  std::vector<Record> records;
  const size_t pixelCount = maps.pixelCount();
  for (size_t i = 0; i < pixelCount; ++i) {
    if (keyFlags[i] != 0 && !std::isnan(scores[i])) records.push_back({scores[i], i});
  }
  const size_t keep = static_cast<size_t>(maxKeyPoints);
  if (records.size() <= keep) return;
  const auto better = [](const Record& a, const Record& b) {
    if (a.score != b.score) return a.score > b.score;
    return a.pixel < b.pixel;
  };
  std::nth_element(
      records.begin(), records.begin() + static_cast<std::ptrdiff_t>(keep), records.end(), better);
  for (size_t k = keep; k < records.size(); ++k) keyFlags[records[k].pixel] = 0;
}

}  // namespace

void DetectKeyPixels(const OrganizedMaps& maps,
                     const OrganizedKeyPointParams& params,
                     const Execution& exec,
                     uint8_t* keyFlags,
                     float* scores) {
  const size_t pixelCount = maps.pixelCount();
  std::fill(scores, scores + pixelCount, std::numeric_limits<float>::quiet_NaN());
  std::fill(keyFlags, keyFlags + pixelCount, uint8_t{0});
  // Fewer than 2 window pixels never give a score (no direction, or a zero scatter matrix).
  if (params.scoreWindow < 2) return;

  const int32_t scoreHalf = params.scoreWindow >> 1;
  const PixelSpan scoreRows = InnerSpan(scoreHalf, maps.height);
  const PixelSpan scoreCols = InnerSpan(scoreHalf, maps.width);
  if (scoreRows.begin >= scoreRows.end || scoreCols.begin >= scoreCols.end) return;
  VertexPlanes planes;
  for (std::vector<float>* plane : {&planes.x, &planes.y, &planes.z}) plane->resize(pixelCount);
  RunFor(exec, 0, maps.height, [&](int32_t begin, int32_t end, int32_t) {
    for (size_t i = PixelIndex(maps, begin, 0); i < PixelIndex(maps, std::max(begin, end), 0);
         ++i) {
      planes.x[i] = maps.vertices[3 * i];
      planes.y[i] = maps.vertices[3 * i + 1];
      planes.z[i] = maps.vertices[3 * i + 2];
    }
  });
  // The window of a pixel inside the border lies inside the image.
  std::vector<ScatterRow> scratch(static_cast<size_t>(exec.slots()));
  RunFor(exec, scoreRows.begin, scoreRows.end, [&](int32_t begin, int32_t end, int32_t thread) {
    ScatterRow& sums = scratch[static_cast<size_t>(thread)];
    for (int32_t r = begin; r < end; ++r) {
      AccumulateScatterRow(maps, planes, r, scoreCols, scoreHalf, sums);
      const size_t rowStart = PixelIndex(maps, r, scoreCols.begin);
      for (size_t i = 0; i < sums.count.size(); ++i) {
        if (maps.mask[rowStart + i] != 0) scores[rowStart + i] = ScoreOf(sums, i, params);
      }
    }
  });

  const int32_t suppressionHalf = params.suppressionWindow / 2;
  const PixelSpan flagRows = InnerSpan(suppressionHalf, maps.height);
  const PixelSpan flagCols = InnerSpan(suppressionHalf, maps.width);
  RunFor(exec, flagRows.begin, flagRows.end, [&](int32_t begin, int32_t end, int32_t) {
    for (int32_t r = begin; r < end; ++r) {
      for (int32_t c = flagCols.begin; c < flagCols.end; ++c) {
        const size_t i = PixelIndex(maps, r, c);
        if (!std::isnan(scores[i]))
          keyFlags[i] = SuppressionFlag(maps, scores, r, c, suppressionHalf);
      }
    }
  });

  CapKeyPixels(maps, scores, params.maxKeyPoints, keyFlags);
}

}  // namespace qorv
