// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "fitness.hpp"

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace qorv::tools {
namespace {

struct Cell {
  int64_t x, y, z;
  bool operator==(const Cell& o) const { return x == o.x && y == o.y && z == o.z; }
};

struct CellHash {
  size_t operator()(const Cell& c) const {
    uint64_t h = static_cast<uint64_t>(c.x) * 0x9E3779B97F4A7C15ull;
    h ^= static_cast<uint64_t>(c.y) * 0xC2B2AE3D27D4EB4Full + (h << 6) + (h >> 2);
    h ^= static_cast<uint64_t>(c.z) * 0x165667B19E3779F9ull + (h << 6) + (h >> 2);
    return static_cast<size_t>(h);
  }
};

bool Finite(const float* p) {
  return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

// Cell coordinates clamped far inside int64 so that neighbour offsets cannot overflow.
Cell CellOf(const float* p, double inverse) {
  auto axis = [inverse](float v) {
    const double c = std::floor(static_cast<double>(v) * inverse);
    return static_cast<int64_t>(std::clamp(c, -1e15, 1e15));
  };
  return {axis(p[0]), axis(p[1]), axis(p[2])};
}

}  // namespace

double Fitness(const std::vector<float>& reference, const std::vector<float>& query, float radius) {
  const size_t queryCount = query.size() / 3;
  if (queryCount == 0 || !(radius > 0.0f) || !std::isfinite(radius)) return 0.0;
  const double inverse = 1.0 / radius;
  const float radiusSq = radius * radius;

  // Reference indices grouped by cell: counting sort over the cells' dense numbering.
  std::unordered_map<Cell, uint32_t, CellHash> cellIds;
  std::vector<uint32_t> cellOfPoint;
  std::vector<uint32_t> pointIndex;
  cellIds.reserve(reference.size() / 3);
  for (size_t i = 0; i < reference.size() / 3; ++i) {
    const float* p = &reference[3 * i];
    if (!Finite(p)) continue;
    const auto inserted =
        cellIds.emplace(CellOf(p, inverse), static_cast<uint32_t>(cellIds.size()));
    cellOfPoint.push_back(inserted.first->second);
    pointIndex.push_back(static_cast<uint32_t>(i));
  }
  std::vector<uint32_t> start(cellIds.size() + 1, 0);
  for (const uint32_t c : cellOfPoint) ++start[c + 1];
  for (size_t c = 0; c < cellIds.size(); ++c) start[c + 1] += start[c];
  std::vector<uint32_t> members(pointIndex.size());
  std::vector<uint32_t> fill(start.begin(), start.end() - 1);
  for (size_t k = 0; k < pointIndex.size(); ++k) members[fill[cellOfPoint[k]]++] = pointIndex[k];

  size_t hits = 0;
  for (size_t i = 0; i < queryCount; ++i) {
    const float* q = &query[3 * i];
    if (!Finite(q)) continue;
    const Cell home = CellOf(q, inverse);
    bool found = false;
    for (int dz = -1; dz <= 1 && !found; ++dz) {
      for (int dy = -1; dy <= 1 && !found; ++dy) {
        for (int dx = -1; dx <= 1 && !found; ++dx) {
          const auto it = cellIds.find({home.x + dx, home.y + dy, home.z + dz});
          if (it == cellIds.end()) continue;
          for (uint32_t k = start[it->second]; k < start[it->second + 1]; ++k) {
            const float* p = &reference[3 * static_cast<size_t>(members[k])];
            const float ex = p[0] - q[0], ey = p[1] - q[1], ez = p[2] - q[2];
            if (ex * ex + ey * ey + ez * ez <= radiusSq) {
              found = true;
              break;
            }
          }
        }
      }
    }
    if (found) ++hits;
  }
  return static_cast<double>(hits) / static_cast<double>(queryCount);
}

}  // namespace qorv::tools
