// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>

#include "engine/cloud.hpp"
#include "engine/rigid_fit.hpp"
#include "search/kd_tree.hpp"

namespace qorv::engine {

// What a pose does to the two refinement clouds.
struct Overlap {
  double fitness = 0.0;          // source points with a target point within distance
  double targetOverlap = 0.0;    // target points with a moved source point within distance
  double rmse = 0.0;             // RMS distance of the source's inlier pairs
  double normalAgreement = 0.0;  // inlier pairs whose normals agree within 30 degrees (share)
  int32_t inliers = 0;
  // How well the agreeing pairs pin the motion down (see MeasureOverlap).
  double constrained = 0.0;   // worst direction: share of the nearby constraint that agrees
  double conditioning = 0.0;  // weakest over strongest eigenvalue of the agreeing pairs' system
  double coherence = 0.0;     // of the source points near the target, the share that agree
};

// Normals to judge with: a smoother surface of the same cloud (its working-scale samples, whose
// normals average over a wider patch), looked up at each point. Sensor noise tilts the normals of
// a dense cloud at random, and random tilts would pose as structure that pins the motion.
struct SmoothNormals {
  const Cloud* cloud = nullptr;  // with normals; null: each point's own normal
  const PointKdTree* tree = nullptr;
};

// Measures the pose both ways. Both clouds need normals; the trees index their points.
//
// With nearDistance > distance it also weighs how the overlap constrains the motion. Every moved
// source point adds the point-to-plane row J = [(p - c) x n / r, n] of its own surface (n its
// normal, c and r the moved source's centre and RMS radius, so that turns and shifts compare in
// one unit) to H_near when the target lies within nearDistance of it, and to H_in when it is an
// agreeing inlier whose point-to-plane residual is below planeDistance (when > 0: the noise the
// refinement measured, so that surfaces slid a little off each other do not count as agreeing).
// `constrained` is the smallest generalised eigenvalue of H_in against H_near: along its worst
// direction, the share of the constraint the nearby structure offers that the pose actually
// satisfies. A wrong motion that keeps the ground or a long wall on itself scores near 0 along the
// slide, however high its fitness. `conditioning` is the smallest over the largest eigenvalue of
// H_in: near 0 when the agreeing surfaces (a plane, a corridor) leave a direction free.
Overlap MeasureOverlap(const Cloud& source,
                       const PointKdTree& sourceTree,
                       const Cloud& target,
                       const PointKdTree& targetTree,
                       const Pose& pose,
                       float distance,
                       float nearDistance = 0.0f,
                       const SmoothNormals& sourceSmooth = {},
                       const SmoothNormals& targetSmooth = {},
                       float planeDistance = 0.0f);

// The single number hypotheses are ranked by: overlap that the geometry agrees with.
double Score(const Overlap& overlap);

// Everything the verdict looks at for one answer.
struct Evidence {
  Overlap overlap;
  double distance = 0.0;          // the inlier distance the overlap was measured with
  int32_t consistentPairs = 0;    // feature matches the pose carries within the match distance
  double chancePairs = 0.0;       // how many of them a wrong pose would carry by chance
  double freeSpaceConflict = -1;  // share of points seen through by the other sensor; < 0: unknown
  double rivalShare = 0.0;        // best distinct rival's score over the answer's
};

// The thresholds of the verdict (calibrated on development pairs: docs/verdict.md).
struct VerdictRules {
  double minOverlap = 0.1;    // min(fitness, targetOverlap) at least this
  double maxRmseShare = 0.6;  // inlier RMSE at most this share of the inlier distance
  double minNormalAgreement = 0.5;
  double minConstrained = 0.18;    // worst-direction share of the nearby constraint
  double minConditioning = 0.003;  // agreeing surfaces must pin all six degrees of freedom
  // Consistent matches must exceed chance by this many standard deviations (Poisson), and
  // number at least minConsistentPairs; 0 turns the match test off (no matches in local mode).
  double chanceSigmas = 4.0;
  int32_t minConsistentPairs = 6;
  double maxFreeSpaceConflict = 0.1;
  double maxRivalScore = 0.9;  // a distinct rival scoring above this share of the best: ambiguous
};

// The consistent matches the rules ask for at a chance level.
int32_t ConsistentFloor(double chancePairs, const VerdictRules& rules);

// Decides on the evidence; returns "" when registered, else the reason in words.
std::string Decide(const Evidence& evidence, const VerdictRules& rules);

// Screening, at a try's working scale before dense refinement (which costs about as much as the
// rest of a try): whether an answer may still pass once refined. Its feature matches must beat
// chance, and it must share at least a part of the overlap the verdict asks for.
bool WorthRefining(const Evidence& coarse, const VerdictRules& rules);

// Why a screened answer is refused: the rules on its coarse evidence, or that it was not worth
// refining when they would pass it.
std::string ScreenedReason(const Evidence& coarse, const VerdictRules& rules);

// Answers of all the tries are ranked by these: every passing answer above every refused one,
// every densely judged answer above every screened one, and by score among alike answers.
double RankOf(double score, bool passed);
double ScreenedRank(const Evidence& coarse);

// A distinct motion's score over the answer's (0 when the answer scores nothing): how nearly it
// rivals the answer.
double RivalShare(double answerScore, double rivalScore);

}  // namespace qorv::engine
