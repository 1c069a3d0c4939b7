// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Runs every export that takes a point cloud on one cloud and keeps all it returns, so that tests
// can compare two runs bit for bit (serial against parallel, one thread against many).
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <qorv/qorv.h>

#include "support/floats.hpp"

namespace qorv::test {

// An instance that is destroyed with the object.
class ScopedInstance {
 public:
  explicit ScopedInstance(bool multiThread = false, bool crossCheck = true) {
    QorvCreateInstance(&inst_);
    if (inst_ != nullptr && multiThread) QorvEnableMultiThread(inst_);
    if (inst_ != nullptr && !crossCheck) QorvDisableCrossCheck(inst_);
  }
  ~ScopedInstance() { QorvDestroyInstance(inst_); }
  ScopedInstance(const ScopedInstance&) = delete;
  ScopedInstance& operator=(const ScopedInstance&) = delete;
  QorvInstance* get() const { return inst_; }

 private:
  QorvInstance* inst_ = nullptr;
};

// What an index callback received; calls counts the invocations.
struct IndexList {
  int calls = 0;
  std::vector<int32_t> indices;
};

inline void CollectIndices(const int32_t* indices, int32_t count, void* user) {
  auto* list = static_cast<IndexList*>(user);
  ++list->calls;
  list->indices.assign(indices, indices + (count > 0 ? count : 0));
}

struct KeyPoints {
  int calls = 0;
  int32_t count = -1;
  int32_t reserved = -1;
  std::vector<float> positions, normals, descriptors;
};

inline void CollectKeyPoints(const QorvKeyPointResult* result, void* user) {
  auto* k = static_cast<KeyPoints*>(user);
  ++k->calls;
  k->count = result->count;
  k->reserved = result->reserved;
  const size_t n = result->count > 0 ? static_cast<size_t>(result->count) : 0;
  if (n == 0) return;
  k->positions.assign(result->positions, result->positions + 3 * n);
  k->normals.assign(result->normals, result->normals + 3 * n);
  k->descriptors.assign(result->descriptors, result->descriptors + 33 * n);
}

struct Matches {
  int calls = 0;
  bool nullWhenEmpty = true;
  std::vector<QorvMatchPair> pairs;
};

inline void CollectMatches(const QorvMatchPair* pairs, uint32_t count, void* user) {
  auto* m = static_cast<Matches*>(user);
  ++m->calls;
  if (count == 0) {
    m->nullWhenEmpty = m->nullWhenEmpty && pairs == nullptr;
    m->pairs.clear();
    return;
  }
  m->pairs.assign(pairs, pairs + count);
}

// Lengths given to the cloud exports, in units of the cloud's spacing.
struct CloudLengths {
  float normalRadius = 0.1f;
  float leafSize = 0.1f;
  int32_t meanK = 8;
  float stdMul = 1.0f;
  float edgeRadius = 0.15f;
  float gaussianRadius = 0.1f;
  float keyPointRadius = 0.12f;
  float nonMaxRadius = 0.05f;
  float featureRadius = 0.12f;
  float histogramRadius = 0.2f;
  float ratio = 0.9f;
  int32_t distanceK = 2;
};

// Everything the cloud exports hand back for one cloud, and their result codes in call order.
struct CloudResults {
  std::vector<QorvResult> codes;
  std::vector<float> normals, renormals, smoothed, rotated, transformed;
  IndexList voxel, outliers, edges;
  KeyPoints keyPoints;
  std::vector<float> meanDistance = std::vector<float>(1);
  std::vector<double> orientation = std::vector<double>(12);

  // Names of the results that differ from other's, empty when all agree bit for bit.
  std::string differences(const CloudResults& other) const {
    std::string out;
    const auto note = [&out](bool same, const char* name) {
      if (!same) out += std::string(out.empty() ? "" : ", ") + name;
    };
    note(codes == other.codes, "codes");
    note(SameBits(normals, other.normals), "normals");
    note(SameBits(renormals, other.renormals), "re-computed normals");
    note(SameBits(smoothed, other.smoothed), "gaussian");
    note(SameBits(rotated, other.rotated), "rotate");
    note(SameBits(transformed, other.transformed), "transform");
    note(voxel.indices == other.voxel.indices, "voxel");
    note(outliers.indices == other.outliers.indices, "outliers");
    note(edges.indices == other.edges.indices, "edges");
    note(keyPoints.count == other.keyPoints.count &&
             SameBits(keyPoints.positions, other.keyPoints.positions) &&
             SameBits(keyPoints.normals, other.keyPoints.normals) &&
             SameBits(keyPoints.descriptors, other.keyPoints.descriptors),
         "key points");
    note(SameBits(meanDistance, other.meanDistance), "distance check");
    note(SameBits(orientation, other.orientation), "absolute orientation");
    return out;
  }
};

// Calls every cloud export once on points (count = points.size() / 3).
inline CloudResults RunCloudExports(QorvInstance* inst,
                                    const std::vector<float>& points,
                                    const CloudLengths& len = {}) {
  CloudResults r;
  const auto count = static_cast<int32_t>(points.size() / 3);
  const float* p = points.data();
  r.normals.assign(points.size(), -1.0f);
  r.codes.push_back(QorvComputeNormals(inst, p, r.normals.data(), count, 10, len.normalRadius));
  r.renormals.assign(points.size(), 0.0f);
  for (size_t i = 2; i < r.renormals.size(); i += 3) r.renormals[i] = 1.0f;
  r.codes.push_back(QorvReComputeNormals(inst, p, r.renormals.data(), count, len.normalRadius));
  r.codes.push_back(QorvVoxelFilter(inst, p, count, len.leafSize, CollectIndices, &r.voxel));
  r.codes.push_back(
      QorvSORFilter(inst, p, count, len.meanK, len.stdMul, CollectIndices, &r.outliers));
  r.codes.push_back(QorvEdgeFilter(inst, p, count, len.edgeRadius, CollectIndices, &r.edges));
  r.smoothed.assign(points.size(), -1.0f);
  r.codes.push_back(QorvGaussianFilter(inst, p, r.smoothed.data(), count, len.gaussianRadius));
  // Normals for the descriptors: the estimated ones, with zeros where none could be found.
  r.codes.push_back(QorvDetectAndCompute(inst,
                                         p,
                                         r.normals.data(),
                                         count,
                                         len.keyPointRadius,
                                         len.nonMaxRadius,
                                         len.featureRadius,
                                         len.histogramRadius,
                                         len.ratio,
                                         len.ratio,
                                         0,
                                         CollectKeyPoints,
                                         &r.keyPoints));
  r.codes.push_back(QorvCheckDistance(inst, p, count, len.distanceK, r.meanDistance.data()));
  const double rotation[9] = {0.36, 0.48, -0.8, -0.8, 0.6, 0.0, 0.48, 0.64, 0.6};
  const double motion[12] = {0.36, 0.48, -0.8, -0.8, 0.6, 0.0, 0.48, 0.64, 0.6, 0.5, -1.0, 2.0};
  r.rotated.assign(points.size(), 0.0f);
  r.codes.push_back(QorvRotatePoints(inst, rotation, p, r.rotated.data(), count));
  r.transformed.assign(points.size(), 0.0f);
  r.codes.push_back(QorvTransformPoints(inst, motion, p, r.transformed.data(), count));
  r.codes.push_back(
      QorvAbsoluteOrientation(inst, r.transformed.data(), p, count, r.orientation.data()));
  return r;
}

}  // namespace qorv::test
