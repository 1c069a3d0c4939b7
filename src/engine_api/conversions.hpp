// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>

#include <qorv/engine.h>

#include "engine/engine.hpp"

namespace qorv::engine {

// The C interface's 4 x 4 transforms are 16 doubles, row after row: the one conversion each way.
Eigen::Matrix4d FromRowMajor(const double* m);
void ToRowMajor(const Eigen::Matrix4d& transform, double* m);

// The C options as engine options; returns a message naming the first bad field, or "".
std::string FromC(const QorvEngineOptions& in, Options& out);

// The caller's options as far as its struct_size reaches, the fields past it at their defaults:
// but a caller built before the refinement could be chosen keeps the point-to-plane refinement it
// was built with, not today's default.
QorvEngineOptions OptionsWithin(const QorvEngineOptions& caller);

// The size of the clouds the caller passes with these options (NULL: this header's): callers built
// before the clouds grew pass smaller ones. 0 when the options name an impossible size.
size_t CloudSize(const QorvEngineOptions* options);

// Cloud i of the caller's array of clouds of cloudSize bytes each, the fields it lacks zero.
QorvEngineCloud CloudAt(const QorvEngineCloud* clouds, size_t i, size_t cloudSize);

// Checks one of the caller's clouds ("target", "source", "scan 3"); "" when it is usable.
std::string CheckCloud(const QorvEngineCloud* cloud, const char* what);

// The caller's cloud as a view (no copy).
CloudView ViewOf(const QorvEngineCloud& cloud);

// The outcome into the C result (names cut to fit, stages past the array's size left out).
void ToC(const Outcome& in, QorvEngineResult& out);

}  // namespace qorv::engine
