// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "multiway/multiway.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <Eigen/LU>

#include "engine/frame.hpp"

namespace qorv::multiway {
namespace {

constexpr int kShapeBins = 16;
constexpr int32_t kSolveRounds = 4;  // solve, drop what the graph rejects, solve again

// A scan's centre, RMS radius and the histogram of its points' distances to the centre over 2.5
// radii: a description that does not change with the scan's pose.
struct Shape {
  Eigen::Vector3d centre = Eigen::Vector3d::Zero();
  double radius = 0.0;
  std::array<double, kShapeBins> histogram{};
};

Shape ShapeOf(const engine::CloudView& scan) {
  Shape s;
  int64_t n = 0;
  auto point = [&](int64_t i) {
    const Eigen::Vector3f p = engine::PointInFrame(scan, i);
    return Eigen::Vector3d(
        static_cast<double>(p[0]), static_cast<double>(p[1]), static_cast<double>(p[2]));
  };
  for (int64_t i = 0; i < scan.count; ++i) {
    if (!point(i).allFinite()) continue;
    s.centre += point(i);
    ++n;
  }
  if (n == 0) return s;
  s.centre /= static_cast<double>(n);
  double sum = 0.0;
  for (int64_t i = 0; i < scan.count; ++i) {
    if (point(i).allFinite()) sum += (point(i) - s.centre).squaredNorm();
  }
  s.radius = std::sqrt(sum / static_cast<double>(n));
  if (!(s.radius > 0.0)) return s;
  for (int64_t i = 0; i < scan.count; ++i) {
    if (!point(i).allFinite()) continue;
    const double t = (point(i) - s.centre).norm() / (2.5 * s.radius);
    s.histogram[static_cast<size_t>(std::min(kShapeBins - 1, static_cast<int>(t * kShapeBins)))] +=
        1.0 / static_cast<double>(n);
  }
  return s;
}

double ShapeDistance(const Shape& a, const Shape& b) {
  double d = std::abs(std::log(std::max(a.radius, 1e-30) / std::max(b.radius, 1e-30)));
  for (int k = 0; k < kShapeBins; ++k)
    d += std::abs(a.histogram[static_cast<size_t>(k)] - b.histogram[static_cast<size_t>(k)]);
  return d;
}

struct Job {
  int32_t target = 0, source = 0;
  bool loop = false;
  bool hasGuess = false;
  Pose guess = Pose::Identity();  // carries source into target's frame
};

// Registers every job's pair, `workers` at a time, each pair on one thread (so its bits do not
// depend on how many run at once). A pair that cannot be registered at all is an unregistered
// edge. Progress is reported on the calling thread.
std::vector<EdgeReport> RunPairs(const std::vector<engine::CloudView>& scans,
                                 const std::vector<engine::PreparedScan>& prepared,
                                 const engine::Scales& scales,
                                 const engine::Options& options,
                                 const std::vector<Shape>& shapes,
                                 const std::vector<Job>& jobs,
                                 const MultiwayOptions& multiway,
                                 Progress& progress) {
  std::vector<EdgeReport> out(jobs.size());
  std::atomic<size_t> next{0};
  std::mutex mutex;
  std::condition_variable changed;
  size_t done = 0;
  int32_t kept = 0;
  auto work = [&]() {
    for (size_t k = next++; k < jobs.size(); k = next++) {
      const Job& job = jobs[k];
      engine::Options o = options;
      o.mode = engine::Mode::kGlobal;
      o.threads = 1;
      o.hasInitial = job.hasGuess;
      o.initial = job.guess;
      engine::Outcome outcome;
      std::string ignored;
      const engine::Prepared* target = prepared[static_cast<size_t>(job.target)].get();
      const engine::Prepared* source = prepared[static_cast<size_t>(job.source)].get();
      // Scans prepared at the collection's scales share their samples and features; a scan of
      // another scale is registered pair by pair at the pair's own.
      const bool ran = (target != nullptr && source != nullptr
                            ? engine::RegisterPrepared(*target, *source, scales, o, outcome)
                            : engine::Register(scans[static_cast<size_t>(job.target)],
                                               scans[static_cast<size_t>(job.source)],
                                               o,
                                               outcome,
                                               ignored)) == engine::kOk;
      EdgeReport& report = out[k];
      report.loop = job.loop;
      report.registered = ran && outcome.registered;
      report.fitness = outcome.evidence.overlap.fitness;
      report.consistentPairs = outcome.evidence.consistentPairs;
      report.edge.from = job.target;
      report.edge.to = job.source;
      report.edge.motion = outcome.transform;
      const double rmse = std::max(outcome.evidence.overlap.rmse, 1e-3 * outcome.voxel);
      report.edge.shiftSigma =
          std::max(rmse, 1e-12) / std::sqrt(std::max(outcome.evidence.overlap.fitness, 1e-3));
      report.edge.rotationSigma =
          report.edge.shiftSigma / std::max(shapes[static_cast<size_t>(job.source)].radius, 1e-9);
      {
        const std::lock_guard<std::mutex> lock(mutex);
        ++done;
        kept += report.registered ? 1 : 0;
      }
      changed.notify_one();
    }
  };
  int32_t workers = options.threads > 0 ? options.threads
                                        : static_cast<int32_t>(std::thread::hardware_concurrency());
  workers =
      std::clamp<int32_t>(workers, 1, std::max<int32_t>(1, static_cast<int32_t>(jobs.size())));
  std::vector<std::thread> pool;
  for (int32_t w = 0; w < workers; ++w) pool.emplace_back(work);
  const int32_t before = progress.pairsDone, keptBefore = progress.edgesKept;
  {
    std::unique_lock<std::mutex> lock(mutex);
    size_t reported = 0;
    while (reported < jobs.size()) {
      changed.wait(lock, [&] { return done > reported; });
      reported = done;
      progress.pairsDone = before + static_cast<int32_t>(done);
      progress.edgesKept = keptBefore + kept;
      if (multiway.progress) {
        lock.unlock();
        multiway.progress(progress);
        lock.lock();
      }
    }
  }
  for (std::thread& t : pool) t.join();
  return out;
}

// Connected groups of the scans over the edges (those not rejected); group 0 holds `reference`,
// the others are numbered by their smallest scan.
std::vector<int32_t> Groups(size_t n, const std::vector<Edge>& edges, int32_t reference) {
  std::vector<int32_t> parent(n);
  for (size_t i = 0; i < n; ++i) parent[i] = static_cast<int32_t>(i);
  auto find = [&](int32_t i) {
    while (parent[static_cast<size_t>(i)] != i) {
      parent[static_cast<size_t>(i)] = parent[static_cast<size_t>(parent[static_cast<size_t>(i)])];
      i = parent[static_cast<size_t>(i)];
    }
    return i;
  };
  for (const Edge& e : edges) {
    if (e.rejected) continue;
    const int32_t a = find(e.from), b = find(e.to);
    if (a != b) parent[static_cast<size_t>(std::max(a, b))] = std::min(a, b);
  }
  std::vector<int32_t> group(n, -1);
  const int32_t home = find(reference);
  int32_t next = 1;
  std::vector<int32_t> number(n, -1);
  for (size_t i = 0; i < n; ++i) {
    const int32_t root = find(static_cast<int32_t>(i));
    if (root == home) {
      group[i] = 0;
    } else {
      if (number[static_cast<size_t>(root)] < 0) number[static_cast<size_t>(root)] = next++;
      group[i] = number[static_cast<size_t>(root)];
    }
  }
  return group;
}

// Poses of the reference's group from a spanning tree of its strongest edges (most consistent
// matches first), grown from the reference; `known` keeps the poses of scans already solved.
void ChainPoses(const std::vector<Edge>& edges,
                const std::vector<double>& strength,
                int32_t reference,
                std::vector<Pose>& poses,
                std::vector<bool>& reached) {
  reached.assign(poses.size(), false);
  reached[static_cast<size_t>(reference)] = true;
  for (bool grew = true; grew;) {
    grew = false;
    int32_t best = -1;
    for (size_t k = 0; k < edges.size(); ++k) {
      const Edge& e = edges[k];
      if (e.rejected || reached[static_cast<size_t>(e.from)] == reached[static_cast<size_t>(e.to)])
        continue;
      if (best < 0 || strength[k] > strength[static_cast<size_t>(best)])
        best = static_cast<int32_t>(k);
    }
    if (best < 0) break;
    const Edge& e = edges[static_cast<size_t>(best)];
    if (reached[static_cast<size_t>(e.from)]) {
      poses[static_cast<size_t>(e.to)] = poses[static_cast<size_t>(e.from)] * e.motion;
      reached[static_cast<size_t>(e.to)] = true;
    } else {
      poses[static_cast<size_t>(e.from)] = poses[static_cast<size_t>(e.to)] * e.motion.inverse();
      reached[static_cast<size_t>(e.from)] = true;
    }
    grew = true;
  }
}

}  // namespace

namespace {

// AlignScans on scans already in a frame where float holds their coordinates.
int32_t AlignShared(const std::vector<engine::CloudView>& scans,
                    const engine::Options& options,
                    const MultiwayOptions& multiway,
                    const std::vector<Edge>& extra,
                    std::vector<Pose>& poses,
                    std::vector<ScanReport>& reports,
                    std::vector<EdgeReport>& edges,
                    std::string& error) {
  const size_t n = scans.size();
  const int32_t reference = multiway.reference;
  if (reference < 0 || static_cast<size_t>(reference) >= n) {
    error = "the reference scan " + std::to_string(reference) + " is not one of the " +
            std::to_string(n) + " scans";
    return engine::kTooFewPoints;
  }
  std::vector<Shape> shapes;
  for (const engine::CloudView& scan : scans) shapes.push_back(ShapeOf(scan));
  // Each scan made ready once, at the scales the collection shares; a scan whose own working
  // voxel is more than twice from the collection's median (a stranger of another size) is left
  // to its pairs.
  Progress progress;
  std::vector<engine::OwnScale> own(n);
  std::vector<bool> measured(n, false);
  std::vector<engine::OwnScale> all;
  for (size_t i = 0; i < n; ++i) {
    std::string ignored;
    measured[i] = engine::MeasureScale(scans[i], options, own[i], ignored) == engine::kOk;
    if (measured[i]) all.push_back(own[i]);
  }
  std::vector<engine::PreparedScan> prepared(n);
  engine::Scales scales;
  if (!all.empty()) {
    const engine::OwnScale typical = engine::TypicalScale(all);
    auto near = [](double value, double usual) {
      return value <= 2.0 * usual && value >= 0.5 * usual;
    };
    std::vector<engine::OwnScale> shared;
    std::vector<size_t> members;
    for (size_t i = 0; i < n; ++i) {
      if (measured[i] && near(own[i].voxel, typical.voxel) &&
          near(own[i].spacing, typical.spacing)) {
        shared.push_back(own[i]);
        members.push_back(i);
      }
    }
    scales = engine::CommonScales(shared, options);
    for (size_t i : members) {
      std::string ignored;
      if (engine::Prepare(scans[i], scales, options, prepared[i], ignored) != engine::kOk) {
        prepared[i].reset();
      } else {
        ++progress.scansPrepared;
      }
    }
  }
  std::vector<std::vector<bool>> tried(n, std::vector<bool>(n, false));
  std::vector<EdgeReport> found;
  auto run = [&](std::vector<Job> jobs) {
    for (const Job& j : jobs) {
      tried[static_cast<size_t>(j.target)][static_cast<size_t>(j.source)] = true;
      tried[static_cast<size_t>(j.source)][static_cast<size_t>(j.target)] = true;
    }
    progress.pairsPlanned += static_cast<int32_t>(jobs.size());
    if (multiway.progress) multiway.progress(progress);
    for (EdgeReport& r :
         RunPairs(scans, prepared, scales, options, shapes, jobs, multiway, progress))
      found.push_back(r);
  };
  auto graphOf = [&]() {
    std::vector<Edge> graph;
    for (const EdgeReport& r : found) {
      if (r.registered) graph.push_back(r.edge);
    }
    for (const Edge& e : extra) graph.push_back(e);
    return graph;
  };

  // Candidates: every pair, or each scan's nearest by shape, widened until the trusted edges
  // join every scan or every pair has been tried.
  if (static_cast<int32_t>(n) <= multiway.allPairsUpTo) {
    std::vector<Job> jobs;
    for (size_t i = 0; i < n; ++i) {
      for (size_t j = i + 1; j < n; ++j)
        jobs.push_back({static_cast<int32_t>(i), static_cast<int32_t>(j)});
    }
    run(jobs);
  } else {
    for (int32_t k = std::max(1, multiway.neighbours);; k *= 2) {
      std::vector<Job> jobs;
      for (size_t i = 0; i < n; ++i) {
        std::vector<std::pair<double, size_t>> near;
        for (size_t j = 0; j < n; ++j) {
          if (j != i) near.push_back({ShapeDistance(shapes[i], shapes[j]), j});
        }
        std::sort(near.begin(), near.end());
        for (size_t m = 0; m < std::min<size_t>(near.size(), static_cast<size_t>(k)); ++m) {
          const size_t j = near[m].second;
          if (tried[i][j]) continue;
          tried[i][j] = tried[j][i] = true;  // claimed: the job list holds it once
          jobs.push_back(
              {static_cast<int32_t>(std::min(i, j)), static_cast<int32_t>(std::max(i, j))});
        }
      }
      std::sort(jobs.begin(), jobs.end(), [](const Job& a, const Job& b) {
        return a.target < b.target || (a.target == b.target && a.source < b.source);
      });
      if (jobs.empty()) break;
      run(jobs);
      const std::vector<int32_t> group = Groups(n, graphOf(), reference);
      if (std::all_of(group.begin(), group.end(), [](int32_t g) { return g == 0; })) break;
      if (static_cast<size_t>(k) >= n) break;
    }
  }

  // Solve, reject, solve again; then, with loops, try the refused or untried pairs the solved poses
  // put over each other, from that guess, and solve once more.
  std::vector<Edge> graph;
  std::vector<bool> reached;
  poses.assign(n, Pose::Identity());
  auto solve = [&]() -> bool {
    graph = graphOf();
    std::vector<double> strength;
    for (const EdgeReport& r : found) {
      if (r.registered) strength.push_back(static_cast<double>(r.consistentPairs) + r.fitness);
    }
    // The caller's edges join the tree last: a measured, trusted path is checked by more.
    for (size_t k = 0; k < extra.size(); ++k) strength.push_back(-1.0);
    for (int32_t round = 0; round < kSolveRounds; ++round) {
      std::vector<Pose> start(n, Pose::Identity());
      ChainPoses(graph, strength, reference, start, reached);
      std::vector<Edge> inside;
      std::vector<size_t> at;
      for (size_t k = 0; k < graph.size(); ++k) {
        if (!graph[k].rejected && reached[static_cast<size_t>(graph[k].from)]) {
          inside.push_back(graph[k]);
          at.push_back(k);
        }
      }
      if (!Optimize(start, inside, reference)) return false;
      bool rejected = false;
      for (size_t k = 0; k < inside.size(); ++k) {
        graph[at[k]].rejected = inside[k].rejected;
        rejected = rejected || inside[k].rejected;
      }
      poses = start;
      if (!rejected) break;
    }
    // What the last rejections cut off is no longer placed.
    std::vector<Pose> unused(n, Pose::Identity());
    ChainPoses(graph, strength, reference, unused, reached);
    return true;
  };
  if (!solve()) {
    error = "the pose graph could not be solved";
    return engine::kInternal;
  }
  if (multiway.loops) {
    std::vector<bool> good(n * n, false);
    for (const EdgeReport& r : found) {
      if (r.registered) {
        good[static_cast<size_t>(r.edge.from) * n + static_cast<size_t>(r.edge.to)] = true;
        good[static_cast<size_t>(r.edge.to) * n + static_cast<size_t>(r.edge.from)] = true;
      }
    }
    std::vector<Job> jobs;
    for (size_t i = 0; i < n; ++i) {
      for (size_t j = i + 1; j < n; ++j) {
        if (!reached[i] || !reached[j] || good[i * n + j]) continue;
        const Eigen::Vector3d ci =
            poses[i].topLeftCorner<3, 3>() * shapes[i].centre + poses[i].topRightCorner<3, 1>();
        const Eigen::Vector3d cj =
            poses[j].topLeftCorner<3, 3>() * shapes[j].centre + poses[j].topRightCorner<3, 1>();
        if ((ci - cj).norm() > 0.5 * (shapes[i].radius + shapes[j].radius)) continue;
        jobs.push_back({static_cast<int32_t>(i),
                        static_cast<int32_t>(j),
                        true,
                        true,
                        poses[i].inverse() * poses[j]});
      }
    }
    if (!jobs.empty()) {
      // A refused pair tried again from the solved guess replaces its first report.
      const size_t before = found.size();
      run(jobs);
      for (size_t k = before; k < found.size(); ++k) {
        for (size_t m = 0; m < before; ++m) {
          if (found[m].edge.from == found[k].edge.from && found[m].edge.to == found[k].edge.to &&
              !found[m].registered)
            found[m].edge.from = -1;  // superseded
        }
      }
      found.erase(
          std::remove_if(
              found.begin(), found.end(), [](const EdgeReport& r) { return r.edge.from < 0; }),
          found.end());
      if (!solve()) {
        error = "the pose graph could not be solved";
        return engine::kInternal;
      }
    }
  }

  // Reports: every pair tried (with its fate in the graph), then the caller's edges.
  const std::vector<int32_t> group = Groups(n, graph, reference);
  reports.assign(n, ScanReport());
  for (size_t i = 0; i < n; ++i) {
    reports[i].placed = reached[i];
    reports[i].group = group[i];
    if (!reached[i]) poses[i] = Pose::Identity();
  }
  edges.clear();
  size_t g = 0;
  for (EdgeReport report : found) {
    if (report.registered) {
      report.edge.rejected = graph[g].rejected;
      if (reached[static_cast<size_t>(report.edge.from)] && !report.edge.rejected)
        report.residual = EdgeResidual(poses, report.edge);
      ++g;
    }
    edges.push_back(report);
  }
  for (; g < graph.size(); ++g) {
    EdgeReport report;
    report.edge = graph[g];
    report.registered = true;
    report.given = true;
    if (reached[static_cast<size_t>(report.edge.from)] && !report.edge.rejected)
      report.residual = EdgeResidual(poses, report.edge);
    edges.push_back(report);
  }
  return engine::kOk;
}

}  // namespace

int32_t AlignScans(const std::vector<engine::CloudView>& scans,
                   const engine::Options& options,
                   const MultiwayOptions& multiway,
                   const std::vector<Edge>& extra,
                   std::vector<Pose>& poses,
                   std::vector<ScanReport>& reports,
                   std::vector<EdgeReport>& edges,
                   std::string& error) {
  const engine::SharedFrame frame(scans, options.sensorOrigin);
  std::vector<engine::CloudView> views;
  for (size_t i = 0; i < scans.size(); ++i) views.push_back(frame.view(i));
  std::vector<Edge> given = extra;
  for (Edge& e : given) e.motion = frame.ToShared(e.motion);
  const int32_t code = AlignShared(views, options, multiway, given, poses, reports, edges, error);
  for (Pose& pose : poses) pose = frame.ToCaller(pose);
  for (EdgeReport& report : edges) report.edge.motion = frame.ToCaller(report.edge.motion);
  return code;
}

}  // namespace qorv::multiway
