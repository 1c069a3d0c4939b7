// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>

#include "features/descriptor_layout.hpp"
#include "runtime/parallel_for.hpp"

namespace qorv {

// Squared Euclidean distance of two 33-float descriptors, summed in float group by group: for the
// groups of components (0,1,2), (3,4,5), ..., (30,31,32) in turn, sum += d0*d0 + d1*d1 + d2*d2,
// that is sum + ((d0*d0 + d1*d1) + d2*d2). Every matching path reproduces exactly these roundings,
// so that the nearest target (and the tie order) never depends on the code path taken.
inline float DescriptorDistanceSq(const float* a, const float* b) {
  float sum = 0.0f;
  for (int c = 0; c < kDescriptorSize; c += 3) {
    const float d0 = a[c] - b[c];
    const float d1 = a[c + 1] - b[c + 1];
    const float d2 = a[c + 2] - b[c + 2];
    sum += d0 * d0 + d1 * d1 + d2 * d2;
  }
  return sum;
}

// distSq[t] = DescriptorDistanceSq(query, target t) for every target, computed by the vector code
// of the exhaustive matcher (bit-identical to the scalar function).
void DescriptorDistancesSq(const float* query,
                           const float* targets,
                           int32_t targetCount,
                           float* distSq);

// Nearest target of every query by exhaustive search. A later target replaces the best only when
// strictly closer, so ties go to the lowest index; a NaN distance never wins, but a NaN distance to
// target 0 keeps target 0 (nothing compares below it). With crossCheck, the match of query q to
// target T is rejected (index -1) when some other query is strictly closer to T than q is; the
// check is one-sided: T's own nearest query is not recomputed. matchDistances (may be null)
// receives the Euclidean distance of the best target, also for a rejected match.
void MatchDescriptorsExhaustive(const float* targets,
                                int32_t targetCount,
                                const float* queries,
                                int32_t queryCount,
                                bool crossCheck,
                                const Execution& exec,
                                int32_t* matchIndices,
                                float* matchDistances);

// The k nearest targets of every query by a search tree over the targets, ascending; results of
// query q at q * k .. q * k + k - 1. matchDistances (may be null) receives SQUARED distances, and
// its slot q * k + k - 1 is set to FLT_MAX before the search. Targets holding a NaN are never
// returned; slots past the number found keep what they held.
void MatchDescriptorsKnn(const float* targets,
                         int32_t targetCount,
                         const float* queries,
                         int32_t queryCount,
                         int32_t k,
                         const Execution& exec,
                         int32_t* matchIndices,
                         float* matchDistances);

}  // namespace qorv
