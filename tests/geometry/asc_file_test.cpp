// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "geometry/asc_file.hpp"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/asc_reference.hpp"
#include "support/floats.hpp"

#include <unistd.h>

namespace qorv {
namespace {

using test::SameBits;

AscCloud Parse(const std::string& text) { return ParseAsc(text.c_str(), text.size()); }

void ExpectMatchesReference(const std::string& text) {
  const AscCloud cloud = Parse(text);
  const test::ReferenceAsc ref = test::ReadAscReference(text);
  ASSERT_EQ(cloud.columns, ref.columns) << text;
  ASSERT_EQ(cloud.count, ref.count) << text;
  EXPECT_TRUE(SameBits(cloud.points, ref.points)) << text;
  EXPECT_TRUE(SameBits(cloud.normals, ref.normals)) << text;
  EXPECT_TRUE(SameBits(cloud.colours, ref.colours)) << text;
}

// The first number of a token, read as the x of a one-point file.
float FirstNumber(const std::string& token) {
  const AscCloud cloud = Parse(token + " 0 0\n");
  EXPECT_EQ(cloud.count, 1) << token;
  return cloud.count == 1 ? cloud.points[0] : NAN;
}

std::string TempPath(const std::string& name) {
  return ::testing::TempDir() + "qorv_asc_" + std::to_string(getpid()) + "_" + name;
}

TEST(AscParseTest, NumberGrammar) {
  EXPECT_EQ(FirstNumber("1.5e2"), 150.0f);
  EXPECT_EQ(FirstNumber("2E+3"), 2000.0f);
  EXPECT_EQ(FirstNumber("25e-1"), 2.5f);
  EXPECT_EQ(FirstNumber("-.5"), -0.5f);
  EXPECT_EQ(FirstNumber("+3"), 3.0f);
  EXPECT_EQ(FirstNumber("5."), 5.0f);
  EXPECT_EQ(FirstNumber("0.05"), 0.05f);
  EXPECT_EQ(FirstNumber("1.5abc"), 1.5f);                   // the rest of the token is ignored
  EXPECT_EQ(FirstNumber("0.000000000000000000001"), 0.0f);  // twenty zeros drop the fraction
  EXPECT_EQ(FirstNumber("7.0000000000000000000000009"), 7.0f);
  EXPECT_EQ(FirstNumber("0." + std::string(19, '0') + "1"), 1e-20f);  // nineteen zeros still count
  // Only 16 fraction digits count.
  EXPECT_EQ(FirstNumber("0.12345678901234569999"), FirstNumber("0.1234567890123456"));
  for (const char* lone : {"-", "+", ".", "-.", "+.", "e5"}) {
    const AscCloud cloud = Parse(std::string(lone) + " 1 1\n");
    if (lone[0] == 'e') {
      EXPECT_EQ(cloud.count, 0) << lone;  // a word, not a number
    } else {
      ASSERT_EQ(cloud.count, 1) << lone;
      EXPECT_EQ(cloud.points[0], 0.0f) << lone;
      EXPECT_EQ(std::signbit(cloud.points[0]), lone[0] == '-') << lone;
    }
  }
  EXPECT_TRUE(std::isinf(FirstNumber("1e400")));
  EXPECT_EQ(FirstNumber("1e-99999999999999999999"), 0.0f);  // the exponent does not overflow
  EXPECT_TRUE(std::isinf(FirstNumber("-1e99999999999999999999")));
}

TEST(AscParseTest, TokensThatAreNotNumbers) {
  const AscCloud comma = Parse("1,2,3 4 5\n");  // 1,2,3 reads only 1
  ASSERT_EQ(comma.count, 1);
  EXPECT_EQ(comma.points, (std::vector<float>{1, 4, 5}));
  const AscCloud word = Parse("abc 1 2 3\n");
  ASSERT_EQ(word.count, 1);
  EXPECT_EQ(word.points, (std::vector<float>{1, 2, 3}));
  const AscCloud crlf = Parse("1 2 3\r\n4 5 6\r\n");
  EXPECT_TRUE(SameBits(crlf.points, Parse("1 2 3\n4 5 6\n").points));
  EXPECT_EQ(crlf.columns, 3);
  const AscCloud zeroByte =
      Parse(std::string("1\0"
                        "2 3\n",
                        6));  // a zero byte separates
  EXPECT_EQ(zeroByte.points, (std::vector<float>{1, 2, 3}));
}

TEST(AscParseTest, ColumnsFollowNumbersPerLine) {
  const AscCloud six = Parse("1 2 3 4 5 6\n7 8 9 10 11 12\n");
  EXPECT_EQ(six.columns, 6);
  EXPECT_EQ(six.normals, (std::vector<float>{4, 5, 6, 10, 11, 12}));
  EXPECT_TRUE(six.colours.empty());
  // 9 then 6 + 6 numbers average 7 a line: 6 columns, grouped across the line breaks.
  const AscCloud mixed = Parse("1 2 3 4 5 6 7 8 9\n1 2 3 4 5 6\n1 2 3 4 5 6\n");
  EXPECT_EQ(mixed.columns, 6);
  EXPECT_EQ(mixed.count, 3);
  const AscCloud nine = Parse("1 2 3 0 0 1 255.9 300 -1\n4 5 6 0 1 0 1e10 -256.5 7\n");
  EXPECT_EQ(nine.columns, 9);
  EXPECT_EQ(nine.colours, (std::vector<unsigned char>{255, 44, 255, 0, 0, 7}));
  // Four numbers on one line shift every later point by one.
  const AscCloud shifted = Parse("1 2 3 4\n5 6 7\n8 9 10\n");
  EXPECT_EQ(shifted.count, 3);
  EXPECT_EQ(shifted.points, (std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST(AscParseTest, FilesBeyondNineNumbersALine) {
  // No final line feed: 6 numbers for 1 line feed read as one point with a normal.
  const AscCloud noFinal = Parse("1 2 3\n4 5 6");
  EXPECT_EQ(noFinal.columns, 6);
  EXPECT_EQ(noFinal.count, 1);
  // No line feed at all: infinitely many numbers a line, so 9 columns.
  EXPECT_EQ(Parse("1 2 3 4 5 6 7 8 9 10").count, 1);
  EXPECT_EQ(Parse("1 2 3 4 5 6 7 8 9 10").columns, 9);
  EXPECT_EQ(Parse("1 2 3").count, 0);
  EXPECT_EQ(Parse("").count, 0);
  EXPECT_EQ(Parse("\n\n\n").count, 0);
  // Far more than 9 numbers a line: everything is kept (the store grows, under ASan too).
  std::string longLine;
  for (int i = 0; i < 1000; ++i) longLine += std::to_string(i) + " ";
  const AscCloud wide = Parse(longLine + "\n");
  EXPECT_EQ(wide.count, 111);
  EXPECT_EQ(wide.points.back(), 992.0f);
  ExpectMatchesReference(longLine + "\n" + longLine);
}

// Random texts mixing every kind of token agree bit for bit with the literal reading.
TEST(AscParseTest, MatchesLiteralReadingOnRandomText) {
  std::mt19937 rng(7);
  const std::vector<std::string> separators = {" ", " ", " ", "\n", "\n", "\t", "\r\n", "  "};
  const std::vector<std::string> words = {"abc",
                                          "nan",
                                          "x1",
                                          "-",
                                          "+",
                                          ".",
                                          "-.",
                                          "e",
                                          "1,2",
                                          "0.1.2",
                                          "--1",
                                          "1e",
                                          "1e+",
                                          "3.e2",
                                          "\r"};
  const auto digits = [&](int n) {
    std::string s;
    for (int i = 0; i < n; ++i) s += static_cast<char>('0' + rng() % 10);
    return s;
  };
  for (int doc = 0; doc < 400; ++doc) {
    std::string text;
    const int tokens = static_cast<int>(rng() % 60);
    for (int t = 0; t < tokens; ++t) {
      const unsigned kind = rng() % 10;
      if (kind == 0) {
        text += words[rng() % words.size()];
      } else {
        if (rng() % 3 == 0) text += "-+"[rng() % 2];
        text += digits(static_cast<int>(rng() % (kind == 1 ? 25 : 8)));
        if (rng() % 4 != 0)
          text += "." + std::string(rng() % 4 == 0 ? rng() % 24 : 0, '0') +
                  digits(static_cast<int>(rng() % (kind == 2 ? 24 : 9)));
        if (rng() % 6 == 0) {
          text += "eE"[rng() % 2];
          if (rng() % 2) text += "-+"[rng() % 2];
          text += digits(static_cast<int>(rng() % 4));
        }
      }
      text += separators[rng() % separators.size()];
    }
    ExpectMatchesReference(text);
  }
}

TEST(AscParseTest, SampleScanMatchesLiteralReading) {
  std::ifstream in(std::string(QORV_DATA_DIR) + "/sample/dragon_res4.asc", std::ios::binary);
  ASSERT_TRUE(in);
  std::ostringstream content;
  content << in.rdbuf();
  ExpectMatchesReference(content.str());
  EXPECT_GT(Parse(content.str()).count, 1000);
}

TEST(AscFileTest, RoundTripsThroughTheWriter) {
  const std::vector<float> points = {1.25f, -2.5f, 3.0f, 0.1234567f, 1e-7f, -40000.5f};
  const std::vector<float> normals = {0, 0, 1, 0.6f, 0.8f, 0};
  const std::vector<unsigned char> colours = {0, 128, 255, 1, 2, 3};
  const std::string path = TempPath("round_trip.asc");
  struct Case {
    const float* normals;
    const unsigned char* colours;
    int columns;
  };
  for (const Case& c : {Case{nullptr, nullptr, 3},
                        Case{normals.data(), nullptr, 6},
                        Case{normals.data(), colours.data(), 9},
                        Case{nullptr, colours.data(), 3}}) {
    ASSERT_TRUE(WritePointsToAsc(path.c_str(), points.data(), c.normals, c.colours, 2));
    AscCloud cloud;
    ASSERT_TRUE(ReadPointsFromAsc(path.c_str(), cloud));
    ASSERT_EQ(cloud.columns, c.columns);
    ASSERT_EQ(cloud.count, 2);
    for (size_t i = 0; i < points.size(); ++i) {
      char printed[64];  // "%f" keeps six decimals
      std::snprintf(printed, sizeof(printed), "%f", static_cast<double>(points[i]));
      EXPECT_EQ(cloud.points[i], std::strtof(printed, nullptr)) << printed;
    }
    EXPECT_EQ(cloud.normals, c.columns >= 6 ? normals : std::vector<float>());
    EXPECT_EQ(cloud.colours, c.columns == 9 ? colours : std::vector<unsigned char>());
  }
  std::ifstream written(path);
  std::string line;
  std::getline(written, line);
  EXPECT_EQ(line, "1.250000 -2.500000 3.000000");
  std::remove(path.c_str());
}

TEST(AscFileTest, UnreadableAndUnwritablePaths) {
  AscCloud cloud;
  EXPECT_FALSE(ReadPointsFromAsc(nullptr, cloud));
  EXPECT_FALSE(ReadPointsFromAsc(TempPath("missing.asc").c_str(), cloud));
  EXPECT_FALSE(ReadPointsFromAsc(TempPath("no_folder/x.asc").c_str(), cloud));
  EXPECT_FALSE(ReadPointsFromAsc(::testing::TempDir().c_str(), cloud));  // opens, cannot be read
  const float point[3] = {1, 2, 3};
  EXPECT_FALSE(WritePointsToAsc(nullptr, point, nullptr, nullptr, 1));
  EXPECT_FALSE(WritePointsToAsc(TempPath("no_folder/x.asc").c_str(), point, nullptr, nullptr, 1));
  if (access("/dev/full", W_OK) == 0) {  // the device accepts the open and fails every write
    std::vector<float> many(3 * 10000, 1.0f);
    EXPECT_FALSE(WritePointsToAsc("/dev/full", many.data(), nullptr, nullptr, 10000));
  }
}

TEST(AscFileTest, RefusesFilesOfFourGibibytes) {
  const std::string path = TempPath("huge.asc");
  std::FILE* file = std::fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  std::fputs("1 2 3\n", file);
  std::fclose(file);
  // A sparse file: nothing is read before the size test refuses it.
  ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(int64_t{1} << 32)), 0);
  AscCloud cloud;
  EXPECT_FALSE(ReadPointsFromAsc(path.c_str(), cloud));
  ASSERT_EQ(truncate(path.c_str(), 6), 0);
  EXPECT_TRUE(ReadPointsFromAsc(path.c_str(), cloud));
  EXPECT_EQ(cloud.count, 1);
  std::remove(path.c_str());
}

}  // namespace
}  // namespace qorv
