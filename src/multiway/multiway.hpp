// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engine/engine.hpp"
#include "multiway/pose_graph.hpp"

namespace qorv::multiway {

struct EdgeReport {
  Edge edge;
  bool loop = false;        // not between neighbouring scans
  bool registered = false;  // the engine's verdict (edges given by the caller count as registered)
  double fitness = 0.0;
  int32_t consistentPairs = 0;
};

// Aligns scans into the frame of scan 0: the engine registers each scan onto the one before it
// (odometry), then, with loops, every pair whose spheres overlap by half under the chained poses
// (its guess from the chain); each registered pair is an edge whose sigmas come from its verdict
// (inlier RMSE over the root of the fitness for the shift, that over the scan's radius for the
// rotation). Edges the caller gives are added as they are. A robust pose graph then settles the
// poses and marks the edges it disagrees with. Returns 0 or an engine error code with a message.
int32_t AlignScans(const std::vector<engine::CloudView>& scans,
                   const engine::Options& options,
                   bool loops,
                   const std::vector<Edge>& extra,
                   std::vector<Pose>& poses,
                   std::vector<EdgeReport>& edges,
                   std::string& error);

}  // namespace qorv::multiway
