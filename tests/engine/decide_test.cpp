// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The verdict's thresholds at their boundaries: a value just on the wrong side of one refuses with
// the reason naming that check, and just on the right side passes; and the match floor against the
// smallest count that beats chance, found by counting up.
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "engine/verdict.hpp"

namespace qorv::engine {
namespace {

// Rules unlike the defaults, so that a threshold written into the code rather than read from the
// rules shows.
VerdictRules Unusual() {
  VerdictRules rules;
  rules.minOverlap = 0.3;
  rules.maxRmseShare = 0.45;
  rules.minNormalAgreement = 0.7;
  rules.minConstrained = 0.25;
  rules.minConditioning = 0.01;
  rules.chanceSigmas = 3.0;
  rules.minConsistentPairs = 9;
  rules.maxFreeSpaceConflict = 0.2;
  rules.maxRivalScore = 0.8;
  return rules;
}

// Comfortably inside every threshold of both rule sets.
Evidence Passing() {
  Evidence e;
  e.overlap.fitness = 0.8;
  e.overlap.targetOverlap = 0.7;
  e.overlap.rmse = 0.02;
  e.overlap.normalAgreement = 0.95;
  e.overlap.inliers = 500;
  e.overlap.constrained = 0.9;
  e.overlap.conditioning = 0.2;
  e.overlap.coherence = 0.9;
  e.distance = 0.25;
  e.consistentPairs = 200;
  e.chancePairs = 10.0;
  e.freeSpaceConflict = 0.0;
  e.rivalShare = 0.3;
  return e;
}

double Below(double x) { return std::nextafter(x, -std::numeric_limits<double>::infinity()); }
double Above(double x) { return std::nextafter(x, std::numeric_limits<double>::infinity()); }

struct Threshold {
  const char* check;
  std::function<double(const VerdictRules&, const Evidence&)> limit;
  std::function<void(Evidence&, double)> set;
  bool isFloor;      // a value below the limit fails (else above)
  const char* word;  // what the reason says
};

TEST(Decide, EachThresholdRefusesJustPastItsLimitWithItsOwnReasonAndPassesAtIt) {
  const std::vector<Threshold> thresholds = {
      {"fitness",
       [](const VerdictRules& r, const Evidence&) { return r.minOverlap; },
       [](Evidence& e, double v) { e.overlap.fitness = v; },
       true,
       "overlap "},
      {"target overlap",
       [](const VerdictRules& r, const Evidence&) { return r.minOverlap; },
       [](Evidence& e, double v) { e.overlap.targetOverlap = v; },
       true,
       "overlap "},
      {"rmse",
       [](const VerdictRules& r, const Evidence& e) { return r.maxRmseShare * e.distance; },
       [](Evidence& e, double v) { e.overlap.rmse = v; },
       false,
       "RMSE"},
      {"normal agreement",
       [](const VerdictRules& r, const Evidence&) { return r.minNormalAgreement; },
       [](Evidence& e, double v) { e.overlap.normalAgreement = v; },
       true,
       "normals agree"},
      {"conditioning",
       [](const VerdictRules& r, const Evidence&) { return r.minConditioning; },
       [](Evidence& e, double v) { e.overlap.conditioning = v; },
       true,
       "not constrained"},
      {"constrained",
       [](const VerdictRules& r, const Evidence&) { return r.minConstrained; },
       [](Evidence& e, double v) { e.overlap.constrained = v; },
       true,
       "nearby structure"},
      {"free space",
       [](const VerdictRules& r, const Evidence&) { return r.maxFreeSpaceConflict; },
       [](Evidence& e, double v) { e.freeSpaceConflict = v; },
       false,
       "saw through"},
      {"rival",
       [](const VerdictRules& r, const Evidence&) { return r.maxRivalScore; },
       [](Evidence& e, double v) { e.rivalShare = v; },
       false,
       "ambiguous"},
  };
  for (const VerdictRules& rules : {VerdictRules(), Unusual()}) {
    ASSERT_EQ(Decide(Passing(), rules), "");
    for (const Threshold& t : thresholds) {
      SCOPED_TRACE(t.check);
      Evidence e = Passing();
      const double limit = t.limit(rules, e);
      t.set(e, t.isFloor ? Below(limit) : Above(limit));
      const std::string reason = Decide(e, rules);
      EXPECT_NE(reason.find(t.word), std::string::npos) << reason;
      // Every other check is named by its own word only.
      for (const Threshold& other : thresholds) {
        if (std::string(other.word) != t.word) {
          EXPECT_EQ(reason.find(other.word), std::string::npos) << reason;
        }
      }
      t.set(e, limit);  // "at least" and "at most" include the limit itself
      EXPECT_EQ(Decide(e, rules), "");
      t.set(e, t.isFloor ? Above(limit) : Below(limit));
      EXPECT_EQ(Decide(e, rules), "");
    }
  }

  // The match floor: one short refuses, the floor itself passes.
  for (const VerdictRules& rules : {VerdictRules(), Unusual()}) {
    for (const double chance : {0.0, 2.5, 16.0, 30.7}) {
      SCOPED_TRACE(chance);
      Evidence e = Passing();
      e.chancePairs = chance;
      const int32_t floor = ConsistentFloor(chance, rules);
      e.consistentPairs = floor - 1;
      const std::string reason = Decide(e, rules);
      EXPECT_NE(reason.find("consistent feature matches"), std::string::npos) << reason;
      e.consistentPairs = floor;
      EXPECT_EQ(Decide(e, rules), "");
    }
  }

  // Unknown free space (< 0) says nothing; without matches (local refinement) the floor is off.
  Evidence e = Passing();
  e.freeSpaceConflict = -1.0;
  EXPECT_EQ(Decide(e, VerdictRules()), "");
  VerdictRules noMatches;
  noMatches.minConsistentPairs = 0;
  e.consistentPairs = 0;
  e.chancePairs = 40.0;
  EXPECT_EQ(Decide(e, noMatches), "");
  EXPECT_NE(Decide(e, VerdictRules()), "");
}

TEST(Decide, TheMatchFloorIsTheSmallestCountThatBeatsChanceBySigmas) {
  // Counting up from zero: the first count that is at least minConsistentPairs and exceeds the
  // chance level by chanceSigmas standard deviations (Poisson: the square root of the level).
  auto smallest = [](double chance, const VerdictRules& rules) {
    const double bar = chance + rules.chanceSigmas * std::sqrt(chance);
    int32_t k = 0;
    while (k < rules.minConsistentPairs || !(static_cast<double>(k) > bar)) ++k;
    return k;
  };
  std::mt19937 random(9);
  std::uniform_real_distribution<double> level(0.0, 400.0);
  std::vector<double> chances = {0.0, 1.0, 4.0, 16.0, 25.0, 100.0, 0.25, 1e-9};
  for (int i = 0; i < 200; ++i) chances.push_back(level(random));
  for (const double sigmas : {0.0, 1.0, 2.0, 4.0}) {
    for (const int32_t least : {1, 6, 40}) {
      VerdictRules rules;
      rules.chanceSigmas = sigmas;
      rules.minConsistentPairs = least;
      for (const double chance : chances) {
        EXPECT_EQ(ConsistentFloor(chance, rules), smallest(chance, rules))
            << "chance " << chance << ", sigmas " << sigmas << ", at least " << least;
      }
    }
  }
}

}  // namespace
}  // namespace qorv::engine
