// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <Eigen/Core>

#include "engine/cloud.hpp"
#include "search/kd_tree.hpp"

namespace qorv::engine {

// Unit normals by principal components: the eigenvector of the smallest eigenvalue of the
// covariance of the at most maxNeighbours nearest neighbours within radius, centred on their
// mean. Oriented toward the viewpoint when the cloud has one, else away from the cloud's centroid.
// Points with fewer than 3 neighbours get a zero normal. tree indexes cloud.points. The neighbours
// found are kept in cloud.neighbours (maxNeighbours - 1 slots a point), for the refiners.
// The scatter of the neighbours found[0 .. count) of a point about their mean, in double (one
// neighbourhood's covariance up to 1 / count), as normals and generalized ICP's covariances use it.
Eigen::Matrix3d NeighbourScatter(const Cloud& cloud, const int32_t* found, size_t count);

void EstimateNormals(const PointKdTree& tree, float radius, int32_t maxNeighbours, Cloud& cloud);

// Turns every normal toward the viewpoint, or away from the centroid when there is none.
void OrientNormals(Cloud& cloud);

}  // namespace qorv::engine
