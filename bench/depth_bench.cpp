// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Depth image to vertex/normal maps and organized key points with descriptors on a synthetic
// 640 x 480 depth image: a tilted, rippled wall with three raised boxes (depth edges and corners).
#include <cmath>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>
#include <omp.h>

#include "features/depth_maps.hpp"
#include "features/organized_keypoints.hpp"

namespace {

constexpr int32_t kWidth = 640;
constexpr int32_t kHeight = 480;
const qorv::Intrinsics kCamera{525.0f, 525.0f, 319.5f, 239.5f};

std::vector<float> SyntheticDepth() {
  std::vector<float> depth(static_cast<size_t>(kWidth) * kHeight);
  for (int32_t r = 0; r < kHeight; ++r) {
    for (int32_t c = 0; c < kWidth; ++c) {
      float z =
          3.0f + 0.002f * static_cast<float>(c) +
          0.15f * std::sin(static_cast<float>(c) / 25.0f) * std::cos(static_cast<float>(r) / 30.0f);
      const bool box1 = r > 80 && r < 200 && c > 60 && c < 220;
      const bool box2 = r > 250 && r < 420 && c > 300 && c < 420;
      const bool box3 = r > 120 && r < 300 && c > 470 && c < 600;
      if (box1 || box2 || box3) z -= 0.6f + 0.001f * static_cast<float>(r - c);
      if ((r * 7 + c * 13) % 97 == 0) z = 0.0f;  // dropouts
      depth[static_cast<size_t>(r) * kWidth + c] = z;
    }
  }
  return depth;
}

struct Maps {
  std::vector<float> depth = SyntheticDepth();
  std::vector<float> vertices = std::vector<float>(depth.size() * 3);
  std::vector<float> normals = std::vector<float>(depth.size() * 3);
  std::vector<uint8_t> mask = std::vector<uint8_t>(depth.size());

  Maps() {
    qorv::DepthToVertexMap(
        {depth.data(), 0, kWidth, kHeight}, kCamera, {vertices.data(), 0, kWidth, kHeight});
    qorv::VertexToNormalMap({vertices.data(), 0, kWidth, kHeight},
                            {normals.data(), 0, kWidth, kHeight});
    qorv::ComputeValidMask({vertices.data(), 0, kWidth, kHeight},
                           {normals.data(), 0, kWidth, kHeight},
                           {mask.data(), 0, kWidth, kHeight});
  }
  qorv::OrganizedMaps view() const {
    return {vertices.data(), normals.data(), mask.data(), kWidth, kHeight};
  }
};

const Maps& SharedMaps() {
  static const Maps maps;
  return maps;
}

// Arg 0: vertex map only; 1: with normals; 2: with mask (no normals); 3: normals and mask.
void BM_DepthToVmapNmap(benchmark::State& state) {
  const bool withNormals = (state.range(0) & 1) != 0;
  const bool withMask = (state.range(0) & 2) != 0;
  const std::vector<float> depth = SyntheticDepth();
  std::vector<float> vertices(depth.size() * 3), normals(depth.size() * 3);
  std::vector<uint8_t> mask(depth.size());
  for (auto _ : state) {
    qorv::DepthToVertexMap(
        {depth.data(), 0, kWidth, kHeight}, kCamera, {vertices.data(), 0, kWidth, kHeight});
    if (withNormals) {
      qorv::VertexToNormalMap({vertices.data(), 0, kWidth, kHeight},
                              {normals.data(), 0, kWidth, kHeight});
    }
    if (withMask) {
      qorv::ComputeValidMask({vertices.data(), 0, kWidth, kHeight},
                             {withNormals ? normals.data() : nullptr, 0, kWidth, kHeight},
                             {mask.data(), 0, kWidth, kHeight});
    }
    benchmark::DoNotOptimize(vertices.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_DepthToVmapNmap)->Arg(0)->Arg(1)->Arg(2)->Arg(3)->Unit(benchmark::kMillisecond);

qorv::OrganizedKeyPointParams Params(int32_t maxKeyPoints) {
  qorv::OrganizedKeyPointParams p;
  p.scoreWindow = 9;
  p.suppressionWindow = 15;
  p.descriptorHalfWindow = 5;
  p.histogramWindow = 7;
  p.ratio21 = 0.975f;
  p.ratio32 = 0.975f;
  p.maxKeyPoints = maxKeyPoints;
  return p;
}

// Args: threads (1 runs the single-threaded variant), maxKeyPoints, with descriptors (0/1).
void BM_OrganizedKeyPoints(benchmark::State& state) {
  const int threads = static_cast<int>(state.range(0));
  const int saved = omp_get_max_threads();
  omp_set_num_threads(threads);
  const qorv::Execution exec{threads > 1};
  const qorv::OrganizedKeyPointParams params = Params(static_cast<int32_t>(state.range(1)));
  const bool describe = state.range(2) != 0;
  const qorv::OrganizedMaps maps = SharedMaps().view();
  std::vector<uint8_t> flags(maps.pixelCount());
  std::vector<float> scores(maps.pixelCount());
  size_t keys = 0;
  for (auto _ : state) {
    qorv::DetectKeyPixels(maps, params, exec, flags.data(), scores.data());
    if (describe) {
      const std::vector<float> descriptors = qorv::ComputeKeyPixelDescriptors(
          maps, flags.data(), params.descriptorHalfWindow, params.histogramWindow, exec);
      keys = descriptors.size() / 33;
      benchmark::DoNotOptimize(descriptors.data());
    }
  }
  state.counters["keys"] = static_cast<double>(keys);
  omp_set_num_threads(saved);
}
BENCHMARK(BM_OrganizedKeyPoints)
    ->ArgNames({"threads", "max", "describe"})
    ->Args({1, 500, 0})
    ->Args({2, 500, 0})
    ->Args({1, 500, 1})
    ->Args({2, 500, 1})
    ->Args({1, 0, 1})
    ->Args({2, 0, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
