// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qorv::test {

// count points uniform in [0, extent)^3 from a fixed seed.
std::vector<float> RandomCloud(int32_t count, uint32_t seed, float extent = 1.0f);

// A regular grid of nx x ny points of spacing h in the plane z = 0.
std::vector<float> GridCloud(int32_t nx, int32_t ny, float h);

// Points of an ASC file from the repository's data folder (x y z lines), or empty if unreadable.
std::vector<float> LoadSample(const std::string& name);

// Squared distance between two triples.
float DistSq(const float* a, const float* b);

}  // namespace qorv::test
