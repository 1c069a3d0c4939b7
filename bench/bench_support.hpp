// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// What the benchmark programs share: the scan they time on, a plain reader of its coordinates,
// its mean spacing (the unit of their lengths), the thread setting taken from a benchmark
// argument and a guard that keeps the library's log out of the report. None of it is timed.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <omp.h>

#include "runtime/parallel_for.hpp"
#include "search/kd_tree.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace qorv::bench {

// The 100k-point scan.
inline constexpr char kDragonRes2Path[] = QORV_BENCH_DATA_DIR "/dragon_res2.asc";

// The library logs to standard output; keep that out of the report while timing.
class QuietStdout {
 public:
  QuietStdout() {
    std::fflush(stdout);
    saved_ = dup(1);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
  }
  ~QuietStdout() {
    std::fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
  }
  QuietStdout(const QuietStdout&) = delete;
  QuietStdout& operator=(const QuietStdout&) = delete;

 private:
  int saved_;
};

// x, y, z of every line that starts with three numbers; empty when the file cannot be read.
inline std::vector<float> LoadXyz(const char* path) {
  std::ifstream in(path);
  std::vector<float> points;
  std::string line;
  while (std::getline(in, line)) {
    float x, y, z;
    if (std::sscanf(line.c_str(), "%f %f %f", &x, &y, &z) == 3) {
      points.insert(points.end(), {x, y, z});
    }
  }
  return points;
}

inline int32_t CountOf(const std::vector<float>& points) {
  return static_cast<int32_t>(points.size() / 3);
}

// Mean distance from each of the tree's `count` points to its nearest other point.
inline float MeanSpacing(const PointKdTree& tree, int32_t count) {
  double sum = 0.0;
  int32_t indices[2];
  float distSq[2];
  for (int32_t i = 0; i < count; ++i) {
    tree.knnSearch(tree.element(i), 2, indices, distSq);
    sum += std::sqrt(static_cast<double>(distSq[1]));
  }
  return static_cast<float>(sum / count);
}

// Benchmark argument `arg` is a thread count: 1 runs the single-threaded variant, more the
// multi-threaded one on the OpenMP threads as they are.
inline Execution ExecutionFor(const benchmark::State& state, int arg) {
  return Execution{state.range(static_cast<size_t>(arg)) > 1};
}

// The same, with the OpenMP threads set to that count first.
inline Execution UseThreads(const benchmark::State& state, int arg) {
  const int threads = static_cast<int>(state.range(static_cast<size_t>(arg)));
  omp_set_num_threads(threads);
  return Execution{threads > 1};
}

}  // namespace qorv::bench
