// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "support/clouds.hpp"

#include <fstream>
#include <random>
#include <sstream>

namespace qorv::test {

std::vector<float> RandomCloud(int32_t count, uint32_t seed, float extent) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> uniform(0.0f, extent);
  std::vector<float> points(static_cast<size_t>(count) * 3);
  for (float& v : points) v = uniform(rng);
  return points;
}

std::vector<float> GridCloud(int32_t nx, int32_t ny, float h) {
  std::vector<float> points;
  points.reserve(static_cast<size_t>(nx) * ny * 3);
  for (int32_t y = 0; y < ny; ++y) {
    for (int32_t x = 0; x < nx; ++x) {
      points.push_back(static_cast<float>(x) * h);
      points.push_back(static_cast<float>(y) * h);
      points.push_back(0.0f);
    }
  }
  return points;
}

std::vector<float> LoadSample(const std::string& name) {
  std::ifstream in(std::string(QORV_DATA_DIR) + "/sample/" + name);
  std::vector<float> points;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    float x, y, z;
    if (fields >> x >> y >> z) {
      points.push_back(x);
      points.push_back(y);
      points.push_back(z);
    }
  }
  return points;
}

float DistSq(const float* a, const float* b) {
  float sum = 0.0f;
  for (int d = 0; d < 3; ++d) {
    const float diff = a[d] - b[d];
    sum += diff * diff;
  }
  return sum;
}

}  // namespace qorv::test
