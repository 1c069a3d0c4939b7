// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "surface/voxel_filter.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>

#include "geometry/radix_sort.hpp"

namespace qorv {
namespace {

// Entry of any key: the cell key and the point's index.
struct KeyEntry {
  uint64_t key;
  int32_t position;
  int32_t index() const { return position; }
  uint64_t cell() const { return key; }
};

bool IsFinite(const float* p) {
  return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

struct Grid {
  float minX, minY, minZ;
  float leafSize;
  uint64_t nx, ny, nxy;
  uint64_t maxKey;  // no point's key is larger

  uint64_t key(const float* p) const {
    const auto ix = static_cast<uint64_t>((p[0] - minX) / leafSize);
    const auto iy = static_cast<uint64_t>((p[1] - minY) / leafSize);
    const auto iz = static_cast<uint64_t>((p[2] - minZ) / leafSize);
    return ix + iy * nx + iz * nxy;
  }

  // Offsets of the voxel's centre from the grid origin.
  void centre(uint64_t key, float* c) const {
    const uint64_t iz = key / nxy;
    const uint64_t iy = (key / nx) % ny;
    const uint64_t ix = key % nx;
    c[0] = (static_cast<float>(ix) + 0.5f) * leafSize;
    c[1] = (static_cast<float>(iy) + 0.5f) * leafSize;
    c[2] = (static_cast<float>(iz) + 0.5f) * leafSize;
  }

  double distSq(const float* p, const float* c) const {
    const double dx = static_cast<double>((p[0] - minX) - c[0]);
    const double dy = static_cast<double>((p[1] - minY) - c[1]);
    const double dz = static_cast<double>((p[2] - minZ) - c[2]);
    return dx * dx + dy * dy + dz * dz;
  }
};

// Cells along one axis, (int32)(extent / leafSize) + 1, or 0 when the quotient leaves the int32
// range. 2147483648.0f is 2^31 exactly; every smaller float truncates into int32.
uint64_t CellsAlong(float extent, float leafSize) {
  const float quotient = extent / leafSize;
  if (!(quotient < 2147483648.0f)) return 0;
  return static_cast<uint64_t>(static_cast<int32_t>(quotient)) + 1;
}

// Grid over the finite points; false when there is none or the grid cannot be represented.
bool MakeGrid(const float* points, int32_t count, float leafSize, Grid& grid) {
  if (!(leafSize > 0.0f) || !std::isfinite(leafSize)) return false;
  const float* first = nullptr;
  float maxX = 0.0f, maxY = 0.0f, maxZ = 0.0f;
  for (int32_t i = 0; i < count; ++i) {
    const float* p = points + 3 * static_cast<size_t>(i);
    if (!IsFinite(p)) continue;
    if (first == nullptr) {
      first = p;
      grid.minX = maxX = p[0];
      grid.minY = maxY = p[1];
      grid.minZ = maxZ = p[2];
      continue;
    }
    if (p[0] < grid.minX) grid.minX = p[0];
    if (p[0] > maxX) maxX = p[0];
    if (p[1] < grid.minY) grid.minY = p[1];
    if (p[1] > maxY) maxY = p[1];
    if (p[2] < grid.minZ) grid.minZ = p[2];
    if (p[2] > maxZ) maxZ = p[2];
  }
  if (first == nullptr) return false;
  grid.leafSize = leafSize;
  grid.nx = CellsAlong(maxX - grid.minX, leafSize);
  grid.ny = CellsAlong(maxY - grid.minY, leafSize);
  if (grid.nx == 0 || grid.ny == 0) return false;
  grid.nxy = grid.nx * grid.ny;  // below 2^62
  // Keys must not wrap: every iz up to the largest one times nxy, plus nxy - 1, fits in 64 bits.
  // (z - minZ) / leafSize rounds monotonically, so no point's iz exceeds the quotient at maxZ.
  const float zQuotient = (maxZ - grid.minZ) / leafSize;
  if (!(zQuotient < 18446744073709551616.0f)) return false;  // 2^64
  const auto izMax = static_cast<uint64_t>(zQuotient);
  if (izMax > (UINT64_MAX - (grid.nxy - 1)) / grid.nxy) return false;
  grid.maxKey = izMax * grid.nxy + (grid.nxy - 1);
  return true;
}

// Entry of a key that fits in 32 bits: the key above the point's index in one word.
struct PackedEntry {
  uint64_t key;
  int32_t index() const { return static_cast<int32_t>(key & 0xffffffffu); }
  uint64_t cell() const { return key >> 32; }
};

// The walk over the sorted keys: from each group of equal keys the point nearest to the voxel's
// centre is flagged, the first in sorted order among equally near ones; the last group is not.
template <typename Entry>
std::vector<int32_t> SelectNearest(const std::vector<Entry>& table,
                                   const float* points,
                                   int32_t count,
                                   const Grid& grid) {
  // The walk settles a voxel when the next one starts, so the last voxel is never settled. Its
  // starting key is a sentinel that a real key can equal; the centre is prepared for that key so
  // that such a first voxel is measured like any other.
  std::vector<unsigned char> keepFlags(static_cast<size_t>(count), 0);
  uint64_t currentKey = 2147483647u;
  int32_t bestIndex = 2147483647;
  double bestDistSq = DBL_MAX;
  int64_t groupSize = 0;
  float centre[3];
  grid.centre(currentKey, centre);
  for (const Entry& entry : table) {
    const int32_t index = entry.index();
    const uint64_t key = entry.cell();
    const float* p = points + 3 * static_cast<size_t>(index);
    if (key == currentKey) {
      const double distSq = grid.distSq(p, centre);
      if (bestDistSq > distSq) {
        bestDistSq = distSq;
        bestIndex = index;
      }
      ++groupSize;
    } else {
      grid.centre(key, centre);
      bestDistSq = grid.distSq(p, centre);
      if (groupSize > 0) keepFlags[static_cast<size_t>(bestIndex)] = 255;
      bestIndex = index;
      currentKey = key;
      groupSize = 1;
    }
  }

  std::vector<int32_t> kept;
  size_t keptCount = 0;
  for (const unsigned char flag : keepFlags) keptCount += flag != 0;
  kept.reserve(keptCount);
  for (int32_t i = 0; i < count; ++i) {
    if (keepFlags[static_cast<size_t>(i)] != 0) kept.push_back(i);
  }
  return kept;
}

}  // namespace

std::vector<int32_t> VoxelFilter(const float* points, int32_t count, float leafSize) {
  std::vector<int32_t> kept;
  Grid grid{};
  if (count < 1 || !MakeGrid(points, count, leafSize, grid)) return kept;

  // Keys are ordered stably, starting from index order, so that among points of one voxel
  // equally near its centre the lowest index is kept. Keys of at most 32 bits travel packed with
  // their index, halving the bytes the sort moves.
  if (grid.maxKey <= 0xffffffffu) {
    std::vector<PackedEntry> packed;
    packed.reserve(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
      const float* p = points + 3 * static_cast<size_t>(i);
      if (IsFinite(p)) packed.push_back({(grid.key(p) << 32) | static_cast<uint32_t>(i)});
    }
    RadixSortByKey(packed, grid.maxKey, [](const PackedEntry& e) { return e.key >> 32; });
    return SelectNearest(packed, points, count, grid);
  }
  std::vector<KeyEntry> table;
  table.reserve(static_cast<size_t>(count));
  for (int32_t i = 0; i < count; ++i) {
    const float* p = points + 3 * static_cast<size_t>(i);
    if (IsFinite(p)) table.push_back({grid.key(p), i});
  }
  RadixSortByKey(table, grid.maxKey, [](const KeyEntry& e) { return e.key; });
  return SelectNearest(table, points, count, grid);
}

}  // namespace qorv
