// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

// Side-by-side timing of Qorv against PCL and Open3D. Each library is one `Side`: it converts the
// harness's plain float arrays into its own types outside the timed region, then runs one
// operation per call and reports the wall time of that operation alone. The driver (peers_main.cpp)
// repeats the calls, takes the median and prints the table.

#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <omp.h>

namespace qorv::peers {

// A point cloud as packed float triples.
struct Cloud {
  std::string name;
  std::vector<float> xyz;
  int64_t size() const { return static_cast<int64_t>(xyz.size() / 3); }
};

enum class Op {
  kKdBuild,         // build a 3-D KD-tree over the cloud
  kKnn,             // k nearest for every point of the cloud
  kRadius,          // radius search for every point of the cloud
  kNormals,         // normals from a radius neighbourhood (tree build included)
  kVoxel,           // voxel down-sampling
  kSor,             // statistical outlier removal
  kKeypoints,       // eigenvalue-ratio (ISS-type) key points
  kDescriptors,     // 33-bin histogram descriptors
  kDetectDescribe,  // key points and their descriptors
  kReadFile,        // read an x y z text file
};

// Every length below is fixed once from the cloud's mean nearest-neighbour spacing s.
struct Params {
  int threads = 1;
  double spacing = 0.0;       // s
  int k = 10;                 // k-nearest
  float searchRadius = 0.0f;  // radius search and normals: 3 s
  float voxelSize = 0.0f;     // 2 s
  int sorK = 50;
  float sorStd = 3.4f;
  float salientRadius = 0.0f;  // key points: 6 s
  float nonMaxRadius = 0.0f;   // 4 s
  float gamma21 = 0.975f;
  float gamma32 = 0.975f;
  int minNeighbors = 9;        // ours is fixed at 9 (the point itself included)
  float featureRadius = 0.0f;  // descriptors: 5 s
  std::string filePath;        // for kReadFile
};

// What one timed call gives back.
struct Outcome {
  enum Status { kOk, kMissing, kNotApplicable, kFailed } status = kOk;
  double seconds = NAN;
  int64_t count = -1;  // output size (kept points, key points, ...) as a sanity figure
  std::string note;
};

// One registration attempt: [R | t] row after row, carrying the second cloud onto the first.
struct RegOutcome {
  Outcome::Status status = Outcome::kOk;
  double seconds = NAN;
  std::array<double, 12> transform{};
  std::string note;
};

struct RegParams {
  int threads = 1;
  double resolution = 0.0;  // r: the length every step scales with
};

class Side {
 public:
  virtual ~Side() = default;
  virtual std::string name() const = 0;
  // Makes the cloud current; conversion and untimed preparation (normals for descriptors) happen
  // here or lazily in the first run, never inside a timed region.
  virtual void setCloud(const Cloud& cloud, const Params& params) = 0;
  virtual Outcome run(Op op, const Params& params) = 0;
  // Names of the registration methods the side offers (the first is its main one).
  virtual std::vector<std::string> registrationMethods() const { return {"RANSAC"}; }
  // first: the fixed cloud; second: the moving one; method indexes registrationMethods().
  virtual RegOutcome registerPair(const Cloud& first,
                                  const Cloud& second,
                                  const RegParams& params,
                                  int method) = 0;
};

std::unique_ptr<Side> MakeOursSide(const std::string& libraryPath);
std::unique_ptr<Side> MakePclSide();
std::unique_ptr<Side> MakeOpen3dSide();

// Wall-clock stopwatch.
class Stopwatch {
 public:
  Stopwatch() : start_(std::chrono::steady_clock::now()) {}
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_;
};

// Runs fn(i, thread) for every point on `threads` OpenMP threads in equal contiguous chunks: the
// same loop for every library's per-point queries.
template <typename Fn>
void ForEachPoint(int64_t count, int threads, Fn&& fn) {
#pragma omp parallel num_threads(threads)
  {
    const int thread = omp_get_thread_num();
#pragma omp for schedule(static)
    for (int64_t i = 0; i < count; ++i) fn(i, thread);
  }
}

inline Outcome Timed(double seconds, int64_t count, const std::string& note = {});

// Times one query per point on `threads` threads. Each thread gets its own copy of `scratch`
// (result buffers), made before the clock starts; query(i, scratch) returns what it found.
template <typename Scratch, typename Query>
Outcome TimePerPoint(int64_t count, int threads, const Scratch& scratch, Query&& query) {
  std::vector<Scratch> own(static_cast<size_t>(threads), scratch);
  std::vector<int64_t> found(static_cast<size_t>(threads), 0);
  Stopwatch watch;
  ForEachPoint(count, threads, [&](int64_t i, int w) {
    found[static_cast<size_t>(w)] += static_cast<int64_t>(query(i, own[static_cast<size_t>(w)]));
  });
  const double t = watch.seconds();
  int64_t total = 0;
  for (int64_t f : found) total += f;
  return Timed(t, total);
}

inline Outcome NotApplicable(const std::string& note) {
  Outcome o;
  o.status = Outcome::kNotApplicable;
  o.note = note;
  return o;
}

inline Outcome Timed(double seconds, int64_t count, const std::string& note) {
  Outcome o;
  o.seconds = seconds;
  o.count = count;
  o.note = note;
  return o;
}

}  // namespace qorv::peers
