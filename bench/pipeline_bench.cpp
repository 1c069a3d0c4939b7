// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Pair registration on a view pair of dragon_res2 (two 70% half-space crops, the second turned by
// 60 degrees and shifted), single-threaded ("threads:1") and on every OpenMP thread ("threads:2"
// on our two-core machines):
//   Pipeline: the one-call pipeline, s = the scan's mean spacing, RANSAC path, 20000 samples;
//   Prepare:  the preparation chain alone (outlier removal, smoothing, voxel, normals) per view.
// The registration engine has its own benchmark (make bench-registration).
#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "geometry/axis_angle.hpp"
#include "registration/correspondences.hpp"
#include "registration/distance_check.hpp"
#include "registration/pair_pipeline.hpp"
#include "search/kd_tree.hpp"

namespace {

using qorv::Execution;
using qorv::bench::CountOf;
using qorv::bench::ExecutionFor;
using qorv::bench::QuietStdout;

std::vector<float> Gather(const std::vector<float>& points, const std::vector<int32_t>& kept) {
  std::vector<float> out;
  out.reserve(kept.size() * 3);
  for (int32_t i : kept) {
    const float* p = &points[3 * static_cast<size_t>(i)];
    out.insert(out.end(), p, p + 3);
  }
  return out;
}

struct ViewPair {
  std::vector<float> first, second;
  float spacing = 0.0f;
};

const ViewPair& Views() {
  static const ViewPair pair = [] {
    ViewPair v;
    const std::vector<float> scan = qorv::bench::LoadXyz(qorv::bench::kDragonRes2Path);
    if (scan.empty()) return v;
    const int32_t n = CountOf(scan);
    {
      QuietStdout quiet;
      v.spacing = qorv::CheckDistance(scan.data(), n, 2, Execution{true});
    }
    // Crop along (0.6, 0, 0.8): each view keeps 70% of the points, in scan order.
    std::vector<std::pair<float, int32_t>> order(static_cast<size_t>(n));
    for (int32_t i = 0; i < n; ++i) {
      const float* p = &scan[3 * static_cast<size_t>(i)];
      order[static_cast<size_t>(i)] = {0.6f * p[0] + 0.8f * p[2], i};
    }
    std::sort(order.begin(), order.end());
    const auto keep = static_cast<size_t>(0.7 * n);
    std::vector<int32_t> low, high;
    for (size_t k = 0; k < keep; ++k) {
      low.push_back(order[k].second);
      high.push_back(order[static_cast<size_t>(n) - 1 - k].second);
    }
    std::sort(low.begin(), low.end());
    std::sort(high.begin(), high.end());
    v.first = Gather(scan, low);
    v.second = Gather(scan, high);
    // 60 degrees about (0.48, 0.6, 0.64), then a shift.
    const double axis[3] = {0.48, 0.6, 0.64};
    const std::array<double, 9> r = qorv::AxisAngleRotation(axis, M_PI / 3.0);
    const double t[3] = {0.05, -0.12, 0.2};
    for (size_t i = 0; i < v.second.size(); i += 3) {
      const double p[3] = {v.second[i], v.second[i + 1], v.second[i + 2]};
      for (int k = 0; k < 3; ++k) {
        v.second[i + k] =
            static_cast<float>(r[3 * k] * p[0] + r[3 * k + 1] * p[1] + r[3 * k + 2] * p[2] + t[k]);
      }
    }
    return v;
  }();
  return pair;
}

void BM_Pipeline(benchmark::State& state) {
  const ViewPair& v = Views();
  if (v.first.empty()) {
    state.SkipWithError("dragon_res2.asc not found");
    return;
  }
  const qorv::PairPipelineParams params{0.0f, v.spacing, 20000};
  QuietStdout quiet;
  for (auto _ : state) {
    double transform[12];
    std::vector<int32_t> matches;
    benchmark::DoNotOptimize(qorv::MatchPairPointCloud(v.first.data(),
                                                       CountOf(v.first),
                                                       v.second.data(),
                                                       CountOf(v.second),
                                                       params,
                                                       true,
                                                       ExecutionFor(state, 0),
                                                       1u,
                                                       transform,
                                                       matches));
  }
  state.counters["points"] = static_cast<double>(CountOf(v.first) + CountOf(v.second));
}
BENCHMARK(BM_Pipeline)
    ->ArgNames({"threads"})
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_Prepare(benchmark::State& state) {
  const ViewPair& v = Views();
  if (v.first.empty()) {
    state.SkipWithError("dragon_res2.asc not found");
    return;
  }
  for (auto _ : state) {
    const qorv::PreparedCloud prepared =
        qorv::PrepareCloud(v.first.data(), CountOf(v.first), v.spacing, ExecutionFor(state, 0));
    benchmark::DoNotOptimize(prepared.points.data());
  }
  state.counters["points"] = static_cast<double>(CountOf(v.first));
}
BENCHMARK(BM_Prepare)
    ->ArgNames({"threads"})
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
