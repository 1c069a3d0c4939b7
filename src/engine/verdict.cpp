// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/verdict.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include <Eigen/Eigenvalues>
#include <Eigen/LU>

#include "runtime/parallel_for.hpp"

namespace qorv::engine {
namespace {

// Screening keeps an answer for dense refinement when its overlap at the working scale is at least
// this share of the verdict's minimum. Measured on the coarse samples around a pose not yet
// refined, a right answer's overlap falls short of what dense refinement finds, so only answers
// far below the minimum are refused there.
constexpr double kScreenOverlap = 0.5;
// Scores are overlap shares times a share of agreeing normals, within [0, 1]: 1 more puts every
// passing answer above every refused one.
constexpr double kPassedRank = 1.0;
// 1 less puts a screened answer's rank within [-1, 0], below any answer judged after dense
// refinement (ranked at least its score, 0 or more): a refusal judged densely says more.
constexpr double kScreenedRank = -1.0;

using Matrix6 = Eigen::Matrix<double, 6, 6>;
using Vector6 = Eigen::Matrix<double, 6, 1>;

struct Tally {
  int64_t inliers = 0;
  int64_t agreeing = 0;
  int64_t near = 0, nearAgreeing = 0;  // points within the near distance; those agreeing closely
  double sumSq = 0.0;
  Matrix6 agreed = Matrix6::Zero();  // H_in
  Matrix6 nearby = Matrix6::Zero();  // H_near
  Matrix6 smooth = Matrix6::Zero();  // H_in on the smoother normals (conditioning)
};

// Where the rows of the constraint system are taken from: the moved cloud's centre and radius.
struct Frame {
  bool wanted = false;
  float nearSq = 0.0f;
  float plane = INFINITY;  // H_in takes pairs whose point-to-plane residual is within this
  Eigen::Vector3d centre = Eigen::Vector3d::Zero();
  double radius = 1.0;
};

// The normals the overlap judges agreement on, one a point of the cloud: its own, or the smoother
// surface's nearest sample's, made in `own`. They do not depend on the pose, so they are looked up
// once a measure for both directions.
const Eigen::Matrix3Xf& CalmNormals(const Cloud& cloud,
                                    const SmoothNormals& smooth,
                                    Eigen::Matrix3Xf& own) {
  if (smooth.cloud == nullptr || !cloud.hasNormals()) return cloud.normals;
  const int32_t n = cloud.size();
  Eigen::Matrix3Xf& out = own;
  out.resize(3, n);
  constexpr int32_t kBlock = 2048;  // each normal is its point's own: the size only splits the work
  ForBlocks((n + kBlock - 1) / kBlock, [&](int32_t block) {
    for (int32_t i = block * kBlock; i < std::min(n, (block + 1) * kBlock); ++i) {
      int32_t nearest = -1;
      float distSq = 0.0f;
      out.col(i) = smooth.tree->knnSearch(cloud.points.col(i).data(), 1, &nearest, &distSq) == 1
                       ? Eigen::Vector3f(smooth.cloud->normals.col(nearest))
                       : Eigen::Vector3f(cloud.normals.col(i));
    }
  });
  return out;
}

// The point-to-plane row of a moved point p with normal n: turns scaled by the frame's radius.
Vector6 RowOf(const Eigen::Vector3f& p, const Eigen::Vector3f& n, const Frame& frame) {
  Vector6 row;
  const Eigen::Vector3d normal = n.cast<double>();
  row.head<3>() = (p.cast<double>() - frame.centre).cross(normal) / frame.radius;
  row.tail<3>() = normal;
  return row;
}

// Pairs every point of `from` (moved by pose) with its nearest point of `to` within distance.
Tally Pair(const Cloud& from,
           const Cloud& to,
           const PointKdTree& toTree,
           const Pose& pose,
           float distance,
           const Frame& frame,
           const Eigen::Matrix3Xf& fromCalm,
           const Eigen::Matrix3Xf& toCalm) {
  const int32_t n = from.size();
  // Points a block. The blocks' tallies are added in block order, so this size, and not the thread
  // count, fixes the order of the floating-point sums: changing it changes the result bits.
  constexpr int32_t kBlock = 2048;
  const int32_t blocks = (n + kBlock - 1) / kBlock;
  std::vector<Tally> parts(static_cast<size_t>(blocks));
  const Eigen::Matrix3f r = pose.topLeftCorner<3, 3>().cast<float>();
  const Eigen::Vector3f shift = pose.topRightCorner<3, 1>().cast<float>();
  const float limit = distance * distance;
  const float searchSq = frame.wanted ? std::max(limit, frame.nearSq) : limit;
  const float cosLimit = std::cos(30.0f * 3.14159265f / 180.0f);
  const bool normals = from.hasNormals() && to.hasNormals() && fromCalm.cols() == from.size() &&
                       toCalm.cols() == to.size();
  ForBlocks(blocks, [&](int32_t block) {
    Tally part;
    for (int32_t i = block * kBlock; i < std::min(n, (block + 1) * kBlock); ++i) {
      const Eigen::Vector3f p = r * from.points.col(i) + shift;
      int32_t nearest = -1;
      float distSq = 0.0f;
      // The nearest within the search distance, pruned by it from the start.
      if (toTree.knnSearchWithin(p.data(), 1, searchSq, &nearest, &distSq) != 1) continue;
      // Agreement is judged on the smoother normals (sensor noise does not split a surface).
      const bool agree =
          normals && std::abs((r * fromCalm.col(i)).dot(toCalm.col(nearest))) > cosLimit;
      if (frame.wanted && normals) {
        // The constraint measure keeps each point's own normal, sharp enough to see a post or a
        // car: the row is the constraint the moved point's own surface offers, so a post standing
        // beside a wall it should have met pins the motion across, whatever the wall's normal.
        const Eigen::Vector3f own = r * from.normals.col(i);
        const Vector6 row = RowOf(p, own, frame);
        part.nearby.noalias() += row * row.transpose();
        ++part.near;
        const Eigen::Vector3f theirs = to.normals.col(nearest);
        if (distSq < limit && std::abs(own.dot(theirs)) > cosLimit &&
            std::abs(theirs.dot(p - to.points.col(nearest))) < frame.plane) {
          part.agreed.noalias() += row * row.transpose();
          ++part.nearAgreeing;
        }
        // The conditioning takes the smoother normals: noise tilts a dense cloud's normals at
        // random, and random tilts would pose as structure that pins a slide.
        if (distSq < limit && agree) {
          const Vector6 calm = RowOf(p, r * fromCalm.col(i), frame);
          part.smooth.noalias() += calm * calm.transpose();
        }
      }
      if (!(distSq < limit)) continue;
      ++part.inliers;
      part.sumSq += distSq;
      if (agree) ++part.agreeing;
    }
    parts[static_cast<size_t>(block)] = part;
  });
  Tally sum;
  for (const Tally& part : parts) {
    sum.inliers += part.inliers;
    sum.agreeing += part.agreeing;
    sum.near += part.near;
    sum.nearAgreeing += part.nearAgreeing;
    sum.sumSq += part.sumSq;
    sum.agreed += part.agreed;
    sum.smooth += part.smooth;
    sum.nearby += part.nearby;
  }
  return sum;
}

// The smallest generalised eigenvalue of (agreed, nearby), and the smooth agreed system's smallest
// over largest eigenvalue.
void Constraint(const Tally& tally, Overlap& out) {
  const Eigen::SelfAdjointEigenSolver<Matrix6> own(tally.smooth);
  const double largest = own.eigenvalues()(5);
  if (largest > 0.0) out.conditioning = std::max(0.0, own.eigenvalues()(0)) / largest;
  if (!(tally.agreed.trace() > 0.0)) return;
  // A floor keeps directions no nearby surface constrains at all from dividing zero by zero.
  Matrix6 nearby = tally.nearby;
  nearby.diagonal().array() += 1e-6 * std::max(1.0, nearby.trace());
  const Eigen::GeneralizedSelfAdjointEigenSolver<Matrix6> relative(tally.agreed, nearby);
  if (relative.info() != Eigen::Success) return;
  out.constrained = std::clamp(relative.eigenvalues()(0), 0.0, 1.0);
}

}  // namespace

Overlap MeasureOverlap(const Cloud& source,
                       const PointKdTree& sourceTree,
                       const Cloud& target,
                       const PointKdTree& targetTree,
                       const Pose& pose,
                       float distance,
                       float nearDistance,
                       const SmoothNormals& sourceSmooth,
                       const SmoothNormals& targetSmooth,
                       float planeDistance) {
  Overlap out;
  if (source.size() == 0 || target.size() == 0) return out;
  Frame frame;
  if (nearDistance > distance && source.hasNormals() && target.hasNormals()) {
    frame.wanted = true;
    frame.nearSq = nearDistance * nearDistance;
    if (planeDistance > 0.0f) frame.plane = planeDistance;
    const Eigen::Matrix3Xd moved =
        (pose.topLeftCorner<3, 3>() * source.points.cast<double>()).colwise() +
        Eigen::Vector3d(pose.topRightCorner<3, 1>());
    frame.centre = moved.rowwise().mean();
    const double meanSq = (moved.colwise() - frame.centre).colwise().squaredNorm().mean();
    frame.radius = std::sqrt(std::max(meanSq, 1e-30));
  }
  // The smoother surfaces' normals need a surface of their own to be smoother.
  const bool smooth = (sourceSmooth.cloud == nullptr || sourceSmooth.cloud->hasNormals()) &&
                      (targetSmooth.cloud == nullptr || targetSmooth.cloud->hasNormals());
  Eigen::Matrix3Xf ownSource, ownTarget;
  const Eigen::Matrix3Xf& sourceCalm =
      smooth ? CalmNormals(source, sourceSmooth, ownSource) : ownSource;
  const Eigen::Matrix3Xf& targetCalm =
      smooth ? CalmNormals(target, targetSmooth, ownTarget) : ownTarget;
  const Tally forward =
      Pair(source, target, targetTree, pose, distance, frame, sourceCalm, targetCalm);
  const Pose inverse = pose.inverse();
  const Tally backward =
      Pair(target, source, sourceTree, inverse, distance, Frame{}, targetCalm, sourceCalm);
  out.inliers = static_cast<int32_t>(forward.inliers);
  out.fitness = static_cast<double>(forward.inliers) / source.size();
  out.targetOverlap = static_cast<double>(backward.inliers) / target.size();
  if (forward.inliers > 0) {
    out.rmse = std::sqrt(forward.sumSq / static_cast<double>(forward.inliers));
    out.normalAgreement =
        static_cast<double>(forward.agreeing) / static_cast<double>(forward.inliers);
  }
  if (frame.wanted) {
    Constraint(forward, out);
    if (forward.near > 0)
      out.coherence = static_cast<double>(forward.nearAgreeing) / static_cast<double>(forward.near);
  }
  return out;
}

double Score(const Overlap& overlap) {
  return std::min(overlap.fitness, overlap.targetOverlap) * overlap.normalAgreement;
}

int32_t ConsistentFloor(double chancePairs, const VerdictRules& rules) {
  const double chance = std::max(0.0, chancePairs);
  const double floor = chance + rules.chanceSigmas * std::sqrt(chance);
  return std::max(rules.minConsistentPairs, static_cast<int32_t>(std::floor(floor)) + 1);
}

std::string Decide(const Evidence& e, const VerdictRules& rules) {
  char text[160];
  const Overlap& o = e.overlap;
  const double shared = std::min(o.fitness, o.targetOverlap);
  const int32_t floor = ConsistentFloor(e.chancePairs, rules);
  if (shared < rules.minOverlap) {
    std::snprintf(text, sizeof(text), "overlap %.2f is below %.2f", shared, rules.minOverlap);
  } else if (o.rmse > rules.maxRmseShare * e.distance) {
    std::snprintf(text,
                  sizeof(text),
                  "inlier RMSE %.3g is above %.2f of the inlier distance %.3g",
                  o.rmse,
                  rules.maxRmseShare,
                  e.distance);
  } else if (o.normalAgreement < rules.minNormalAgreement) {
    std::snprintf(text,
                  sizeof(text),
                  "surface normals agree on %.2f of the overlap, below %.2f",
                  o.normalAgreement,
                  rules.minNormalAgreement);
  } else if (o.conditioning < rules.minConditioning) {
    std::snprintf(text,
                  sizeof(text),
                  "not constrained: the agreeing surfaces leave a motion free (conditioning %.3f, "
                  "below %.3f)",
                  o.conditioning,
                  rules.minConditioning);
  } else if (o.constrained < rules.minConstrained) {
    std::snprintf(
        text,
        sizeof(text),
        "only %.2f of the nearby structure agrees along its weakest direction, below %.2f",
        o.constrained,
        rules.minConstrained);
  } else if (e.freeSpaceConflict > rules.maxFreeSpaceConflict) {
    std::snprintf(text,
                  sizeof(text),
                  "%.2f of the points lie in space the other sensor saw through, above %.2f",
                  e.freeSpaceConflict,
                  rules.maxFreeSpaceConflict);
  } else if (rules.minConsistentPairs > 0 && e.consistentPairs < floor) {
    std::snprintf(text,
                  sizeof(text),
                  "%d consistent feature matches, below %d (chance alone gives %.1f)",
                  e.consistentPairs,
                  floor,
                  e.chancePairs);
  } else if (e.rivalShare > rules.maxRivalScore) {
    std::snprintf(
        text, sizeof(text), "ambiguous: a distinct motion scores %.2f of the best", e.rivalShare);
  } else {
    return {};
  }
  return text;
}

bool WorthRefining(const Evidence& coarse, const VerdictRules& rules) {
  const double shared = std::min(coarse.overlap.fitness, coarse.overlap.targetOverlap);
  return !(coarse.consistentPairs < ConsistentFloor(coarse.chancePairs, rules) ||
           shared < kScreenOverlap * rules.minOverlap);
}

std::string ScreenedReason(const Evidence& coarse, const VerdictRules& rules) {
  std::string reason = Decide(coarse, rules);
  if (reason.empty()) reason = "no answer worth refining";
  return reason;
}

double RankOf(double score, bool passed) { return score + (passed ? kPassedRank : 0.0); }

double ScreenedRank(const Evidence& coarse) { return Score(coarse.overlap) + kScreenedRank; }

double RivalShare(double answerScore, double rivalScore) {
  return answerScore > 0.0 ? rivalScore / answerScore : 0.0;
}

}  // namespace qorv::engine
