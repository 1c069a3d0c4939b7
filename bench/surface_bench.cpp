// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Tree searches, normals and filters on dragon_res2 (100k points), single- and two-threaded.
// Lengths scale with the cloud's mean nearest-neighbour spacing s, measured at start-up: radii
// and leaf 2s, but 4s for the edge filter, below which few neighbours make nearly every point an
// edge.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_support.hpp"
#include "runtime/parallel_for.hpp"
#include "search/kd_tree.hpp"
#include "surface/edge_filter.hpp"
#include "surface/gaussian_filter.hpp"
#include "surface/normal_estimation.hpp"
#include "surface/outlier_filter.hpp"
#include "surface/voxel_filter.hpp"

namespace {

using qorv::Execution;
using qorv::PointKdTree;
namespace bench = qorv::bench;

struct Dragon {
  std::vector<float> points;
  int32_t count = 0;
  float spacing = 0.0f;  // mean distance to the nearest other point
};

const Dragon& Data() {
  static const Dragon dragon = [] {
    Dragon d;
    d.points = bench::LoadXyz(bench::kDragonRes2Path);
    d.count = bench::CountOf(d.points);
    if (d.count < 2) {
      std::fprintf(stderr, "cannot read %s\n", bench::kDragonRes2Path);
      std::exit(1);
    }
    d.spacing = bench::MeanSpacing(PointKdTree(d.points.data(), d.count), d.count);
    std::fprintf(stderr, "dragon_res2: %d points, mean spacing %.6g\n", d.count, d.spacing);
    return d;
  }();
  return dragon;
}

void TreeBuild(benchmark::State& state) {
  const Dragon& d = Data();
  for (auto _ : state) {
    const PointKdTree tree(d.points.data(), d.count);
    benchmark::DoNotOptimize(tree.root());
  }
}

void KnnSearch10(benchmark::State& state) {
  const Dragon& d = Data();
  const Execution exec = bench::UseThreads(state, 0);
  const PointKdTree tree(d.points.data(), d.count);
  struct alignas(64) Slot {
    int32_t indices[10];
    float distSq[10];
    size_t found = 0;
  };
  std::vector<Slot> slots(static_cast<size_t>(exec.slots()));
  for (auto _ : state) {
    qorv::RunFor(exec, 0, d.count, [&](int32_t begin, int32_t end, int32_t t) {
      Slot& s = slots[static_cast<size_t>(t)];
      for (int32_t i = begin; i < end; ++i) {
        s.found += tree.knnSearch(&d.points[3 * static_cast<size_t>(i)], 10, s.indices, s.distSq);
      }
    });
  }
}

void RadiusSearch(benchmark::State& state) {
  const Dragon& d = Data();
  const Execution exec = bench::UseThreads(state, 0);
  const PointKdTree tree(d.points.data(), d.count);
  const float radius = 2.0f * d.spacing;
  struct alignas(64) Slot {
    qorv::RadiusResult result;
    size_t found = 0;
  };
  std::vector<Slot> slots(static_cast<size_t>(exec.slots()));
  for (auto _ : state) {
    qorv::RunFor(exec, 0, d.count, [&](int32_t begin, int32_t end, int32_t t) {
      Slot& s = slots[static_cast<size_t>(t)];
      for (int32_t i = begin; i < end; ++i) {
        s.result.clear();
        tree.radiusSearch(&d.points[3 * static_cast<size_t>(i)], radius * radius, s.result, false);
        s.found += s.result.size();
      }
    });
  }
}

void Normals(benchmark::State& state) {
  const Dragon& d = Data();
  const Execution exec = bench::UseThreads(state, 0);
  std::vector<float> normals(d.points.size());
  for (auto _ : state) {
    qorv::ComputeNormals(d.points.data(), d.count, 2.0f * d.spacing, exec, normals.data());
  }
}

void Gaussian(benchmark::State& state) {
  const Dragon& d = Data();
  const Execution exec = bench::UseThreads(state, 0);
  std::vector<float> smoothed(d.points.size());
  for (auto _ : state) {
    qorv::GaussianFilter(d.points.data(), d.count, 2.0f * d.spacing, exec, smoothed.data());
  }
}

void Voxel(benchmark::State& state) {
  const Dragon& d = Data();
  size_t kept = 0;
  for (auto _ : state) kept = qorv::VoxelFilter(d.points.data(), d.count, 2.0f * d.spacing).size();
  state.counters["kept"] = static_cast<double>(kept);
}

void Outliers(benchmark::State& state) {
  const Dragon& d = Data();
  const Execution exec = bench::UseThreads(state, 0);
  size_t kept = 0;
  for (auto _ : state) kept = qorv::OutlierFilter(d.points.data(), d.count, 50, 3.4f, exec).size();
  state.counters["kept"] = static_cast<double>(kept);
}

void Edges(benchmark::State& state) {
  const Dragon& d = Data();
  const Execution exec = bench::UseThreads(state, 0);
  size_t edges = 0;
  for (auto _ : state)
    edges = qorv::EdgeFilter(d.points.data(), d.count, 4.0f * d.spacing, exec).size();
  state.counters["edges"] = static_cast<double>(edges);
}

void Threaded(benchmark::internal::Benchmark* b) {
  b->ArgName("threads")->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
  b->Arg(2);
}

}  // namespace

BENCHMARK(TreeBuild)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(KnnSearch10)->Apply(Threaded);
BENCHMARK(RadiusSearch)->Apply(Threaded);
BENCHMARK(Normals)->Apply(Threaded);
BENCHMARK(Gaussian)->Apply(Threaded);
BENCHMARK(Voxel)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Outliers)->Apply(Threaded);
BENCHMARK(Edges)->Apply(Threaded);

BENCHMARK_MAIN();
