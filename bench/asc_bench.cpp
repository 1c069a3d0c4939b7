// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// ASC reading: the tokenizer over text in memory, the whole file read from the (cached) disk, and a
// plain strtof loop over the same text as a yardstick. Two inputs: the 100k-point dragon scan and a
// generated file of about 300 MB (six columns), written to /tmp on first use and reused after.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "geometry/asc_file.hpp"

namespace {

const char kDragonPath[] = QORV_BENCH_DATA_DIR "/dragon_res2.asc";
const char kLargePath[] = "/tmp/qorv_asc_bench_300mb.asc";
constexpr long kLargeBytes = 300L * 1000 * 1000;

bool FileSizeAtLeast(const char* path, long bytes) {
  std::FILE* file = std::fopen(path, "rb");
  if (file == nullptr) return false;
  std::fseek(file, 0, SEEK_END);
  const long size = std::ftell(file);
  std::fclose(file);
  return size >= bytes;
}

// Points on a noisy sphere of radius 50 with unit normals, printed like scanner exports.
void GenerateLargeFile() {
  if (FileSizeAtLeast(kLargePath, kLargeBytes)) return;
  const std::string partial = std::string(kLargePath) + ".partial";
  std::FILE* file = std::fopen(partial.c_str(), "w");
  if (file == nullptr) return;
  std::mt19937 rng(42);
  std::normal_distribution<float> gauss(0.0f, 1.0f);
  long written = 0;
  while (written < kLargeBytes) {
    float n[3] = {gauss(rng), gauss(rng), gauss(rng)};
    const float length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]) + 1e-12f;
    for (float& v : n) v /= length;
    const float r = 50.0f + 0.1f * gauss(rng);
    const int chars = std::fprintf(file,
                                   "%f %f %f %f %f %f\n",
                                   double(r * n[0]),
                                   double(r * n[1]),
                                   double(r * n[2]),
                                   double(n[0]),
                                   double(n[1]),
                                   double(n[2]));
    if (chars < 0) break;
    written += chars;
  }
  if (std::fclose(file) == 0) std::rename(partial.c_str(), kLargePath);
}

const std::string& Text(const char* path) {
  static std::map<std::string, std::string> texts;
  auto it = texts.find(path);
  if (it == texts.end()) {
    if (path == kLargePath) GenerateLargeFile();
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    it = texts.emplace(path, content.str()).first;
  }
  return it->second;
}

void BM_ParseAsc(benchmark::State& state, const char* path) {
  const std::string& text = Text(path);
  if (text.empty()) return state.SkipWithError("input missing");
  for (auto _ : state) {
    qorv::AscCloud cloud = qorv::ParseAsc(text.c_str(), text.size());
    benchmark::DoNotOptimize(cloud.points.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_ReadAscFile(benchmark::State& state, const char* path) {
  const std::string& text = Text(path);  // also warms the page cache
  for (auto _ : state) {
    qorv::AscCloud cloud;
    if (!qorv::ReadPointsFromAsc(path, cloud)) return state.SkipWithError("read failed");
    benchmark::DoNotOptimize(cloud.points.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// The yardstick: every number of the same text through strtof into a reserved vector.
void BM_StrtofLoop(benchmark::State& state, const char* path) {
  const std::string& text = Text(path);
  if (text.empty()) return state.SkipWithError("input missing");
  std::vector<float> numbers;
  for (auto _ : state) {
    numbers.clear();
    numbers.reserve(text.size() / 4);
    const char* p = text.c_str();
    while (*p != '\0') {
      char* end = nullptr;
      const float v = std::strtof(p, &end);
      if (end == p) {
        ++p;
        continue;
      }
      numbers.push_back(v);
      p = end;
    }
    benchmark::DoNotOptimize(numbers.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

BENCHMARK_CAPTURE(BM_ParseAsc, dragon_res2, kDragonPath)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ReadAscFile, dragon_res2, kDragonPath)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_StrtofLoop, dragon_res2, kDragonPath)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ParseAsc, generated_300mb, kLargePath)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK_CAPTURE(BM_ReadAscFile, generated_300mb, kLargePath)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK_CAPTURE(BM_StrtofLoop, generated_300mb, kLargePath)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
