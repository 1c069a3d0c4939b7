// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64  // 64-bit ftello/fseeko on 32-bit targets as well
#endif

#include "geometry/asc_file.hpp"

#include <sys/types.h>
#if defined(__linux__)
#include <sys/mman.h>
#endif

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qorv {
namespace {

static_assert(sizeof(off_t) >= 8, "file sizes need a 64-bit off_t");

// Files this large are refused: sizes and counts inside are meant to fit 32 bits.
constexpr int64_t kMaxFileSize = int64_t{1} << 32;

enum ByteClass : uint8_t { kSeparator, kNumberStart, kOtherByte };

constexpr std::array<uint8_t, 256> MakeByteClasses() {
  std::array<uint8_t, 256> classes{};
  for (auto& c : classes) c = kOtherByte;
  classes[0] = kSeparator;  // the byte after the text, and zero bytes inside it
  classes[' '] = kSeparator;
  classes['\t'] = kSeparator;
  classes['\n'] = kSeparator;
  classes['+'] = kNumberStart;
  classes['-'] = kNumberStart;
  classes['.'] = kNumberStart;
  for (size_t d = '0'; d <= '9'; ++d) classes[d] = kNumberStart;
  return classes;
}
constexpr std::array<uint8_t, 256> kByteClass = MakeByteClasses();

// Weight of the k-th digit after the leading zeros of a fraction: 10^-(k+1). Only 16 digits count.
constexpr int kFractionDigits = 16;
// clang-format off
constexpr double kDigitWeight[kFractionDigits] = {1e-1, 1e-2,  1e-3,  1e-4,  1e-5,  1e-6,
                                                  1e-7, 1e-8,  1e-9,  1e-10, 1e-11, 1e-12,
                                                  1e-13, 1e-14, 1e-15, 1e-16};
// clang-format on

// Scale of the fraction after z zeros directly behind the point: 10^-z; twenty zeros or more drop
// the fraction.
constexpr int kMaxLeadingZeros = 20;
// clang-format off
constexpr double kZerosScale[kMaxLeadingZeros + 1] = {
    1.0,   1e-1,  1e-2,  1e-3,  1e-4,  1e-5,  1e-6,  1e-7,  1e-8,  1e-9, 1e-10,
    1e-11, 1e-12, 1e-13, 1e-14, 1e-15, 1e-16, 1e-17, 1e-18, 1e-19, 0.0};
// clang-format on

// Exponent digits stop accumulating here: pow(10, e) is already infinite or zero far below.
constexpr int kExponentClamp = 100000;

// pow(10, e), tabulated for |e| <= 400, beyond which it is infinite or zero. The table holds what
// pow returns, which is not always the double nearest to 10^e (10^23 is one ulp off), so parsed
// values keep their bits.
double PowerOfTen(int e) {
  constexpr int kHalf = 400;
  static const std::array<double, 2 * kHalf + 1> table = [] {
    std::array<double, 2 * kHalf + 1> powers{};
    for (int i = -kHalf; i <= kHalf; ++i)
      powers[static_cast<size_t>(i + kHalf)] = std::pow(10.0, i);
    return powers;
  }();
  if (e >= -kHalf && e <= kHalf) return table[static_cast<size_t>(e + kHalf)];
  return std::pow(10.0, e);
}

inline unsigned DigitOf(unsigned char c) { return static_cast<unsigned>(c) - '0'; }
inline bool IsDigit(unsigned char c) { return DigitOf(c) < 10u; }

// Reads one number starting at p (a sign, a point or a digit) and returns the first byte after it.
// The value is formed in double exactly as value * 10 + digit, plus the fraction, times the power
// of ten; the fast paths below perform the same roundings in the same order.
const unsigned char* ParseNumber(const unsigned char* p, float& number) {
  bool negative = false;
  if (*p == '-') {
    negative = true;
    ++p;
  } else if (*p == '+') {
    ++p;
  }

  // value * 10 + digit is exact below 2^53, so the first 15 digits accumulate as an integer.
  uint64_t integer = 0;
  for (int i = 0; i < 15 && IsDigit(*p); ++i) integer = integer * 10 + DigitOf(*p++);
  double value = static_cast<double>(integer);
  while (IsDigit(*p)) value = value * 10.0 + static_cast<double>(DigitOf(*p++));

  if (*p == '.') {
    ++p;
    int zeros = 0;
    while (zeros < kMaxLeadingZeros && *p == '0') {
      ++zeros;
      ++p;
    }
    double fraction = 0.0;
    for (int k = 0; k < kFractionDigits && IsDigit(*p); ++k) {
      fraction += static_cast<double>(DigitOf(*p++)) * kDigitWeight[k];
    }
    while (IsDigit(*p)) ++p;
    value += fraction * kZerosScale[zeros];
  }

  if ((*p | 0x20) == 'e') {
    ++p;
    bool negativeExponent = false;
    if (*p == '-') {
      negativeExponent = true;
      ++p;
    } else if (*p == '+') {
      ++p;
    }
    int exponent = 0;
    for (; IsDigit(*p); ++p) {
      if (exponent < kExponentClamp) exponent = exponent * 10 + static_cast<int>(DigitOf(*p));
    }
    value *= PowerOfTen(negativeExponent ? -exponent : exponent);
  }

  if (negative) value = -value;
  number = static_cast<float>(value);
  return p;
}

size_t CountLineFeeds(const unsigned char* text, size_t size) {
  size_t count = 0;
  size_t i = 0;
#if defined(__SSE2__)
  const __m128i lineFeed = _mm_set1_epi8('\n');
  while (size - i >= 16) {
    // Byte lanes count up to 255 blocks before they are summed into the total.
    const size_t blocks = std::min<size_t>((size - i) / 16, 255);
    __m128i lanes = _mm_setzero_si128();
    for (size_t b = 0; b < blocks; ++b, i += 16) {
      const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
      lanes = _mm_sub_epi8(lanes, _mm_cmpeq_epi8(bytes, lineFeed));
    }
    const __m128i sums = _mm_sad_epu8(lanes, _mm_setzero_si128());
    count += static_cast<size_t>(_mm_cvtsi128_si32(sums)) +
             static_cast<size_t>(_mm_extract_epi16(sums, 4));
  }
#endif
  for (; i < size; ++i) count += text[i] == '\n';
  return count;
}

// Truncation toward zero, low eight bits. Floats of magnitude 2^31 or more are multiples of 256,
// so their byte is 0; NaN and infinities give 0 as well.
inline unsigned char ColourByte(float v) {
  if (!(std::fabs(v) < 2147483648.0f)) return 0;
  return static_cast<unsigned char>(static_cast<int32_t>(v));
}

// Large buffers ask for transparent huge pages: filling fresh memory 4 KiB at a time is otherwise
// the largest cost of reading a big file (two thirds of it for 300 MB in our measurements).
void AdviseHugePages(const void* data, size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  constexpr uintptr_t kHugePage = uintptr_t{2} << 20;
  if (bytes < 8 * kHugePage) return;
  const auto begin = (reinterpret_cast<uintptr_t>(data) + kHugePage - 1) & ~(kHugePage - 1);
  const auto end = (reinterpret_cast<uintptr_t>(data) + bytes) & ~(kHugePage - 1);
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
  (void)data;
  (void)bytes;
#endif
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

}  // namespace

AscCloud ParseAsc(const char* text, size_t size) {
  const auto* p = reinterpret_cast<const unsigned char*>(text);
  const auto* const end = p + size;
  const size_t lineFeeds = CountLineFeeds(p, size);

  // The store is sized for 9 numbers a line; files with more (no final line feed, long lines)
  // grow it. A number takes at least two bytes with its separator, which bounds the reservation.
  std::vector<float> numbers;
  numbers.reserve(std::min(9 * lineFeeds, size / 2 + 1));
  AdviseHugePages(numbers.data(), numbers.capacity() * sizeof(float));

  // Each pass of the loop stands right after a separator (or at the start of the text).
  while (p < end) {
    const uint8_t byteClass = kByteClass[*p];
    if (byteClass == kSeparator) {
      ++p;
      continue;
    }
    if (byteClass == kNumberStart) {
      float number;
      p = ParseNumber(p, number);
      numbers.push_back(number);
    }
    while (kByteClass[*p] != kSeparator) ++p;  // the rest of the token yields nothing
  }

  AscCloud cloud;
  const double perLine =
      static_cast<double>(numbers.size()) / static_cast<double>(lineFeeds);  // inf without LF
  cloud.columns = perLine > 8.99 ? 9 : perLine > 5.99 ? 6 : 3;
  const size_t columns = static_cast<size_t>(cloud.columns);
  const size_t count = numbers.size() / columns;
  cloud.count = static_cast<int64_t>(count);

  if (columns > 3) {
    cloud.normals.reserve(3 * count);
    AdviseHugePages(cloud.normals.data(), 3 * count * sizeof(float));
    cloud.normals.resize(3 * count);
    if (columns == 9) cloud.colours.resize(3 * count);
    // Positions are packed in place at the front of the store: point i lands at or before its own
    // row, after every earlier row has been read.
    for (size_t i = 0; i < count; ++i) {
      const float* row = &numbers[i * columns];
      for (size_t d = 0; d < 3; ++d) cloud.normals[3 * i + d] = row[3 + d];
      if (columns == 9) {
        for (size_t d = 0; d < 3; ++d) cloud.colours[3 * i + d] = ColourByte(row[6 + d]);
      }
      for (size_t d = 0; d < 3; ++d) numbers[3 * i + d] = row[d];
    }
  }
  numbers.resize(3 * count);
  cloud.points = std::move(numbers);
  return cloud;
}

bool ReadPointsFromAsc(const char* path, AscCloud& cloud) {
  if (path == nullptr) return false;
  std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path, "rb"));
  if (file == nullptr) return false;
  if (fseeko(file.get(), 0, SEEK_END) != 0) return false;
  const off_t fileSize = ftello(file.get());
  if (fileSize < 0 || fileSize >= kMaxFileSize) return false;
  const auto size = static_cast<size_t>(fileSize);
  std::rewind(file.get());

  std::unique_ptr<char, FreeDeleter> text(static_cast<char*>(std::malloc(size + 1)));
  if (text == nullptr) return false;
  AdviseHugePages(text.get(), size);
  if (std::fread(text.get(), 1, size, file.get()) != size) return false;
  text.get()[size] = '\0';
  file.reset();

  cloud = ParseAsc(text.get(), size);
  return true;
}

bool WritePointsToAsc(const char* path,
                      const float* points,
                      const float* normals,
                      const unsigned char* colours,
                      int64_t count) {
  if (path == nullptr) return false;
  std::FILE* file = std::fopen(path, "w");
  if (file == nullptr) return false;
  const auto d = [](const float* v, int i) { return static_cast<double>(v[i]); };
  for (int64_t i = 0; i < count; ++i) {
    const float* p = points + 3 * i;
    if (normals == nullptr) {
      std::fprintf(file, "%f %f %f\n", d(p, 0), d(p, 1), d(p, 2));
      continue;
    }
    const float* nv = normals + 3 * i;
    if (colours == nullptr) {
      std::fprintf(
          file, "%f %f %f %f %f %f\n", d(p, 0), d(p, 1), d(p, 2), d(nv, 0), d(nv, 1), d(nv, 2));
    } else {
      const unsigned char* c = colours + 3 * i;
      std::fprintf(file,
                   "%f %f %f %f %f %f %d %d %d\n",
                   d(p, 0),
                   d(p, 1),
                   d(p, 2),
                   d(nv, 0),
                   d(nv, 1),
                   d(nv, 2),
                   c[0],
                   c[1],
                   c[2]);
    }
  }
  // A failed flush can leave fclose with nothing more to report, so both are checked.
  const bool flushed = std::fflush(file) == 0;
  const bool closed = std::fclose(file) == 0;
  return flushed && closed;
}

}  // namespace qorv
