// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>

namespace qorv {

// pointsOut = R * pointsIn for `count` packed triples. rotation: 9 doubles, row after row,
// converted to float; all arithmetic is in float, each coordinate summed left to right without
// fused multiply-add, so every pass gives the same bits. pointsOut may be pointsIn (other overlaps
// are not supported). A matrix whose floats equal the identity, applied in place, touches nothing.
void RotatePoints(const double* rotation, const float* pointsIn, float* pointsOut, int64_t count);

// pointsOut = R * pointsIn + t; transform: 9 rotation values row after row, then tx, ty, tz.
void TransformPoints(const double* transform,
                     const float* pointsIn,
                     float* pointsOut,
                     int64_t count);

}  // namespace qorv
