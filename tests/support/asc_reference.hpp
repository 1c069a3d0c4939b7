// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qorv::test {

// ASC text read the slow, literal way, as an oracle for the library's tokenizer: separators of a
// copy are overwritten with zero bytes, every byte position is visited, a number starts where the
// byte before is zero, and every power of ten comes from pow.
struct ReferenceAsc {
  std::vector<float> numbers;
  size_t lineFeeds = 0;
  int columns = 3;
  int64_t count = 0;
  std::vector<float> points;
  std::vector<float> normals;
  std::vector<unsigned char> colours;
};

inline ReferenceAsc ReadAscReference(const std::string& content) {
  ReferenceAsc ref;
  std::vector<char> buffer(content.size() + 2, '\0');
  char* text = buffer.data() + 1;  // text[-1] is the zero byte before the text
  std::copy(content.begin(), content.end(), text);
  const size_t size = content.size();
  for (size_t i = 0; i < size; ++i) {
    if (text[i] == '\n') ++ref.lineFeeds;
    if (text[i] == ' ' || text[i] == '\t' || text[i] == '\n') text[i] = '\0';
  }
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  for (size_t p = 0; p < size; ++p) {
    const char c = text[p];
    if (text[static_cast<std::ptrdiff_t>(p) - 1] != '\0') continue;
    if (!(c == '+' || c == '-' || c == '.' || isDigit(c))) continue;
    const char* q = text + p;
    bool negative = false;
    if (*q == '-') {
      negative = true;
      ++q;
    } else if (*q == '+') {
      ++q;
    }
    double value = 0.0;
    while (isDigit(*q)) value = value * 10 + (*q++ - '0');
    if (*q == '.') {
      ++q;
      int zeros = 0;
      while (zeros < 20 && *q == '0') {
        ++zeros;
        ++q;
      }
      double fraction = 0.0;
      for (int k = 0; isDigit(*q); ++k, ++q) {
        if (k < 16) fraction += (*q - '0') * std::pow(10.0, -(k + 1));
      }
      value += fraction * (zeros == 20 ? 0.0 : std::pow(10.0, -zeros));
    }
    if (*q == 'e' || *q == 'E') {
      ++q;
      bool negativeExponent = false;
      if (*q == '-') {
        negativeExponent = true;
        ++q;
      } else if (*q == '+') {
        ++q;
      }
      long long e = 0;
      while (isDigit(*q)) e = std::min(e * 10 + (*q++ - '0'), 1000000000LL);
      value *= std::pow(10.0, static_cast<double>(negativeExponent ? -e : e));
    }
    if (negative) value = -value;
    ref.numbers.push_back(static_cast<float>(value));
  }

  const double perLine =
      static_cast<double>(ref.numbers.size()) / static_cast<double>(ref.lineFeeds);
  ref.columns = perLine > 8.99 ? 9 : (perLine > 5.99 ? 6 : 3);
  ref.count = static_cast<int64_t>(ref.numbers.size()) / ref.columns;
  const auto colour = [](float v) -> unsigned char {
    if (!std::isfinite(v)) return 0;
    double low = std::fmod(std::trunc(static_cast<double>(v)), 256.0);
    if (low < 0) low += 256.0;
    return static_cast<unsigned char>(low);
  };
  for (int64_t i = 0; i < ref.count; ++i) {
    for (int d = 0; d < 3; ++d) {
      const float* row = &ref.numbers[static_cast<size_t>(i * ref.columns)];
      ref.points.push_back(row[d]);
      if (ref.columns >= 6) ref.normals.push_back(row[3 + d]);
      if (ref.columns == 9) ref.colours.push_back(colour(row[6 + d]));
    }
  }
  return ref;
}

}  // namespace qorv::test
