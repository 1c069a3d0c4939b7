// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "engine/engine.hpp"
#include "multiway/pose_graph.hpp"

namespace qorv::multiway {

struct EdgeReport {
  Edge edge;
  bool loop = false;        // tried because the solved poses put the two scans over each other
  bool registered = false;  // the engine's verdict (edges given by the caller count as registered)
  bool given = false;       // the caller's edge
  double fitness = 0.0;
  int32_t consistentPairs = 0;
  double residual = -1.0;  // normalised residual under the settled poses; -1 when not in the graph
};

// Where each scan ended: placed (a path of kept, trusted edges joins it to the reference) or not,
// and the connected group of kept edges it belongs to (the reference's group is 0).
struct ScanReport {
  bool placed = false;
  int32_t group = 0;
};

struct Progress {
  int32_t pairsDone = 0;
  int32_t pairsPlanned = 0;
  int32_t edgesKept = 0;      // registered pairs so far
  int32_t scansPrepared = 0;  // scans whose samples and features all their pairs share
};

struct MultiwayOptions {
  bool loops = true;          // after the first solution, try the pairs the solved poses overlay
  int32_t reference = 0;      // the scan whose frame the poses are in
  int32_t allPairsUpTo = 32;  // collections up to this size try every pair
  int32_t neighbours = 6;     // larger ones start from this many candidates a scan
  std::function<void(const Progress&)> progress;  // called on the calling thread
};

// Aligns scans into the frame of the reference scan, whatever their order.
//
// Candidate pairs come from the scans themselves: every pair for small collections; for larger
// ones, each scan's nearest neighbours by a cheap description of its shape (a histogram of the
// distances of its points to their centre, over its radius), widened until the trusted edges
// connect the collection or no candidate is left. Pairs run in parallel (each one serial, so the
// bits do not depend on the thread count). A pair the verdict trusts is an edge whose sigmas come
// from its measures; a robust pose graph settles the poses from a spanning tree of the strongest
// edges, rejects the edges it disagrees with, and is solved again without them. With loops, pairs
// not yet tried that the solved poses put over each other are tried from that guess. A scan is
// placed only when a path of kept edges joins it to the reference; the others keep the identity
// and `placed = false`. Edges the caller gives join as they are. Returns 0 or an engine error code
// with a message.
int32_t AlignScans(const std::vector<engine::CloudView>& scans,
                   const engine::Options& options,
                   const MultiwayOptions& multiway,
                   const std::vector<Edge>& extra,
                   std::vector<Pose>& poses,
                   std::vector<ScanReport>& reports,
                   std::vector<EdgeReport>& edges,
                   std::string& error);

}  // namespace qorv::multiway
