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

// Cell keys packed z, y, x from high to low bits, relative to the cloud's lower corner.
std::vector<uint64_t> CellKeys(const Cloud& cloud, double voxel) {
  const Eigen::Vector3f low = cloud.points.rowwise().minCoeff();
  const double inv = 1.0 / voxel;
  const int32_t n = cloud.size();
  std::vector<uint64_t> keys(static_cast<size_t>(n));
  // Points a block; each key is its point's own, so the size only splits the work.
  constexpr int32_t kBlock = 16384;
  ForBlocks((n + kBlock - 1) / kBlock, [&](int32_t block) {
    for (int32_t i = block * kBlock; i < std::min(n, (block + 1) * kBlock); ++i) {
      uint64_t key = 0;
      for (int d = 2; d >= 0; --d)
        key = (key << kAxisBits) | AxisCell(cloud.points(d, i), low[d], inv);
      keys[static_cast<size_t>(i)] = key;
    }
  });
  return keys;
}

// Numbers the distinct keys in order of first appearance (cellOf[i] is point i's cell) with an
// open-addressing table that grows with the cells, not the points, so that it stays in cache:
// linear time, and the numbering depends only on the points' order.
int32_t NumberCells(const std::vector<uint64_t>& keys, std::vector<int32_t>& cellOf) {
  constexpr uint64_t kEmpty = ~uint64_t{0};  // no cell key has all 64 bits set (3 x 21 bits)
  size_t capacity = 1024;
  std::vector<uint64_t> table(capacity, kEmpty);
  std::vector<int32_t> number(capacity);
  int shift = 64 - 10;  // log2 of the capacity
  auto slotOf = [&](uint64_t key) {
    const size_t mask = capacity - 1;
    // The product's high bits, which every bit of the key reaches.
    size_t slot = static_cast<size_t>((key * 0x9e3779b97f4a7c15ull) >> shift);
    while (table[slot] != kEmpty && table[slot] != key) slot = (slot + 1) & mask;
    return slot;
  };
  cellOf.resize(keys.size());
  int32_t cells = 0;
  uint64_t lastKey = kEmpty;
  int32_t lastCell = -1;
  for (size_t i = 0; i < keys.size(); ++i) {
    // Scans come in sensor order, so a point mostly shares its predecessor's cell.
    if (keys[i] == lastKey) {
      cellOf[i] = lastCell;
      continue;
    }
    size_t slot = slotOf(keys[i]);
    if (table[slot] == kEmpty) {
      if (2 * static_cast<size_t>(cells + 1) > capacity) {
        // Keep the load below one half: rehash into a table twice the size.
        std::vector<uint64_t> oldTable(2 * capacity, kEmpty);
        std::vector<int32_t> oldNumber(2 * capacity);
        oldTable.swap(table);
        oldNumber.swap(number);
        capacity *= 2;
        --shift;
        for (size_t k = 0; k < oldTable.size(); ++k) {
          if (oldTable[k] == kEmpty) continue;
          const size_t to = slotOf(oldTable[k]);
          table[to] = oldTable[k];
          number[to] = oldNumber[k];
        }
        slot = slotOf(keys[i]);
      }
      table[slot] = keys[i];
      number[slot] = cells++;
    }
    cellOf[i] = number[slot];
    lastKey = keys[i];
    lastCell = number[slot];
  }
  return cells;
}

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
  const Eigen::Vector3f low = cloud.points.rowwise().minCoeff();
  const Eigen::Vector3f extent = cloud.points.rowwise().maxCoeff() - low;
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
  const Eigen::Vector3f extent =
      cloud.points.rowwise().maxCoeff() - cloud.points.rowwise().minCoeff();
  return static_cast<double>(extent.maxCoeff()) / (kAxisCells - 1.0);
}

int64_t CountOccupiedVoxels(const Cloud& cloud, double voxel) {
  std::vector<int32_t> cellOf;
  return static_cast<int64_t>(NumberCells(CellKeys(cloud, voxel), cellOf));
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
  std::vector<int32_t> cellOf;
  const int32_t cells = NumberCells(CellKeys(cloud, voxel), cellOf);
  const bool normals = cloud.hasNormals();
  // Sums in double, point after point in index order.
  Eigen::Matrix<double, 7, Eigen::Dynamic> sums =
      Eigen::Matrix<double, 7, Eigen::Dynamic>::Zero(7, cells);
  for (int32_t i = 0; i < n; ++i) {
    const double w = weights.empty() ? 1.0 : static_cast<double>(weights[static_cast<size_t>(i)]);
    auto sum = sums.col(cellOf[static_cast<size_t>(i)]);
    sum.head<3>() += w * cloud.points.col(i).cast<double>();
    if (normals) sum.segment<3>(3) += w * cloud.normals.col(i).cast<double>();
    sum[6] += w;
  }
  out.points.resize(3, cells);
  if (normals) out.normals.resize(3, cells);
  voxelWeights.resize(static_cast<size_t>(cells));
  for (int32_t c = 0; c < cells; ++c) {
    const double weight = sums(6, c);
    out.points.col(c) = (sums.col(c).head<3>() / weight).cast<float>();
    if (normals) {
      const Eigen::Vector3d normal = sums.col(c).segment<3>(3);
      const double length = normal.norm();
      out.normals.col(c) =
          length > 0.0 ? Eigen::Vector3f((normal / length).cast<float>()) : Eigen::Vector3f::Zero();
    }
    voxelWeights[static_cast<size_t>(c)] = static_cast<float>(weight);
  }
  return out;
}

}  // namespace qorv::engine
