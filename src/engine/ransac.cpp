// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/ransac.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "engine/random.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv::engine {
namespace {

// Calls visit(i) for every match i that `pose` brings within `distance` of its target.
template <typename Visit>
void ForEachInlier(const Eigen::Matrix3Xf& s,
                   const Eigen::Matrix3Xf& t,
                   const Pose& pose,
                   float distance,
                   Visit&& visit) {
  const Eigen::Matrix3f r = pose.topLeftCorner<3, 3>().cast<float>();
  const Eigen::Vector3f shift = pose.topRightCorner<3, 1>().cast<float>();
  const float limit = distance * distance;
  for (Eigen::Index i = 0; i < s.cols(); ++i) {
    if (((r * s.col(i) + shift) - t.col(i)).squaredNorm() < limit) visit(i);
  }
}

int32_t CountInliers(const Eigen::Matrix3Xf& s,
                     const Eigen::Matrix3Xf& t,
                     const Pose& pose,
                     float distance) {
  int32_t count = 0;
  ForEachInlier(s, t, pose, distance, [&](Eigen::Index) { ++count; });
  return count;
}

Pose FitMatches(const Eigen::Matrix3Xf& s,
                const Eigen::Matrix3Xf& t,
                const std::vector<int32_t>& which) {
  std::vector<Eigen::Vector3d> from, to;
  from.reserve(which.size());
  to.reserve(which.size());
  for (int32_t i : which) {
    from.push_back(s.col(i).cast<double>());
    to.push_back(t.col(i).cast<double>());
  }
  return FitRigid(from, to, {});
}

std::vector<int32_t> Inliers(const Eigen::Matrix3Xf& s,
                             const Eigen::Matrix3Xf& t,
                             const Pose& pose,
                             float distance) {
  std::vector<int32_t> out;
  ForEachInlier(
      s, t, pose, distance, [&](Eigen::Index i) { out.push_back(static_cast<int32_t>(i)); });
  return out;
}

}  // namespace

std::vector<int32_t> InlierMatches(const Cloud& source,
                                   const Cloud& target,
                                   const std::vector<Match>& matches,
                                   const Pose& pose,
                                   float distance) {
  Eigen::Matrix3Xf s(3, static_cast<Eigen::Index>(matches.size())), t(3, s.cols());
  for (size_t i = 0; i < matches.size(); ++i) {
    s.col(static_cast<Eigen::Index>(i)) = source.points.col(matches[i].source);
    t.col(static_cast<Eigen::Index>(i)) = target.points.col(matches[i].target);
  }
  return Inliers(s, t, pose, distance);
}

double ChanceMatches(const Cloud& source,
                     const Cloud& target,
                     const std::vector<Match>& matches,
                     const Pose& pose,
                     float distance) {
  const int32_t m = static_cast<int32_t>(matches.size());
  if (m == 0) return 0.0;
  Eigen::Matrix3Xf t(3, m);
  for (int32_t i = 0; i < m; ++i)
    t.col(i) = target.points.col(matches[static_cast<size_t>(i)].target);
  const PointKdTree tree(t.data(), m);
  const Eigen::Matrix3f r = pose.topLeftCorner<3, 3>().cast<float>();
  const Eigen::Vector3f shift = pose.topRightCorner<3, 1>().cast<float>();
  // Matches a block; the blocks' counts are integers, so the size only splits the work.
  constexpr int32_t kBlock = 256;
  const int32_t blocks = (m + kBlock - 1) / kBlock;
  std::vector<int64_t> counts(static_cast<size_t>(blocks), 0);
  ForBlocks(blocks, [&](int32_t block) {
    RadiusResult found;
    for (int32_t i = block * kBlock; i < std::min(m, (block + 1) * kBlock); ++i) {
      const Eigen::Vector3f p =
          r * source.points.col(matches[static_cast<size_t>(i)].source) + shift;
      found.clear();
      tree.radiusSearch(p.data(), distance * distance, found, false);
      counts[static_cast<size_t>(block)] += static_cast<int64_t>(found.size());
    }
  });
  int64_t total = 0;
  for (int64_t c : counts) total += c;
  return static_cast<double>(total) / m;
}

std::vector<Hypothesis> EstimateByRansac(const Cloud& source,
                                         const Cloud& target,
                                         const std::vector<Match>& matches,
                                         const CompatibilityGraph& graph,
                                         const RansacParams& params,
                                         int32_t& iterations) {
  iterations = 0;
  const int32_t m = static_cast<int32_t>(matches.size());
  if (m < 3) return {};
  Eigen::Matrix3Xf s(3, m), t(3, m);
  for (int32_t i = 0; i < m; ++i) {
    s.col(i) = source.points.col(matches[static_cast<size_t>(i)].source);
    t.col(i) = target.points.col(matches[static_cast<size_t>(i)].target);
  }
  // First picks: the best-linked fifth of the matches that have two compatible partners.
  std::vector<int32_t> seeds;
  for (int32_t i = 0; i < m; ++i) {
    if (graph.degree(i) >= 2) seeds.push_back(i);
  }
  if (seeds.empty()) return {};
  std::stable_sort(seeds.begin(), seeds.end(), [&](int32_t a, int32_t b) {
    return graph.degree(a) > graph.degree(b);
  });
  seeds.resize(std::max<size_t>(std::min<size_t>(seeds.size(), 20), seeds.size() / 5));

  constexpr int32_t kBatch = 256, kSub = 32;
  std::vector<Hypothesis> drawn(kBatch);
  std::vector<Hypothesis> kept;
  int32_t best = 0, bestAt = 0;
  const double logFail = std::log(1.0 - params.confidence);
  for (int32_t start = 0; start < params.maxIterations; start += kBatch) {
    const int32_t count = std::min(kBatch, params.maxIterations - start);
    ForBlocks((count + kSub - 1) / kSub, [&](int32_t sub) {
      for (int32_t k = sub * kSub; k < std::min(count, (sub + 1) * kSub); ++k) {
        CounterRandom rng(params.seed, static_cast<uint64_t>(start + k));
        Hypothesis& h = drawn[static_cast<size_t>(k)];
        h.inliers = -1;
        const int32_t a = seeds[rng.below(static_cast<uint32_t>(seeds.size()))];
        const int32_t degree = graph.degree(a);
        const int32_t b = graph.begin(a)[rng.below(static_cast<uint32_t>(degree))];
        const int32_t c = graph.begin(a)[rng.below(static_cast<uint32_t>(degree))];
        if (b == c || !graph.linked(b, c)) continue;
        h.pose = FitMatches(s, t, {a, b, c});
        h.inliers = CountInliers(s, t, h.pose, params.inlierDistance);
      }
    });
    for (int32_t k = 0; k < count; ++k) {
      const Hypothesis& h = drawn[static_cast<size_t>(k)];
      if (h.inliers < 3) continue;
      if (h.inliers > best) {
        best = h.inliers;
        bestAt = start + k;
      }
      // Keep the best few distinct hypotheses; a close one replaces its twin only when better.
      bool merged = false;
      for (Hypothesis& other : kept) {
        if (RotationBetween(h.pose, other.pose) < params.distinctAngle &&
            ShiftBetween(h.pose, other.pose, params.centre) < params.distinctShift) {
          if (h.inliers > other.inliers) other = h;
          merged = true;
          break;
        }
      }
      if (!merged) kept.push_back(h);
      std::stable_sort(kept.begin(), kept.end(), [](const Hypothesis& x, const Hypothesis& y) {
        return x.inliers > y.inliers;
      });
      if (static_cast<int32_t>(kept.size()) > params.keep)
        kept.resize(static_cast<size_t>(params.keep));
    }
    iterations = start + count;
    if (iterations < params.minIterations || best == 0) continue;
    const double ratio = static_cast<double>(best) / static_cast<double>(seeds.size());
    const double hit = std::pow(std::min(1.0, ratio), 3.0);
    const double needed = hit >= 1.0 ? 0.0 : logFail / std::log(1.0 - hit);
    if (iterations >= needed || iterations >= 4 * (bestAt + 1)) break;
  }
  // Refit each to its inliers, twice (the inlier set grows as the motion improves).
  for (Hypothesis& h : kept) {
    for (int round = 0; round < 2; ++round) {
      const std::vector<int32_t> in = Inliers(s, t, h.pose, params.inlierDistance);
      if (in.size() < 3) break;
      const Pose refit = FitMatches(s, t, in);
      const int32_t score = CountInliers(s, t, refit, params.inlierDistance);
      if (score < h.inliers) break;
      h.pose = refit;
      h.inliers = score;
    }
  }
  std::stable_sort(kept.begin(), kept.end(), [](const Hypothesis& x, const Hypothesis& y) {
    return x.inliers > y.inliers;
  });
  // Refits can pull two hypotheses onto one motion: keep the better of such twins.
  std::vector<Hypothesis> distinct;
  for (const Hypothesis& h : kept) {
    const bool twin = std::any_of(distinct.begin(), distinct.end(), [&](const Hypothesis& other) {
      return RotationBetween(h.pose, other.pose) < params.distinctAngle &&
             ShiftBetween(h.pose, other.pose, params.centre) < params.distinctShift;
    });
    if (!twin) distinct.push_back(h);
  }
  return distinct;
}

}  // namespace qorv::engine
