// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "support/registration_data.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#include "support/clouds.hpp"

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
  // clang-format off
  const double r[9] = {c + x * x * (1 - c),     x * y * (1 - c) - z * s, x * z * (1 - c) + y * s,
                       y * x * (1 - c) + z * s, c + y * y * (1 - c),     y * z * (1 - c) - x * s,
                       z * x * (1 - c) - y * s, z * y * (1 - c) + x * s, c + z * z * (1 - c)};
  // clang-format on
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

RigidKeyPoints::RigidKeyPoints(int32_t count, uint32_t seed) {
  const float axis[3] = {0.0f, 0.6f, 0.8f};
  const float shift[3] = {0.3f, -0.2f, 0.1f};
  MakePose(axis, 0.4f, shift, truth);
  points2 = RandomCloud(count, seed);
  normals2 = RandomCloud(count, seed + 1);
  for (float& v : normals2) v -= 0.5f;
  descriptors2 = RandomDescriptors(count, seed + 2);
  firstIndexOf.resize(static_cast<size_t>(count));
  std::iota(firstIndexOf.begin(), firstIndexOf.end(), 0);
  std::shuffle(firstIndexOf.begin(), firstIndexOf.end(), std::mt19937(seed + 3));
  const std::vector<float> moved = ApplyPose(truth, points2);
  const std::vector<float> turned = RotateVectors(truth, normals2);
  points1.resize(moved.size());
  normals1.resize(turned.size());
  descriptors1.resize(descriptors2.size());
  for (size_t j = 0; j < firstIndexOf.size(); ++j) {
    const size_t i = static_cast<size_t>(firstIndexOf[j]);
    std::copy_n(&moved[3 * j], 3, &points1[3 * i]);
    std::copy_n(&turned[3 * j], 3, &normals1[3 * i]);
    std::copy_n(&descriptors2[33 * j], 33, &descriptors1[33 * i]);
  }
}

}  // namespace qorv::test
