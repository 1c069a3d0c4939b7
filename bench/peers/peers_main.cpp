// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Driver of the Qorv / PCL / Open3D comparison.
//
//   qorv_peers --threads N --out results_N.tsv [options]   measure at N threads, one TSV line a
//   cell qorv_peers --table results_1.tsv results_2.tsv [--md FILE]   print the markdown table
//
// Run one measuring process per thread count (OMP_NUM_THREADS=N in its environment): Open3D reads
// its thread count from OpenMP, PCL's OMP classes and Qorv get N explicitly. Qorv's log lines go
// to standard output; progress goes to standard error.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <omp.h>

#include "geometry/axis_angle.hpp"
#include "peers.hpp"
#include "search/kd_tree.hpp"

#include <sys/stat.h>

namespace qorv::peers {
namespace {

struct Options {
  int threads = 1;
  std::string out;
  std::string library = QORV_PEERS_LIBRARY;
  std::string dataDir = QORV_PEERS_DATA_DIR;
  std::string workDir = ".";
  std::string sides = "ours,pcl,open3d";
  std::string ops = "kd,knn,radius,normals,voxel,sor,keypoints,descriptors,detect,read,register";
  std::string largeOps = "kd,knn,radius,normals,voxel,read";  // sor too: ~2.5 min more
  double budget = 2.0;  // seconds of repetitions per cell before stopping at 3 runs
  int64_t largePoints = 2000000;
  int pairs = 4;
  double regFactor = 5.0;  // registration resolution in units of the mean spacing
  std::vector<std::string> tables;
  std::string md;
};

struct OpInfo {
  Op op;
  const char* key;
};

const OpInfo kOps[] = {
    {Op::kKdBuild, "kd"},
    {Op::kKnn, "knn"},
    {Op::kRadius, "radius"},
    {Op::kNormals, "normals"},
    {Op::kVoxel, "voxel"},
    {Op::kSor, "sor"},
    {Op::kKeypoints, "keypoints"},
    {Op::kDescriptors, "descriptors"},
    {Op::kDetectDescribe, "detect"},
    {Op::kReadFile, "read"},
};

bool Listed(const std::string& list, const std::string& key) {
  std::stringstream ss(list);
  std::string item;
  while (std::getline(ss, item, ',')) {
    if (item == key || item == "all") return true;
  }
  return false;
}

// ---- Data
// ----------------------------------------------------------------------------------------

// x y z lines; anything after the third number of a line is ignored.
Cloud LoadXyz(const std::string& path, const std::string& name) {
  Cloud cloud;
  cloud.name = name;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    const char* s = line.c_str();
    char* end = nullptr;
    float v[3];
    int got = 0;
    for (; got < 3; ++got) {
      v[got] = std::strtof(s, &end);
      if (end == s) break;
      s = end;
    }
    if (got == 3) cloud.xyz.insert(cloud.xyz.end(), v, v + 3);
  }
  return cloud;
}

// Mean distance to the nearest other point.
double MeanSpacing(const Cloud& cloud) {
  PointKdTree tree(cloud.xyz.data(), cloud.size());
  double sum = 0.0;
  int32_t idx[2];
  float dist[2];
  for (int64_t i = 0; i < cloud.size(); ++i) {
    tree.knnSearch(cloud.xyz.data() + 3 * i, 2, idx, dist);
    sum += std::sqrt(static_cast<double>(dist[1]));
  }
  return sum / static_cast<double>(cloud.size());
}

struct Box {
  float lo[3];
  float hi[3];
  double diagonal() const {
    double s = 0.0;
    for (int d = 0; d < 3; ++d) s += double(hi[d] - lo[d]) * double(hi[d] - lo[d]);
    return std::sqrt(s);
  }
};

Box BoundsOf(const Cloud& cloud) {
  Box b{{cloud.xyz[0], cloud.xyz[1], cloud.xyz[2]}, {cloud.xyz[0], cloud.xyz[1], cloud.xyz[2]}};
  for (int64_t i = 0; i < cloud.size(); ++i) {
    for (int d = 0; d < 3; ++d) {
      b.lo[d] = std::min(b.lo[d], cloud.xyz[3 * i + d]);
      b.hi[d] = std::max(b.hi[d], cloud.xyz[3 * i + d]);
    }
  }
  return b;
}

// Copies of the cloud side by side on a grid in x and y (a tenth of the extent apart), enough to
// reach `target` points: the local density, and so the per-point work, stays that of the source.
Cloud Tiled(const Cloud& source, int64_t target) {
  const Box box = BoundsOf(source);
  const int64_t copies = std::max<int64_t>(1, (target + source.size() - 1) / source.size());
  const auto columns = static_cast<int64_t>(std::ceil(std::sqrt(double(copies))));
  const float stepX = (box.hi[0] - box.lo[0]) * 1.1f;
  const float stepY = (box.hi[1] - box.lo[1]) * 1.1f;
  Cloud out;
  out.name = "tiled " + std::to_string(copies) + "x";
  out.xyz.reserve(static_cast<size_t>(copies * source.size() * 3));
  for (int64_t c = 0; c < copies; ++c) {
    const float dx = stepX * float(c % columns);
    const float dy = stepY * float(c / columns);
    for (int64_t i = 0; i < source.size(); ++i) {
      out.xyz.push_back(source.xyz[3 * i] + dx);
      out.xyz.push_back(source.xyz[3 * i + 1] + dy);
      out.xyz.push_back(source.xyz[3 * i + 2]);
    }
  }
  return out;
}

bool FileExists(const std::string& path, off_t* size = nullptr) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  if (size != nullptr) *size = st.st_size;
  return true;
}

void WriteXyz(const Cloud& cloud, const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) return;
  for (int64_t i = 0; i < cloud.size(); ++i) {
    std::fprintf(
        f, "%.6f %.6f %.6f\n", cloud.xyz[3 * i], cloud.xyz[3 * i + 1], cloud.xyz[3 * i + 2]);
  }
  std::fclose(f);
}

// One-minute load average of the machine, to show how busy it was while measuring.
std::string LoadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string first;
  in >> first;
  return first.empty() ? "?" : first;
}

// ---- Records
// -------------------------------------------------------------------------------------

struct Record {
  std::string op;
  std::string cloud;
  int threads = 1;
  std::string side;
  std::string status = "ok";
  double median = NAN;
  double min = NAN;
  double max = NAN;
  int reps = 0;
  int64_t count = -1;
  std::string note;
};

std::string Clean(std::string s) {
  for (char& c : s) {
    if (c == '\t' || c == '\n') c = ' ';
  }
  return s;
}

void WriteRecord(std::ostream& out, const Record& r) {
  char buf[128];
  std::snprintf(buf, sizeof buf, "%.6g\t%.6g\t%.6g", r.median, r.min, r.max);
  out << r.op << '\t' << r.cloud << '\t' << r.threads << '\t' << r.side << '\t' << r.status << '\t'
      << buf << '\t' << r.reps << '\t' << r.count << '\t' << Clean(r.note) << '\n';
  out.flush();
}

bool ReadRecord(const std::string& line, Record& r) {
  std::vector<std::string> f;
  std::stringstream ss(line);
  std::string item;
  while (std::getline(ss, item, '\t')) f.push_back(item);
  if (f.size() < 10) return false;
  r.op = f[0];
  r.cloud = f[1];
  r.threads = std::atoi(f[2].c_str());
  r.side = f[3];
  r.status = f[4];
  r.median = std::strtod(f[5].c_str(), nullptr);
  r.min = std::strtod(f[6].c_str(), nullptr);
  r.max = std::strtod(f[7].c_str(), nullptr);
  r.reps = std::atoi(f[8].c_str());
  r.count = std::strtoll(f[9].c_str(), nullptr, 10);
  r.note = f.size() > 10 ? f[10] : std::string();
  return true;
}

const char* StatusName(Outcome::Status s) {
  switch (s) {
    case Outcome::kOk:
      return "ok";
    case Outcome::kMissing:
      return "missing";
    case Outcome::kNotApplicable:
      return "n/a";
    case Outcome::kFailed:
      return "failed";
  }
  return "failed";
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 == 1 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

// Repeats one operation on every side, the sides taking turns run by run so that a change in the
// machine's load hits them alike. Per side: a first run is thrown away as warm-up when it is
// cheap, then runs go on until 7 runs, or 3 runs and `budget` seconds, or 4 x budget seconds.
std::vector<Record> Measure(std::vector<std::unique_ptr<Side>>& sides,
                            Op op,
                            const Params& params,
                            double budget) {
  struct State {
    Record rec;
    std::vector<double> times;
    double total = 0.0;
    bool warmedUp = false;
    bool done = false;
  };
  std::vector<State> states(sides.size());
  for (size_t i = 0; i < sides.size(); ++i) {
    states[i].rec.side = sides[i]->name();
    states[i].rec.threads = params.threads;
  }
  for (bool pending = true; pending;) {
    pending = false;
    for (size_t i = 0; i < sides.size(); ++i) {
      State& st = states[i];
      if (st.done) continue;
      const Outcome o = sides[i]->run(op, params);
      if (o.status != Outcome::kOk) {
        st.rec.status = StatusName(o.status);
        st.rec.note = o.note;
        st.done = true;
        continue;
      }
      st.rec.count = o.count;
      if (!o.note.empty()) st.rec.note = o.note;
      if (!st.warmedUp) {
        st.warmedUp = true;
        if (o.seconds < 0.2 * budget) {
          pending = true;
          continue;
        }
      }
      st.times.push_back(o.seconds);
      st.total += o.seconds;
      const size_t n = st.times.size();
      st.done = n >= 7 || (n >= 3 && st.total >= budget) || st.total >= 4.0 * budget;
      pending = pending || !st.done;
    }
  }
  std::vector<Record> records;
  for (State& st : states) {
    if (!st.times.empty()) {
      st.rec.reps = static_cast<int>(st.times.size());
      st.rec.median = Median(st.times);
      st.rec.min = *std::min_element(st.times.begin(), st.times.end());
      st.rec.max = *std::max_element(st.times.begin(), st.times.end());
    }
    records.push_back(st.rec);
  }
  return records;
}

// ---- View pairs
// ----------------------------------------------------------------------------------

struct Rigid {
  double r[9];
  double t[3];
};

struct ViewPair {
  Cloud first;   // fixed
  Cloud second;  // moved by the known motion
  Rigid truth;   // carries `second` onto `first`
};

Rigid RandomMotion(std::mt19937& rng, double diagonal) {
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::uniform_real_distribution<double> uniform(0.0, 1.0);
  const double axis[3] = {gauss(rng), gauss(rng), gauss(rng)};
  const double angle = (30.0 + 60.0 * uniform(rng)) * M_PI / 180.0;
  Rigid m;
  const std::array<double, 9> r = AxisAngleRotation(axis, angle);
  std::copy(r.begin(), r.end(), m.r);
  double dir[3] = {gauss(rng), gauss(rng), gauss(rng)};
  const double dlen = std::sqrt(dir[0] * dir[0] + dir[1] * dir[1] + dir[2] * dir[2]);
  for (int d = 0; d < 3; ++d) m.t[d] = dir[d] / dlen * 0.5 * diagonal;
  return m;
}

// Two overlapping slabs of the scan across a direction (the first keeps the lower 70 %, the
// second the upper 70 %), the second with Gaussian noise of 0.2 s and moved by a random motion
// (30 to 90 degrees, half a diagonal).
std::vector<ViewPair> MakeViewPairs(const Cloud& scan, double spacing, int count) {
  const double dirs[6][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 1, 0}, {1, 0, 1}, {0, 1, 1}};
  const Box box = BoundsOf(scan);
  std::mt19937 rng(20260422);
  std::normal_distribution<float> noise(0.0f, static_cast<float>(0.2 * spacing));
  std::vector<ViewPair> pairs;
  for (int k = 0; k < count; ++k) {
    double d[3] = {dirs[k % 6][0], dirs[k % 6][1], dirs[k % 6][2]};
    if (k >= 6) d[k % 3] = -d[k % 3];
    const double len = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    double lo = 1e300, hi = -1e300;
    for (int64_t i = 0; i < scan.size(); ++i) {
      const double t =
          (scan.xyz[3 * i] * d[0] + scan.xyz[3 * i + 1] * d[1] + scan.xyz[3 * i + 2] * d[2]) / len;
      lo = std::min(lo, t);
      hi = std::max(hi, t);
    }
    const Rigid motion = RandomMotion(rng, box.diagonal());
    ViewPair pair;
    pair.first.name = "view A" + std::to_string(k);
    pair.second.name = "view B" + std::to_string(k);
    for (int64_t i = 0; i < scan.size(); ++i) {
      const float* p = scan.xyz.data() + 3 * i;
      const double t = (p[0] * d[0] + p[1] * d[1] + p[2] * d[2]) / len;
      if (t < lo + 0.7 * (hi - lo)) pair.first.xyz.insert(pair.first.xyz.end(), p, p + 3);
      if (t > lo + 0.3 * (hi - lo)) {
        const double q[3] = {p[0] + noise(rng), p[1] + noise(rng), p[2] + noise(rng)};
        for (int row = 0; row < 3; ++row) {
          pair.second.xyz.push_back(
              static_cast<float>(motion.r[3 * row] * q[0] + motion.r[3 * row + 1] * q[1] +
                                 motion.r[3 * row + 2] * q[2] + motion.t[row]));
        }
      }
    }
    // The inverse motion brings the second view back onto the first.
    for (int row = 0; row < 3; ++row) {
      for (int col = 0; col < 3; ++col) pair.truth.r[3 * row + col] = motion.r[3 * col + row];
    }
    for (int row = 0; row < 3; ++row) {
      pair.truth.t[row] =
          -(pair.truth.r[3 * row] * motion.t[0] + pair.truth.r[3 * row + 1] * motion.t[1] +
            pair.truth.r[3 * row + 2] * motion.t[2]);
    }
    pairs.push_back(std::move(pair));
  }
  return pairs;
}

// Rotation angle (degrees) and translation distance between an estimate and the truth.
void PoseError(const std::array<double, 12>& m,
               const Rigid& truth,
               double& angleDeg,
               double& shift) {
  double trace = 0.0;  // trace(R_est * R_true^T)
  for (int row = 0; row < 3; ++row) {
    for (int col = 0; col < 3; ++col) trace += m[4 * row + col] * truth.r[3 * row + col];
  }
  const double c = std::max(-1.0, std::min(1.0, 0.5 * (trace - 1.0)));
  angleDeg = std::acos(c) * 180.0 / M_PI;
  double s = 0.0;
  for (int row = 0; row < 3; ++row) {
    const double diff = m[4 * row + 3] - truth.t[row];
    s += diff * diff;
  }
  shift = std::sqrt(s);
  if (!std::isfinite(angleDeg) || !std::isfinite(shift)) {
    angleDeg = 180.0;
    shift = 1e300;
  }
}

// ---- Measuring run
// -------------------------------------------------------------------------------

int RunMeasurements(const Options& opt) {
  omp_set_num_threads(opt.threads);
  std::ofstream out(opt.out);
  if (!out) {
    std::fprintf(stderr, "qorv_peers: cannot write %s\n", opt.out.c_str());
    return 1;
  }
  const std::string dragonPath = opt.dataDir + "/dragon_res2.asc";
  Cloud dragon = LoadXyz(dragonPath, "");
  dragon.name = "dragon_res2 " + std::to_string(dragon.size() / 1000) + "k";
  if (dragon.size() == 0) {
    std::fprintf(stderr, "qorv_peers: cannot read %s\n", dragonPath.c_str());
    return 1;
  }
  const double spacing = MeanSpacing(dragon);
  Params params;
  params.threads = opt.threads;
  params.spacing = spacing;
  params.searchRadius = static_cast<float>(3.0 * spacing);
  params.voxelSize = static_cast<float>(2.0 * spacing);
  params.salientRadius = static_cast<float>(6.0 * spacing);
  params.nonMaxRadius = static_cast<float>(4.0 * spacing);
  params.featureRadius = static_cast<float>(5.0 * spacing);
  const double regResolution = opt.regFactor * spacing;
  out << "#params\tspacing=" << spacing << "\tregResolution=" << regResolution
      << "\tpairs=" << opt.pairs << "\tbudget=" << opt.budget << "\tload" << opt.threads
      << "start=" << LoadAverage() << '\n';

  Cloud large = Tiled(dragon, opt.largePoints);
  large.name = std::to_string(large.size() / 1000) + "k tiled";
  const std::string largePath = opt.workDir + "/large_" + std::to_string(large.size()) + ".xyz";
  if (!FileExists(largePath)) WriteXyz(large, largePath);

  std::vector<std::unique_ptr<Side>> sides;
  if (Listed(opt.sides, "ours")) sides.push_back(MakeOursSide(opt.library));
  if (Listed(opt.sides, "pcl")) sides.push_back(MakePclSide());
  if (Listed(opt.sides, "open3d")) sides.push_back(MakeOpen3dSide());

  struct Job {
    const Cloud* cloud;
    std::string ops;
    std::string file;
  };
  const Job jobs[] = {{&dragon, opt.ops, dragonPath}, {&large, opt.largeOps, largePath}};
  for (const Job& job : jobs) {
    if (opt.largePoints <= 0 && job.cloud == &large) continue;
    for (auto& side : sides) side->setCloud(*job.cloud, params);
    for (const OpInfo& info : kOps) {
      if (!Listed(job.ops, info.key)) continue;
      Params p = params;
      p.filePath = job.file;
      for (Record& rec : Measure(sides, info.op, p, opt.budget)) {
        rec.op = info.key;
        rec.cloud = job.cloud->name;
        std::fprintf(stderr,
                     "[%d thr] %-12s %-16s %-7s %s %.4g s (%d runs) count %lld\n",
                     opt.threads,
                     info.key,
                     job.cloud->name.c_str(),
                     rec.side.c_str(),
                     rec.status.c_str(),
                     rec.median,
                     rec.reps,
                     static_cast<long long>(rec.count));
        WriteRecord(out, rec);
      }
    }
  }

  if (Listed(opt.ops, "register") && opt.pairs > 0) {
    const std::vector<ViewPair> pairs = MakeViewPairs(dragon, spacing, opt.pairs);
    const double diagonal = BoundsOf(dragon).diagonal();
    RegParams rp;
    rp.threads = opt.threads;
    rp.resolution = regResolution;
    const std::string cloudName = std::to_string(pairs.size()) + " dragon view pairs";
    std::vector<Record> regRecords;
    for (auto& side : sides) {
      const std::vector<std::string> methods = side->registrationMethods();
      for (size_t m = 0; m < methods.size(); ++m) {
        Record rec;
        rec.op = m == 0 ? std::string("register") : "register-" + methods[m];
        std::replace(rec.op.begin(), rec.op.end(), ' ', '-');
        rec.cloud = cloudName;
        rec.threads = opt.threads;
        rec.side = side->name();
        std::vector<double> times;
        std::vector<double> angles;
        int successes = 0;
        std::string lastNote;
        for (size_t k = 0; k < pairs.size(); ++k) {
          const RegOutcome o =
              side->registerPair(pairs[k].first, pairs[k].second, rp, static_cast<int>(m));
          if (o.status != Outcome::kOk) {
            rec.status = StatusName(o.status);
            lastNote = o.note;
            break;
          }
          double angle = 0.0;
          double shift = 0.0;
          PoseError(o.transform, pairs[k].truth, angle, shift);
          const bool ok = angle < 5.0 && shift < 0.05 * diagonal;
          successes += ok ? 1 : 0;
          times.push_back(o.seconds);
          angles.push_back(angle);
          std::fprintf(stderr,
                       "[%d thr] register %s %s pair %zu: %.3f s, %.2f deg, shift %.4g%s (%s)\n",
                       opt.threads,
                       side->name().c_str(),
                       methods[m].c_str(),
                       k,
                       o.seconds,
                       angle,
                       shift / diagonal,
                       ok ? " ok" : " FAIL",
                       o.note.c_str());
        }
        if (!times.empty()) {
          rec.reps = static_cast<int>(times.size());
          rec.median = Median(times);
          rec.min = *std::min_element(times.begin(), times.end());
          rec.max = *std::max_element(times.begin(), times.end());
          rec.count = successes;
          char buf[160];
          std::snprintf(buf,
                        sizeof buf,
                        "%s: %d/%zu within 5 deg and 5%% of the diagonal (median error %.1f deg)",
                        methods[m].c_str(),
                        successes,
                        times.size(),
                        Median(angles));
          rec.note = buf;
        } else {
          rec.note = lastNote;
        }
        regRecords.push_back(rec);
      }
    }
    // Each alternative method gets a row of its own; the other sides appear there with their main
    // method, so that every row compares three methods.
    std::vector<std::string> regOps;
    for (const Record& r : regRecords) {
      if (std::find(regOps.begin(), regOps.end(), r.op) == regOps.end()) regOps.push_back(r.op);
    }
    for (const std::string& op : regOps) {
      for (auto& side : sides) {
        const Record* own = nullptr;
        const Record* main = nullptr;
        for (const Record& r : regRecords) {
          if (r.side != side->name()) continue;
          if (r.op == op) own = &r;
          if (r.op == "register") main = &r;
        }
        if (own == nullptr && main == nullptr) continue;
        Record row = own != nullptr ? *own : *main;
        row.op = op;
        WriteRecord(out, row);
      }
    }
  }
  out << "#params\tload" << opt.threads << "end=" << LoadAverage() << '\n';
  return 0;
}

// ---- Table
// ---------------------------------------------------------------------------------------

std::string FormatSeconds(double s) {
  char buf[64];
  if (!std::isfinite(s)) return "-";
  if (s < 1e-3) {
    std::snprintf(buf, sizeof buf, "%.0f us", s * 1e6);
  } else if (s < 1.0) {
    std::snprintf(buf, sizeof buf, "%.1f ms", s * 1e3);
  } else {
    std::snprintf(buf, sizeof buf, "%.2f s", s);
  }
  return buf;
}

std::string Cell(const Record* r) {
  if (r == nullptr) return "-";
  if (r->status != "ok") return r->status;
  std::string s = FormatSeconds(r->median);
  if (r->reps > 1) s += " (" + FormatSeconds(r->min) + "–" + FormatSeconds(r->max) + ")";
  return s;
}

std::string Ratio(const Record* peer, const Record* ours) {
  if (peer == nullptr || ours == nullptr || peer->status != "ok" || ours->status != "ok" ||
      !(ours->median > 0.0)) {
    return "-";
  }
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.2f", peer->median / ours->median);
  return buf;
}

const char* OpLabel(const std::string& op) {
  static const std::map<std::string, const char*> labels = {
      {"kd", "KD-tree build"},
      {"knn", "k-nearest (k = 10), every point"},
      {"radius", "radius search (3 s), every point"},
      {"normals", "normals, radius 3 s"},
      {"voxel", "voxel filter, leaf 2 s"},
      {"sor", "outlier removal (k = 50, 3.4)"},
      {"keypoints", "key points (6 s, 4 s, 0.975, 0.975)"},
      {"descriptors", "descriptors (5 s)"},
      {"detect", "key points + descriptors"},
      {"read", "read x y z text file"},
      {"register", "global registration: Qorv one call, PCL, Open3D RANSAC"},
      {"register-FGR", "global registration: Qorv one call, PCL, Open3D FGR"},
  };
  auto it = labels.find(op);
  return it == labels.end() ? op.c_str() : it->second;
}

std::string CountNote(const std::string& op,
                      const Record* ours,
                      const Record* pcl,
                      const Record* o3d) {
  auto c = [](const Record* r) -> std::string {
    if (r == nullptr || r->status != "ok" || r->count < 0) return "-";
    return std::to_string(r->count);
  };
  if (op == "kd" || op == "normals" || op == "read") return "";
  if (op.rfind("register", 0) == 0) {
    auto s = [](const Record* r) -> std::string {
      if (r == nullptr) return "-";
      if (r->status != "ok") return r->status;
      return std::to_string(r->count) + "/" + std::to_string(r->reps);
    };
    return "succeeded: Qorv " + s(ours) + ", PCL " + s(pcl) + ", Open3D " + s(o3d);
  }
  const char* what = op == "knn" || op == "radius"  ? "neighbours found"
                     : op == "voxel" || op == "sor" ? "points kept"
                     : op == "descriptors"          ? "descriptors"
                                                    : "key points";
  return std::string(what) + ": " + c(ours) + " / " + c(pcl) + " / " + c(o3d);
}

int PrintTable(const Options& opt) {
  std::vector<Record> records;
  std::map<std::string, std::string> params;
  for (const std::string& file : opt.tables) {
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
      if (line.rfind("#params", 0) == 0) {
        std::stringstream ss(line);
        std::string item;
        while (std::getline(ss, item, '\t')) {
          const auto eq = item.find('=');
          if (eq != std::string::npos) params[item.substr(0, eq)] = item.substr(eq + 1);
        }
        continue;
      }
      Record r;
      if (ReadRecord(line, r)) records.push_back(r);
    }
  }
  // Rows in order of first appearance of (op, cloud), then by thread count.
  std::vector<std::pair<std::string, std::string>> rows;
  std::vector<int> threads;
  for (const Record& r : records) {
    const auto key = std::make_pair(r.op, r.cloud);
    if (std::find(rows.begin(), rows.end(), key) == rows.end()) rows.push_back(key);
    if (std::find(threads.begin(), threads.end(), r.threads) == threads.end())
      threads.push_back(r.threads);
  }
  std::sort(threads.begin(), threads.end());
  auto find = [&](const std::string& op, const std::string& cloud, int t, const std::string& side) {
    for (const Record& r : records) {
      if (r.op == op && r.cloud == cloud && r.threads == t && r.side == side) return &r;
    }
    return static_cast<const Record*>(nullptr);
  };

  std::ostringstream md;
  std::ostringstream losses;
  md << "| operation | cloud | threads | Qorv | PCL | PCL / Qorv | Open3D | Open3D / Qorv | notes "
        "|\n";
  md << "|---|---|---|---|---|---|---|---|---|\n";
  for (const auto& [op, cloud] : rows) {
    for (int t : threads) {
      const Record* ours = find(op, cloud, t, "Qorv");
      const Record* pcl = find(op, cloud, t, "PCL");
      const Record* o3d = find(op, cloud, t, "Open3D");
      if (ours == nullptr && pcl == nullptr && o3d == nullptr) continue;
      // A peer that describes many more (or fewer) points than we do does other work: its time is
      // shown, but no ratio (the descriptor count of the same cloud and thread count decides).
      auto ratio = [&](const Record* peer) -> std::string {
        if (peer != nullptr && (op == "descriptors" || op == "detect")) {
          const Record* ourCount = find("descriptors", cloud, t, "Qorv");
          const Record* peerCount = find("descriptors", cloud, t, peer->side);
          if (ourCount != nullptr && peerCount != nullptr && ourCount->count > 0 &&
              (peerCount->count > 2 * ourCount->count || 2 * peerCount->count < ourCount->count)) {
            return "other work";
          }
        }
        // A registration that fails where the peer succeeds is no faster, whatever its time.
        if (peer != nullptr && ours != nullptr && op.rfind("register", 0) == 0 &&
            ours->count < peer->count) {
          return "fails more";
        }
        return Ratio(peer, ours);
      };
      md << "| " << OpLabel(op) << " | " << cloud << " | " << t << " | " << Cell(ours) << " | "
         << Cell(pcl) << " | " << ratio(pcl) << " | " << Cell(o3d) << " | " << ratio(o3d) << " | "
         << CountNote(op, ours, pcl, o3d) << " |\n";
      for (const Record* peer : {pcl, o3d}) {
        const std::string shown = ratio(peer);
        if (shown == "fails more") {
          losses << "- " << OpLabel(op) << ", " << cloud << ", " << t
                 << " thread(s): " << peer->side << " succeeds on more pairs\n";
        }
        const std::string plain = Ratio(peer, ours);
        if (shown == plain && plain != "-" && std::strtod(plain.c_str(), nullptr) < 1.0) {
          losses << "- " << OpLabel(op) << ", " << cloud << ", " << t
                 << " thread(s): " << peer->side << " takes " << plain << " of Qorv's time\n";
        }
      }
    }
  }
  const double s = std::strtod(params["spacing"].c_str(), nullptr);
  const double r = std::strtod(params["regResolution"].c_str(), nullptr);
  char head[512];
  std::snprintf(
      head,
      sizeof head,
      "Median wall time of several runs (min–max in brackets); ratios above 1 mean Qorv is "
      "faster. s = %.6g (mean nearest-neighbour spacing of dragon_res2); registration "
      "resolution r = %.6g.\n",
      s,
      r);
  std::string load =
      "One-minute load average of the machine (2 cores) at the start and end of each "
      "measuring run:";
  for (int t : threads) {
    const std::string k = "load" + std::to_string(t);
    load += " " + std::to_string(t) + " thread(s) " + params[k + "start"] + " -> " +
            params[k + "end"] + ";";
  }
  load.back() = '.';
  load += "\n\n";
  std::ostringstream text;
  text
      << "\nWhat each cell runs (the same cloud, parameters and thread count for all three; "
         "conversion into each library's types is outside the timing):\n\n```text\n"
      << "KD-tree build       Qorv: internal PointKdTree (leaf 10) | PCL: "
         "KdTreeFLANN<PointXYZ>(sorted=false)."
         "setInputCloud | Open3D: KDTreeFlann::SetGeometry (nanoflann, double coordinates)\n"
      << "k-nearest, radius   the same OpenMP loop over all points (static chunks) calling "
         "knnSearch / "
         "radiusSearch(unsorted) | nearestKSearch / radiusSearch | SearchKNN / SearchRadius\n"
      << "normals             QorvComputeNormals(radius 3 s) | "
         "NormalEstimationOMP(threads).setRadiusSearch(3 s), "
         "search::KdTree | PointCloud::EstimateNormals(KDTreeSearchParamRadius(3 s)); tree build "
         "included\n"
      << "voxel filter        QorvVoxelFilter(leaf 2 s): keeps the input point nearest each voxel "
         "centre and "
         "drops the voxel with the largest key | VoxelGrid(2 s) and VoxelDownSample(2 s): centroid "
         "of each "
         "voxel (a new point); all three single-threaded\n"
      << "outlier removal     QorvSORFilter(50, 3.4) | StatisticalOutlierRemoval.setMeanK(50)."
         "setStddevMulThresh(3.4) (single-threaded) | RemoveStatisticalOutliers(50, 3.4)\n"
      << "key points          QorvDetectAndCompute(keyPointRadius 6 s, nonMaxRadius 4 s, ratio21 = "
         "ratio32 = "
         "0.975, maxKeyPoints 0) with featureRadius = histogramRadius = 0 (descriptors skipped; at "
         "least 9 "
         "neighbours) | ISSKeypoint3D(salient 6 s, non-max 4 s, 0.975, 0.975, min neighbours 9, "
         "threads) | "
         "ComputeISSKeypoints(6 s, 4 s, 0.975, 0.975, 9)\n"
      << "descriptors         Qorv: QorvDetectAndCompute with featureRadius = histogramRadius = 5 "
         "s minus the "
         "detection-only run | FPFHEstimationOMP(threads, radius 5 s) at the ISS key points, full "
         "cloud as "
         "search surface | ComputeFPFHFeature(KDTreeSearchParamRadius(5 s)) for EVERY point (0.16 "
         "has no "
         "index selection); input normals precomputed, radius 3 s\n"
      << "key points + desc.  the two rows above in one timed call each\n"
      << "read text file      QorvReadPointsFromASC | pcl::ASCIIReader (fields x y z) read into "
         "PointCloud<PointXYZ> | io::ReadPointCloud(format \"xyz\"); the file is in the page "
         "cache\n"
      << "registration        view pairs cut from dragon_res2 (lower/upper 70 % across a "
         "direction, the "
         "second with 0.2 s Gaussian noise, moved 30-90 degrees and half a diagonal); success = "
         "rotation error "
         "< 5 degrees and translation error < 5 % of the diagonal; one run per pair, time over "
         "pairs.\n"
      << "                    Qorv: QorvMatchPairPointCloud(resolution r, kernelScale -1 -> "
         "RANSAC, 100000 "
         "iterations, cross check on); its chain is outlier removal, smoothing, voxel r, normals 2 "
         "r, key points "
         "2 r with ratios 0.01, descriptors r / 5 r.\n"
      << "                    PCL: VoxelGrid(r), NormalEstimationOMP(2 r), FPFHEstimationOMP(5 r), "
         "SampleConsensusPrerejective(20000 iterations, 3 samples, randomness 5, similarity 0.9, "
         "max "
         "correspondence distance 1.5 r, inlier fraction 0.25).\n"
      << "                    Open3D: VoxelDownSample(r), EstimateNormals(radius 2 r), "
         "ComputeFPFHFeature(radius "
         "5 r), RegistrationRANSACBasedOnFeatureMatching(mutual filter, 1.5 r, point-to-point, 3, "
         "[EdgeLength 0.9, Distance 1.5 r], RANSACConvergenceCriteria(100000, 0.999)); FGR: "
         "FastGlobalRegistrationBasedOnFeatureMatching(maximum correspondence distance 0.5 r).\n"
      << "threads             1: Qorv single-threaded variant, OMP_NUM_THREADS=1; 2: Qorv "
         "multi-threaded "
         "variant, OMP_NUM_THREADS=2, PCL OMP classes setNumberOfThreads(2).\n```\n";
  std::string lossText = losses.str();
  lossText = lossText.empty() ? "\nQorv is the fastest in every measured cell.\n"
                              : "\nCells where a peer is faster than Qorv:\n\n" + lossText;
  const std::string all = std::string(head) + load + md.str() + lossText + text.str();
  std::cout << all;
  if (!opt.md.empty()) {
    std::ofstream f(opt.md);
    f << all;
  }
  return 0;
}

bool ParseArgs(int argc, char** argv, Options& opt) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto next = [&]() -> std::string {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "qorv_peers: %s needs a value\n", a.c_str());
        std::exit(2);
      }
      return argv[++i];
    };
    if (a == "--threads")
      opt.threads = std::atoi(next().c_str());
    else if (a == "--out")
      opt.out = next();
    else if (a == "--library")
      opt.library = next();
    else if (a == "--data")
      opt.dataDir = next();
    else if (a == "--work")
      opt.workDir = next();
    else if (a == "--sides")
      opt.sides = next();
    else if (a == "--ops")
      opt.ops = next();
    else if (a == "--large-ops")
      opt.largeOps = next();
    else if (a == "--budget")
      opt.budget = std::atof(next().c_str());
    else if (a == "--large")
      opt.largePoints = std::atoll(next().c_str());
    else if (a == "--pairs")
      opt.pairs = std::atoi(next().c_str());
    else if (a == "--reg-factor")
      opt.regFactor = std::atof(next().c_str());
    else if (a == "--md")
      opt.md = next();
    else if (a == "--table") {
      while (i + 1 < argc && argv[i + 1][0] != '-') opt.tables.push_back(argv[++i]);
    } else {
      std::fprintf(stderr, "qorv_peers: unknown option %s\n", a.c_str());
      return false;
    }
  }
  if (opt.threads < 1) opt.threads = 1;
  return true;
}

}  // namespace
}  // namespace qorv::peers

int main(int argc, char** argv) {
  using namespace qorv::peers;
  Options opt;
  if (!ParseArgs(argc, argv, opt)) return 2;
  if (!opt.tables.empty()) return PrintTable(opt);
  if (opt.out.empty()) {
    std::fprintf(
        stderr,
        "usage: qorv_peers --threads N --out FILE [options] | --table FILE... [--md FILE]\n");
    return 2;
  }
  return RunMeasurements(opt);
}
