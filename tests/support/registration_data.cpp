// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "support/registration_data.hpp"

#include <cmath>
#include <random>

namespace qorv::test {

std::vector<float> RandomDescriptors(int32_t count, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> uniform(0.0f, 1.0f);
  std::vector<float> descriptors(static_cast<size_t>(count) * 33);
  for (size_t block = 0; block < descriptors.size(); block += 11) {
    float sum = 0.0f;
    for (size_t i = 0; i < 11; ++i) sum += descriptors[block + i] = uniform(rng);
    for (size_t i = 0; i < 11; ++i) descriptors[block + i] *= 100.0f / sum;
  }
  return descriptors;
}

void MakePose(const float axis[3], float angle, const float translation[3], float pose[12]) {
  const double x = axis[0], y = axis[1], z = axis[2];
  const double c = std::cos(static_cast<double>(angle));
  const double s = std::sin(static_cast<double>(angle));
  const double r[9] = {c + x * x * (1 - c),     x * y * (1 - c) - z * s, x * z * (1 - c) + y * s,
                       y * x * (1 - c) + z * s, c + y * y * (1 - c),     y * z * (1 - c) - x * s,
                       z * x * (1 - c) - y * s, z * y * (1 - c) + x * s, c + z * z * (1 - c)};
  for (int i = 0; i < 9; ++i) pose[i] = static_cast<float>(r[i]);
  for (int i = 0; i < 3; ++i) pose[9 + i] = translation[i];
}

std::vector<float> ApplyPose(const float pose[12], const std::vector<float>& points) {
  std::vector<float> out = RotateVectors(pose, points);
  for (size_t i = 0; i < out.size(); i += 3) {
    for (int r = 0; r < 3; ++r) out[i + r] += pose[9 + r];
  }
  return out;
}

std::vector<float> RotateVectors(const float pose[12], const std::vector<float>& vectors) {
  std::vector<float> out(vectors.size());
  for (size_t i = 0; i < vectors.size(); i += 3) {
    for (int r = 0; r < 3; ++r) {
      out[i + r] = pose[3 * r] * vectors[i] + pose[3 * r + 1] * vectors[i + 1] +
                   pose[3 * r + 2] * vectors[i + 2];
    }
  }
  return out;
}

}  // namespace qorv::test
