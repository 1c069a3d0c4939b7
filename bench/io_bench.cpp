// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Cloud file reading from memory: binary PLY, binary and compressed PCD of a 2-million-point cloud
// with normals (the dragon scan tiled), in bytes of file a second; and compressed PCD read from the
// cached disk, the path a user's reading takes.
#include <cmath>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>

#include <benchmark/benchmark.h>

#include "io/cloud_files.hpp"
#include "io/cloud_writers.hpp"
#include "io/column_text.hpp"
#include "io/las_reader.hpp"
#include "io/las_writer.hpp"
#include "io/pcd_reader.hpp"
#include "io/ply_reader.hpp"

namespace {

const qorv::io::CloudData& Cloud() {
  static const qorv::io::CloudData cloud = [] {
    qorv::io::CloudData c;
    std::mt19937 random(1);
    std::normal_distribution<float> unit(0.0f, 1.0f);
    const size_t n = 2000000;
    c.points.resize(3 * n);
    c.normals.resize(3 * n);
    for (size_t i = 0; i < 3 * n; ++i) {
      c.points[i] = std::round(unit(random) * 1000.0f) / 1000.0f;  // sensor-like: millimetre steps
      c.normals[i] = unit(random);
    }
    c.width = static_cast<int64_t>(n);
    return c;
  }();
  return cloud;
}

void Read(benchmark::State& state, const std::string& bytes, bool ply) {
  for (auto _ : state) {
    const qorv::io::CloudData c =
        ply ? qorv::io::ParsePly(bytes, "b.ply") : qorv::io::ParsePcd(bytes, "b.pcd");
    benchmark::DoNotOptimize(c.points.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(bytes.size()));
  state.counters["points"] = static_cast<double>(Cloud().size());
}

void BM_BinaryPly(benchmark::State& state) {
  Read(state, qorv::io::FormatPly(Cloud(), qorv::io::Encoding::kBinary), true);
}
void BM_BinaryPcd(benchmark::State& state) {
  Read(state, qorv::io::FormatPcd(Cloud(), qorv::io::Encoding::kBinary), false);
}
void BM_CompressedPcd(benchmark::State& state) {
  Read(state, qorv::io::FormatPcd(Cloud(), qorv::io::Encoding::kCompressed), false);
}

void BM_CompressedPcdFile(benchmark::State& state) {
  const std::string path = "/tmp/qorv_io_bench.pcd";
  qorv::io::WriteCloudFile(path, Cloud(), qorv::io::Encoding::kCompressed);
  for (auto _ : state) {
    const qorv::io::CloudData c = qorv::io::ReadCloudFile(path, false, qorv::io::DepthCamera());
    benchmark::DoNotOptimize(c.points.data());
  }
  std::remove(path.c_str());
}

// Column text (x y z nx ny nz, six decimals as most writers print) and LAS 1.2 of the same cloud.
void BM_ColumnText(benchmark::State& state) {
  const std::string bytes = qorv::io::FormatAsc(Cloud());
  for (auto _ : state) {
    const qorv::io::CloudData c = qorv::io::ParseColumnText(bytes, "b.xyz", "");
    benchmark::DoNotOptimize(c.points.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(bytes.size()));
}

void BM_Las(benchmark::State& state) {
  const std::string bytes = qorv::io::FormatLas(Cloud());
  for (auto _ : state) {
    const qorv::io::CloudData c = qorv::io::ParseLas(bytes, "b.las");
    benchmark::DoNotOptimize(c.points.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(bytes.size()));
}

BENCHMARK(BM_ColumnText)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Las)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BinaryPly)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BinaryPcd)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CompressedPcd)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CompressedPcdFile)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
