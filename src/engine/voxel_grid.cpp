// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/voxel_grid.hpp"

#include <algorithm>
#include <cmath>

#include "geometry/radix_sort.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv::engine {
namespace {

constexpr int kAxisBits = 21;
constexpr double kAxisCells = static_cast<double>((1 << kAxisBits) - 1);

// The cell along one axis of a coordinate at or above the grid's lower corner (which every
// point of the cloud is, so the offset is never negative and truncation is the floor), clamped to
// the axis' cells.
inline uint64_t AxisCell(float coordinate, float low, double inv) {
  const double cell = (static_cast<double>(coordinate) - low) * inv;
  return static_cast<uint64_t>(std::clamp(cell, 0.0, kAxisCells));
}

// Cell keys packed z, y, x from high to low bits, relative to the cloud's lower corner, made a
// block of points at a time into a buffer that stays in cache (no array as long as the cloud).
class CellKeys {
 public:
  static constexpr int32_t kBlock = 2048;

  CellKeys(const Cloud& cloud, double voxel)
      : cloud_(cloud), low_(cloud.bounds().low), inv_(1.0 / voxel) {}
  // Calls visit(i, key) for every point in index order.
  template <typename Visit>
  void forEach(Visit visit) const {
    const int32_t n = cloud_.size();
    uint64_t keys[kBlock];
    for (int32_t first = 0; first < n; first += kBlock) {
      const int32_t count = std::min(kBlock, n - first);
      const float* p = cloud_.points.data() + 3 * static_cast<size_t>(first);
      for (int32_t j = 0; j < count; ++j) {
        uint64_t key = 0;
        for (int d = 2; d >= 0; --d)
          key = (key << kAxisBits) | AxisCell(p[3 * j + d], low_[d], inv_);
        keys[j] = key;
      }
      for (int32_t j = 0; j < count; ++j) visit(first + j, keys[j]);
    }
  }

 private:
  const Cloud& cloud_;
  const Eigen::Vector3f low_;
  const double inv_;
};

// Numbers distinct keys in order of first appearance, with an open-addressing table that grows
// with the cells, not the points, so that it stays in cache: keys are numbered as they come, and
// the numbering depends only on their order.
class CellTable {
 public:
  // The number of key's cell, a new one (the count so far) when the key is new.
  int32_t cellOf(uint64_t key) {
    // Scans come in sensor order, so a point mostly shares its predecessor's cell.
    if (key == lastKey_) return lastCell_;
    size_t slot = slotOf(key);
    if (table_[slot] == kEmpty) {
      if (2 * static_cast<size_t>(cells_ + 1) > table_.size()) {
        grow();
        slot = slotOf(key);
      }
      table_[slot] = key;
      number_[slot] = cells_++;
    }
    lastKey_ = key;
    lastCell_ = number_[slot];
    return lastCell_;
  }
  int32_t cells() const { return cells_; }

 private:
  static constexpr uint64_t kEmpty = ~uint64_t{0};  // no cell key has all 64 bits set (3 x 21)

  size_t slotOf(uint64_t key) const {
    const size_t mask = table_.size() - 1;
    // The product's high bits, which every bit of the key reaches.
    size_t slot = static_cast<size_t>((key * 0x9e3779b97f4a7c15ull) >> shift_);
    while (table_[slot] != kEmpty && table_[slot] != key) slot = (slot + 1) & mask;
    return slot;
  }
  // Keeps the load below one half: rehashes into a table twice the size.
  void grow() {
    std::vector<uint64_t> oldTable(2 * table_.size(), kEmpty);
    std::vector<int32_t> oldNumber(2 * table_.size());
    oldTable.swap(table_);
    oldNumber.swap(number_);
    --shift_;
    for (size_t k = 0; k < oldTable.size(); ++k) {
      if (oldTable[k] == kEmpty) continue;
      const size_t to = slotOf(oldTable[k]);
      table_[to] = oldTable[k];
      number_[to] = oldNumber[k];
    }
  }

  std::vector<uint64_t> table_ = std::vector<uint64_t>(1024, kEmpty);
  std::vector<int32_t> number_ = std::vector<int32_t>(1024);
  int shift_ = 64 - 10;  // 64 - log2 of the table's size
  int32_t cells_ = 0;
  uint64_t lastKey_ = kEmpty;
  int32_t lastCell_ = -1;
};

// Spreads the low 21 bits of x to every third bit (bit i to bit 3 i).
uint64_t SpreadBits(uint64_t x) {
  x &= 0x1fffffull;
  x = (x | x << 32) & 0x1f00000000ffffull;
  x = (x | x << 16) & 0x1f0000ff0000ffull;
  x = (x | x << 8) & 0x100f00f00f00f00full;
  x = (x | x << 4) & 0x10c30c30c30c30c3ull;
  x = (x | x << 2) & 0x1249249249249249ull;
  return x;
}

}  // namespace

std::vector<int64_t> OccupiedVoxelLadder(const Cloud& cloud, double finest) {
  const int32_t n = cloud.size();
  if (n == 0 || !(finest > 0.0)) return {};
  const Cloud::Box box = cloud.bounds();
  const Eigen::Vector3f low = box.low;
  const Eigen::Vector3f extent = box.extent();
  const double inv = 1.0 / finest;
  // Bits an axis the finest cells take (at most 21, as for CellKeys: farther cells are clamped).
  const double cellsAcross = std::min(static_cast<double>(extent.maxCoeff()) * inv, kAxisCells);
  int bits = 0;
  while (bits < kAxisBits && static_cast<double>(uint64_t{1} << bits) <= cellsAcross) ++bits;
  std::vector<uint64_t> codes(static_cast<size_t>(n));
  // Points a block; each code is its point's own, so the size only splits the work.
  constexpr int32_t kBlock = 16384;
  ForBlocks((n + kBlock - 1) / kBlock, [&](int32_t block) {
    for (int32_t i = block * kBlock; i < std::min(n, (block + 1) * kBlock); ++i) {
      uint64_t code = 0;
      for (int d = 0; d < 3; ++d)
        code |= SpreadBits(AxisCell(cloud.points(d, i), low[d], inv)) << d;
      codes[static_cast<size_t>(i)] = code;
    }
  });
  const uint64_t maxCode = bits == 0 ? 0 : (uint64_t{1} << (3 * bits)) - 1;
  RadixSortByKey(codes, maxCode, [](uint64_t code) { return code; });
  // Level by level on the distinct cells of the level below: a cell's parent is its code without
  // the lowest three bits, and sorted codes keep their parents sorted.
  std::vector<int64_t> counts;
  codes.erase(std::unique(codes.begin(), codes.end()), codes.end());
  counts.push_back(static_cast<int64_t>(codes.size()));
  while (codes.size() > 1) {
    for (uint64_t& code : codes) code >>= 3;
    codes.erase(std::unique(codes.begin(), codes.end()), codes.end());
    counts.push_back(static_cast<int64_t>(codes.size()));
  }
  return counts;
}

double MinimumVoxelFor(const Cloud& cloud) {
  if (cloud.size() == 0) return 0.0;
  const Eigen::Vector3f extent = cloud.bounds().extent();
  return static_cast<double>(extent.maxCoeff()) / (kAxisCells - 1.0);
}

int64_t CountOccupiedVoxels(const Cloud& cloud, double voxel) {
  CellTable table;
  CellKeys(cloud, voxel).forEach([&](int32_t, uint64_t key) { table.cellOf(key); });
  return table.cells();
}

Cloud VoxelAverage(const Cloud& cloud,
                   const std::vector<float>& weights,
                   double voxel,
                   std::vector<float>& voxelWeights) {
  Cloud out;
  out.hasViewpoint = cloud.hasViewpoint;
  out.viewpoint = cloud.viewpoint;
  voxelWeights.clear();
  const int32_t n = cloud.size();
  if (n == 0) return out;
  CellTable table;
  const bool normals = cloud.hasNormals();
  // Sums in double, point after point in index order, a cell's added when its first point comes.
  using Sum = Eigen::Matrix<double, 7, 1>;
  std::vector<Sum> sums;
  CellKeys(cloud, voxel).forEach([&](int32_t i, uint64_t key) {
    const int32_t cell = table.cellOf(key);
    if (cell == static_cast<int32_t>(sums.size())) sums.push_back(Sum::Zero());
    const double w = weights.empty() ? 1.0 : static_cast<double>(weights[static_cast<size_t>(i)]);
    Sum& sum = sums[static_cast<size_t>(cell)];
    sum.head<3>() += w * cloud.points.col(i).cast<double>();
    if (normals) sum.segment<3>(3) += w * cloud.normals.col(i).cast<double>();
    sum[6] += w;
  });
  const int32_t cells = table.cells();
  out.points.resize(3, cells);
  if (normals) out.normals.resize(3, cells);
  voxelWeights.resize(static_cast<size_t>(cells));
  for (int32_t c = 0; c < cells; ++c) {
    const Sum& sum = sums[static_cast<size_t>(c)];
    const double weight = sum[6];
    out.points.col(c) = (sum.head<3>() / weight).cast<float>();
    if (normals) {
      const Eigen::Vector3d normal = sum.segment<3>(3);
      const double length = normal.norm();
      out.normals.col(c) =
          length > 0.0 ? Eigen::Vector3f((normal / length).cast<float>()) : Eigen::Vector3f::Zero();
    }
    voxelWeights[static_cast<size_t>(c)] = static_cast<float>(weight);
  }
  return out;
}

}  // namespace qorv::engine
