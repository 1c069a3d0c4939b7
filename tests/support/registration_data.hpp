// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <vector>

namespace qorv::test {

// count descriptors of 33 random floats, each block of 11 scaled to sum to 100.
std::vector<float> RandomDescriptors(int32_t count, uint32_t seed);

// pose: rotation row after row, then translation. Rotation by angle (radians) about the unit axis.
void MakePose(const float axis[3], float angle, const float translation[3], float pose[12]);

// R * p + t for every point.
std::vector<float> ApplyPose(const float pose[12], const std::vector<float>& points);

// R * n for every vector.
std::vector<float> RotateVectors(const float pose[12], const std::vector<float>& vectors);

// Two key-point sets related by a rigid motion: the second set random, the first set the second
// moved by `truth` (normals rotated, descriptors equal) and stored in shuffled order, so that
// second-set key point j is first-set key point firstIndexOf[j].
struct RigidKeyPoints {
  float truth[12];
  std::vector<float> points1, normals1, descriptors1;
  std::vector<float> points2, normals2, descriptors2;
  std::vector<int32_t> firstIndexOf;

  RigidKeyPoints(int32_t count, uint32_t seed);
  int32_t count() const { return static_cast<int32_t>(points2.size() / 3); }
};

}  // namespace qorv::test
