// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// Key points and descriptors on dragon_res2 (100k points): detection alone, descriptors alone and
// both, serial (1 thread) and parallel (2 threads), with the pair pipeline's parameters and with
// ratios suited to smooth scanned surfaces.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "features/detect_and_compute.hpp"
#include "features/fpfh_descriptor.hpp"
#include "geometry/asc_file.hpp"
#include "surface/normal_estimation.hpp"

namespace {

using qorv::Execution;
using qorv::KeyPointParams;
using qorv::PointKdTree;
namespace bench = qorv::bench;

struct Scene {
  qorv::AscCloud cloud;
  std::vector<float> normals;
  float spacing = 0.0f;  // mean nearest-neighbour distance
};

// Loaded once, on the main thread (trees are built where they are destroyed).
const Scene& Dragon() {
  static const Scene scene = [] {
    Scene s;
    if (!qorv::ReadPointsFromAsc(bench::kDragonRes2Path, s.cloud) || s.cloud.count < 10) {
      std::fprintf(stderr, "cannot read %s\n", bench::kDragonRes2Path);
      std::exit(1);
    }
    const int32_t n = static_cast<int32_t>(s.cloud.count);
    const PointKdTree tree(s.cloud.points.data(), n);
    s.spacing = bench::MeanSpacing(tree, n);
    s.normals.resize(static_cast<size_t>(n) * 3);
    qorv::EstimateNormals(tree, 2.0f * s.spacing, Execution{true}, s.normals.data());
    return s;
  }();
  return scene;
}

// Pair pipeline: keyPointRadius 2s, nonMaxRadius s/3, ratios 0.01, no cap, feature s, histogram 5s.
// Surface: keyPointRadius 3s, nonMaxRadius 2s, ratios 0.5: about a thousand key points.
struct Setting {
  KeyPointParams params;
  float featureRadius;
  float histogramRadius;
};

Setting SettingFor(int64_t which, float s) {
  if (which == 0) return {{s + s, s / 3.0f, 0.01f, 0.01f, 0}, s, s * 5.0f};
  return {{3.0f * s, 2.0f * s, 0.5f, 0.5f, 0}, s, s * 5.0f};
}

void BM_DetectAndCompute(benchmark::State& state) {
  const Scene& scene = Dragon();
  const Setting setting = SettingFor(state.range(0), scene.spacing);
  const Execution exec = bench::UseThreads(state, 1);
  const PointKdTree tree(scene.cloud.points.data(), scene.cloud.count);
  int32_t keyPoints = 0;
  for (auto _ : state) {
    const qorv::KeyPointFeatures f = qorv::DetectAndCompute(tree,
                                                            scene.normals.data(),
                                                            setting.params,
                                                            setting.featureRadius,
                                                            setting.histogramRadius,
                                                            exec);
    keyPoints = f.count();
    benchmark::DoNotOptimize(f.descriptors.data());
  }
  state.counters["keyPoints"] = keyPoints;
}

void BM_DetectKeyPoints(benchmark::State& state) {
  const Scene& scene = Dragon();
  const Setting setting = SettingFor(state.range(0), scene.spacing);
  const Execution exec = bench::UseThreads(state, 1);
  const PointKdTree tree(scene.cloud.points.data(), scene.cloud.count);
  std::vector<int32_t> indices;
  std::vector<float> positions;
  for (auto _ : state) {
    qorv::DetectKeyPoints(tree, setting.params, exec, indices, positions);
    benchmark::DoNotOptimize(indices.data());
  }
  state.counters["keyPoints"] = static_cast<double>(indices.size());
}

// Descriptors of every 20th point (5k key points), whatever the detector would pick.
void BM_ComputeDescriptors(benchmark::State& state) {
  const Scene& scene = Dragon();
  const Setting setting = SettingFor(state.range(0), scene.spacing);
  const Execution exec = bench::UseThreads(state, 1);
  const PointKdTree tree(scene.cloud.points.data(), scene.cloud.count);
  std::vector<int32_t> keyPoints;
  for (int32_t i = 0; i < static_cast<int32_t>(scene.cloud.count); i += 20) keyPoints.push_back(i);
  std::vector<float> descriptors(keyPoints.size() * qorv::kDescriptorSize);
  for (auto _ : state) {
    qorv::ComputeDescriptors(tree,
                             scene.normals.data(),
                             keyPoints.data(),
                             static_cast<int32_t>(keyPoints.size()),
                             setting.featureRadius,
                             setting.histogramRadius,
                             exec,
                             descriptors.data());
    benchmark::DoNotOptimize(descriptors.data());
  }
  state.counters["keyPoints"] = static_cast<double>(keyPoints.size());
}

// Arguments: setting (0 pair pipeline, 1 surface ratios), threads.
void Settings(benchmark::internal::Benchmark* b) {
  b->ArgNames({"surface", "threads"});
  for (int64_t which : {0, 1}) {
    for (int64_t threads : {1, 2}) b->Args({which, threads});
  }
  b->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(BM_DetectAndCompute)->Apply(Settings);
BENCHMARK(BM_DetectKeyPoints)->Apply(Settings);
BENCHMARK(BM_ComputeDescriptors)->Apply(Settings);

}  // namespace

BENCHMARK_MAIN();
