// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Qorv's side of the comparison: the shared library is opened with dlopen and every export is
// looked up on its own, so an export that is not there yet only blanks its own rows. The KD-tree
// rows use the internal tree directly (the C interface has no tree of its own).

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <qorv/qorv.h>

#include "peers.hpp"
#include "search/kd_tree.hpp"

#include <dlfcn.h>

namespace qorv::peers {
namespace {

#define QORV_PEERS_EXPORTS(X) \
  X(QorvCreateInstance)       \
  X(QorvDestroyInstance)      \
  X(QorvEnableMultiThread)    \
  X(QorvDisableMultiThread)   \
  X(QorvReadPointsFromASC)    \
  X(QorvComputeNormals)       \
  X(QorvVoxelFilter)          \
  X(QorvSORFilter)            \
  X(QorvDetectAndCompute)     \
  X(QorvRansacMatchKeyPoints) \
  X(QorvMatchPairPointCloud)

struct Api {
#define QORV_PEERS_FIELD(name) decltype(&::name) name = nullptr;
  QORV_PEERS_EXPORTS(QORV_PEERS_FIELD)
#undef QORV_PEERS_FIELD
};

void CountIndices(const int32_t*, int32_t count, void* user) {
  *static_cast<int64_t*>(user) = count;
}

void CountKeyPoints(const QorvKeyPointResult* result, void* user) {
  *static_cast<int64_t*>(user) = result->count;
}

int32_t CountAsc(const float*, const float*, const unsigned char*, int64_t count, void* user) {
  *static_cast<int64_t*>(user) = count;
  return 0;
}

void CountMatches(const QorvMatchPair*, uint32_t count, void* user) {
  *static_cast<int64_t*>(user) = count;
}

Outcome Missing(const char* name) {
  Outcome o;
  o.status = Outcome::kMissing;
  o.note = std::string(name) + " not exported yet";
  return o;
}

Outcome Failed(const char* name, QorvResult code) {
  Outcome o;
  o.status = Outcome::kFailed;
  o.note = std::string(name) + " returned " + std::to_string(code);
  return o;
}

class OursSide final : public Side {
 public:
  explicit OursSide(const std::string& libraryPath) {
    handle_ = dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
      std::fprintf(stderr, "qorv_peers: cannot open %s: %s\n", libraryPath.c_str(), dlerror());
      return;
    }
#define QORV_PEERS_LOOKUP(name) \
  api_.name = reinterpret_cast<decltype(&::name)>(dlsym(handle_, #name));
    QORV_PEERS_EXPORTS(QORV_PEERS_LOOKUP)
#undef QORV_PEERS_LOOKUP
    if (api_.QorvCreateInstance != nullptr) api_.QorvCreateInstance(&inst_);
  }

  ~OursSide() override {
    tree_.reset();
    if (inst_ != nullptr && api_.QorvDestroyInstance != nullptr) api_.QorvDestroyInstance(inst_);
    // The library stays loaded: OpenMP worker threads may still sit in its code at exit.
  }

  std::string name() const override { return "Qorv"; }

  void setCloud(const Cloud& cloud, const Params&) override {
    tree_.reset();
    points_ = cloud.xyz;
    normals_.clear();
  }

  Outcome run(Op op, const Params& p) override {
    const auto n = static_cast<int32_t>(points_.size() / 3);
    const float* pts = points_.data();
    if (inst_ == nullptr && op != Op::kKdBuild && op != Op::kKnn && op != Op::kRadius) {
      return Missing("QorvCreateInstance");
    }
    if (inst_ != nullptr) setThreads(p.threads);
    switch (op) {
      case Op::kKdBuild: {
        // The multi-thread variant at 2 threads, as the library's own searches build it.
        const Execution exec{p.threads > 1};
        Stopwatch watch;
        auto tree = std::make_unique<PointKdTree>(pts, n, 10, exec);
        const double t = watch.seconds();
        return Timed(t, static_cast<int64_t>(tree->size()));
      }
      case Op::kKnn: {
        ensureTree();
        const size_t k = static_cast<size_t>(p.k);
        using Buffers = std::pair<std::vector<int32_t>, std::vector<float>>;
        return TimePerPoint(n,
                            p.threads,
                            Buffers(std::vector<int32_t>(k), std::vector<float>(k)),
                            [&](int64_t i, Buffers& b) {
                              return tree_->knnSearch(
                                  pts + 3 * i, k, b.first.data(), b.second.data());
                            });
      }
      case Op::kRadius: {
        ensureTree();
        const float radiusSq = p.searchRadius * p.searchRadius;
        return TimePerPoint(n, p.threads, RadiusResult(), [&](int64_t i, RadiusResult& r) {
          r.clear();
          tree_->radiusSearch(pts + 3 * i, radiusSq, r, false);
          return r.size();
        });
      }
      case Op::kNormals: {
        if (api_.QorvComputeNormals == nullptr) return Missing("QorvComputeNormals");
        std::vector<float> normals(points_.size());
        Stopwatch watch;
        const QorvResult r =
            api_.QorvComputeNormals(inst_, pts, normals.data(), n, 0, p.searchRadius);
        const double t = watch.seconds();
        if (r != QORV_OK) return Failed("QorvComputeNormals", r);
        return Timed(t, n);
      }
      case Op::kVoxel: {
        if (api_.QorvVoxelFilter == nullptr) return Missing("QorvVoxelFilter");
        int64_t kept = 0;
        Stopwatch watch;
        const QorvResult r = api_.QorvVoxelFilter(inst_, pts, n, p.voxelSize, CountIndices, &kept);
        const double t = watch.seconds();
        if (r != QORV_OK) return Failed("QorvVoxelFilter", r);
        return Timed(t, kept);
      }
      case Op::kSor: {
        if (api_.QorvSORFilter == nullptr) return Missing("QorvSORFilter");
        int64_t kept = 0;
        Stopwatch watch;
        const QorvResult r =
            api_.QorvSORFilter(inst_, pts, n, p.sorK, p.sorStd, CountIndices, &kept);
        const double t = watch.seconds();
        if (r != QORV_OK) return Failed("QorvSORFilter", r);
        return Timed(t, kept);
      }
      case Op::kKeypoints:
      case Op::kDetectDescribe:
      case Op::kDescriptors: {
        if (api_.QorvDetectAndCompute == nullptr) return Missing("QorvDetectAndCompute");
        if (!ensureNormals(p)) return Missing("QorvComputeNormals (for the input normals)");
        // Zero descriptor radii leave only detection: the descriptor searches find nothing.
        double detectSeconds = 0.0;
        int64_t keyPoints = 0;
        if (op != Op::kDetectDescribe) {
          Stopwatch watch;
          const QorvResult r = detect(p, 0.0f, &keyPoints);
          detectSeconds = watch.seconds();
          if (r != QORV_OK) return Failed("QorvDetectAndCompute", r);
          if (op == Op::kKeypoints) return Timed(detectSeconds, keyPoints);
        }
        Stopwatch watch;
        const QorvResult r = detect(p, p.featureRadius, &keyPoints);
        const double t = watch.seconds();
        if (r != QORV_OK) return Failed("QorvDetectAndCompute", r);
        if (op == Op::kDetectDescribe) return Timed(t, keyPoints);
        return Timed(t - detectSeconds, keyPoints, "detection+descriptors minus detection alone");
      }
      case Op::kReadFile: {
        if (api_.QorvReadPointsFromASC == nullptr) return Missing("QorvReadPointsFromASC");
        int64_t count = 0;
        Stopwatch watch;
        const QorvResult r =
            api_.QorvReadPointsFromASC(inst_, p.filePath.c_str(), CountAsc, &count);
        const double t = watch.seconds();
        if (r != QORV_OK) return Failed("QorvReadPointsFromASC", r);
        return Timed(t, count);
      }
    }
    return NotApplicable("unknown operation");
  }

  std::vector<std::string> registrationMethods() const override { return {"one call"}; }

  RegOutcome registerPair(const Cloud& first,
                          const Cloud& second,
                          const RegParams& p,
                          int method) override {
    (void)method;
    RegOutcome out;
    if (inst_ == nullptr || api_.QorvMatchPairPointCloud == nullptr) {
      out.status = Outcome::kMissing;
      out.note = "QorvMatchPairPointCloud not exported yet";
      return out;
    }
    setThreads(p.threads);
    double transform[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    int64_t matches = 0;
    Stopwatch watch;
    const QorvResult r = api_.QorvMatchPairPointCloud(inst_,
                                                      first.xyz.data(),
                                                      nullptr,
                                                      static_cast<int32_t>(first.size()),
                                                      second.xyz.data(),
                                                      nullptr,
                                                      static_cast<int32_t>(second.size()),
                                                      transform,
                                                      -1.0f,
                                                      static_cast<float>(p.resolution),
                                                      kRansacIterations,
                                                      CountMatches,
                                                      &matches);
    out.seconds = watch.seconds();
    if (r != QORV_OK) {
      out.status = Outcome::kFailed;
      out.note = "QorvMatchPairPointCloud returned " + std::to_string(r);
      return out;
    }
    for (int i = 0; i < 12; ++i) out.transform[i] = transform[i];
    out.note = std::to_string(matches) + " inlier pairs";
    return out;
  }

  static constexpr int32_t kRansacIterations = 100000;

 private:
  void setThreads(int threads) {
    if (threads > 1) {
      api_.QorvEnableMultiThread(inst_);
    } else {
      api_.QorvDisableMultiThread(inst_);
    }
  }

  void ensureTree() {
    if (!tree_) tree_ = std::make_unique<PointKdTree>(points_.data(), points_.size() / 3);
  }

  bool ensureNormals(const Params& p) {
    if (!normals_.empty()) return true;
    if (api_.QorvComputeNormals == nullptr) return false;
    normals_.assign(points_.size(), 0.0f);
    return api_.QorvComputeNormals(inst_,
                                   points_.data(),
                                   normals_.data(),
                                   static_cast<int32_t>(points_.size() / 3),
                                   0,
                                   p.searchRadius) == QORV_OK;
  }

  QorvResult detect(const Params& p, float descriptorRadius, int64_t* keyPoints) {
    return api_.QorvDetectAndCompute(inst_,
                                     points_.data(),
                                     normals_.data(),
                                     static_cast<int32_t>(points_.size() / 3),
                                     p.salientRadius,
                                     p.nonMaxRadius,
                                     descriptorRadius,
                                     descriptorRadius,
                                     p.gamma21,
                                     p.gamma32,
                                     0,
                                     CountKeyPoints,
                                     keyPoints);
  }

  void* handle_ = nullptr;
  Api api_;
  QorvInstance* inst_ = nullptr;
  std::vector<float> points_;
  std::vector<float> normals_;
  std::unique_ptr<PointKdTree> tree_;
};

}  // namespace

std::unique_ptr<Side> MakeOursSide(const std::string& libraryPath) {
  return std::make_unique<OursSide>(libraryPath);
}

}  // namespace qorv::peers
