// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// Cloud files: round trips through every writer, each encoding's edge cases, organized layouts,
// depth images against the pinhole formula, and lying or broken files.
#include "io/cloud_files.hpp"

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "io/pcd_reader.hpp"
#include "io/ply_reader.hpp"
#include "support/floats.hpp"

#include <png.h>
#include <tiffio.h>

namespace qorv::io {
namespace {

using qorv::test::SameBits;

const float kNaN = std::numeric_limits<float>::quiet_NaN();

std::string TempPath(const std::string& name) {
  return (std::filesystem::temp_directory_path() /
          ("qorv_io_test_" + std::to_string(::getpid()) + "_" + name))
      .string();
}

CloudData RandomCloud(int n, bool extras) {
  std::mt19937 random(5);
  std::uniform_real_distribution<float> unit(-10.0f, 10.0f);
  CloudData c;
  for (int i = 0; i < 3 * n; ++i)
    c.points.push_back(unit(random) * 1e-3f * static_cast<float>(i % 97));
  if (extras) {
    for (int i = 0; i < 3 * n; ++i) c.normals.push_back(unit(random) / 10.0f);
    for (int i = 0; i < 3 * n; ++i) c.colours.push_back(static_cast<uint8_t>(random() & 0xff));
    for (int i = 0; i < n; ++i) c.intensity.push_back(unit(random));
  }
  c.width = n;
  return c;
}

void ExpectFormatError(std::string_view bytes, const std::string& message) {
  try {
    ParseCloud(bytes, "bad", false, DepthCamera());
    ADD_FAILURE() << "no error for a file that should say: " << message;
  } catch (const IoError& e) {
    EXPECT_EQ(e.kind(), IoError::kFormat);
    EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
  }
}

TEST(CloudFiles, EveryWriterRoundTripsTheSameBits) {
  const CloudData cloud = RandomCloud(500, true);
  const std::pair<const char*, Encoding> cases[] = {{"a.ply", Encoding::kDefault},
                                                    {"b.ply", Encoding::kAscii},
                                                    {"c.pcd", Encoding::kDefault},
                                                    {"d.pcd", Encoding::kAscii},
                                                    {"e.pcd", Encoding::kCompressed},
                                                    {"f.asc", Encoding::kDefault}};
  for (const auto& [name, encoding] : cases) {
    const std::string path = TempPath(name);
    WriteCloudFile(path, cloud, encoding);
    const CloudData back = ReadCloudFile(path, false, DepthCamera());
    std::filesystem::remove(path);
    if (std::string(name) == "f.asc") {  // ASC text has six decimals: close, not the same bits
      ASSERT_EQ(back.size(), cloud.size());
      EXPECT_NEAR(back.points[100], cloud.points[100], 1e-5f);
      continue;
    }
    EXPECT_TRUE(SameBits(back.points, cloud.points)) << name;
    EXPECT_TRUE(SameBits(back.normals, cloud.normals)) << name;
    EXPECT_EQ(back.colours, cloud.colours) << name;
    EXPECT_TRUE(SameBits(back.intensity, cloud.intensity)) << name;
  }
}

TEST(CloudFiles, AFileIsReadOnlyAsWhatItIsAndWrittenOnlyAsItsExtensionSays) {
  // A LAS, LAZ or unknown file is refused with what to do, never read as points (meshes and
  // column text have their own tests).
  const std::string rows = "1 2 3\n4 5 6\n";
  EXPECT_EQ(ParseCloud(rows, "two.xyz", false, DepthCamera()).size(), 2);
  const std::pair<const char*, const char*> refused[] = {{"scan.laz", "no decompressor"},
                                                         {"scan.las", "not a LAS file"},
                                                         {"thing.bin", "'.bin' is none of"},
                                                         {"noextension", "no extension"}};
  for (const auto& [name, message] : refused) {
    try {
      ParseCloud(rows, name, false, DepthCamera());
      ADD_FAILURE() << name << " was read";
    } catch (const IoError& e) {
      EXPECT_EQ(e.kind(), IoError::kFormat);
      EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
      EXPECT_NE(std::string(e.what()).find(name), std::string::npos) << e.what();
    }
  }
  const std::string e57 = TempPath("out.e57");
  EXPECT_THROW(WriteCloudFile(e57, RandomCloud(10, false), Encoding::kDefault), IoError);
  EXPECT_FALSE(std::filesystem::exists(e57));
}

TEST(CloudFiles, OrganizedPcdKeepsItsHolesOrDropsThem) {
  CloudData frame = RandomCloud(12, false);
  frame.width = 4;
  frame.height = 3;
  frame.points[3 * 5] = kNaN;
  frame.points[3 * 7 + 2] = kNaN;
  frame.hasViewpoint = true;
  frame.viewpoint[0] = 0.5;
  for (Encoding encoding : {Encoding::kDefault, Encoding::kAscii, Encoding::kCompressed}) {
    const std::string bytes = FormatPcd(frame, encoding);
    const CloudData kept = ParseCloud(bytes, "f.pcd", true, DepthCamera());
    EXPECT_EQ(kept.width, 4);
    EXPECT_EQ(kept.height, 3);
    EXPECT_EQ(kept.size(), 12);
    EXPECT_EQ(kept.nonFinite, 2);
    EXPECT_TRUE(std::isnan(kept.points[3 * 5]));
    EXPECT_EQ(kept.points[3 * 6], frame.points[3 * 6]);
    EXPECT_TRUE(kept.hasViewpoint);
    EXPECT_EQ(kept.viewpoint[0], 0.5);
    const CloudData finite = ParseCloud(bytes, "f.pcd", false, DepthCamera());
    EXPECT_EQ(finite.size(), 10);
    EXPECT_FALSE(finite.organized());
    EXPECT_EQ(finite.points[3 * 5], frame.points[3 * 6]);  // the hole closed up
  }
}

TEST(CloudFiles, PcdFieldsInAnyOrderTypeAndCount) {
  // A padding field with COUNT 3 first, then z y x as doubles, rgba as U4, intensity as U2.
  std::string pcd =
      "# .PCD v0.7\nVERSION 0.7\nFIELDS pad z y x rgba intensity\nSIZE 1 8 8 8 4 2\nTYPE U F F F U "
      "U\n"
      "COUNT 3 1 1 1 1 1\nWIDTH 2\nHEIGHT 1\nPOINTS 2\nDATA binary\n";
  for (int i = 0; i < 2; ++i) {
    const unsigned char pad[3] = {9, 9, 9};
    pcd.append(reinterpret_cast<const char*>(pad), 3);
    for (double v : {3.0 + i, 2.0 + i, 1.0 + i}) pcd.append(reinterpret_cast<const char*>(&v), 8);
    const uint32_t rgba = 0xff102030u;
    pcd.append(reinterpret_cast<const char*>(&rgba), 4);
    const uint16_t intensity = static_cast<uint16_t>(700 + i);
    pcd.append(reinterpret_cast<const char*>(&intensity), 2);
  }
  const CloudData c = ParsePcd(pcd, "any.pcd");
  ASSERT_EQ(c.size(), 2);
  EXPECT_EQ(c.points, (std::vector<float>{1, 2, 3, 2, 3, 4}));
  EXPECT_EQ(c.colours, (std::vector<uint8_t>{0x10, 0x20, 0x30, 0x10, 0x20, 0x30}));
  EXPECT_EQ(c.intensity, (std::vector<float>{700, 701}));
  EXPECT_EQ(c.fields, (std::vector<std::string>{"pad", "z", "y", "x", "rgba", "intensity"}));
}

TEST(CloudFiles, PlyOfAnyEndianAndTypeWithFacesAndComments) {
  std::string ply =
      "ply\nformat binary_big_endian 1.0\ncomment from a mesh tool\nobj_info nothing\nelement "
      "vertex 2\n"
      "property double x\nproperty double y\nproperty double z\nproperty float nx\nproperty float "
      "ny\n"
      "property float nz\nproperty float red\nproperty float green\nproperty float blue\n"
      "element face 1\nproperty list uchar int vertex_indices\nend_header\n";
  auto big = [&](auto v) {
    unsigned char bytes[sizeof(v)];
    std::memcpy(bytes, &v, sizeof(v));
    for (size_t i = sizeof(v); i-- > 0;) ply.push_back(static_cast<char>(bytes[i]));
  };
  for (int i = 0; i < 2; ++i) {
    big(1.5 + i), big(-2.0), big(1e-3);
    big(0.0f), big(0.0f), big(1.0f);
    big(1.0f), big(0.5f), big(0.0f);
  }
  ply.push_back(3);
  big(int32_t{0}), big(int32_t{1}), big(int32_t{1});
  const CloudData c = ParsePly(ply, "mesh.ply");
  ASSERT_EQ(c.size(), 2);
  EXPECT_EQ(c.points[3], 2.5f);
  EXPECT_EQ(c.points[5], 1e-3f);
  EXPECT_EQ(c.normals[2], 1.0f);
  EXPECT_EQ(c.colours, (std::vector<uint8_t>{255, 128, 0, 255, 128, 0}));
  EXPECT_EQ(c.format, "ply (binary big endian)");
}

TEST(CloudFiles, LyingAndBrokenFilesAreClearErrors) {
  const std::string head = "VERSION 0.7\nFIELDS x y z\nSIZE 4 4 4\nTYPE F F F\nCOUNT 1 1 1\n";
  ExpectFormatError(head + "WIDTH 2147483648\nHEIGHT 1\nPOINTS 2147483648\nDATA binary\n",
                    "more points than supported");
  ExpectFormatError(head + "WIDTH 1\nHEIGHT 1\nPOINTS 9223372036854775807\nDATA binary\n",
                    "more points");
  ExpectFormatError(head + "WIDTH 1\nHEIGHT 1\nPOINTS 99999999999999999999\nDATA binary\n",
                    "bad POINTS");
  ExpectFormatError(head + "WIDTH 3\nHEIGHT 1\nPOINTS 3\nDATA binary\n" + std::string(20, '\0'),
                    "ends early");
  ExpectFormatError("VERSION 0.7\nFIELDS x y z\nSIZE 4 4 3\nTYPE F F F\nPOINTS 1\nDATA binary\n",
                    "field type");
  ExpectFormatError("VERSION 0.7\nFIELDS x y\nSIZE 4 4\nTYPE F F\nPOINTS 1\nDATA ascii\n1 2\n",
                    "lack x, y or z");
  ExpectFormatError(head + "POINTS 1\nDATA lzma\n", "unsupported PCD DATA");
  // Compressed: a claimed size that disagrees with the header, an implausible ratio, a corrupt
  // block.
  auto compressed = [&](uint32_t packed, uint32_t full, const std::string& block) {
    std::string bytes = head + "WIDTH 1000\nHEIGHT 1\nPOINTS 1000\nDATA binary_compressed\n";
    bytes.append(reinterpret_cast<const char*>(&packed), 4);
    bytes.append(reinterpret_cast<const char*>(&full), 4);
    return bytes + block;
  };
  ExpectFormatError(compressed(4, 12, "abcd"), "the header asks for 12000");
  ExpectFormatError(compressed(4, 12000, "abcd"), "implausible");
  ExpectFormatError(compressed(200, 12000, std::string(200, '\xff')), "corrupt");
  ExpectFormatError(compressed(4000000, 12000, "abcd"), "ends early");
  // PLY: counts the file cannot hold, unknown types, no vertices.
  ExpectFormatError(
      "ply\nformat binary_little_endian 1.0\nelement vertex 9223372036854775807\n"
      "property float x\nproperty float y\nproperty float z\nend_header\n",
      "more points than supported");
  ExpectFormatError(
      "ply\nformat binary_little_endian 1.0\nelement vertex 1000\nproperty float x\n"
      "property float y\nproperty float z\nend_header\n" +
          std::string(12, '\0'),
      "ends early");
  ExpectFormatError("ply\nformat ascii 1.0\nelement vertex 1\nproperty float128 x\nend_header\n",
                    "unknown PLY");
  ExpectFormatError("ply\nformat ascii 1.0\nelement face 0\nend_header\n", "no vertex element");
  ExpectFormatError(
      "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
      "property float z\nend_header\nnan nan nan\n",
      "no point with finite coordinates");
}

// ---- Depth images -------------------------------------------------------------------------------

std::vector<uint16_t> DepthPattern(int w, int h) {
  std::vector<uint16_t> depth(static_cast<size_t>(w) * h);
  for (int v = 0; v < h; ++v) {
    for (int u = 0; u < w; ++u)
      depth[static_cast<size_t>(v) * w + u] =
          (u + v) % 7 == 0 ? 0 : static_cast<uint16_t>(800 + 3 * u + v);
  }
  return depth;
}

void ExpectPinhole(
    const CloudData& c, const std::vector<uint16_t>& depth, int w, int h, const DepthCamera& k) {
  ASSERT_EQ(c.width, w);
  ASSERT_EQ(c.height, h);
  for (int v = 0; v < h; ++v) {
    for (int u = 0; u < w; ++u) {
      const size_t i = static_cast<size_t>(v) * w + u;
      const float* p = &c.points[3 * i];
      if (depth[i] == 0) {
        EXPECT_TRUE(std::isnan(p[0]));
        continue;
      }
      const double z = depth[i] / k.depthScale;
      EXPECT_NEAR(p[0], (u - k.cx) * z / k.fx, 1e-6);
      EXPECT_NEAR(p[1], (v - k.cy) * z / k.fy, 1e-6);
      EXPECT_NEAR(p[2], z, 1e-6);
    }
  }
}

TEST(DepthImages, PngAndTiffFollowThePinholeFormula) {
  const int w = 32, h = 24;
  const std::vector<uint16_t> depth = DepthPattern(w, h);
  DepthCamera k;
  k.fx = 30.0, k.fy = 31.0, k.cx = 15.5, k.cy = 11.5, k.depthScale = 5000.0;

  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = w;
  image.height = h;
  image.format = PNG_FORMAT_LINEAR_Y;
  const std::string png = TempPath("depth.png");
  ASSERT_TRUE(png_image_write_to_file(&image, png.c_str(), 0, depth.data(), 0, nullptr));
  const CloudData fromPng = ReadCloudFile(png, true, k);
  ExpectPinhole(fromPng, depth, w, h, k);
  EXPECT_EQ(fromPng.format, "depth image");
  EXPECT_EQ(ReadCloudFile(png, false, k).size(), fromPng.size() - fromPng.nonFinite);
  std::filesystem::remove(png);

  const std::string tif = TempPath("depth.tif");
  TIFF* tiff = TIFFOpen(tif.c_str(), "w");
  ASSERT_NE(tiff, nullptr);
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, w);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, h);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 16);
  TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  for (int r = 0; r < h; ++r)
    TIFFWriteScanline(tiff, const_cast<uint16_t*>(depth.data()) + r * w, r, 0);
  TIFFClose(tiff);
  ExpectPinhole(ReadCloudFile(tif, true, k), depth, w, h, k);
  std::filesystem::remove(tif);
}

TEST(DepthImages, WrongKindsOfImagesAreRefused) {
  const int w = 8, h = 8;
  std::vector<uint8_t> grey(static_cast<size_t>(w) * h, 100);
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = w;
  image.height = h;
  image.format = PNG_FORMAT_GRAY;
  size_t size = 0;
  ASSERT_TRUE(png_image_write_to_memory(&image, nullptr, &size, 0, grey.data(), 0, nullptr));
  std::string bytes(size, '\0');
  ASSERT_TRUE(png_image_write_to_memory(&image, bytes.data(), &size, 0, grey.data(), 0, nullptr));
  ExpectFormatError(bytes, "16-bit grey");
  ExpectFormatError(bytes.substr(0, bytes.size() / 2) + std::string(4, '\0'), "PNG");  // cut short
}

}  // namespace
}  // namespace qorv::io

namespace qorv::io {
namespace {

// The fuzzers' seed files (every kind the readers take) read as clouds: regression cases. Seeds
// named "empty*" hold no points: parsed cleanly, then refused as clouds.
TEST(CloudFiles, FuzzSeedsReadAsClouds) {
  const std::filesystem::path corpus =
      std::filesystem::path(QORV_DATA_DIR) / ".." / "fuzz" / "corpus";
  int files = 0;
  for (const char* target :
       {"qorv_fuzz_pcd_reader", "qorv_fuzz_ply_reader", "qorv_fuzz_depth_image"}) {
    for (const auto& entry : std::filesystem::directory_iterator(corpus / target)) {
      // Inputs the fuzzer found keep its bytes and have no extension; the replay tests run them.
      if (!entry.path().has_extension()) continue;
      if (entry.path().filename().string().rfind("empty", 0) == 0) {
        EXPECT_THROW(ReadCloudFile(entry.path().string(), true, DepthCamera()), IoError)
            << entry.path();
      } else {
        const CloudData cloud = ReadCloudFile(entry.path().string(), true, DepthCamera());
        EXPECT_GT(cloud.size() - cloud.nonFinite, 0) << entry.path();
      }
      ++files;
    }
  }
  EXPECT_GE(files, 9);
}

}  // namespace
}  // namespace qorv::io

namespace qorv::io {
namespace {

TEST(CloudFiles, TextPcdColourIsWrittenAsPclWritesItAndSurveyPointsInDouble) {
  // PCL 1.13 and Open3D 0.16 read text rgb as an unsigned packed integer (alpha opaque); both
  // read these files back to the same colours (checked by hand).
  CloudData cloud;
  cloud.points = {1, 2, 3, 4, 5, 6};
  cloud.colours = {255, 128, 7, 0, 0, 0};
  cloud.width = 2;
  const std::string text = FormatPcd(cloud, Encoding::kAscii);
  EXPECT_NE(text.find("FIELDS x y z rgb\nSIZE 4 4 4 4\nTYPE F F F U\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\n1 2 3 4294934535\n4 5 6 4278190080\n"), std::string::npos) << text;
  EXPECT_EQ(ParseCloud(text, "c.pcd", false, DepthCamera()).colours, cloud.colours);

  // A cloud kept relative to an origin is written in double and read back to the same spot.
  CloudData far;
  far.points.resize(6);
  far.width = 2;
  far.setPoint(0, 500000.125, 4000000.25, 100.5);
  far.setPoint(1, 500001.375, 4000002.5, 101.0);
  EXPECT_EQ(far.origin[0], 500000.0);
  EXPECT_EQ(far.origin[1], 4000000.0);
  EXPECT_EQ(far.origin[2], 0.0);  // small enough for float
  for (const char* name : {"far.ply", "far.pcd", "far.xyz"}) {
    const std::string ext = Extension(name);
    const std::string bytes = ext == ".ply"   ? FormatPly(far, Encoding::kAscii)
                              : ext == ".pcd" ? FormatPcd(far, Encoding::kDefault)
                                              : FormatAsc(far);
    const CloudData back = ParseCloud(bytes, name, false, DepthCamera());
    double p[3];
    back.position(1, p);
    EXPECT_EQ(p[0], 500001.375) << name;
    EXPECT_EQ(p[1], 4000002.5) << name;
    EXPECT_EQ(p[2], 101.0) << name;
  }
}

}  // namespace
}  // namespace qorv::io
