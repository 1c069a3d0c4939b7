// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Every export on arguments decoded from arbitrary bytes: clouds of any floats (NaN, infinities,
// extremes, duplicates, degenerate shapes), any counts consistent with the arrays, any radii,
// windows, k, iteration counts and settings. The fuzzer owns every array and allocates it at
// exactly the documented size, so AddressSanitizer sees any access outside it. Each call must
// return one of its documented codes, leave its outputs untouched when a check fails, hand
// callbacks arrays that are readable at the size announced and whose indices lie in range, and,
// where the instance's thread setting is consulted, give the same bits with it on and off.
#include <algorithm>
#include <cfloat>
#include <cinttypes>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <qorv/qorv.h>

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

namespace {

[[noreturn]] void Fail(const char* what, const char* detail) {
  std::fprintf(stderr, "exports_fuzz: %s: %s\n", what, detail);
  std::fflush(stderr);
  __builtin_trap();
}

void Check(bool ok, const char* what, const char* detail) {
  if (!ok) Fail(what, detail);
}

void ExpectCode(QorvResult got, QorvResult expected, const char* what) {
  if (got != expected) {
    char detail[64];
    std::snprintf(detail, sizeof detail, "returned %d, expected %d", got, expected);
    Fail(what, detail);
  }
}

// ---- Arrays at exactly the documented size
// --------------------------------------------------------

constexpr unsigned char kFill = 0xA5;

// A heap array of n elements, nothing more, filled with a recognisable pattern.
template <typename T>
class Array {
 public:
  explicit Array(size_t n) : size_(n), data_(new T[n > 0 ? n : 1]) {
    std::memset(static_cast<void*>(data_.get()), kFill, bytes());
  }
  Array(const T* src, size_t n) : Array(n) {
    if (n > 0) std::memcpy(static_cast<void*>(data_.get()), src, bytes());
  }
  T* get() { return data_.get(); }
  const T* get() const { return data_.get(); }
  size_t size() const { return size_; }
  size_t bytes() const { return size_ * sizeof(T); }
  bool untouched() const {
    const auto* p = reinterpret_cast<const unsigned char*>(data_.get());
    for (size_t i = 0; i < bytes(); ++i) {
      if (p[i] != kFill) return false;
    }
    return true;
  }
  bool sameBits(const Array& other) const {
    return size_ == other.size_ && std::memcmp(data_.get(), other.data_.get(), bytes()) == 0;
  }

 private:
  size_t size_;
  std::unique_ptr<T[]> data_;
};

// ---- Values
// ---------------------------------------------------------------------------------------

// Deterministic generator for shapes built from a few fuzzer bytes.
struct Lcg {
  uint32_t state;
  float unit() {  // [0, 1)
    state = state * 1664525u + 1013904223u;
    return static_cast<float>(state >> 8) * (1.0f / 16777216.0f);
  }
};

float SpecialFloat(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange<int>(0, 13)) {
    case 0:
      return NAN;
    case 1:
      return INFINITY;
    case 2:
      return -INFINITY;
    case 3:
      return 0.0f;
    case 4:
      return -0.0f;
    case 5:
      return FLT_MAX;
    case 6:
      return -FLT_MAX;
    case 7:
      return FLT_MIN;
    case 8:
      return std::numeric_limits<float>::denorm_min();
    case 9:
      return 1e-30f;
    case 10:
      return 1e30f;
    case 11:
      return 1e19f;
    case 12: {
      const uint32_t bits = in.ConsumeIntegral<uint32_t>();
      float f;
      std::memcpy(&f, &bits, sizeof f);
      return f;
    }
    default:
      return static_cast<float>(in.ConsumeIntegralInRange<int>(-4, 4));
  }
}

// Mostly ordinary values in [lo, hi], sometimes anything at all.
float SomeFloat(FuzzedDataProvider& in, float lo, float hi) {
  if (in.ConsumeIntegralInRange<int>(0, 7) == 0) return SpecialFloat(in);
  return in.ConsumeFloatingPointInRange<float>(lo, hi);
}

double SomeDouble(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange<int>(0, 9)) {
    case 0:
      return static_cast<double>(SpecialFloat(in));
    case 1:
      return 1e300;
    case 2:
      return -1e300;
    case 3:
      return std::numeric_limits<double>::denorm_min();
    default:
      return in.ConsumeFloatingPointInRange<double>(-2.0, 2.0);
  }
}

// Mostly in [lo, hi], sometimes an extreme.
int32_t SomeInt(FuzzedDataProvider& in, int32_t lo, int32_t hi) {
  switch (in.ConsumeIntegralInRange<int>(0, 15)) {
    case 0:
      return INT32_MAX;
    case 1:
      return INT32_MIN;
    case 2:
      return in.ConsumeIntegral<int32_t>();
    case 3:
      return -1;
    case 4:
      return 0;
    default:
      return in.ConsumeIntegralInRange<int32_t>(lo, hi);
  }
}

int32_t SomeCount(FuzzedDataProvider& in) {
  return in.ConsumeIntegralInRange<int>(0, 7) == 0 ? in.ConsumeIntegralInRange<int32_t>(1, 200)
                                                   : in.ConsumeIntegralInRange<int32_t>(1, 40);
}

// count points: a shape (chaos, plane grid, sphere, one repeated point, a line, a slab) of spacing
// about 0.1, then a few coordinates overwritten by special values and a few points duplicated.
std::vector<float> SomeCloud(FuzzedDataProvider& in, int32_t count) {
  std::vector<float> p(static_cast<size_t>(count) * 3);
  const int shape = in.ConsumeIntegralInRange<int>(0, 5);
  Lcg rng{in.ConsumeIntegral<uint32_t>()};
  const float jitter = in.ConsumeBool() ? 0.0f : 0.01f;
  const int side = std::max(1, static_cast<int>(std::sqrt(static_cast<float>(count))));
  const float a = SpecialFloat(in), b = SpecialFloat(in), c = SpecialFloat(in);
  for (int32_t i = 0; i < count; ++i) {
    float* q = &p[static_cast<size_t>(i) * 3];
    switch (shape) {
      case 0:
        for (int d = 0; d < 3; ++d) q[d] = SomeFloat(in, -1.0f, 1.0f);
        break;
      case 1:
        q[0] = 0.1f * static_cast<float>(i % side);
        q[1] = 0.1f * static_cast<float>(i / side);
        q[2] = 0.0f;
        break;
      case 2: {
        const float u = 6.2831853f * rng.unit(), v = std::acos(2.0f * rng.unit() - 1.0f);
        q[0] = std::sin(v) * std::cos(u);
        q[1] = std::sin(v) * std::sin(u);
        q[2] = std::cos(v);
        break;
      }
      case 3:
        q[0] = a;
        q[1] = b;
        q[2] = c;
        break;
      case 4:
        q[0] = 0.1f * static_cast<float>(i);
        q[1] = 0.05f * static_cast<float>(i);
        q[2] = -0.02f * static_cast<float>(i);
        break;
      default:
        q[0] = rng.unit();
        q[1] = rng.unit();
        q[2] = 0.1f * rng.unit();
        break;
    }
    for (int d = 0; d < 3; ++d) q[d] += jitter * (rng.unit() - 0.5f);
  }
  const int specials = in.ConsumeIntegralInRange<int>(0, 3);
  for (int s = 0; s < specials; ++s) {
    p[in.ConsumeIntegralInRange<size_t>(0, p.size() - 1)] = SpecialFloat(in);
  }
  const int duplicates = in.ConsumeIntegralInRange<int>(0, 2);
  for (int s = 0; s < duplicates; ++s) {
    const auto from = in.ConsumeIntegralInRange<size_t>(0, static_cast<size_t>(count) - 1);
    const auto to = in.ConsumeIntegralInRange<size_t>(0, static_cast<size_t>(count) - 1);
    std::memcpy(&p[to * 3], &p[from * 3], 3 * sizeof(float));
  }
  return p;
}

// Unit-ish normals, some zero, some NaN or flipped.
std::vector<float> SomeNormals(FuzzedDataProvider& in, int32_t count) {
  std::vector<float> n(static_cast<size_t>(count) * 3, 0.0f);
  Lcg rng{in.ConsumeIntegral<uint32_t>()};
  const bool chaos = in.ConsumeIntegralInRange<int>(0, 3) == 0;
  for (size_t i = 0; i < n.size(); i += 3) {
    if (chaos) {
      for (int d = 0; d < 3; ++d) n[i + d] = SomeFloat(in, -1.0f, 1.0f);
    } else {
      n[i] = 0.2f * (rng.unit() - 0.5f);
      n[i + 1] = 0.2f * (rng.unit() - 0.5f);
      n[i + 2] = rng.unit() < 0.9f ? 1.0f : -1.0f;
    }
  }
  return n;
}

std::vector<float> SomeDescriptors(FuzzedDataProvider& in, int32_t count) {
  std::vector<float> d(static_cast<size_t>(count) * 33);
  Lcg rng{in.ConsumeIntegral<uint32_t>()};
  const int levels = in.ConsumeIntegralInRange<int>(1, 4);  // few levels: ties and duplicates
  for (float& v : d) v = std::floor(rng.unit() * static_cast<float>(levels)) * 10.0f;
  const int specials = in.ConsumeIntegralInRange<int>(0, 2);
  for (int s = 0; s < specials; ++s)
    d[in.ConsumeIntegralInRange<size_t>(0, d.size() - 1)] = SpecialFloat(in);
  return d;
}

// ---- Callbacks that record what they receive and read all of it
// -----------------------------------

struct IndexRecord {
  int32_t calls = 0;
  int32_t pointCount = 0;  // indices must lie below this
  std::vector<int32_t> indices;
};

void OnIndices(const int32_t* indices, int32_t count, void* user) {
  auto* rec = static_cast<IndexRecord*>(user);
  ++rec->calls;
  Check(count >= 0 && count <= rec->pointCount, "index callback", "count out of range");
  Check(count == 0 || indices != nullptr, "index callback", "null indices");
  rec->indices.assign(indices, indices + count);
  for (int32_t i = 0; i < count; ++i) {
    Check(indices[i] >= 0 && indices[i] < rec->pointCount, "index callback", "index out of range");
    Check(i == 0 || indices[i] > indices[i - 1], "index callback", "indices not ascending");
  }
}

struct KeyPointRecord {
  int32_t calls = 0;
  int64_t maxCount = 0;
  std::vector<float> descriptors, positions, normals;
};

void OnKeyPoints(const QorvKeyPointResult* result, void* user) {
  auto* rec = static_cast<KeyPointRecord*>(user);
  ++rec->calls;
  Check(result != nullptr, "key-point callback", "null record");
  Check(result->count >= 0 && result->count <= rec->maxCount, "key-point callback", "count");
  Check(result->reserved == 0, "key-point callback", "reserved is not 0");
  const auto n = static_cast<size_t>(result->count);
  if (n > 0) {
    Check(
        result->descriptors && result->positions && result->normals, "key-point callback", "null");
    rec->descriptors.assign(result->descriptors, result->descriptors + n * 33);
    rec->positions.assign(result->positions, result->positions + n * 3);
    rec->normals.assign(result->normals, result->normals + n * 3);
  }
}

struct MatchRecord {
  int32_t calls = 0;
  uint32_t firstCount = 0;    // indexInFirst lies below this (0: not checked)
  uint32_t secondCount = 0;   // indexInSecond lies below this (0: not checked)
  bool allowMissing = false;  // RANSAC may fill missing entries with all bits set
  std::vector<QorvMatchPair> pairs;
};

void OnMatches(const QorvMatchPair* pairs, uint32_t count, void* user) {
  auto* rec = static_cast<MatchRecord*>(user);
  ++rec->calls;
  Check((count == 0) == (pairs == nullptr), "match callback", "pairs null iff count 0");
  if (rec->secondCount > 0) Check(count <= rec->secondCount, "match callback", "count");
  if (count == 0) return;
  rec->pairs.assign(pairs, pairs + count);
  for (uint32_t i = 0; i < count; ++i) {
    const QorvMatchPair& p = pairs[i];
    if (rec->allowMissing && p.indexInSecond == UINT32_MAX && p.indexInFirst == UINT32_MAX)
      continue;
    if (rec->secondCount > 0) Check(p.indexInSecond < rec->secondCount, "match callback", "second");
    if (rec->firstCount > 0) Check(p.indexInFirst < rec->firstCount, "match callback", "first");
    Check(i == 0 || p.indexInSecond > pairs[i - 1].indexInSecond, "match callback", "order");
  }
}

int32_t OnAsc(const float* points,
              const float* normals,
              const unsigned char* colours,
              int64_t count,
              void* user) {
  auto* sum = static_cast<double*>(user);
  Check(count >= 1 && points != nullptr, "ASC callback", "no points");
  const auto n = static_cast<size_t>(count);
  for (size_t i = 0; i < n * 3; ++i) *sum += points[i] == points[i] ? 0.0 : 1.0;
  if (normals != nullptr) {
    for (size_t i = 0; i < n * 3; ++i) *sum += normals[i] == normals[i] ? 0.0 : 1.0;
  }
  if (colours != nullptr) {
    Check(normals != nullptr, "ASC callback", "colours without normals");
    for (size_t i = 0; i < n * 3; ++i) *sum += colours[i];
  }
  return 0;
}

// ---- The fuzzing context
// --------------------------------------------------------------------------

struct Instances {
  QorvInstance* serial = nullptr;
  QorvInstance* parallel = nullptr;
  Instances() {
    ExpectCode(QorvCreateInstance(&serial), QORV_OK, "QorvCreateInstance");
    ExpectCode(QorvCreateInstance(&parallel), QORV_OK, "QorvCreateInstance");
    ExpectCode(QorvEnableMultiThread(parallel), QORV_OK, "QorvEnableMultiThread");
  }
  ~Instances() {
    ExpectCode(QorvDestroyInstance(serial), QORV_OK, "QorvDestroyInstance");
    ExpectCode(QorvDestroyInstance(parallel), QORV_OK, "QorvDestroyInstance");
  }
  void crossCheck(bool on) {
    for (QorvInstance* inst : {serial, parallel}) {
      ExpectCode(
          on ? QorvEnableCrossCheck(inst) : QorvDisableCrossCheck(inst), QORV_OK, "cross check");
    }
  }
};

std::string& AscPath() {
  static std::string path = "/tmp/qorv_exports_fuzz_" + std::to_string(getpid()) + ".asc";
  return path;
}

// Which argument a call breaks: -1 none (most of the time), else the index of a checked argument.
int Breaker(FuzzedDataProvider& in, int checkedArguments) {
  const int pick = in.ConsumeIntegralInRange<int>(0, 4 * checkedArguments + 8);
  return pick < checkedArguments ? pick : -1;
}

// A count or size that every check refuses.
int32_t BadCount(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange<int>(0, 2)) {
    case 0:
      return 0;
    case 1:
      return -1;
    default:
      return INT32_MIN;
  }
}

bool SameFloats(const std::vector<float>& x, const std::vector<float>& y) {
  return x.size() == y.size() &&
         (x.empty() || std::memcmp(x.data(), y.data(), x.size() * sizeof(float)) == 0);
}

// ---- One function per export or export family
// -----------------------------------------------------

void FuzzSettings(FuzzedDataProvider& in, Instances& inst) {
  const int32_t n = in.ConsumeIntegral<int32_t>();
  ExpectCode(QorvSetMatchNeighborNum(inst.serial, n),
             n < 0 ? QORV_ERROR_INVALID_ARGUMENT : QORV_OK,
             "QorvSetMatchNeighborNum");
  int32_t got = -7;
  ExpectCode(QorvGetMatchNeighborNum(inst.serial, &got), QORV_OK, "QorvGetMatchNeighborNum");
  if (n >= 0) Check(got == n, "QorvGetMatchNeighborNum", "value not kept");
  ExpectCode(QorvSetMatchNeighborNum(nullptr, n),
             n < 0 ? QORV_ERROR_INVALID_ARGUMENT : QORV_ERROR_NULL_INSTANCE,
             "QorvSetMatchNeighborNum(null)");
  ExpectCode(QorvGetMatchNeighborNum(nullptr, nullptr),
             QORV_ERROR_INVALID_ARGUMENT,
             "QorvGetMatchNeighborNum");
  ExpectCode(
      QorvGetMatchNeighborNum(nullptr, &got), QORV_ERROR_NULL_INSTANCE, "QorvGetMatchNeighborNum");
  for (auto* fn : {QorvEnableCrossCheck,
                   QorvDisableCrossCheck,
                   QorvEnableMultiThread,
                   QorvDisableMultiThread}) {
    ExpectCode(fn(nullptr), QORV_ERROR_NULL_INSTANCE, "settings(null)");
  }
  ExpectCode(QorvCreateInstance(nullptr), QORV_ERROR_INVALID_ARGUMENT, "QorvCreateInstance(null)");
  ExpectCode(QorvDestroyInstance(nullptr), QORV_OK, "QorvDestroyInstance(null)");
  Check(std::strcmp(QorvVersion(), QORV_VERSION_TEXT) == 0, "QorvVersion", "text");
}

void FuzzAsc(FuzzedDataProvider& in, Instances& inst) {
  const std::string& path = AscPath();
  double sink = 0.0;
  switch (in.ConsumeIntegralInRange<int>(0, 3)) {
    case 0: {  // written by the library, read back
      const int32_t n = SomeCount(in);
      const Array<float> points(SomeCloud(in, n).data(), static_cast<size_t>(n) * 3);
      const Array<float> normals(SomeNormals(in, n).data(), static_cast<size_t>(n) * 3);
      Array<unsigned char> colours(static_cast<size_t>(n) * 3);
      for (size_t i = 0; i < colours.size(); ++i)
        colours.get()[i] = in.ConsumeIntegral<unsigned char>();
      const bool withNormals = in.ConsumeBool(), withColours = in.ConsumeBool();
      ExpectCode(QorvWritePointsToASC(inst.serial,
                                      path.c_str(),
                                      points.get(),
                                      withNormals ? normals.get() : nullptr,
                                      withColours ? colours.get() : nullptr,
                                      n),
                 QORV_OK,
                 "QorvWritePointsToASC");
      const QorvResult r = QorvReadPointsFromASC(inst.serial, path.c_str(), OnAsc, &sink);
      Check(r == QORV_OK || r == QORV_ERROR_FILE, "QorvReadPointsFromASC", "code");
      break;
    }
    case 1: {  // any bytes in the file
      const std::string text = in.ConsumeRandomLengthString(4096);
      FILE* f = std::fopen(path.c_str(), "wb");
      if (f == nullptr) return;
      std::fwrite(text.data(), 1, text.size(), f);
      std::fclose(f);
      const QorvResult r = QorvReadPointsFromASC(
          inst.serial, path.c_str(), in.ConsumeBool() ? OnAsc : nullptr, &sink);
      Check(r == QORV_OK || r == QORV_ERROR_FILE, "QorvReadPointsFromASC", "code");
      break;
    }
    case 2: {  // paths that cannot be read or written
      ExpectCode(QorvReadPointsFromASC(inst.serial, nullptr, OnAsc, &sink),
                 QORV_ERROR_FILE,
                 "read(null path)");
      ExpectCode(QorvReadPointsFromASC(inst.serial, "/nonexistent/qorv.asc", OnAsc, &sink),
                 QORV_ERROR_FILE,
                 "read(missing)");
      ExpectCode(QorvReadPointsFromASC(inst.serial, "/tmp", OnAsc, &sink),
                 QORV_ERROR_FILE,
                 "read(directory)");
      const float p[3] = {1, 2, 3};
      ExpectCode(QorvWritePointsToASC(inst.serial, nullptr, p, nullptr, nullptr, 1),
                 QORV_ERROR_FILE,
                 "write(null)");
      ExpectCode(QorvWritePointsToASC(inst.serial, "/nonexistent/qorv.asc", p, nullptr, nullptr, 1),
                 QORV_ERROR_FILE,
                 "write(missing dir)");
      break;
    }
    default: {  // checks
      const float p[3] = {1, 2, 3};
      ExpectCode(QorvReadPointsFromASC(nullptr, path.c_str(), OnAsc, &sink),
                 QORV_ERROR_NULL_INSTANCE,
                 "read");
      ExpectCode(QorvWritePointsToASC(nullptr, nullptr, nullptr, nullptr, nullptr, 0),
                 QORV_ERROR_NULL_INSTANCE,
                 "write");
      ExpectCode(QorvWritePointsToASC(inst.serial, path.c_str(), nullptr, p, nullptr, 1),
                 QORV_ERROR_INVALID_ARGUMENT,
                 "write(null points)");
      ExpectCode(QorvWritePointsToASC(inst.serial, path.c_str(), p, nullptr, nullptr, BadCount(in)),
                 QORV_ERROR_INVALID_ARGUMENT,
                 "write(bad n)");
      break;
    }
  }
}

void FuzzRigid(FuzzedDataProvider& in, Instances& inst) {
  const int32_t n = SomeCount(in);
  const size_t len = static_cast<size_t>(n) * 3;
  const Array<float> a(SomeCloud(in, n).data(), len);
  const Array<float> b(SomeCloud(in, n).data(), len);
  Array<double> matrix(12);
  const bool identity = in.ConsumeBool();
  for (int i = 0; i < 12; ++i)
    matrix.get()[i] = identity ? (i % 4 == 0 ? 1.0 : 0.0) : SomeDouble(in);
  const int breaker = Breaker(in, 4);
  const QorvResult expected = breaker < 0 ? QORV_OK : QORV_ERROR_INVALID_ARGUMENT;

  switch (in.ConsumeIntegralInRange<int>(0, 2)) {
    case 0:
    case 1: {
      const bool rotate = in.ConsumeBool();
      auto call =
          [&](QorvInstance* h, const double* m, const float* src, float* dst, int32_t count) {
            return rotate ? QorvRotatePoints(h, m, src, dst, count)
                          : QorvTransformPoints(h, m, src, dst, count);
          };
      Array<float> out(len);
      ExpectCode(
          call(nullptr, nullptr, nullptr, nullptr, 0), QORV_ERROR_NULL_INSTANCE, "rigid(null)");
      const QorvResult r = call(inst.serial,
                                breaker == 0 ? nullptr : matrix.get(),
                                breaker == 1 ? nullptr : a.get(),
                                breaker == 2 ? nullptr : out.get(),
                                breaker == 3 ? BadCount(in) : n);
      ExpectCode(r, expected, rotate ? "QorvRotatePoints" : "QorvTransformPoints");
      if (r != QORV_OK) {
        Check(out.untouched(), "rigid", "output written on a failed check");
        return;
      }
      // In place gives the same bits as out of place, except that an identity rotation applied in
      // place leaves the array as it is (-0 and infinities included).
      Array<float> inPlace(a.get(), len);
      ExpectCode(call(inst.parallel, matrix.get(), inPlace.get(), inPlace.get(), n),
                 QORV_OK,
                 "rigid in place");
      Check(identity || inPlace.sameBits(out), "rigid", "in place differs from out of place");
      break;
    }
    default: {
      Array<double> out(12);
      ExpectCode(QorvAbsoluteOrientation(nullptr, nullptr, nullptr, 0, nullptr),
                 QORV_ERROR_NULL_INSTANCE,
                 "AO");
      const QorvResult r = QorvAbsoluteOrientation(inst.serial,
                                                   breaker == 2 ? nullptr : a.get(),
                                                   breaker == 1 ? nullptr : b.get(),
                                                   breaker == 3 ? BadCount(in) : n,
                                                   breaker == 0 ? nullptr : out.get());
      ExpectCode(r, expected, "QorvAbsoluteOrientation");
      if (r != QORV_OK) {
        Check(out.untouched(), "QorvAbsoluteOrientation", "output written on a failed check");
        return;
      }
      Array<double> other(12);
      ExpectCode(
          QorvAbsoluteOrientation(inst.parallel, a.get(), b.get(), n, other.get()), QORV_OK, "AO");
      Check(out.sameBits(other), "QorvAbsoluteOrientation", "threading changed the result");
      break;
    }
  }
}

void FuzzNormals(FuzzedDataProvider& in, Instances& inst) {
  const int32_t n = SomeCount(in);
  const size_t len = static_cast<size_t>(n) * 3;
  const Array<float> points(SomeCloud(in, n).data(), len);
  const std::vector<float> given = SomeNormals(in, n);
  const float radius = SomeFloat(in, 0.0f, 0.5f);
  const bool re = in.ConsumeBool();
  const int breaker = Breaker(in, re ? 4 : 3);
  const int32_t orient = SomeInt(in, -5, 50);

  auto run = [&](QorvInstance* h, Array<float>& normals) {
    if (re) {
      return QorvReComputeNormals(h,
                                  breaker == 0 ? nullptr : points.get(),
                                  breaker == 1 ? nullptr : normals.get(),
                                  breaker == 2 ? 0 : n,
                                  breaker == 3 ? -std::fabs(radius) : radius);
    }
    return QorvComputeNormals(h,
                              breaker == 0 ? nullptr : points.get(),
                              breaker == 1 ? nullptr : normals.get(),
                              breaker == 2 ? -1 : n,
                              orient,
                              radius);
  };
  Array<float> serial(given.data(), len), parallel(given.data(), len);
  const Array<float> before(given.data(), len);
  const char* name = re ? "QorvReComputeNormals" : "QorvComputeNormals";
  ExpectCode(run(nullptr, serial), QORV_ERROR_NULL_INSTANCE, name);
  const QorvResult r = run(inst.serial, serial);
  const bool valid = breaker < 0 && (!re || radius > 0.0f);
  ExpectCode(r, valid ? QORV_OK : QORV_ERROR_INVALID_ARGUMENT, name);
  if (r != QORV_OK) {
    Check(serial.sameBits(before), name, "output written on a failed check");
    return;
  }
  ExpectCode(run(inst.parallel, parallel), QORV_OK, name);
  Check(serial.sameBits(parallel), name, "threading changed the result");
}

void FuzzIndexFilters(FuzzedDataProvider& in, Instances& inst) {
  const int32_t n = SomeCount(in);
  const Array<float> points(SomeCloud(in, n).data(), static_cast<size_t>(n) * 3);
  const int which = in.ConsumeIntegralInRange<int>(0, 2);
  const float length = SomeFloat(in, 0.0f, 0.6f);
  const int32_t meanK = SomeInt(in, 1, 60);
  const float stdMul = SomeFloat(in, -1.0f, 4.0f);
  const int breaker = Breaker(in, 3);
  const bool withCallback = in.ConsumeIntegralInRange<int>(0, 9) != 0;

  auto run = [&](QorvInstance* h, IndexRecord& rec) {
    rec.pointCount = n;
    const float* p = breaker == 0 ? nullptr : points.get();
    const int32_t count = breaker == 1 ? BadCount(in) : n;
    QorvIndexCallback cb = withCallback ? OnIndices : nullptr;
    switch (which) {
      case 0:
        return QorvVoxelFilter(h, p, count, length, cb, &rec);
      case 1:
        return QorvSORFilter(
            h, p, count, breaker == 2 ? (meanK < 1 ? meanK : 0) : meanK, stdMul, cb, &rec);
      default:
        return QorvEdgeFilter(h, p, count, breaker == 2 ? -std::fabs(length) : length, cb, &rec);
    }
  };
  static const char* const kNames[] = {"QorvVoxelFilter", "QorvSORFilter", "QorvEdgeFilter"};
  const char* name = kNames[which];
  IndexRecord serial, parallel;
  ExpectCode(run(nullptr, serial), QORV_ERROR_NULL_INSTANCE, name);
  bool valid = breaker < 0 || (which == 0 && breaker == 2);
  if (which == 1 && meanK < 1) valid = false;
  if (which == 2 && !(length > 0.0f)) valid = false;
  const QorvResult r = run(inst.serial, serial);
  ExpectCode(r, valid ? QORV_OK : QORV_ERROR_INVALID_ARGUMENT, name);
  Check(serial.calls == (r == QORV_OK && withCallback ? 1 : 0), name, "callback calls");
  if (r != QORV_OK) return;
  ExpectCode(run(inst.parallel, parallel), QORV_OK, name);
  Check(serial.indices == parallel.indices, name, "threading changed the result");
}

void FuzzGaussian(FuzzedDataProvider& in, Instances& inst) {
  const int32_t n = SomeCount(in);
  const size_t len = static_cast<size_t>(n) * 3;
  const std::vector<float> cloud = SomeCloud(in, n);
  const float radius = SomeFloat(in, 0.0f, 0.5f);
  const int breaker = Breaker(in, 4);
  const char* name = "QorvGaussianFilter";
  if (breaker == 3) {  // output overlapping the input, anywhere in one allocation
    const auto shift = in.ConsumeIntegralInRange<size_t>(0, len - 1);
    const bool outputFirst = in.ConsumeBool();
    Array<float> shared(len + shift);
    std::memcpy(shared.get() + (outputFirst ? shift : 0), cloud.data(), len * sizeof(float));
    float* src = shared.get() + (outputFirst ? shift : 0);
    float* dst = shared.get() + (outputFirst ? 0 : shift);
    const Array<float> before(shared.get(), shared.size());
    ExpectCode(
        QorvGaussianFilter(inst.serial, src, dst, n, radius), QORV_ERROR_INVALID_ARGUMENT, name);
    Check(shared.sameBits(before), name, "written on a failed check");
    return;
  }
  const Array<float> points(cloud.data(), len);
  Array<float> serial(len), parallel(len);
  ExpectCode(QorvGaussianFilter(nullptr, points.get(), serial.get(), n, radius),
             QORV_ERROR_NULL_INSTANCE,
             name);
  const QorvResult r = QorvGaussianFilter(inst.serial,
                                          breaker == 0 ? nullptr : points.get(),
                                          breaker == 1 ? nullptr : serial.get(),
                                          breaker == 2 ? BadCount(in) : n,
                                          radius);
  ExpectCode(r, breaker < 0 ? QORV_OK : QORV_ERROR_INVALID_ARGUMENT, name);
  if (r != QORV_OK) {
    Check(serial.untouched(), name, "output written on a failed check");
    return;
  }
  ExpectCode(
      QorvGaussianFilter(inst.parallel, points.get(), parallel.get(), n, radius), QORV_OK, name);
  Check(serial.sameBits(parallel), name, "threading changed the result");
}

void FuzzCheckDistance(FuzzedDataProvider& in, Instances& inst) {
  const int32_t n = SomeCount(in);
  const Array<float> points(SomeCloud(in, n).data(), static_cast<size_t>(n) * 3);
  const int32_t k = SomeInt(in, 1, n + 2);
  const int breaker = Breaker(in, 3);
  const char* name = "QorvCheckDistance";
  Array<float> serial(1), parallel(1);
  ExpectCode(
      QorvCheckDistance(nullptr, points.get(), n, k, serial.get()), QORV_ERROR_NULL_INSTANCE, name);
  const QorvResult r = QorvCheckDistance(inst.serial,
                                         breaker == 0 ? nullptr : points.get(),
                                         breaker == 1 ? 0 : n,
                                         k,
                                         breaker == 2 ? nullptr : serial.get());
  ExpectCode(r, breaker < 0 && k >= 1 ? QORV_OK : QORV_ERROR_INVALID_ARGUMENT, name);
  if (r != QORV_OK) {
    Check(serial.untouched(), name, "output written on a failed check");
    return;
  }
  ExpectCode(QorvCheckDistance(inst.parallel, points.get(), n, k, parallel.get()), QORV_OK, name);
  Check(serial.sameBits(parallel), name, "threading changed the result");
}

// The key-point exports' shared contract: a null handle first, then either the expected argument
// error or a result whose callback ran once, and the same bits from the multi-threaded instance.
template <typename Run>
void CheckKeyPointExport(
    Run&& run, Instances& inst, const char* name, bool valid, bool withCallback) {
  KeyPointRecord serial, parallel;
  ExpectCode(run(nullptr, serial), QORV_ERROR_NULL_INSTANCE, name);
  const QorvResult r = run(inst.serial, serial);
  ExpectCode(r, valid ? QORV_OK : QORV_ERROR_INVALID_ARGUMENT, name);
  Check(serial.calls == (r == QORV_OK && withCallback ? 1 : 0), name, "callback calls");
  if (r != QORV_OK) return;
  ExpectCode(run(inst.parallel, parallel), QORV_OK, name);
  Check(SameFloats(serial.positions, parallel.positions) &&
            SameFloats(serial.normals, parallel.normals) &&
            SameFloats(serial.descriptors, parallel.descriptors),
        name,
        "threading changed the result");
}

void FuzzDetectAndCompute(FuzzedDataProvider& in, Instances& inst) {
  const int32_t n = SomeCount(in);
  const size_t len = static_cast<size_t>(n) * 3;
  const Array<float> points(SomeCloud(in, n).data(), len);
  const Array<float> normals(SomeNormals(in, n).data(), len);
  float radii[4];
  for (float& r : radii) r = SomeFloat(in, 0.0f, 0.6f);
  const float ratio21 = SomeFloat(in, 0.0f, 1.2f), ratio32 = SomeFloat(in, 0.0f, 1.2f);
  const int32_t maxKeyPoints = SomeInt(in, -2, 20);
  const int breaker = Breaker(in, 3);
  const bool withCallback = in.ConsumeIntegralInRange<int>(0, 9) != 0;
  const char* name = "QorvDetectAndCompute";
  auto run = [&](QorvInstance* h, KeyPointRecord& rec) {
    rec.maxCount = n;
    return QorvDetectAndCompute(h,
                                breaker == 0 ? nullptr : points.get(),
                                breaker == 1 ? nullptr : normals.get(),
                                breaker == 2 ? BadCount(in) : n,
                                radii[0],
                                radii[1],
                                radii[2],
                                radii[3],
                                ratio21,
                                ratio32,
                                maxKeyPoints,
                                withCallback ? OnKeyPoints : nullptr,
                                &rec);
  };
  CheckKeyPointExport(run, inst, name, breaker < 0, withCallback);
}

// Vertex and normal maps: from a depth image through the library, or any floats.
void FuzzDepth(FuzzedDataProvider& in, Instances& inst) {
  const int32_t width = in.ConsumeIntegralInRange<int32_t>(1, 20);
  const int32_t height = in.ConsumeIntegralInRange<int32_t>(1, 20);
  const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
  Array<double> camera(9);
  const bool plausible = in.ConsumeBool();
  for (int i = 0; i < 9; ++i) camera.get()[i] = SomeDouble(in);
  if (plausible) {
    camera.get()[0] = camera.get()[4] = in.ConsumeFloatingPointInRange<double>(5.0, 50.0);
    camera.get()[2] = width / 2.0;
    camera.get()[5] = height / 2.0;
  }
  Array<float> depth(pixels);
  Lcg rng{in.ConsumeIntegral<uint32_t>()};
  const float base = SomeFloat(in, 0.5f, 3.0f);
  for (size_t i = 0; i < pixels; ++i) depth.get()[i] = base + 0.05f * rng.unit();
  const int specials = in.ConsumeIntegralInRange<int>(0, 4);
  for (int s = 0; s < specials; ++s)
    depth.get()[in.ConsumeIntegralInRange<size_t>(0, pixels - 1)] = SpecialFloat(in);

  Array<float> vertex(pixels * 3), normal(pixels * 3);
  Array<unsigned char> mask(pixels);
  const bool withNormals = in.ConsumeBool(), withMask = in.ConsumeBool();
  const int breaker = Breaker(in, 5);
  const char* name = "QorvDepthToVmapNmap";
  ExpectCode(QorvDepthToVmapNmap(nullptr,
                                 camera.get(),
                                 depth.get(),
                                 vertex.get(),
                                 normal.get(),
                                 mask.get(),
                                 width,
                                 height),
             QORV_ERROR_NULL_INSTANCE,
             name);
  const QorvResult r = QorvDepthToVmapNmap(inst.serial,
                                           breaker == 0 ? nullptr : camera.get(),
                                           breaker == 1 ? nullptr : depth.get(),
                                           breaker == 2 ? nullptr : vertex.get(),
                                           withNormals ? normal.get() : nullptr,
                                           withMask ? mask.get() : nullptr,
                                           breaker == 3 ? BadCount(in) : width,
                                           breaker == 4 ? BadCount(in) : height);
  ExpectCode(r, breaker < 0 ? QORV_OK : QORV_ERROR_INVALID_ARGUMENT, name);
  if (r != QORV_OK) {
    Check(vertex.untouched() && normal.untouched() && mask.untouched(),
          name,
          "output written on a failed check");
    return;
  }
  if (!withNormals || in.ConsumeIntegralInRange<int>(0, 3) == 0) {  // any floats as maps
    for (size_t i = 0; i < pixels * 3; ++i) normal.get()[i] = SomeFloat(in, -1.0f, 1.0f);
  }
  if (in.ConsumeIntegralInRange<int>(0, 3) == 0) {
    for (size_t i = 0; i < pixels; ++i) mask.get()[i] = in.ConsumeIntegral<unsigned char>();
  }

  const int32_t windows[4] = {
      SomeInt(in, 1, 9), SomeInt(in, 0, 9), SomeInt(in, 0, 5), SomeInt(in, 1, 9)};
  const float ratio21 = SomeFloat(in, 0.0f, 1.2f), ratio32 = SomeFloat(in, 0.0f, 1.2f);
  const int32_t maxKeyPoints = SomeInt(in, -2, 20);
  const bool passMask = in.ConsumeBool(), withCallback = in.ConsumeIntegralInRange<int>(0, 9) != 0;
  const int breaker2 = Breaker(in, 4);
  const char* name2 = "QorvDetectAndComputeVmapNmap";
  auto run = [&](QorvInstance* h, KeyPointRecord& rec) {
    rec.maxCount = static_cast<int64_t>(pixels);
    return QorvDetectAndComputeVmapNmap(h,
                                        breaker2 == 0 ? nullptr : vertex.get(),
                                        breaker2 == 1 ? nullptr : normal.get(),
                                        passMask ? mask.get() : nullptr,
                                        breaker2 == 2 ? BadCount(in) : width,
                                        breaker2 == 3 ? BadCount(in) : height,
                                        windows[0],
                                        windows[1],
                                        windows[2],
                                        windows[3],
                                        ratio21,
                                        ratio32,
                                        maxKeyPoints,
                                        withCallback ? OnKeyPoints : nullptr,
                                        &rec);
  };
  CheckKeyPointExport(run, inst, name2, breaker2 < 0, withCallback);
}

void FuzzMatchDescriptor(FuzzedDataProvider& in, Instances& inst) {
  const int32_t targets = in.ConsumeIntegralInRange<int32_t>(1, 40);
  const int32_t queries = in.ConsumeIntegralInRange<int32_t>(1, 40);
  const Array<float> target(SomeDescriptors(in, targets).data(), static_cast<size_t>(targets) * 33);
  const Array<float> query(SomeDescriptors(in, queries).data(), static_cast<size_t>(queries) * 33);
  const int32_t k = in.ConsumeIntegralInRange<int>(0, 3) == 0
                        ? in.ConsumeIntegralInRange<int32_t>(1, targets + 3)
                        : 1;
  const bool withDistances = in.ConsumeIntegralInRange<int>(0, 4) != 0;
  inst.crossCheck(in.ConsumeBool());
  const int breaker = Breaker(in, 6);
  const size_t slots = static_cast<size_t>(queries) * static_cast<size_t>(k);
  const char* name = "QorvMatchDescriptor";
  auto run = [&](QorvInstance* h, Array<int32_t>& idx, Array<float>& dist) {
    return QorvMatchDescriptor(h,
                               breaker == 0 ? nullptr : target.get(),
                               breaker == 1 ? 0 : targets,
                               breaker == 2 ? nullptr : query.get(),
                               breaker == 3 ? nullptr : idx.get(),
                               withDistances ? dist.get() : nullptr,
                               breaker == 4 ? BadCount(in) : k,
                               breaker == 5 ? BadCount(in) : queries);
  };
  Array<int32_t> idxS(slots), idxP(slots);
  Array<float> distS(slots), distP(slots);
  ExpectCode(run(nullptr, idxS, distS), QORV_ERROR_NULL_INSTANCE, name);
  const QorvResult r = run(inst.serial, idxS, distS);
  ExpectCode(r, breaker < 0 ? QORV_OK : QORV_ERROR_INVALID_ARGUMENT, name);
  if (r != QORV_OK) {
    Check(idxS.untouched() && distS.untouched(), name, "output written on a failed check");
    return;
  }
  int32_t fill;
  std::memset(&fill, kFill, sizeof fill);
  for (size_t i = 0; i < slots; ++i) {
    const int32_t v = idxS.get()[i];
    Check(v == -1 || (v >= 0 && v < targets) || (k > 1 && v == fill), name, "index out of range");
  }
  ExpectCode(run(inst.parallel, idxP, distP), QORV_OK, name);
  Check(idxS.sameBits(idxP) && distS.sameBits(distP), name, "threading changed the result");
}

// Key points for the two matchers: a cloud and a moved copy, descriptors shared or arbitrary.
struct KeyPointPair {
  int32_t count1, count2;
  std::vector<float> points1, points2, normals1, normals2, descriptors1, descriptors2;
};

KeyPointPair SomeKeyPoints(FuzzedDataProvider& in) {
  KeyPointPair k;
  k.count1 = in.ConsumeIntegralInRange<int32_t>(1, 48);
  k.points1 = SomeCloud(in, k.count1);
  k.normals1 = SomeNormals(in, k.count1);
  k.descriptors1 = SomeDescriptors(in, k.count1);
  if (in.ConsumeBool()) {  // the second set is the first, moved and perhaps cut
    k.count2 = in.ConsumeIntegralInRange<int32_t>(1, k.count1);
    const float dx = SomeFloat(in, -0.2f, 0.2f);
    k.points2.assign(k.points1.begin(), k.points1.begin() + 3 * k.count2);
    for (size_t i = 0; i < k.points2.size(); i += 3) k.points2[i] += dx;
    k.normals2.assign(k.normals1.begin(), k.normals1.begin() + 3 * k.count2);
    k.descriptors2.assign(k.descriptors1.begin(), k.descriptors1.begin() + 33 * k.count2);
  } else {
    k.count2 = in.ConsumeIntegralInRange<int32_t>(1, 48);
    k.points2 = SomeCloud(in, k.count2);
    k.normals2 = SomeNormals(in, k.count2);
    k.descriptors2 = SomeDescriptors(in, k.count2);
  }
  return k;
}

void FuzzRansac(FuzzedDataProvider& in, Instances& inst) {
  const KeyPointPair k = SomeKeyPoints(in);
  const Array<float> p1(k.points1.data(), k.points1.size()), p2(k.points2.data(), k.points2.size());
  const Array<float> n1(k.normals1.data(), k.normals1.size()),
      n2(k.normals2.data(), k.normals2.size());
  const Array<float> d1(k.descriptors1.data(), k.descriptors1.size());
  const Array<float> d2(k.descriptors2.data(), k.descriptors2.size());
  const int32_t iterations = SomeInt(in, -1, 200) % 301;
  const float edgeRatio = SomeFloat(in, 0.0f, 1.0f), inlierDistance = SomeFloat(in, 0.0f, 0.3f);
  const bool withNormals1 = in.ConsumeBool(), withNormals2 = in.ConsumeBool();
  const bool withCallback = in.ConsumeIntegralInRange<int>(0, 9) != 0;
  inst.crossCheck(in.ConsumeBool());
  QorvInstance* h = in.ConsumeBool() ? inst.parallel : inst.serial;
  const int breaker = Breaker(in, 7);
  const char* name = "QorvRansacMatchKeyPoints";
  Array<double> transform(12);
  MatchRecord rec;
  rec.firstCount = static_cast<uint32_t>(k.count1);
  rec.secondCount = static_cast<uint32_t>(k.count2);
  rec.allowMissing = true;
  auto run = [&](QorvInstance* handle) {
    return QorvRansacMatchKeyPoints(handle,
                                    breaker == 0 ? nullptr : p1.get(),
                                    withNormals1 ? n1.get() : nullptr,
                                    breaker == 1 ? nullptr : d1.get(),
                                    breaker == 2 ? BadCount(in) : k.count1,
                                    breaker == 3 ? nullptr : p2.get(),
                                    withNormals2 ? n2.get() : nullptr,
                                    breaker == 4 ? nullptr : d2.get(),
                                    breaker == 5 ? BadCount(in) : k.count2,
                                    breaker == 6 ? nullptr : transform.get(),
                                    iterations,
                                    edgeRatio,
                                    inlierDistance,
                                    withCallback ? OnMatches : nullptr,
                                    &rec);
  };
  ExpectCode(run(nullptr), QORV_ERROR_NULL_INSTANCE, name);
  const QorvResult r = run(h);
  ExpectCode(r, breaker < 0 ? QORV_OK : QORV_ERROR_INVALID_ARGUMENT, name);
  Check(rec.calls == (r == QORV_OK && withCallback ? 1 : 0), name, "callback calls");
  if (r != QORV_OK) Check(transform.untouched(), name, "output written on a failed check");
}

// What a second run on the multi-threaded instance must repeat bit for bit.
enum class Repeatable { kNothing, kTransform, kTransformAndPairs };

// The contract of the exports that refine a transform from `start`: a null handle first; on a
// failed check the argument error, no callback and the transform untouched; otherwise one callback
// and, as far as `repeat` says, the same bits from the multi-threaded instance.
template <typename Run>
void CheckTransformExport(Run&& run,
                          Instances& inst,
                          const std::vector<double>& start,
                          const char* name,
                          bool valid,
                          bool withCallback,
                          Repeatable repeat) {
  Array<double> serial(start.data(), 12), parallel(start.data(), 12);
  const Array<double> before(start.data(), 12);
  MatchRecord recS, recP;
  ExpectCode(run(nullptr, serial, recS), QORV_ERROR_NULL_INSTANCE, name);
  const QorvResult r = run(inst.serial, serial, recS);
  ExpectCode(r, valid ? QORV_OK : QORV_ERROR_INVALID_ARGUMENT, name);
  Check(recS.calls == (r == QORV_OK && withCallback ? 1 : 0), name, "callback calls");
  if (r != QORV_OK) {
    Check(serial.sameBits(before), name, "output written on a failed check");
    return;
  }
  if (repeat == Repeatable::kNothing) return;
  ExpectCode(run(inst.parallel, parallel, recP), QORV_OK, name);
  Check(serial.sameBits(parallel), name, "threading changed the transform");
  if (repeat != Repeatable::kTransformAndPairs) return;
  Check(recS.pairs.size() == recP.pairs.size() &&
            (recS.pairs.empty() || std::memcmp(recS.pairs.data(),
                                               recP.pairs.data(),
                                               recS.pairs.size() * sizeof(QorvMatchPair)) == 0),
        name,
        "threading changed the pairs");
}

void FuzzIterative(FuzzedDataProvider& in, Instances& inst) {
  const KeyPointPair k = SomeKeyPoints(in);
  const Array<float> p1(k.points1.data(), k.points1.size()), p2(k.points2.data(), k.points2.size());
  const Array<float> d1(k.descriptors1.data(), k.descriptors1.size());
  const Array<float> d2(k.descriptors2.data(), k.descriptors2.size());
  const int32_t iterations = SomeInt(in, -1, 200) % 301;
  const float kernelScale = SomeFloat(in, 0.0f, 1.0f), maxDistance = SomeFloat(in, 0.0f, 0.5f);
  const bool identity = in.ConsumeBool();
  std::vector<double> start(12);
  for (int i = 0; i < 12; ++i) start[i] = identity ? (i % 5 == 0 ? 1.0 : 0.0) : SomeDouble(in);
  const bool withCallback = in.ConsumeIntegralInRange<int>(0, 9) != 0;
  inst.crossCheck(in.ConsumeBool());
  const int breaker = Breaker(in, 7);
  const char* name = "QorvIterativeMatchKeyPoints";
  auto run = [&](QorvInstance* h, Array<double>& transform, MatchRecord& rec) {
    rec.firstCount = static_cast<uint32_t>(k.count1);
    rec.secondCount = static_cast<uint32_t>(k.count2);
    return QorvIterativeMatchKeyPoints(h,
                                       breaker == 0 ? nullptr : p1.get(),
                                       breaker == 1 ? nullptr : d1.get(),
                                       breaker == 2 ? BadCount(in) : k.count1,
                                       breaker == 3 ? nullptr : p2.get(),
                                       breaker == 4 ? nullptr : d2.get(),
                                       breaker == 5 ? BadCount(in) : k.count2,
                                       breaker == 6 ? nullptr : transform.get(),
                                       iterations,
                                       kernelScale,
                                       maxDistance,
                                       withCallback ? OnMatches : nullptr,
                                       &rec);
  };
  CheckTransformExport(
      run, inst, start, name, breaker < 0, withCallback, Repeatable::kTransformAndPairs);
}

void FuzzPipeline(FuzzedDataProvider& in, Instances& inst) {
  const int32_t count1 = SomeCount(in), count2 = SomeCount(in);
  const Array<float> p1(SomeCloud(in, count1).data(), static_cast<size_t>(count1) * 3);
  const Array<float> p2(SomeCloud(in, count2).data(), static_cast<size_t>(count2) * 3);
  const Array<float> n1(SomeNormals(in, count1).data(), static_cast<size_t>(count1) * 3);
  const Array<float> n2(SomeNormals(in, count2).data(), static_cast<size_t>(count2) * 3);
  const bool withNormals1 = in.ConsumeBool(), withNormals2 = in.ConsumeBool();
  const float kernelScale = SomeFloat(in, -0.5f, 0.5f), resolution = SomeFloat(in, 0.0f, 0.3f);
  const int32_t iterations = SomeInt(in, -1, 100) % 201;
  const bool withCallback = in.ConsumeIntegralInRange<int>(0, 9) != 0;
  inst.crossCheck(in.ConsumeBool());
  const int breaker = Breaker(in, 5);
  const char* name = "QorvMatchPairPointCloud";
  std::vector<double> start(12);
  for (int i = 0; i < 12; ++i) start[i] = i % 5 == 0 ? 1.0 : 0.0;
  auto run = [&](QorvInstance* h, Array<double>& transform, MatchRecord& rec) {
    rec.allowMissing = true;  // indices refer to key points the caller never sees: not checked
    return QorvMatchPairPointCloud(h,
                                   breaker == 2 ? nullptr : p1.get(),
                                   withNormals1 ? n1.get() : nullptr,
                                   breaker == 3 ? BadCount(in) : count1,
                                   breaker == 0 ? nullptr : p2.get(),
                                   withNormals2 ? n2.get() : nullptr,
                                   breaker == 1 ? BadCount(in) : count2,
                                   breaker == 4 ? nullptr : transform.get(),
                                   kernelScale,
                                   resolution,
                                   iterations,
                                   withCallback ? OnMatches : nullptr,
                                   &rec);
  };
  // RANSAC is seeded from the clock: only the iterative path repeats.
  CheckTransformExport(
      run,
      inst,
      start,
      name,
      breaker<0, withCallback, kernelScale> 0.0f ? Repeatable::kTransform : Repeatable::kNothing);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The library logs to standard output; the fuzzer reports on standard error.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::perror("freopen");
  // An uneven team splits the ranges into unequal chunks, with empty ones for small counts.
  setenv("OMP_NUM_THREADS", "3", 0);
  std::atexit([] { std::remove(AscPath().c_str()); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  Instances inst;
  switch (in.ConsumeIntegralInRange<int>(0, 13)) {
    case 0:
      FuzzSettings(in, inst);
      break;
    case 1:
      FuzzAsc(in, inst);
      break;
    case 2:
      FuzzRigid(in, inst);
      break;
    case 3:
      FuzzNormals(in, inst);
      break;
    case 4:
      FuzzIndexFilters(in, inst);
      break;
    case 5:
      FuzzGaussian(in, inst);
      break;
    case 6:
      FuzzCheckDistance(in, inst);
      break;
    case 7:
      FuzzDetectAndCompute(in, inst);
      break;
    case 8:
      FuzzDepth(in, inst);
      break;
    case 9:
      FuzzMatchDescriptor(in, inst);
      break;
    case 10:
      FuzzRansac(in, inst);
      break;
    case 11:
      FuzzIterative(in, inst);
      break;
    case 12:
      FuzzPipeline(in, inst);
      break;
    default:
      FuzzIndexFilters(in, inst);
      break;
  }
  return 0;
}
