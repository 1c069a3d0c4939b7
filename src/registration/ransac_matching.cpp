// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "registration/ransac_matching.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <numeric>

#include "geometry/pose.hpp"
#include "registration/libc_random.hpp"
#include "runtime/log.hpp"

namespace qorv {
namespace {

using Pose = std::array<float, 12>;

struct Vec3 {
  float x, y, z;
};

Vec3 Load(const float* p) { return {p[0], p[1], p[2]}; }
Vec3 operator-(const Vec3& a, const Vec3& b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
Vec3 Scaled(const Vec3& v, float s) { return {v.x * s, v.y * s, v.z * s}; }
float Dot(const Vec3& a, const Vec3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
Vec3 Cross(const Vec3& a, const Vec3& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
// A zero vector stays zero.
Vec3 Normalized(const Vec3& v) {
  const float length = std::sqrt(Dot(v, v));
  if (length == 0.0f) return v;
  return {v.x / length, v.y / length, v.z / length};
}
Vec3 Centroid(const Vec3& a, const Vec3& b, const Vec3& c) {
  return {static_cast<float>((a.x + b.x + c.x) / 3.0),
          static_cast<float>((a.y + b.y + c.y) / 3.0),
          static_cast<float>((a.z + b.z + c.z) / 3.0)};
}

using Mat3 = std::array<float, 9>;

Vec3 Apply(const float* m, const Vec3& v) {
  return {m[0] * v.x + m[1] * v.y + m[2] * v.z,
          m[3] * v.x + m[4] * v.y + m[5] * v.z,
          m[6] * v.x + m[7] * v.y + m[8] * v.z};
}
Mat3 Multiply(const Mat3& a, const Mat3& b) {
  Mat3 c;
  for (size_t r = 0; r < 3; ++r) {
    for (size_t k = 0; k < 3; ++k) {
      c[3 * r + k] = a[3 * r] * b[k] + a[3 * r + 1] * b[3 + k] + a[3 * r + 2] * b[6 + k];
    }
  }
  return c;
}

// Rotation by the rotation vector v (axis times angle), Rodrigues' formula in double:
// R = I + A [v]x + B [v]x^2 with A = sin(theta) / theta, B = (1 - cos(theta)) / theta^2, and the
// limits A = 1, B = 1/2 for theta < 1e-7.
Mat3 Rodrigues(const Vec3& v) {
  const double x = v.x;
  const double y = v.y;
  const double z = v.z;
  const double theta = std::sqrt(x * x + y * y + z * z);
  double a = 1.0;
  double b = 0.5;
  if (!(theta < 1e-7)) {
    a = std::sin(theta) / theta;
    b = (1.0 - std::cos(theta)) / (theta * theta);
  }
  const double k[9] = {0.0, -z, y, z, 0.0, -x, -y, x, 0.0};
  Mat3 rotation;
  for (size_t r = 0; r < 3; ++r) {
    for (size_t c = 0; c < 3; ++c) {
      const double kk = k[3 * r] * k[c] + k[3 * r + 1] * k[3 + c] + k[3 * r + 2] * k[6 + c];
      const double identity = r == c ? 1.0 : 0.0;
      rotation[3 * r + c] = static_cast<float>(identity + a * k[3 * r + c] + b * kk);
    }
  }
  return rotation;
}

double DistSqDouble(const float* a, const float* b) {
  const double dx = static_cast<double>(a[0]) - static_cast<double>(b[0]);
  const double dy = static_cast<double>(a[1]) - static_cast<double>(b[1]);
  const double dz = static_cast<double>(a[2]) - static_cast<double>(b[2]);
  return dx * dx + dy * dy + dz * dz;
}

// Similar triangles: every edge of one is longer than ratioSq times the same edge of the other,
// both ways. Coincident vertices never pass (0 > 0 fails).
bool EdgesAgree(const float* const second[3], const float* const first[3], float ratioSq) {
  const double q = ratioSq;
  static constexpr int kEdges[3][2] = {{0, 1}, {0, 2}, {1, 2}};
  for (const auto& edge : kEdges) {
    const double a = DistSqDouble(second[edge[0]], second[edge[1]]);
    const double b = DistSqDouble(first[edge[0]], first[edge[1]]);
    if (!(a > q * b && b > q * a)) return false;
  }
  return true;
}

struct InlierTest {
  const Correspondences& pairs;
  float boundSq;
  bool normalTest;

  bool operator()(const float* pose, size_t i) const {
    const float* p1 = &pairs.first[3 * i];
    const float* p2 = &pairs.second[3 * i];
    const float dx = p1[0] - (pose[0] * p2[0] + pose[1] * p2[1] + pose[2] * p2[2] + pose[9]);
    const float dy = p1[1] - (pose[3] * p2[0] + pose[4] * p2[1] + pose[5] * p2[2] + pose[10]);
    const float dz = p1[2] - (pose[6] * p2[0] + pose[7] * p2[1] + pose[8] * p2[2] + pose[11]);
    if (!(boundSq > dx * dx + dy * dy + dz * dz)) return false;
    if (!normalTest) return true;
    const float* n1 = &pairs.firstNormals[3 * i];
    const float* n2 = &pairs.secondNormals[3 * i];
    const float rx = pose[0] * n2[0] + pose[1] * n2[1] + pose[2] * n2[2];
    const float ry = pose[3] * n2[0] + pose[4] * n2[1] + pose[5] * n2[2];
    const float rz = pose[6] * n2[0] + pose[7] * n2[1] + pose[8] * n2[2];
    return rx * n1[0] + ry * n1[1] + rz * n1[2] > 0.0f;
  }

  uint32_t count(const float* pose) const {
    const size_t n = static_cast<size_t>(pairs.size());
    uint32_t inliers = 0;
    for (size_t i = 0; i < n; ++i) inliers += (*this)(pose, i) ? 1u : 0u;
    return inliers;
  }
};

}  // namespace

void SolveThreePoints(const float* const source[3], const float* const target[3], float pose[12]) {
  const Vec3 s[3] = {Load(source[0]), Load(source[1]), Load(source[2])};
  const Vec3 d[3] = {Load(target[0]), Load(target[1]), Load(target[2])};
  const Vec3 sourceCentre = Centroid(s[0], s[1], s[2]);
  const Vec3 targetCentre = Centroid(d[0], d[1], d[2]);
  const Vec3 sourceNormal = Normalized(Cross(s[1] - s[0], s[2] - s[0]));
  const Vec3 targetNormal = Normalized(Cross(d[1] - d[0], d[2] - d[0]));

  // Turn the source plane onto the target plane, then both onto the xy plane, where only an angle
  // about z is left to find.
  const Mat3 planeToPlane = Rodrigues(Scaled(Normalized(Cross(sourceNormal, targetNormal)),
                                             std::acos(Dot(sourceNormal, targetNormal))));
  const Mat3 toXy = Rodrigues(
      Scaled(Normalized(Cross(targetNormal, Vec3{0.0f, 0.0f, 1.0f})), std::acos(targetNormal.z)));
  const Mat3 sourceToXy = Multiply(toXy, planeToPlane);
  Vec3 sp[3];
  Vec3 dp[3];
  for (int i = 0; i < 3; ++i) {
    dp[i] = Apply(toXy.data(), d[i] - targetCentre);
    sp[i] = Apply(sourceToXy.data(), s[i] - sourceCentre);
  }

  // Gauss-Newton on E(theta) = sum |rot(theta) sp_i - dp_i|^2 from the angle of the first vertex.
  float theta = std::atan2(dp[0].y, dp[0].x) - std::atan2(sp[0].y, sp[0].x);
  for (int step = 0; step < 3; ++step) {
    const float c = std::cos(theta);
    const float sn = std::sin(theta);
    float gradient = 0.0f;
    float curvature = 0.0f;
    for (int i = 0; i < 3; ++i) {
      const float ux = sp[i].x * c - sp[i].y * sn;
      const float uy = sp[i].x * sn + sp[i].y * c;
      const float px = -uy;
      const float py = ux;
      gradient += (ux - dp[i].x) * px + (uy - dp[i].y) * py;
      curvature += px * px + py * py;
    }
    theta -= gradient / curvature;
  }

  const Mat3 rotation = Multiply(Rodrigues(Scaled(targetNormal, theta)), planeToPlane);
  const Vec3 moved = Apply(rotation.data(), sourceCentre);
  std::copy(rotation.begin(), rotation.end(), pose);
  pose[9] = targetCentre.x - moved.x;
  pose[10] = targetCentre.y - moved.y;
  pose[11] = targetCentre.z - moved.z;
}

int32_t RansacMatch(const KeyPointSet& first,
                    const KeyPointSet& second,
                    const RansacParams& params,
                    bool crossCheck,
                    const Execution& exec,
                    uint32_t timeSeed,
                    double* transform,
                    std::vector<int32_t>& matches) {
  matches = MatchKeyPoints(first, second, crossCheck, exec);
  const Correspondences pairs = BuildCorrespondences(first, second, matches, true);
  const int32_t n = pairs.size();
  LogInfo("RansacMatch: %d", n);

  const InlierTest inlier{
      pairs, static_cast<float>(params.inlierDistance * params.inlierDistance), pairs.hasNormals};
  const float ratioSq = static_cast<float>(params.edgeRatio * params.edgeRatio);
  const int64_t stopCount = std::max<int64_t>((3 * static_cast<int64_t>(n)) >> 2, 6);

  // One model slot per worker, published through a best count and a best slot index. The two
  // exchanges are separate atomic steps: another worker may publish in between, in which case the
  // final classification below notices the disagreement.
  std::vector<Pose> models(static_cast<size_t>(exec.slots()), Pose{});
  std::atomic<uint32_t> bestCount{0};
  std::atomic<int32_t> bestSlot{0};

  if (n >= 3) {
    RunFor(exec, 0, params.iterations, [&](int32_t begin, int32_t end, int32_t worker) {
      if (begin >= end) return;
      LibcRandom random(static_cast<uint32_t>(worker) * 8u + timeSeed);
      std::vector<int32_t> order(static_cast<size_t>(n));
      std::iota(order.begin(), order.end(), 0);
      for (int32_t it = begin; it < end; ++it) {
        // A partial Fisher-Yates shuffle: entries 0, 1, 2 are always three distinct pairs.
        for (size_t s = 0; s < 3; ++s)
          std::swap(order[s], order[static_cast<size_t>(random.next() % n)]);
        const float* secondPoints[3];
        const float* firstPoints[3];
        for (size_t s = 0; s < 3; ++s) {
          secondPoints[s] = &pairs.second[3 * static_cast<size_t>(order[s])];
          firstPoints[s] = &pairs.first[3 * static_cast<size_t>(order[s])];
        }
        if (!EdgesAgree(secondPoints, firstPoints, ratioSq)) continue;
        Pose pose;
        SolveThreePoints(secondPoints, firstPoints, pose.data());
        const uint32_t count = inlier.count(pose.data());
        if (count > bestCount.load()) {
          models[static_cast<size_t>(worker)] = pose;
          bestCount.exchange(count);
          bestSlot.exchange(worker);
        }
        if (bestCount.load() > stopCount) break;
      }
    });
  }

  const uint32_t best = bestCount.load();
  const Pose& pose = models[static_cast<size_t>(bestSlot.load())];
  std::vector<uint8_t> flags(static_cast<size_t>(n));
  uint32_t inliers = 0;
  for (size_t i = 0; i < flags.size(); ++i) {
    flags[i] = inlier(pose.data(), i) ? 255 : 0;
    inliers += flags[i] != 0 ? 1u : 0u;
  }
  if (inliers != best) LogInfo("Match condition error.");
  PoseToMatrix(pose.data(), transform);

  size_t next = 0;
  for (int32_t& match : matches) {
    if (match != -1 && flags[next++] == 0) match = -1;
  }
  return static_cast<int32_t>(best);
}

}  // namespace qorv
