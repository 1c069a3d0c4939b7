// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "geometry/rigid_transform.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qorv {
namespace {

// 3 x 3 matrix row after row, then the translation (zero for a rotation).
struct Affine {
  float m[12];
};

Affine ToFloat(const double* values, int size) {
  Affine a{};
  for (int i = 0; i < size; ++i) a.m[i] = static_cast<float>(values[i]);
  return a;
}

bool IsIdentity(const Affine& a) {
  static const float kIdentity[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
  for (int i = 0; i < 12; ++i) {
    if (a.m[i] != kIdentity[i]) return false;
  }
  return true;
}

// Reads the point before writing it, which makes in-place use safe.
template <bool kTranslate>
inline void ApplyToPoint(const Affine& a, const float* in, float* out) {
  const float x = in[0], y = in[1], z = in[2];
  const float* m = a.m;
  float ox = m[0] * x + m[1] * y + m[2] * z;
  float oy = m[3] * x + m[4] * y + m[5] * z;
  float oz = m[6] * x + m[7] * y + m[8] * z;
  if (kTranslate) {
    ox += m[9];
    oy += m[10];
    oz += m[11];
  }
  out[0] = ox;
  out[1] = oy;
  out[2] = oz;
}

#if defined(__SSE2__)
// SSE only: every x86-64 processor has it, and multiply then add rounds exactly as the scalar
// formulas do, so vector and single-point passes agree bit for bit.
struct Lanes {
  __m128 m[12];
  explicit Lanes(const Affine& a) {
    for (int i = 0; i < 12; ++i) m[i] = _mm_set1_ps(a.m[i]);
  }
};

template <int kShuffle>
inline __m128 Shuffle(__m128 a, __m128 b) {
  return _mm_shuffle_ps(a, b, kShuffle);
}

// kGroups groups of 4 points: all are loaded and turned into x, y, z lanes before any is stored.
template <int kGroups, bool kTranslate>
inline void ApplyToGroups(const Lanes& l, const float* in, float* out) {
  __m128 xs[kGroups], ys[kGroups], zs[kGroups];
  for (int g = 0; g < kGroups; ++g) {
    // a = x0 y0 z0 x1, b = y1 z1 x2 y2, c = z2 x3 y3 z3
    const __m128 a = _mm_loadu_ps(in + 12 * g);
    const __m128 b = _mm_loadu_ps(in + 12 * g + 4);
    const __m128 c = _mm_loadu_ps(in + 12 * g + 8);
    xs[g] = Shuffle<_MM_SHUFFLE(2, 0, 3, 0)>(a, Shuffle<_MM_SHUFFLE(1, 1, 2, 2)>(b, c));
    ys[g] = Shuffle<_MM_SHUFFLE(2, 0, 2, 0)>(Shuffle<_MM_SHUFFLE(0, 0, 1, 1)>(a, b),
                                             Shuffle<_MM_SHUFFLE(2, 2, 3, 3)>(b, c));
    zs[g] = Shuffle<_MM_SHUFFLE(3, 0, 2, 0)>(Shuffle<_MM_SHUFFLE(1, 1, 2, 2)>(a, b), c);
  }
  for (int g = 0; g < kGroups; ++g) {
    const auto row = [&](int r) {
      const __m128 sum =
          _mm_add_ps(_mm_add_ps(_mm_mul_ps(l.m[3 * r], xs[g]), _mm_mul_ps(l.m[3 * r + 1], ys[g])),
                     _mm_mul_ps(l.m[3 * r + 2], zs[g]));
      return kTranslate ? _mm_add_ps(sum, l.m[9 + r]) : sum;
    };
    const __m128 x = row(0), y = row(1), z = row(2);
    const __m128 xxyy = Shuffle<_MM_SHUFFLE(0, 0, 0, 0)>(x, y);
    const __m128 zzxx = Shuffle<_MM_SHUFFLE(1, 1, 0, 0)>(z, x);
    const __m128 yyzz = Shuffle<_MM_SHUFFLE(1, 1, 1, 1)>(y, z);
    const __m128 xxyy2 = Shuffle<_MM_SHUFFLE(2, 2, 2, 2)>(x, y);
    const __m128 zzxx3 = Shuffle<_MM_SHUFFLE(3, 3, 2, 2)>(z, x);
    const __m128 yyzz3 = Shuffle<_MM_SHUFFLE(3, 3, 3, 3)>(y, z);
    _mm_storeu_ps(out + 12 * g, Shuffle<_MM_SHUFFLE(2, 0, 2, 0)>(xxyy, zzxx));
    _mm_storeu_ps(out + 12 * g + 4, Shuffle<_MM_SHUFFLE(2, 0, 2, 0)>(yyzz, xxyy2));
    _mm_storeu_ps(out + 12 * g + 8, Shuffle<_MM_SHUFFLE(2, 0, 2, 0)>(zzxx3, yyzz3));
  }
}
#endif

template <bool kTranslate>
void Apply(const Affine& a, const float* in, float* out, int64_t count) {
  int64_t i = 0;
#if defined(__SSE2__)
  const Lanes lanes(a);
  for (; i + 8 <= count; i += 8) ApplyToGroups<2, kTranslate>(lanes, in + 3 * i, out + 3 * i);
  for (; i + 4 <= count; i += 4) ApplyToGroups<1, kTranslate>(lanes, in + 3 * i, out + 3 * i);
#endif
  for (; i < count; ++i) ApplyToPoint<kTranslate>(a, in + 3 * i, out + 3 * i);
}

}  // namespace

void RotatePoints(const double* rotation, const float* pointsIn, float* pointsOut, int64_t count) {
  const Affine a = ToFloat(rotation, 9);
  if (pointsIn == pointsOut && IsIdentity(a)) return;
  Apply<false>(a, pointsIn, pointsOut, count);
}

void TransformPoints(const double* transform,
                     const float* pointsIn,
                     float* pointsOut,
                     int64_t count) {
  const Affine a = ToFloat(transform, 12);
  if (pointsIn == pointsOut && IsIdentity(a)) return;
  Apply<true>(a, pointsIn, pointsOut, count);
}

}  // namespace qorv
