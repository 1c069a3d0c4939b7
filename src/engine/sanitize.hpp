// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include "engine/cloud.hpp"
#include "engine/engine.hpp"

namespace qorv::engine {

// The finite points of a caller's cloud, without normals: the engine estimates its own at the
// scales it works at, which a sensor's per-point normals do not describe. An organized cloud is a
// sensor frame: its viewpoint is the origin unless the caller gives one.
Cloud Sanitize(const CloudView& view);

}  // namespace qorv::engine
