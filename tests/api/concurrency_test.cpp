// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Exports called at the same time from several host threads, each on its own instance
// (tree-building exports included, with the thread setting on and off), must give the bits they
// give when called one after another; and a multi-threaded call that gets fewer OpenMP threads than
// it asked for must still process every point.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/qorv.h>

#include "support/clouds.hpp"
#include "support/depth_scenes.hpp"
#include "support/features_shapes.hpp"
#include "support/registration_data.hpp"
#include "support/robust_calls.hpp"

#include <dlfcn.h>
#include <unistd.h>

namespace {

using qorv::test::KeyPoints;
using qorv::test::Matches;
using qorv::test::SameBits;
using qorv::test::ScopedInstance;

// One host thread's work: a cloud for the cloud exports, key points for the matchers, a depth
// image.
struct Workload {
  std::vector<float> cloud;
  qorv::test::RigidKeyPoints keys;
  qorv::test::OrientedCloud box;
  std::vector<float> depth;
  qorv::test::DepthCamera cam;
  std::string ascPath;

  explicit Workload(uint32_t seed) : keys(60, seed) {
    cloud = qorv::test::RandomCloud(250, seed, 1.0f);
    box = qorv::test::BoxSurface(7 + static_cast<int>(seed % 3));
    cam.width = 40;
    cam.height = 30;
    cam.fx = cam.fy = 40.0;
    cam.cx = 19.5;
    cam.cy = 14.5;
    qorv::test::BoxScene scene;
    scene.yaw = 0.3 + 0.1 * seed;
    scene.wallDepth = 5.0;
    depth = scene.render(cam);
    ascPath =
        "/tmp/qorv_concurrency_" + std::to_string(getpid()) + "_" + std::to_string(seed) + ".asc";
  }
  ~Workload() { std::remove(ascPath.c_str()); }
};

// Everything the deterministic exports return for one workload.
struct Outcome {
  qorv::test::CloudResults cloud;
  std::vector<int32_t> matchIndices;
  std::vector<float> matchDistances;
  std::vector<double> iterative, pipeline;
  Matches iterativePairs;
  std::vector<float> vertices, normals;
  std::vector<unsigned char> mask;
  KeyPoints organized;
  std::vector<float> readBack;
  std::vector<QorvResult> codes;

  std::string differences(const Outcome& o) const {
    std::string out = cloud.differences(o.cloud);
    const auto note = [&out](bool same, const char* name) {
      if (!same) out += std::string(out.empty() ? "" : ", ") + name;
    };
    note(codes == o.codes, "codes");
    note(matchIndices == o.matchIndices && SameBits(matchDistances, o.matchDistances), "match");
    note(SameBits(iterative, o.iterative), "iterative transform");
    note(iterativePairs.pairs.size() == o.iterativePairs.pairs.size() &&
             std::equal(iterativePairs.pairs.begin(),
                        iterativePairs.pairs.end(),
                        o.iterativePairs.pairs.begin(),
                        [](const QorvMatchPair& a, const QorvMatchPair& b) {
                          return a.indexInSecond == b.indexInSecond &&
                                 a.indexInFirst == b.indexInFirst;
                        }),
         "iterative pairs");
    note(SameBits(pipeline, o.pipeline), "pipeline transform");
    note(SameBits(vertices, o.vertices) && SameBits(normals, o.normals) && mask == o.mask,
         "depth maps");
    note(organized.count == o.organized.count &&
             SameBits(organized.positions, o.organized.positions) &&
             SameBits(organized.descriptors, o.organized.descriptors),
         "organized key points");
    note(SameBits(readBack, o.readBack), "ASC round trip");
    return out;
  }
};

int32_t ReadInto(
    const float* points, const float*, const unsigned char*, int64_t count, void* user) {
  static_cast<std::vector<float>*>(user)->assign(points, points + 3 * count);
  return 0;
}

Outcome RunWorkload(QorvInstance* inst, const Workload& w) {
  Outcome o;
  o.cloud = qorv::test::RunCloudExports(inst, w.cloud);

  const qorv::test::RigidKeyPoints& k = w.keys;
  const int32_t n = k.count();
  o.matchIndices.assign(static_cast<size_t>(n) * 3, -2);
  o.matchDistances.assign(o.matchIndices.size(), -2.0f);
  for (const int32_t neighbours : {3, 1}) {
    o.codes.push_back(QorvMatchDescriptor(inst,
                                          k.descriptors1.data(),
                                          n,
                                          k.descriptors2.data(),
                                          o.matchIndices.data(),
                                          o.matchDistances.data(),
                                          neighbours,
                                          n));
  }
  o.iterative = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  o.codes.push_back(QorvIterativeMatchKeyPoints(inst,
                                                k.points1.data(),
                                                k.descriptors1.data(),
                                                n,
                                                k.points2.data(),
                                                k.descriptors2.data(),
                                                n,
                                                o.iterative.data(),
                                                40,
                                                4.0f,
                                                0.01f,
                                                qorv::test::CollectMatches,
                                                &o.iterativePairs));
  // RANSAC is seeded from the clock: it only has to run and report pairs in range.
  std::vector<double> ransac(12);
  Matches ransacPairs;
  o.codes.push_back(QorvRansacMatchKeyPoints(inst,
                                             k.points1.data(),
                                             k.normals1.data(),
                                             k.descriptors1.data(),
                                             n,
                                             k.points2.data(),
                                             k.normals2.data(),
                                             k.descriptors2.data(),
                                             n,
                                             ransac.data(),
                                             100,
                                             0.9f,
                                             0.05f,
                                             qorv::test::CollectMatches,
                                             &ransacPairs));
  for (const QorvMatchPair& p : ransacPairs.pairs) {
    if (p.indexInSecond == UINT32_MAX && p.indexInFirst == UINT32_MAX) continue;
    EXPECT_LT(p.indexInSecond, static_cast<uint32_t>(n));
    EXPECT_LT(p.indexInFirst, static_cast<uint32_t>(n));
  }

  const float offset[3] = {0.05f, -0.02f, 0.03f};
  const qorv::test::OrientedCloud moved = qorv::test::RigidlyMoved(w.box, 0.1f, offset);
  o.pipeline = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
  o.codes.push_back(QorvMatchPairPointCloud(inst,
                                            w.box.points.data(),
                                            nullptr,
                                            w.box.count(),
                                            moved.points.data(),
                                            nullptr,
                                            moved.count(),
                                            o.pipeline.data(),
                                            0.5f,
                                            0.1f,
                                            20,
                                            nullptr,
                                            nullptr));

  const std::array<double, 9> camera = w.cam.matrix();
  const size_t pixels = w.depth.size();
  o.vertices.assign(pixels * 3, 0.0f);
  o.normals.assign(pixels * 3, 0.0f);
  o.mask.assign(pixels, 7);
  o.codes.push_back(QorvDepthToVmapNmap(inst,
                                        camera.data(),
                                        w.depth.data(),
                                        o.vertices.data(),
                                        o.normals.data(),
                                        o.mask.data(),
                                        w.cam.width,
                                        w.cam.height));
  o.codes.push_back(QorvDetectAndComputeVmapNmap(inst,
                                                 o.vertices.data(),
                                                 o.normals.data(),
                                                 nullptr,
                                                 w.cam.width,
                                                 w.cam.height,
                                                 5,
                                                 7,
                                                 3,
                                                 5,
                                                 0.975f,
                                                 0.975f,
                                                 0,
                                                 qorv::test::CollectKeyPoints,
                                                 &o.organized));

  o.codes.push_back(QorvWritePointsToASC(inst,
                                         w.ascPath.c_str(),
                                         w.cloud.data(),
                                         nullptr,
                                         nullptr,
                                         static_cast<int32_t>(w.cloud.size() / 3)));
  o.codes.push_back(QorvReadPointsFromASC(inst, w.ascPath.c_str(), ReadInto, &o.readBack));
  return o;
}

TEST(ConcurrencyTest, HostThreadsOnDistinctInstancesGiveTheSequentialBits) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 2;
  std::vector<std::unique_ptr<Workload>> work;
  for (int t = 0; t < kThreads; ++t) work.push_back(std::make_unique<Workload>(100 + t));

  // One after another first: thread t runs with the thread setting on when t is odd.
  std::vector<Outcome> expected;
  for (int t = 0; t < kThreads; ++t) {
    const ScopedInstance inst(t % 2 == 1, t != 2);
    expected.push_back(RunWorkload(inst.get(), *work[t]));
    ASSERT_EQ(expected.back().codes,
              std::vector<QorvResult>(expected.back().codes.size(), QORV_OK));
    ASSERT_GT(expected.back().organized.count, 0) << t;
  }
  // The single- and multi-threaded variants agree as well.
  {
    const ScopedInstance inst(true);
    EXPECT_EQ(RunWorkload(inst.get(), *work[0]).differences(expected[0]), "");
  }

  std::vector<std::string> failures(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const ScopedInstance inst(t % 2 == 1, t != 2);
      for (int round = 0; round < kRounds; ++round) {
        const std::string diff = RunWorkload(inst.get(), *work[t]).differences(expected[t]);
        if (!diff.empty() && failures[t].empty()) {
          failures[t] = "round " + std::to_string(round) + ": " + diff;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], "") << "host thread " << t;
}

// Several host threads reading one cloud at the same time, each writing its own outputs.
TEST(ConcurrencyTest, HostThreadsShareReadOnlyInputs) {
  const std::vector<float> cloud = qorv::test::LoadSample("bunny.asc");
  ASSERT_FALSE(cloud.empty());
  const auto n = static_cast<int32_t>(cloud.size() / 3);
  std::vector<float> expected(cloud.size());
  {
    const ScopedInstance inst(true);
    ASSERT_EQ(QorvGaussianFilter(inst.get(), cloud.data(), expected.data(), n, 0.005f), QORV_OK);
  }
  std::vector<std::vector<float>> results(3, std::vector<float>(cloud.size()));
  std::vector<std::thread> threads;
  for (size_t t = 0; t < results.size(); ++t) {
    threads.emplace_back([&, t] {
      const ScopedInstance inst(t != 0);
      QorvGaussianFilter(inst.get(), cloud.data(), results[t].data(), n, 0.005f);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::vector<float>& result : results) EXPECT_TRUE(SameBits(result, expected));
}

// The OpenMP runtime of the library, reached without linking it into the test.
template <typename Fn>
Fn OpenMP(const char* name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, name));
}

// A host that limits OpenMP (nesting, thread limits, dynamic teams) may give a multi-threaded call
// a smaller team than omp_get_max_threads() announces; every point must be processed all the same.
TEST(ConcurrencyTest, SmallerOpenMPTeamsStillProcessEveryPoint) {
  const auto setLevels = OpenMP<void (*)(int)>("omp_set_max_active_levels");
  const auto getLevels = OpenMP<int (*)()>("omp_get_max_active_levels");
  const auto setThreads = OpenMP<void (*)(int)>("omp_set_num_threads");
  const auto maxThreads = OpenMP<int (*)()>("omp_get_max_threads");
  if (!setLevels || !getLevels || !setThreads || !maxThreads) GTEST_SKIP() << "no OpenMP runtime";

  const std::vector<float> cloud = qorv::test::RandomCloud(400, 7);
  const ScopedInstance serial(false), parallel(true);
  const qorv::test::CloudResults expected = qorv::test::RunCloudExports(serial.get(), cloud);

  const int savedLevels = getLevels(), savedThreads = maxThreads();
  setThreads(4);
  setLevels(0);  // every parallel region runs with a team of one
  const qorv::test::CloudResults reduced = qorv::test::RunCloudExports(parallel.get(), cloud);
  setLevels(savedLevels);
  setThreads(savedThreads);
  EXPECT_EQ(reduced.differences(expected), "");
}

}  // namespace
