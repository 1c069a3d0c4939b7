// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cmath>
#include <cstring>
#include <vector>

#include "geometry/vec3.hpp"
#include "runtime/parallel_for.hpp"
#include "support/floats.hpp"

namespace qorv::test {

inline const Execution kSerial{false};
inline const Execution kParallel{true};

// Gives ParallelFor exactly n threads until the end of the scope.
using ScopedThreads = qorv::ThreadScope;

}  // namespace qorv::test
