// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Registration timings: exhaustive and k-nearest descriptor matching, RANSAC, the iterative matcher
// and the distance check, each with the single-threaded variant ("threads:1") and the
// multi-threaded one on every OpenMP thread ("threads:2" on our two-core machines). The
// "literal" cases run the exhaustive matcher the plain way (one distance at a time, the cross
// check rescanning all queries) as the baseline of the vector code.
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "registration/correspondences.hpp"
#include "registration/descriptor_matching.hpp"
#include "registration/distance_check.hpp"
#include "registration/iterative_matching.hpp"
#include "registration/ransac_matching.hpp"
#include "support/clouds.hpp"
#include "support/registration_data.hpp"

namespace {

using qorv::Execution;
using qorv::bench::CountOf;
using qorv::bench::ExecutionFor;
using qorv::bench::QuietStdout;
using qorv::test::RandomCloud;
using qorv::test::RandomDescriptors;

// Rotation by 0.3 rad about (0, 0.6, 0.8) and a shift.
// clang-format off
const float kTruth[12] = {0.9553365f,  -0.2364162f, 0.1773121f, 0.2364162f, 0.9714154f,
                          0.0214385f,  -0.1773121f, 0.0214385f, 0.9839211f, 0.2f,
                          -0.1f,       0.05f};
// clang-format on

std::vector<float> Moved(const std::vector<float>& points, bool rotateOnly = false) {
  std::vector<float> out(points.size());
  for (size_t i = 0; i < points.size(); i += 3) {
    for (int r = 0; r < 3; ++r) {
      out[i + r] = kTruth[3 * r] * points[i] + kTruth[3 * r + 1] * points[i + 1] +
                   kTruth[3 * r + 2] * points[i + 2] + (rotateOnly ? 0.0f : kTruth[9 + r]);
    }
  }
  return out;
}

// ---- Descriptor matching
// -------------------------------------------------------------------------

void BM_MatchExhaustive(benchmark::State& state) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  const bool crossCheck = state.range(1) != 0;
  const std::vector<float> targets = RandomDescriptors(n, 1);
  const std::vector<float> queries = RandomDescriptors(n, 2);
  std::vector<int32_t> indices(n);
  std::vector<float> distances(n);
  for (auto _ : state) {
    qorv::MatchDescriptorsExhaustive(targets.data(),
                                     n,
                                     queries.data(),
                                     n,
                                     crossCheck,
                                     ExecutionFor(state, 2),
                                     indices.data(),
                                     distances.data());
    benchmark::DoNotOptimize(indices.data());
  }
  state.counters["pairs/s"] =
      benchmark::Counter(static_cast<double>(n) * n, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_MatchExhaustive)
    ->ArgNames({"n", "cross", "threads"})
    ->ArgsProduct({{1000, 5000}, {0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// One distance at a time and the cross check as a rescan of all queries, single-threaded.
void BM_MatchExhaustiveLiteral(benchmark::State& state) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  const bool crossCheck = state.range(1) != 0;
  const std::vector<float> targets = RandomDescriptors(n, 1);
  const std::vector<float> queries = RandomDescriptors(n, 2);
  std::vector<int32_t> indices(n);
  for (auto _ : state) {
    for (int32_t q = 0; q < n; ++q) {
      const float* query = &queries[33 * static_cast<size_t>(q)];
      float bestSq = qorv::DescriptorDistanceSq(query, targets.data());
      int32_t best = 0;
      for (int32_t t = 1; t < n; ++t) {
        const float d = qorv::DescriptorDistanceSq(query, &targets[33 * static_cast<size_t>(t)]);
        if (d < bestSq) {
          bestSq = d;
          best = t;
        }
      }
      if (crossCheck) {
        for (int32_t j = 0; j < n; ++j) {
          if (j != q &&
              qorv::DescriptorDistanceSq(&queries[33 * static_cast<size_t>(j)],
                                         &targets[33 * static_cast<size_t>(best)]) < bestSq) {
            best = -1;
            break;
          }
        }
      }
      indices[q] = best;
    }
    benchmark::DoNotOptimize(indices.data());
  }
}
BENCHMARK(BM_MatchExhaustiveLiteral)
    ->ArgNames({"n", "cross"})
    ->ArgsProduct({{1000, 5000}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_MatchKnn(benchmark::State& state) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  const int32_t k = 5;
  const std::vector<float> targets = RandomDescriptors(n, 1);
  const std::vector<float> queries = RandomDescriptors(n, 2);
  std::vector<int32_t> indices(static_cast<size_t>(n) * k);
  std::vector<float> distances(static_cast<size_t>(n) * k);
  for (auto _ : state) {
    qorv::MatchDescriptorsKnn(targets.data(),
                              n,
                              queries.data(),
                              n,
                              k,
                              ExecutionFor(state, 1),
                              indices.data(),
                              distances.data());
    benchmark::DoNotOptimize(indices.data());
  }
}
BENCHMARK(BM_MatchKnn)
    ->ArgNames({"n", "threads"})
    ->ArgsProduct({{1000, 5000}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// ---- RANSAC and the iterative matcher ----------------------------------------------------------

// count key points; the second set a moved copy of the first with the same descriptors, except
// that only inlierShare of the first set's points keep their true position.
struct KeyPoints {
  std::vector<float> points1, normals1, descriptors, points2, normals2;

  KeyPoints(int32_t count, double inlierShare) {
    points2 = RandomCloud(count, 3);
    normals2 = RandomCloud(count, 4);
    for (float& v : normals2) v -= 0.5f;
    points1 = Moved(points2);
    normals1 = Moved(normals2, true);
    descriptors = RandomDescriptors(count, 5);
    const std::vector<float> scattered = RandomCloud(count, 6);
    const int32_t kept = static_cast<int32_t>(inlierShare * count);
    for (size_t i = 3 * static_cast<size_t>(kept); i < points1.size(); ++i) {
      points1[i] = scattered[i];
    }
  }
  qorv::KeyPointSet first() const {
    return {points1.data(),
            normals1.data(),
            descriptors.data(),
            static_cast<int32_t>(points1.size() / 3)};
  }
  qorv::KeyPointSet second() const {
    return {points2.data(),
            normals2.data(),
            descriptors.data(),
            static_cast<int32_t>(points2.size() / 3)};
  }
};

void BM_Ransac(benchmark::State& state) {
  const double inlierShare = static_cast<double>(state.range(0)) / 100.0;
  const KeyPoints kp(2000, inlierShare);
  const qorv::RansacParams params{20000, 0.9, 0.01};
  std::vector<int32_t> matches;
  double transform[12];
  int32_t count = 0;
  {
    QuietStdout quiet;
    for (auto _ : state) {
      count = qorv::RansacMatch(
          kp.first(), kp.second(), params, true, ExecutionFor(state, 1), 7, transform, matches);
    }
  }
  state.counters["inliers"] = count;
}
// 100: clean copy, stops after a few samples; 20: four fifths outliers, all 20,000 samples run.
BENCHMARK(BM_Ransac)
    ->ArgNames({"inlierPct", "threads"})
    ->ArgsProduct({{100, 20}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_RefinePose(benchmark::State& state) {
  qorv::Correspondences pairs;
  pairs.second = RandomCloud(1000, 8);
  pairs.first = Moved(pairs.second);
  const qorv::IterativeParams params{100, 1.0f, 0.001f};
  for (auto _ : state) {
    float pose[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    benchmark::DoNotOptimize(qorv::RefinePose(pairs, params, pose));
  }
}
BENCHMARK(BM_RefinePose)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_IterativeMatch(benchmark::State& state) {
  const KeyPoints kp(1000, 1.0);
  const qorv::IterativeParams params{100, 1.0f, 0.001f};
  std::vector<int32_t> matches;
  QuietStdout quiet;
  for (auto _ : state) {
    double transform[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    benchmark::DoNotOptimize(qorv::IterativeMatch(
        kp.first(), kp.second(), params, true, ExecutionFor(state, 0), transform, matches));
  }
}
BENCHMARK(BM_IterativeMatch)
    ->ArgNames({"threads"})
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// ---- Distance check
// ------------------------------------------------------------------------------

const std::vector<float>& Dragon() {
  static const std::vector<float> points = qorv::bench::LoadXyz(qorv::bench::kDragonRes2Path);
  return points;
}

void BM_CheckDistance(benchmark::State& state) {
  const std::vector<float>& points = Dragon();
  if (points.empty()) {
    state.SkipWithError("dragon_res2.asc not found");
    return;
  }
  const int32_t k = static_cast<int32_t>(state.range(0));
  QuietStdout quiet;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        qorv::CheckDistance(points.data(), CountOf(points), k, ExecutionFor(state, 1)));
  }
  state.counters["points"] = static_cast<double>(points.size() / 3);
}
BENCHMARK(BM_CheckDistance)
    ->ArgNames({"k", "threads"})
    ->ArgsProduct({{2, 8}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
