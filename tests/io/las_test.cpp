// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// LAS files: what the writer writes reads back bit for bit at the file's quantum; survey-scale
// coordinates keep a tenth of a millimetre; files of other versions and formats built byte by byte
// here (1.4 with 64-bit counts, waveform formats, extra bytes) read right; lying headers and LAZ
// are clear errors naming the file.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "io/cloud_files.hpp"
#include "io/las_reader.hpp"
#include "io/las_writer.hpp"
#include "support/floats.hpp"

namespace qorv::io {
namespace {

using qorv::test::SameBits;

std::string TempPath(const std::string& name) {
  return (std::filesystem::temp_directory_path() /
          ("qorv_las_test_" + std::to_string(::getpid()) + "_" + name))
      .string();
}

template <typename T>
void Put(std::string& out, size_t at, T v) {
  std::memcpy(&out[at], &v, sizeof(T));
}

// A LAS header of the given version built by hand: scale 0.01, offset (1000, 2000, 0), no VLR.
// The count goes in the legacy field, and in 1.4 in the 64-bit field too (legacy 0 for 6-10).
std::string Header(int minor, int format, int recordLength, uint64_t count) {
  const int size = minor >= 4 ? 375 : minor == 3 ? 235 : 227;
  std::string h(static_cast<size_t>(size), '\0');
  h.replace(0, 4, "LASF");
  h[24] = 1;
  h[25] = static_cast<char>(minor);
  Put<uint16_t>(h, 94, static_cast<uint16_t>(size));
  Put<uint32_t>(h, 96, static_cast<uint32_t>(size));
  h[104] = static_cast<char>(format);
  Put<uint16_t>(h, 105, static_cast<uint16_t>(recordLength));
  if (minor < 4 || format < 6) Put<uint32_t>(h, 107, static_cast<uint32_t>(count));
  for (int c = 0; c < 3; ++c) {
    Put<double>(h, 131 + 8 * c, 0.01);
    Put<double>(h, 155 + 8 * c, c == 0 ? 1000.0 : c == 1 ? 2000.0 : 0.0);
  }
  if (minor >= 4) Put<uint64_t>(h, 247, count);
  return h;
}

// One point record as the format lays it out; what the test does not set stays 0.
struct Record {
  int32_t xyz[3];
  uint16_t intensity;
  uint8_t cls;
  double gps;
  uint16_t rgb[3];
};

std::string Points(int format, int recordLength, const std::vector<Record>& records) {
  // The byte of the class, the GPS time and the colour in each format (-1: none).
  static const int kClass[11] = {15, 15, 15, 15, 15, 15, 16, 16, 16, 16, 16};
  static const int kGps[11] = {-1, 20, -1, 20, 20, 20, 22, 22, 22, 22, 22};
  static const int kRgb[11] = {-1, -1, 20, 28, -1, 28, -1, 30, 30, -1, 30};
  std::string out;
  for (const Record& r : records) {
    std::string p(static_cast<size_t>(recordLength), '\x5a');  // filler the reader must not read
    for (int c = 0; c < 3; ++c) Put<int32_t>(p, 4 * static_cast<size_t>(c), r.xyz[c]);
    Put<uint16_t>(p, 12, r.intensity);
    p[static_cast<size_t>(kClass[format])] = static_cast<char>(r.cls);
    if (kGps[format] >= 0) Put<double>(p, static_cast<size_t>(kGps[format]), r.gps);
    for (int c = 0; kRgb[format] >= 0 && c < 3; ++c)
      Put<uint16_t>(p, static_cast<size_t>(kRgb[format] + 2 * c), r.rgb[c]);
    out += p;
  }
  return out;
}

const std::vector<Record> kThree = {{{0, 0, 0}, 7, 2, 1.5, {0, 128, 255}},
                                    {{100, -250, 1234}, 65535, 0xe5, 2.5, {300, 65535, 0}},
                                    {{-7, 8, -9}, 0, 17, -3.25, {65280, 256, 511}}};

void ExpectRefused(const std::string& bytes,
                   const std::string& path,
                   const std::vector<std::string>& pieces) {
  try {
    ParseCloud(bytes, path, false, DepthCamera());
    ADD_FAILURE() << path << " was read; it should say " << pieces[0];
  } catch (const IoError& e) {
    const std::string message = e.what();
    EXPECT_EQ(e.kind(), IoError::kFormat) << message;
    EXPECT_NE(message.find("'" + path + "'"), std::string::npos) << message;
    for (const std::string& piece : pieces)
      EXPECT_NE(message.find(piece), std::string::npos) << "no '" << piece << "' in: " << message;
  }
}

// A cloud on a LAS quantum, with the extras asked for.
CloudData QuantumCloud(int n, bool gps, bool colour, int maxClass) {
  std::mt19937 random(11);
  std::uniform_int_distribution<int32_t> steps(-2000000, 2000000);
  CloudData c;
  c.hasLasQuantum = true;
  const double scale[3] = {0.001, 0.001, 0.0025}, offset[3] = {512000.0, 4100000.0, -12.0};
  std::copy(scale, scale + 3, c.lasScale);
  std::copy(offset, offset + 3, c.lasOffset);
  c.points.resize(3 * static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    double v[3];
    for (int k = 0; k < 3; ++k) v[k] = steps(random) * scale[k] + offset[k];
    c.setPoint(static_cast<size_t>(i), v[0], v[1], v[2]);
    c.intensity.push_back(static_cast<float>(random() % 65536));
    c.classification.push_back(static_cast<uint8_t>(random() % (maxClass + 1)));
    if (gps) c.gpsTime.push_back(1e9 + i * 0.000123);
    for (int k = 0; colour && k < 3; ++k) c.colours.push_back(static_cast<uint8_t>(random()));
  }
  c.width = n;
  return c;
}

TEST(LasFiles, EveryWrittenFormatReadsBackTheSameBits) {
  struct Case {
    bool gps, colour;
    int maxClass;
    const char* format;
  };
  const Case cases[] = {{false, false, 31, "las 1.2 (point format 0)"},
                        {true, false, 31, "las 1.2 (point format 1)"},
                        {false, true, 31, "las 1.2 (point format 2)"},
                        {true, true, 31, "las 1.2 (point format 3)"},
                        {false, false, 255, "las 1.4 (point format 6)"},
                        {true, true, 200, "las 1.4 (point format 7)"}};
  for (const Case& k : cases) {
    SCOPED_TRACE(k.format);
    const CloudData cloud = QuantumCloud(300, k.gps, k.colour, k.maxClass);
    const CloudData back = ParseLas(FormatLas(cloud), "back.las");
    EXPECT_EQ(back.format, k.format);
    EXPECT_TRUE(SameBits(back.points, cloud.points));
    EXPECT_EQ(std::vector<double>(back.origin, back.origin + 3),
              std::vector<double>(cloud.origin, cloud.origin + 3));
    EXPECT_TRUE(SameBits(back.intensity, cloud.intensity));
    EXPECT_EQ(back.classification, cloud.classification);
    EXPECT_EQ(back.colours, cloud.colours);
    if (!k.gps && k.maxClass > 31) {  // formats 6+ always carry a GPS time: 0 here
      EXPECT_EQ(back.gpsTime, std::vector<double>(300, 0.0));
    } else {
      EXPECT_TRUE(SameBits(back.gpsTime, cloud.gpsTime));
    }
    EXPECT_TRUE(back.hasLasQuantum);
    for (int c = 0; c < 3; ++c) {
      EXPECT_EQ(back.lasScale[c], cloud.lasScale[c]);
      EXPECT_EQ(back.lasOffset[c], cloud.lasOffset[c]);
    }
  }
  // Through the file layer, by the extension; intensity beyond 16 bits is clamped.
  CloudData cloud = QuantumCloud(50, true, true, 31);
  cloud.intensity[0] = 70000.0f;
  cloud.intensity[1] = -5.0f;
  const std::string path = TempPath("cloud.las");
  WriteCloudFile(path, cloud, Encoding::kDefault);
  const CloudData back = ReadCloudFile(path, false, DepthCamera());
  std::filesystem::remove(path);
  EXPECT_TRUE(SameBits(back.points, cloud.points));
  EXPECT_EQ(back.intensity[0], 65535.0f);
  EXPECT_EQ(back.intensity[1], 0.0f);
}

TEST(LasFiles, SurveyCoordinatesKeepATenthOfAMillimetre) {
  // No LAS quantum of its own: 0.1 mm from the cloud's origin.
  std::mt19937 random(3);
  std::uniform_real_distribution<double> spread(-150.0, 150.0);
  const int n = 2000;
  std::vector<double> truth;
  CloudData cloud;
  cloud.points.resize(3 * n);
  for (int i = 0; i < n; ++i) {
    const double v[3] = {
        500000.0 + spread(random), 4000000.0 + spread(random), 100.0 + spread(random) / 10};
    truth.insert(truth.end(), v, v + 3);
    cloud.setPoint(static_cast<size_t>(i), v[0], v[1], v[2]);
  }
  cloud.width = n;
  const CloudData back = ParseLas(FormatLas(cloud), "survey.las");
  EXPECT_EQ(back.lasScale[0], 0.0001);
  EXPECT_EQ(back.lasOffset[1], cloud.origin[1]);
  double worst = 0.0;
  for (size_t i = 0; i < static_cast<size_t>(n); ++i) {
    double p[3];
    back.position(i, p);
    for (size_t c = 0; c < 3; ++c) worst = std::max(worst, std::fabs(p[c] - truth[3 * i + c]));
  }
  EXPECT_LT(worst, 1e-4);

  // 300 km across needs the 1 mm quantum; a continent does not fit 32 bits at all.
  cloud.setPoint(0, 800000.0, 4000000.0, 100.0);
  const CloudData wide = ParseLas(FormatLas(cloud), "wide.las");
  EXPECT_EQ(wide.lasScale[0], 0.001);
  cloud.setPoint(1, 500000.0 - 5e6, 4000000.0, 100.0);
  try {
    WriteCloudFile(TempPath("huge.las"), cloud, Encoding::kDefault);
    ADD_FAILURE() << "a 5000 km cloud was written";
  } catch (const IoError& e) {
    EXPECT_NE(std::string(e.what()).find("huge.las"), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("cannot hold"), std::string::npos) << e.what();
  }
  EXPECT_FALSE(std::filesystem::exists(TempPath("huge.las")));
}

TEST(LasFiles, OtherVersionsAndFormatsBuiltByHand) {
  // 1.4, point format 6, 64-bit count only, 4 extra bytes a record: the full class byte.
  {
    const std::string bytes = Header(4, 6, 34, 3) + Points(6, 34, kThree);
    const CloudData c = ParseLas(bytes, "six.las");
    ASSERT_EQ(c.size(), 3);
    EXPECT_EQ(c.format, "las 1.4 (point format 6)");
    EXPECT_EQ(c.classification, (std::vector<uint8_t>{2, 0xe5, 17}));
    EXPECT_EQ(c.gpsTime, (std::vector<double>{1.5, 2.5, -3.25}));
    EXPECT_EQ(c.intensity, (std::vector<float>{7, 65535, 0}));
    double p[3];
    c.position(1, p);
    EXPECT_DOUBLE_EQ(p[0], 1001.0);
    EXPECT_DOUBLE_EQ(p[1], 1997.5);
    EXPECT_NEAR(p[2], 12.34, 1e-6);  // a float near the origin
    EXPECT_EQ(c.fields.back(), "extra_bytes");
    EXPECT_TRUE(c.colours.empty());
  }
  // 1.2 format 3 after a VLR-sized gap (the data offset is what counts), 16-bit colours: the
  // class is 5 bits, colours are scaled down.
  {
    std::string head = Header(2, 3, 40, 3);
    Put<uint32_t>(head, 96, 227 + 60);
    const std::string bytes = head + std::string(60, '\x77') + Points(3, 40, kThree);
    const CloudData c = ParseLas(bytes, "three.las");
    EXPECT_EQ(c.classification, (std::vector<uint8_t>{2, 5, 17}));
    EXPECT_EQ(c.colours, (std::vector<uint8_t>{0, 0, 0, 1, 255, 0, 255, 1, 1}));
    EXPECT_EQ(c.gpsTime[2], -3.25);
  }
  // Colours that never pass 255 are 8-bit values stored as they are.
  {
    std::vector<Record> dim = kThree;
    dim[1].rgb[0] = 200, dim[1].rgb[1] = 255;
    dim[2].rgb[0] = 9, dim[2].rgb[1] = 10, dim[2].rgb[2] = 11;
    const CloudData c = ParseLas(Header(2, 2, 26, 3) + Points(2, 26, dim), "dim.las");
    EXPECT_EQ(c.colours, (std::vector<uint8_t>{0, 128, 255, 200, 255, 0, 9, 10, 11}));
    EXPECT_TRUE(c.gpsTime.empty());
  }
  // Waveform formats (1.3 format 5, 1.4 format 10): the points, the packets passed over.
  for (const auto& [minor, format, size] : {std::tuple{3, 5, 63}, std::tuple{4, 10, 67}}) {
    const CloudData c =
        ParseLas(Header(minor, format, size, 3) + Points(format, size, kThree), "wave.las");
    ASSERT_EQ(c.size(), 3) << format;
    EXPECT_FLOAT_EQ(c.points[3 * 2 + 2], -0.09f) << format;
    EXPECT_EQ(c.gpsTime[1], 2.5) << format;
    EXPECT_EQ(c.colours[3], 1) << format;
    EXPECT_EQ(c.fields.back(), "wave_packet") << format;
  }
  // 1.0, format 1: the oldest layout.
  EXPECT_EQ(ParseLas(Header(0, 1, 28, 3) + Points(1, 28, kThree), "old.las").format,
            "las 1.0 (point format 1)");
}

TEST(LasFiles, LyingHeadersAreClearErrors) {
  const std::string good = Header(2, 1, 28, 3) + Points(1, 28, kThree);
  ASSERT_EQ(ParseCloud(good, "good.las", false, DepthCamera()).size(), 3);
  auto with = [&](auto change) {
    std::string bytes = good;
    change(bytes);
    return bytes;
  };
  ExpectRefused(with([](std::string& b) { Put<uint32_t>(b, 107, 4000000000u); }),
                "count.las",
                {"4000000000 points of 28 bytes", "holds only 311 bytes"});
  ExpectRefused(Header(4, 6, 30, uint64_t{1} << 62) + Points(6, 30, kThree),
                "wide.las",
                {"4611686018427387904"});
  ExpectRefused(with([](std::string& b) { Put<uint16_t>(b, 105, 20); }),
                "short.las",
                {"record length is 20", "28 that point format 1 needs"});
  ExpectRefused(with([](std::string& b) { Put<uint32_t>(b, 96, 5000); }),
                "past.las",
                {"5000", "past the end", "311"});
  ExpectRefused(with([](std::string& b) { Put<uint32_t>(b, 96, 100); }),
                "inside.las",
                {"100", "inside the header of 227"});
  ExpectRefused(with([](std::string& b) { Put<uint16_t>(b, 94, 200); }),
                "header.las",
                {"header size is 200", "227"});
  std::string short14 = Header(4, 6, 30, 3) + Points(6, 30, kThree);
  Put<uint16_t>(short14, 94, 227);
  ExpectRefused(short14, "old14.las", {"header size is 227", "375"});
  ExpectRefused(with([](std::string& b) { b[104] = 11; }), "eleven.las", {"point format 11"});
  ExpectRefused(with([](std::string& b) { Put<double>(b, 139, 0.0); }), "flat.las", {"Y scale"});
  ExpectRefused(with([](std::string& b) { Put<double>(b, 147, std::nan("")); }),
                "nan.las",
                {"Z scale", "nan"});
  ExpectRefused(with([](std::string& b) { Put<uint32_t>(b, 107, 0); }), "none.las", {"no point"});
  ExpectRefused(with([](std::string& b) { b[25] = 5; }), "future.las", {"version 1.5"});
  ExpectRefused(good.substr(0, 100), "cut.las", {"ends inside the LAS header", "100"});
  ExpectRefused("1 2 3\n", "text.las", {"not a LAS file", "'LASF'", "1 2 "});
}

TEST(LasFiles, LazIsRefusedWithWhatToDo) {
  const std::string las = Header(2, 0, 20, 3) + Points(0, 20, kThree);
  std::string laz = las;
  laz[104] = static_cast<char>(0x80 | 3);
  for (const auto& [bytes, path] : {std::pair{laz, "compressed.las"},
                                    std::pair{las, "named.laz"},
                                    std::pair{std::string("junk"), "junk.laz"}}) {
    ExpectRefused(bytes, path, {"LAZ", "no decompressor", "laszip -i in.laz -o out.las"});
  }
}

// The fuzzer's seeds: the valid ones read, the ones named "lying*" are refused.
TEST(LasFiles, FuzzSeeds) {
  const std::filesystem::path corpus =
      std::filesystem::path(QORV_DATA_DIR) / ".." / "fuzz" / "corpus" / "qorv_fuzz_las_reader";
  int read = 0, refused = 0;
  for (const auto& entry : std::filesystem::directory_iterator(corpus)) {
    const std::string path = entry.path().string();
    if (entry.path().filename().string().rfind("lying", 0) == 0) {
      EXPECT_THROW(ReadCloudFile(path, false, DepthCamera()), IoError) << path;
      ++refused;
    } else {
      EXPECT_GT(ReadCloudFile(path, false, DepthCamera()).size(), 0) << path;
      ++read;
    }
  }
  EXPECT_GE(read, 4);
  EXPECT_GE(refused, 3);
}

}  // namespace
}  // namespace qorv::io
