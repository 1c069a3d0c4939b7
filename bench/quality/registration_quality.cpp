// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Registration quality study. From each model it generates seeded view pairs: two overlapping
// half-space crops of the scan (each view keeps the points on one side of a plane), the second
// view moved by a known rigid motion, each pair once clean and once with Gaussian noise of half
// the point spacing per axis. It then registers every pair
//   (a) with the one-call QorvMatchPairPointCloud (RANSAC path), and
//   (b) with the same chain composed from the exports: QorvSORFilter, QorvGaussianFilter,
//       QorvVoxelFilter, QorvComputeNormals (or QorvReComputeNormals), QorvDetectAndCompute with
//       surface-friendly detector settings, QorvRansacMatchKeyPoints, then
//       QorvIterativeMatchKeyPoints refining from the RANSAC result,
// and reports the success rate (rotation error below 5 degrees and translation error below 5% of
// the model's bounding-box diagonal), median errors and median times. Only the public C header
// is used.
//
//   registration_quality --data DIR [--models dragon_res3,bunny] [--geometries 12] [--seed 1]
//                        [--mode final|sweep] [--threads 1|2] [--config key=value,...]
//
// --mode sweep tries the detector settings of a small grid on the same pairs (preparation shared)
// and prints one line per setting; --mode final measures (a) and (b) with --config.
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <qorv/qorv.h>

#include <fcntl.h>
#include <unistd.h>

namespace {

// ---- Small rigid-motion algebra in double
// ---------------------------------------------------------

struct Motion {
  std::array<double, 9> r{1, 0, 0, 0, 1, 0, 0, 0, 1};  // row after row
  std::array<double, 3> t{0, 0, 0};

  static Motion FromAxisAngle(std::array<double, 3> axis, double angle, std::array<double, 3> t) {
    const double n = std::sqrt(axis[0] * axis[0] + axis[1] * axis[1] + axis[2] * axis[2]);
    for (double& v : axis) v /= n;
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    const double k = 1.0 - c;
    const double x = axis[0], y = axis[1], z = axis[2];
    Motion m;
    m.r = {c + x * x * k,
           x * y * k - z * s,
           x * z * k + y * s,
           y * x * k + z * s,
           c + y * y * k,
           y * z * k - x * s,
           z * x * k - y * s,
           z * y * k + x * s,
           c + z * z * k};
    m.t = t;
    return m;
  }

  // From the 3 x 4 [R | t] of the registration exports.
  static Motion FromMatrix3x4(const double* m) {
    Motion out;
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 3; ++j) out.r[3 * i + j] = m[4 * i + j];
      out.t[i] = m[4 * i + 3];
    }
    return out;
  }

  Motion inverse() const {
    Motion out;
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 3; ++j) out.r[3 * i + j] = r[3 * j + i];
    }
    for (int i = 0; i < 3; ++i) {
      out.t[i] = -(out.r[3 * i] * t[0] + out.r[3 * i + 1] * t[1] + out.r[3 * i + 2] * t[2]);
    }
    return out;
  }

  void apply(const float* p, float* out) const {
    for (int i = 0; i < 3; ++i) {
      out[i] =
          static_cast<float>(r[3 * i] * p[0] + r[3 * i + 1] * p[1] + r[3 * i + 2] * p[2] + t[i]);
    }
  }
};

// Angle, in degrees, of the rotation taking b's rotation to a's (a R_b^T); 180 for a non-rotation
// such as the all-zero matrix RANSAC leaves when it finds nothing.
double RotationErrorDegrees(const Motion& a, const Motion& b) {
  double trace = 0.0;
  for (int i = 0; i < 3; ++i) {
    for (int k = 0; k < 3; ++k) trace += a.r[3 * i + k] * b.r[3 * i + k];
  }
  const double det = a.r[0] * (a.r[4] * a.r[8] - a.r[5] * a.r[7]) -
                     a.r[1] * (a.r[3] * a.r[8] - a.r[5] * a.r[6]) +
                     a.r[2] * (a.r[3] * a.r[7] - a.r[4] * a.r[6]);
  if (!(std::abs(det - 1.0) < 1e-2)) return 180.0;
  const double c = std::clamp((trace - 1.0) / 2.0, -1.0, 1.0);
  return std::acos(c) * 180.0 / M_PI;
}

double TranslationError(const Motion& a, const Motion& b) {
  const double dx = a.t[0] - b.t[0], dy = a.t[1] - b.t[1], dz = a.t[2] - b.t[2];
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

// ---- Data
// ----------------------------------------------------------------------------------------

std::vector<float> ReadAsc(const std::string& path) {
  std::ifstream in(path);
  std::vector<float> points;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    float x, y, z;
    if (fields >> x >> y >> z) points.insert(points.end(), {x, y, z});
  }
  return points;
}

int32_t CountOf(const std::vector<float>& points) {
  return static_cast<int32_t>(points.size() / 3);
}

double Diagonal(const std::vector<float>& points) {
  float lo[3] = {points[0], points[1], points[2]};
  float hi[3] = {points[0], points[1], points[2]};
  for (size_t i = 0; i < points.size(); i += 3) {
    for (int k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], points[i + k]);
      hi[k] = std::max(hi[k], points[i + k]);
    }
  }
  double sum = 0.0;
  for (int k = 0; k < 3; ++k) sum += double(hi[k] - lo[k]) * double(hi[k] - lo[k]);
  return std::sqrt(sum);
}

// The library logs to standard output; keep that out of the study's tables.
class QuietStdout {
 public:
  QuietStdout() {
    std::fflush(stdout);
    saved_ = dup(1);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
  }
  ~QuietStdout() {
    std::fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
  }
  QuietStdout(const QuietStdout&) = delete;
  QuietStdout& operator=(const QuietStdout&) = delete;

 private:
  int saved_;
};

void Check(QorvResult r, const char* what) {
  if (r != QORV_OK) {
    std::fprintf(stderr, "%s returned %d\n", what, r);
    std::exit(1);
  }
}

// ---- View pairs
// ----------------------------------------------------------------------------------

struct ViewPair {
  std::string model;
  int geometry = 0;
  bool noisy = false;
  double overlap = 0.0;  // share of each view that the other view also holds
  double angleDegrees = 0.0;
  std::vector<float> first;   // target, in the model's frame
  std::vector<float> second;  // source, moved by `moved`
  Motion truth;               // carries the second view onto the first
};

// Views of `fraction` of the points each from both ends of a random direction: the middle
// 2 * fraction - 1 of the points is in both, so each view shares (2f - 1) / f of itself.
std::vector<ViewPair> MakePairs(const std::string& model,
                                const std::vector<float>& cloud,
                                double spacing,
                                double diagonal,
                                int geometries,
                                uint32_t seed) {
  std::vector<ViewPair> pairs;
  const int32_t n = CountOf(cloud);
  for (int g = 0; g < geometries; ++g) {
    std::mt19937 rng(seed * 7919u + static_cast<uint32_t>(g));
    std::normal_distribution<double> gauss(0.0, 1.0);
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    const std::array<double, 3> dir{gauss(rng), gauss(rng), gauss(rng)};
    // Overlaps spread evenly over 40-80% across the geometries, in a shuffled order.
    const double overlap = 0.4 + 0.4 * ((g * 7) % geometries + 0.5) / geometries;
    const double fraction = 1.0 / (2.0 - overlap);
    std::vector<std::pair<double, int32_t>> order(static_cast<size_t>(n));
    for (int32_t i = 0; i < n; ++i) {
      const float* p = &cloud[3 * static_cast<size_t>(i)];
      order[static_cast<size_t>(i)] = {p[0] * dir[0] + p[1] * dir[1] + p[2] * dir[2], i};
    }
    std::sort(order.begin(), order.end());
    const auto keep = static_cast<int32_t>(fraction * n);
    std::vector<char> inFirst(static_cast<size_t>(n), 0), inSecond(static_cast<size_t>(n), 0);
    for (int32_t k = 0; k < keep; ++k) {
      inFirst[static_cast<size_t>(order[static_cast<size_t>(k)].second)] = 1;
      inSecond[static_cast<size_t>(order[static_cast<size_t>(n - 1 - k)].second)] = 1;
    }
    // Any rotation: the descriptors do not depend on it, the normals' +z convention does.
    const std::array<double, 3> axis{gauss(rng), gauss(rng), gauss(rng)};
    const double angle = M_PI * uniform(rng);
    const std::array<double, 3> shiftDir{gauss(rng), gauss(rng), gauss(rng)};
    const double shiftNorm = std::sqrt(shiftDir[0] * shiftDir[0] + shiftDir[1] * shiftDir[1] +
                                       shiftDir[2] * shiftDir[2]);
    const double shift = 0.5 * diagonal * uniform(rng) / shiftNorm;
    const Motion moved = Motion::FromAxisAngle(
        axis, angle, {shiftDir[0] * shift, shiftDir[1] * shift, shiftDir[2] * shift});
    const uint32_t noiseSeed = static_cast<uint32_t>(rng());
    for (int noisy = 0; noisy < 2; ++noisy) {
      ViewPair pair;
      pair.model = model;
      pair.geometry = g;
      pair.noisy = noisy != 0;
      pair.overlap = overlap;
      pair.angleDegrees = angle * 180.0 / M_PI;
      pair.truth = moved.inverse();
      std::mt19937 noiseRng(noiseSeed);
      std::normal_distribution<float> noise(0.0f, static_cast<float>(0.5 * spacing));
      // Scan order is kept: the outlier filter's result depends on it.
      for (int32_t i = 0; i < n; ++i) {
        const float* p = &cloud[3 * static_cast<size_t>(i)];
        if (inFirst[static_cast<size_t>(i)]) {
          float q[3] = {p[0], p[1], p[2]};
          if (pair.noisy) {
            for (float& v : q) v += noise(noiseRng);
          }
          pair.first.insert(pair.first.end(), q, q + 3);
        }
        if (inSecond[static_cast<size_t>(i)]) {
          float q[3];
          moved.apply(p, q);
          if (pair.noisy) {
            for (float& v : q) v += noise(noiseRng);
          }
          pair.second.insert(pair.second.end(), q, q + 3);
        }
      }
      pairs.push_back(std::move(pair));
    }
  }
  return pairs;
}

// ---- The composed chain
// --------------------------------------------------------------------------

enum class Orientation { kPlusZ, kOutward };

struct ChainConfig {
  float resolutionPerSpacing = 1.0f;  // s = this x spacing
  Orientation orientation = Orientation::kOutward;
  float ratio21 = 0.8f;
  float ratio32 = 0.8f;
  float keyPointRadius = 2.0f;  // x s, and so on
  float nonMaxRadius = 1.0f;
  float featureRadius = 5.0f;
  float histogramRadius = 2.5f;
  int32_t ransacIterations = 20000;
  float edgeRatio = 0.9f;
  float inlierDistance = 2.0f;
  int32_t refineIterations = 64;
  float refineKernel = 4.0f;  // initial kernel scale (refineKernel s)^2
  float refineMaxDistance = 1.0f;

  std::string describe() const {
    char text[256];
    std::snprintf(text,
                  sizeof text,
                  "s %.2f spacing, ratios %.2f/%.2f, keyPoint %.1fs, nonMax %.2fs, feature %.1fs, "
                  "histogram %.1fs, normals %s, ransac edge %.2f inlier %.1fs",
                  double(resolutionPerSpacing),
                  double(ratio21),
                  double(ratio32),
                  double(keyPointRadius),
                  double(nonMaxRadius),
                  double(featureRadius),
                  double(histogramRadius),
                  orientation == Orientation::kPlusZ ? "+z" : "outward",
                  double(edgeRatio),
                  double(inlierDistance));
    return text;
  }
};

void CollectIndices(const int32_t* indices, int32_t count, void* user) {
  static_cast<std::vector<int32_t>*>(user)->assign(indices, indices + count);
}

void CountPairs(const QorvMatchPair*, uint32_t count, void* user) {
  *static_cast<uint32_t*>(user) = count;
}

struct KeyPoints {
  std::vector<float> positions, normals, descriptors;
  int32_t count() const { return CountOf(positions); }
};

void CollectKeyPoints(const QorvKeyPointResult* result, void* user) {
  auto* keys = static_cast<KeyPoints*>(user);
  const auto n = static_cast<size_t>(result->count);
  keys->positions.assign(result->positions, result->positions + 3 * n);
  keys->normals.assign(result->normals, result->normals + 3 * n);
  keys->descriptors.assign(result->descriptors, result->descriptors + 33 * n);
}

std::vector<float> Subset(const std::vector<float>& points, const std::vector<int32_t>& kept) {
  std::vector<float> out;
  out.reserve(kept.size() * 3);
  for (int32_t i : kept) {
    const float* p = &points[3 * static_cast<size_t>(i)];
    out.insert(out.end(), p, p + 3);
  }
  return out;
}

struct Prepared {
  std::vector<float> points, normals;
};

// Outlier removal, smoothing and thinning as the one-call pipeline does them, then normals within
// 2s: estimated (all facing +z), or re-estimated to face away from the view's centroid, which
// turns with the view and so keeps the descriptors' normal signs consistent between views.
Prepared Prepare(QorvInstance* inst,
                 const std::vector<float>& cloud,
                 float s,
                 Orientation orientation) {
  Prepared out;
  std::vector<int32_t> kept;
  Check(QorvSORFilter(inst, cloud.data(), CountOf(cloud), 50, 3.4f, CollectIndices, &kept),
        "QorvSORFilter");
  const std::vector<float> clean = Subset(cloud, kept);
  if (clean.empty()) return out;
  std::vector<float> smoothed(clean.size());
  Check(QorvGaussianFilter(inst, clean.data(), smoothed.data(), CountOf(clean), s),
        "QorvGaussianFilter");
  Check(QorvVoxelFilter(inst, smoothed.data(), CountOf(smoothed), s, CollectIndices, &kept),
        "QorvVoxelFilter");
  out.points = Subset(smoothed, kept);
  const int32_t n = CountOf(out.points);
  if (n == 0) return out;
  out.normals.assign(out.points.size(), 0.0f);
  if (orientation == Orientation::kPlusZ) {
    Check(QorvComputeNormals(inst, out.points.data(), out.normals.data(), n, 10, 2.0f * s),
          "QorvComputeNormals");
  } else {
    double c[3] = {0, 0, 0};
    for (size_t i = 0; i < out.points.size(); i += 3) {
      for (int k = 0; k < 3; ++k) c[k] += out.points[i + k];
    }
    for (size_t i = 0; i < out.points.size(); i += 3) {
      for (int k = 0; k < 3; ++k)
        out.normals[i + k] = static_cast<float>(out.points[i + k] - c[k] / n);
    }
    Check(QorvReComputeNormals(inst, out.points.data(), out.normals.data(), n, 2.0f * s),
          "QorvReComputeNormals");
  }
  return out;
}

KeyPoints Describe(QorvInstance* inst, const Prepared& cloud, float s, const ChainConfig& c) {
  KeyPoints keys;
  if (cloud.points.empty()) return keys;
  Check(QorvDetectAndCompute(inst,
                             cloud.points.data(),
                             cloud.normals.data(),
                             CountOf(cloud.points),
                             c.keyPointRadius * s,
                             c.nonMaxRadius * s,
                             c.featureRadius * s,
                             c.histogramRadius * s,
                             c.ratio21,
                             c.ratio32,
                             0,
                             CollectKeyPoints,
                             &keys),
        "QorvDetectAndCompute");
  return keys;
}

// RANSAC, then the iterative matcher from its result; both use the 3 x 4 [R | t] layout, so the
// matrix passes from one to the other unchanged. Returns RANSAC's inlier count (0: no model).
uint32_t Match(QorvInstance* inst,
               const KeyPoints& k1,
               const KeyPoints& k2,
               float s,
               const ChainConfig& c,
               double* matrix,
               uint32_t& kept) {
  std::fill(matrix, matrix + 12, 0.0);
  kept = 0;
  if (k1.count() == 0 || k2.count() == 0) return 0;
  uint32_t pairs = 0;
  Check(QorvRansacMatchKeyPoints(inst,
                                 k1.positions.data(),
                                 k1.normals.data(),
                                 k1.descriptors.data(),
                                 k1.count(),
                                 k2.positions.data(),
                                 k2.normals.data(),
                                 k2.descriptors.data(),
                                 k2.count(),
                                 matrix,
                                 c.ransacIterations,
                                 c.edgeRatio,
                                 c.inlierDistance * s,
                                 CountPairs,
                                 &pairs),
        "QorvRansacMatchKeyPoints");
  const uint32_t inliers = pairs;
  if (inliers == 0) return 0;
  const float kernel = (c.refineKernel * s) * (c.refineKernel * s);
  Check(QorvIterativeMatchKeyPoints(inst,
                                    k1.positions.data(),
                                    k1.descriptors.data(),
                                    k1.count(),
                                    k2.positions.data(),
                                    k2.descriptors.data(),
                                    k2.count(),
                                    matrix,
                                    c.refineIterations,
                                    kernel,
                                    c.refineMaxDistance * s,
                                    CountPairs,
                                    &pairs),
        "QorvIterativeMatchKeyPoints");
  kept = pairs;
  return inliers;
}

// ---- Measurement
// ---------------------------------------------------------------------------------

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

struct Outcome {
  double rotation = 180.0;    // degrees
  double translation = 1e30;  // share of the diagonal
  double seconds = 0.0;
  int32_t keyPoints1 = 0, keyPoints2 = 0;
  uint32_t inliers = 0;  // RANSAC's
  uint32_t kept = 0;     // correspondences handed to the last callback
  bool success() const { return rotation < 5.0 && translation < 0.05; }
};

Outcome Score(const double* matrix, const ViewPair& pair, double diagonal) {
  Outcome o;
  const Motion found = Motion::FromMatrix3x4(matrix);
  o.rotation = RotationErrorDegrees(found, pair.truth);
  o.translation = o.rotation >= 180.0 ? 1e30 : TranslationError(found, pair.truth) / diagonal;
  return o;
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  const size_t m = v.size() / 2;
  return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

struct Summary {
  int total = 0, successes = 0;
  double medianRotation = 0, medianTranslation = 0, medianSeconds = 0, medianKeyPoints = 0;
  double medianKept = 0;
};

Summary Summarise(const std::vector<Outcome>& outcomes) {
  Summary s;
  std::vector<double> rot, trans, secs, keys, kept;
  for (const Outcome& o : outcomes) {
    ++s.total;
    s.successes += o.success() ? 1 : 0;
    rot.push_back(o.rotation);
    trans.push_back(o.translation);
    secs.push_back(o.seconds);
    keys.push_back(0.5 * (o.keyPoints1 + o.keyPoints2));
    kept.push_back(o.kept);
  }
  s.medianKept = Median(kept);
  s.medianRotation = Median(rot);
  s.medianTranslation = Median(trans);
  s.medianSeconds = Median(secs);
  s.medianKeyPoints = Median(keys);
  return s;
}

std::string Percent(double share) {
  char text[32];
  if (share >= 1e29) return "-";
  std::snprintf(text, sizeof text, "%.2f%%", 100.0 * share);
  return text;
}

// ---- Command line
// --------------------------------------------------------------------------------

struct Options {
  std::string data = "data/sample";
  std::vector<std::string> models{"dragon_res3", "bunny"};
  int geometries = 12;
  uint32_t seed = 1;
  std::string mode = "final";
  bool multiThread = false;
  bool verbose = false;
  ChainConfig chain;
  std::vector<ChainConfig> tries;              // sweep mode
  std::map<std::string, float> resolutionFor;  // per-model s / spacing of the chain, final mode
  float pipelineResolutionPerSpacing = 1.0f;
  int32_t pipelineIterations = 20000;
};

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  std::string part;
  while (std::getline(in, part, separator)) {
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

void ApplyConfig(const std::string& text, ChainConfig& c) {
  for (const std::string& item : Split(text, ',')) {
    const size_t eq = item.find('=');
    if (eq == std::string::npos) {
      std::fprintf(stderr, "bad --config item '%s'\n", item.c_str());
      std::exit(2);
    }
    const std::string key = item.substr(0, eq);
    const std::string value = item.substr(eq + 1);
    const float v = std::strtof(value.c_str(), nullptr);
    if (key == "s")
      c.resolutionPerSpacing = v;
    else if (key == "r21")
      c.ratio21 = v;
    else if (key == "r32")
      c.ratio32 = v;
    else if (key == "kp")
      c.keyPointRadius = v;
    else if (key == "nm")
      c.nonMaxRadius = v;
    else if (key == "fr")
      c.featureRadius = v;
    else if (key == "hr")
      c.histogramRadius = v;
    else if (key == "edge")
      c.edgeRatio = v;
    else if (key == "inlier")
      c.inlierDistance = v;
    else if (key == "iters")
      c.ransacIterations = static_cast<int32_t>(v);
    else if (key == "orient")
      c.orientation = value == "z" ? Orientation::kPlusZ : Orientation::kOutward;
    else {
      std::fprintf(stderr, "unknown --config key '%s'\n", key.c_str());
      std::exit(2);
    }
  }
}

Options Parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto next = [&]() -> std::string {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "%s needs a value\n", arg.c_str());
        std::exit(2);
      }
      return argv[++i];
    };
    if (arg == "--data")
      o.data = next();
    else if (arg == "--models")
      o.models = Split(next(), ',');
    else if (arg == "--geometries")
      o.geometries = std::atoi(next().c_str());
    else if (arg == "--seed")
      o.seed = static_cast<uint32_t>(std::atoi(next().c_str()));
    else if (arg == "--mode")
      o.mode = next();
    else if (arg == "--threads")
      o.multiThread = std::atoi(next().c_str()) > 1;
    else if (arg == "--config")
      ApplyConfig(next(), o.chain);
    else if (arg == "--try") {
      ChainConfig c = o.chain;
      ApplyConfig(next(), c);
      o.tries.push_back(c);
    } else if (arg == "--verbose")
      o.verbose = true;
    else if (arg == "--resolution-for") {
      // model=factor: that model's chain runs with s = factor x spacing.
      const std::string item = next();
      const size_t eq = item.find('=');
      if (eq == std::string::npos) {
        std::fprintf(stderr, "--resolution-for needs model=factor\n");
        std::exit(2);
      }
      o.resolutionFor[item.substr(0, eq)] = std::strtof(item.c_str() + eq + 1, nullptr);
    } else {
      std::fprintf(stderr, "unknown option %s\n", arg.c_str());
      std::exit(2);
    }
  }
  return o;
}

struct Model {
  std::string name;
  double spacing = 0.0;
  double diagonal = 0.0;
  std::vector<ViewPair> pairs;
};

std::vector<Model> LoadModels(QorvInstance* inst, const Options& o) {
  std::vector<Model> models;
  for (const std::string& name : o.models) {
    const std::vector<float> cloud = ReadAsc(o.data + "/" + name + ".asc");
    if (cloud.empty()) {
      std::fprintf(stderr, "cannot read %s/%s.asc\n", o.data.c_str(), name.c_str());
      std::exit(1);
    }
    Model m;
    m.name = name;
    float spacing = 0.0f;
    {
      QuietStdout quiet;
      Check(QorvCheckDistance(inst, cloud.data(), CountOf(cloud), 2, &spacing),
            "QorvCheckDistance");
    }
    m.spacing = spacing;
    m.diagonal = Diagonal(cloud);
    m.pairs = MakePairs(name, cloud, m.spacing, m.diagonal, o.geometries, o.seed);
    std::printf("%s: %d points, spacing %.6g, diagonal %.6g, %zu view pairs\n",
                name.c_str(),
                CountOf(cloud),
                m.spacing,
                m.diagonal,
                m.pairs.size());
    models.push_back(std::move(m));
  }
  return models;
}

void PrintRow(const std::string& label, const Summary& s) {
  char keys[32] = "-";
  if (s.medianKeyPoints >= 0.0) std::snprintf(keys, sizeof keys, "%.0f", s.medianKeyPoints);
  std::printf("| %s | %d/%d (%.0f%%) | %.2f | %s | %s | %.0f | %.3f |\n",
              label.c_str(),
              s.successes,
              s.total,
              100.0 * s.successes / std::max(s.total, 1),
              s.medianRotation,
              Percent(s.medianTranslation).c_str(),
              keys,
              s.medianKept,
              s.medianSeconds);
}

void PrintHeader() {
  std::printf(
      "| method | success | median rotation error (deg) | median translation error (%% of "
      "diagonal) | median key points per view | median correspondences kept | median time (s) "
      "|\n|---|---|---|---|---|---|---|\n");
}

// The chain on every pair of every model with one configuration; the prepared views are cached
// per (model, pair) for the sweep.
struct PreparedPair {
  Prepared first, second;
  float s = 0.0f;
};

std::vector<Outcome> RunChain(QorvInstance* inst,
                              const Model& m,
                              const std::vector<PreparedPair>* cache,
                              const ChainConfig& c) {
  std::vector<Outcome> outcomes;
  for (size_t p = 0; p < m.pairs.size(); ++p) {
    const ViewPair& pair = m.pairs[p];
    const auto start = Clock::now();
    const float s = static_cast<float>(c.resolutionPerSpacing * m.spacing);
    double matrix[12];
    KeyPoints k1, k2;
    uint32_t inliers = 0;
    uint32_t kept = 0;
    {
      QuietStdout quiet;
      PreparedPair local;
      if (cache == nullptr) {
        local.second = Prepare(inst, pair.second, s, c.orientation);
        local.first = Prepare(inst, pair.first, s, c.orientation);
      }
      const PreparedPair& prepared = cache != nullptr ? (*cache)[p] : local;
      k2 = Describe(inst, prepared.second, s, c);
      k1 = Describe(inst, prepared.first, s, c);
      inliers = Match(inst, k1, k2, s, c, matrix, kept);
    }
    Outcome o = Score(matrix, pair, m.diagonal);
    o.seconds = Seconds(start);
    o.keyPoints1 = k1.count();
    o.keyPoints2 = k2.count();
    o.inliers = inliers;
    o.kept = kept;
    outcomes.push_back(o);
  }
  return outcomes;
}

std::vector<Outcome> RunPipeline(QorvInstance* inst, const Model& m, const Options& o) {
  std::vector<Outcome> outcomes;
  for (const ViewPair& pair : m.pairs) {
    const auto start = Clock::now();
    const float s = static_cast<float>(o.pipelineResolutionPerSpacing * m.spacing);
    double matrix[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    uint32_t pairs = 0;
    {
      QuietStdout quiet;
      Check(QorvMatchPairPointCloud(inst,
                                    pair.first.data(),
                                    nullptr,
                                    CountOf(pair.first),
                                    pair.second.data(),
                                    nullptr,
                                    CountOf(pair.second),
                                    matrix,
                                    0.0f,
                                    s,
                                    o.pipelineIterations,
                                    CountPairs,
                                    &pairs),
            "QorvMatchPairPointCloud");
    }
    Outcome out = Score(matrix, pair, m.diagonal);
    out.seconds = Seconds(start);
    out.keyPoints1 = out.keyPoints2 = -1;  // not visible through the export
    out.kept = pairs;
    outcomes.push_back(out);
  }
  return outcomes;
}

void Final(QorvInstance* inst, const std::vector<Model>& models, const Options& o) {
  std::printf("\nchain: %s (s per model in the rows when given)\n\n", o.chain.describe().c_str());
  PrintHeader();
  std::vector<Outcome> allPipeline, allChain;
  for (const Model& m : models) {
    std::vector<Outcome> pipeline = RunPipeline(inst, m, o);
    ChainConfig c = o.chain;
    const auto factor = o.resolutionFor.find(m.name);
    if (factor != o.resolutionFor.end()) c.resolutionPerSpacing = factor->second;
    std::vector<Outcome> chain = RunChain(inst, m, nullptr, c);
    for (int noisy = 0; noisy < 2; ++noisy) {
      std::vector<Outcome> a, b;
      for (size_t p = 0; p < m.pairs.size(); ++p) {
        if (m.pairs[p].noisy != (noisy != 0)) continue;
        a.push_back(pipeline[p]);
        b.push_back(chain[p]);
      }
      const std::string tag = m.name + (noisy ? ", noisy" : ", clean");
      PrintRow("(a) QorvMatchPairPointCloud, " + tag, Summarise(a));
      char sText[48];
      std::snprintf(sText, sizeof sText, " (s = %.2g spacing)", double(c.resolutionPerSpacing));
      PrintRow("(b) composed chain, " + tag + sText, Summarise(b));
    }
    allPipeline.insert(allPipeline.end(), pipeline.begin(), pipeline.end());
    allChain.insert(allChain.end(), chain.begin(), chain.end());
  }
  PrintRow("(a) QorvMatchPairPointCloud, all", Summarise(allPipeline));
  PrintRow("(b) composed chain, all", Summarise(allChain));
  if (!o.verbose) return;
  std::printf(
      "\nmodel pair noisy overlap angle | chain: rotation translation keys1 keys2 inliers\n");
  size_t next = 0;
  for (const Model& m : models) {
    for (const ViewPair& pair : m.pairs) {
      const Outcome& c = allChain[next++];
      std::printf("%s %d %d %.2f %.0f | %.2f %s %d %d %u\n",
                  m.name.c_str(),
                  pair.geometry,
                  pair.noisy ? 1 : 0,
                  pair.overlap,
                  pair.angleDegrees,
                  c.rotation,
                  Percent(c.translation).c_str(),
                  c.keyPoints1,
                  c.keyPoints2,
                  c.inliers);
    }
  }
}

// Every --try configuration on the same pairs; prepared views are shared between the
// configurations with the same resolution and normal orientation.
void Sweep(QorvInstance* inst, const std::vector<Model>& models, const Options& o) {
  PrintHeader();
  std::map<std::tuple<std::string, float, Orientation>, std::vector<PreparedPair>> cache;
  for (const ChainConfig& c : o.tries) {
    std::vector<Outcome> all;
    for (const Model& m : models) {
      const float s = static_cast<float>(c.resolutionPerSpacing * m.spacing);
      std::vector<PreparedPair>& prepared = cache[{m.name, s, c.orientation}];
      if (prepared.empty()) {
        QuietStdout quiet;
        for (const ViewPair& pair : m.pairs) {
          PreparedPair p;
          p.s = s;
          p.second = Prepare(inst, pair.second, s, c.orientation);
          p.first = Prepare(inst, pair.first, s, c.orientation);
          prepared.push_back(std::move(p));
        }
      }
      const std::vector<Outcome> outcomes = RunChain(inst, m, &prepared, c);
      PrintRow(m.name + ", " + c.describe(), Summarise(outcomes));
      all.insert(all.end(), outcomes.begin(), outcomes.end());
    }
    PrintRow("all, " + c.describe(), Summarise(all));
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = Parse(argc, argv);
  QorvInstance* inst = nullptr;
  Check(QorvCreateInstance(&inst), "QorvCreateInstance");
  if (o.multiThread) QorvEnableMultiThread(inst);
  const std::vector<Model> models = LoadModels(inst, o);
  if (o.mode == "sweep") {
    Sweep(inst, models, o);
  } else {
    Final(inst, models, o);
  }
  QorvDestroyInstance(inst);
  return 0;
}
