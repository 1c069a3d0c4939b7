// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// Column text, OBJ and STL: the layouts people write (headers, count lines, CSV, Open3D and PTS
// files, given columns), agreement with the library's ASC reader, mesh vertices without their
// faces, and lying or mislabelled files refused with the line and what was wrong.
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "geometry/asc_file.hpp"
#include "io/cloud_files.hpp"
#include "io/column_text.hpp"
#include "support/floats.hpp"

namespace qorv::io {
namespace {

CloudData Read(const std::string& bytes, const std::string& name, const std::string& columns = "") {
  return ParseCloud(bytes, name, false, DepthCamera(), columns);
}

// The error ParseCloud gives, or "" when it reads the file.
std::string ErrorOf(const std::string& bytes,
                    const std::string& name,
                    const std::string& columns = "") {
  try {
    Read(bytes, name, columns);
  } catch (const IoError& e) {
    EXPECT_EQ(e.kind(), IoError::kFormat) << e.what();
    return e.what();
  }
  return "";
}

void ExpectError(const std::string& bytes,
                 const std::string& name,
                 const std::vector<std::string>& parts,
                 const std::string& columns = "") {
  const std::string message = ErrorOf(bytes, name, columns);
  ASSERT_FALSE(message.empty()) << name << " was read";
  EXPECT_NE(message.find("'" + name + "'"), std::string::npos) << message;
  for (const std::string& part : parts)
    EXPECT_NE(message.find(part), std::string::npos) << name << ": " << message;
}

TEST(ColumnText, HeadersCountLinesAndSeparatorsAsToolsWriteThem) {
  struct Case {
    const char* name;
    std::string text;
    int64_t points;
    bool normals, colours, intensity;
  };
  std::string sixRows = "x,y,z\n";
  for (int i = 0; i < 6; ++i) sixRows += std::to_string(i) + "," + std::to_string(i) + ",1.5\n";
  const Case cases[] = {
      {"rows.csv", sixRows, 6, false, false, false},
      {"semi.csv", "X;Y;Z;Intensity\r\n1;2;3;0.5\r\n4;5;6;0.25\r\n", 2, false, false, true},
      {"spaced.csv", "x, y, z, r, g, b\n1, 2, 3, 10, 20, 30\n", 1, false, true, false},
      {"tool.txt", "//X Y Z R G B\n1 2 3 10 20 30\n4 5 6 40 50 60\n", 2, false, true, false},
      {"named.txt",
       "# scan of the yard\nX Y Z Intensity time\n\n1 2 3 7 0.1\n",
       1,
       false,
       false,
       true},
      {"normals.txt", "x y z normal_x normal_y normal_z\n1 2 3 0 0 1\n", 1, true, false, false},
      {"open3d.pts", "2\n1 2 3 100 255 0 0\n4 5 6 200 0 255 0\n", 2, false, true, true},
      {"leica.pts", "3\n1 2 3 -1200\n4 5 6 300\n7 8 9 0\n", 3, false, false, true},
      {"rgb.pts", "1 2 3 255 0 0\n", 1, false, true, false},
      {"open3d.xyzn", "1 2 3 0 1 0\n", 1, true, false, false},
      {"open3d.xyzrgb", "1 2 3 0.5 0 1\n", 1, false, true, false},
      {"plain.xyz", "// exported\n1 2 3\n\n# note\n4 5 6\n", 2, false, false, false},
      {"bom.csv", "\xEF\xBB\xBFx,y,z\n1,2,3\n", 1, false, false, false},
      {"nine.asc", "1 2 3 0 0 1 10 20 30\n", 1, true, true, false},
      {"seven.txt", "1 2 3 9 10 20 30\n", 1, false, true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const CloudData cloud = Read(c.text, c.name);
    EXPECT_EQ(cloud.size(), c.points);
    EXPECT_EQ(cloud.normals.empty(), !c.normals);
    EXPECT_EQ(cloud.colours.empty(), !c.colours);
    EXPECT_EQ(cloud.intensity.empty(), !c.intensity);
    EXPECT_EQ(cloud.points[0], c.name == std::string("rows.csv") ? 0.0f : 1.0f);
  }
  // Values land in their columns: intensity before colours in PTS, unit colours scaled.
  const CloudData pts = Read(cases[6].text, "open3d.pts");
  EXPECT_EQ(pts.intensity[1], 200.0f);
  EXPECT_EQ(pts.colours, (std::vector<uint8_t>{255, 0, 0, 0, 255, 0}));
  EXPECT_EQ(Read(cases[10].text, "open3d.xyzrgb").colours, (std::vector<uint8_t>{128, 0, 255}));
  EXPECT_EQ(Read(cases[2].text, "spaced.csv").colours, (std::vector<uint8_t>{10, 20, 30}));
  EXPECT_EQ(Read(cases[5].text, "normals.txt").normals, (std::vector<float>{0, 0, 1}));
  // Whole 0 and 1 colours are bytes, not unit floats.
  EXPECT_EQ(Read("1 2 3 1 0 1\n", "dark.xyzrgb").colours, (std::vector<uint8_t>{1, 0, 1}));
}

TEST(ColumnText, GivenColumnsOverrideHeaderAndGuess) {
  const CloudData skipped =
      Read("1 2 3 99 0.5\n4 5 6 99 0.75\n", "five.txt", "x,y,z,skip,intensity");
  ASSERT_EQ(skipped.size(), 2);
  EXPECT_EQ(skipped.intensity, (std::vector<float>{0.5f, 0.75f}));
  // The names of the columns override the header's and the guess for six columns.
  const CloudData swapped = Read("a b c d e f\n1 2 3 4 5 6\n", "six.txt", "z,_,y,x,skip,skip");
  EXPECT_EQ(swapped.points, (std::vector<float>{4, 3, 1}));
  const CloudData reordered = Read("x y z nx ny nz\n1 2 3 4 5 6\n", "h.txt", "z y x r g b");
  EXPECT_EQ(reordered.points, (std::vector<float>{3, 2, 1}));
  EXPECT_EQ(reordered.colours, (std::vector<uint8_t>{4, 5, 6}));
  EXPECT_TRUE(reordered.normals.empty());
  // Fewer names than columns leave the rest unread.
  EXPECT_EQ(Read("1 2 3 4 5\n", "f.txt", "x y z").size(), 1);
  ExpectError("1 2 3\n", "f.txt", {"unknown column name 'height'"}, "x,y,height");
  ExpectError("1 2 3\n", "f.txt", {"4 columns", "have 3"}, "x,y,z,i");
  ExpectError("1 2 3\n", "f.txt", {"x twice"}, "x,x,z");
}

TEST(ColumnText, BrokenOrAmbiguousRowsAreErrorsNamingTheLine) {
  struct Case {
    const char* name;
    std::string text;
    std::vector<std::string> parts;
  };
  const Case cases[] = {
      {"uneven.xyz", "1 2 3\n4 5 6\n\n7 8\n", {"line 4", "2 columns", "have 3"}},
      {"long.csv", "x,y,z\n1,2,3\n1,2,3,4\n", {"line 3", "4 columns", "have 3"}},
      {"mesh.xyz", "1 2 3\n4 5 6\nf 1 2 3\n", {"line 3", "'f' is no number"}},
      {"word.csv", "x,y,z\n1,2,3\n1,two,3\n", {"line 3", "'two'"}},
      {"empty.csv", "x,y,z\n1,,3\n", {"line 2", "column 2 is empty"}},
      {"count.pts", "5\n1 2 3\n4 5 6\n", {"says 5 rows", "2 rows follow"}},
      {"five.txt", "1 2 3 4 5\n", {"5 columns", "--columns"}},
      {"two.xyz", "1 2\n", {"2 columns", "--columns"}},
      {"six.csv", "1,2,3,4,5,6\n", {"normals or colours", "--columns"}},
      {"header.csv", "x,y,z,i\n1,2,3\n", {"line 2", "3 columns", "names 4"}},
      {"names.txt", "Easting Northing Height\n1 2 3\n", {"names no x, y and z", "--columns"}},
      {"partial.txt", "x y z nx ny\n1 2 3 4 5\n", {"only some of nx ny nz"}},
      {"colour.xyzrgb", "1 2 3 300 0 0\n", {"line 1", "outside 0-255"}},
      {"nothing.xyz", "# no rows\n\n", {"expected rows of numbers but found none"}},
      {"binary.xyz", std::string("1 2 3\n\x01\x00\xff", 9), {"expected column text", "binary"}},
  };
  for (const Case& c : cases) ExpectError(c.text, c.name, c.parts);
}

TEST(ColumnText, AgreesWithTheAscReaderAndKeepsSurveyCoordinates) {
  // Long fractions, exponents and signs, in the library's three ASC layouts.
  std::mt19937 random(11);
  std::uniform_real_distribution<double> value(-50.0, 50.0);
  for (int columns : {3, 6, 9}) {
    SCOPED_TRACE(columns);
    std::string text;
    char word[64];
    for (int row = 0; row < 300; ++row) {
      for (int c = 0; c < columns; ++c) {
        if (c >= 6) {
          std::snprintf(word, sizeof word, "%d ", static_cast<int>(random() % 256));
        } else if (row % 3 == 0) {
          std::snprintf(word, sizeof word, "%.17g ", value(random));
        } else {
          std::snprintf(word, sizeof word, "%+.6e ", value(random));
        }
        text += word;
      }
      text += "\n";
    }
    const AscCloud asc = ParseAsc(text.c_str(), text.size());
    const CloudData cloud = Read(text, "rows.asc");
    ASSERT_EQ(cloud.size(), asc.count);
    EXPECT_TRUE(test::SameBits(cloud.points, asc.points));
    EXPECT_TRUE(test::SameBits(cloud.normals, asc.normals));
    EXPECT_EQ(cloud.colours, std::vector<uint8_t>(asc.colours.begin(), asc.colours.end()));
  }
  // Coordinates float cannot hold are kept relative to an origin, whole in double.
  const CloudData survey = Read("512345.125,5412345.5,12.25\n512346.5,5412340.25,13\n", "s.csv");
  double p[3];
  survey.position(1, p);
  EXPECT_EQ(p[0], 512346.5);
  EXPECT_EQ(p[1], 5412340.25);
  EXPECT_TRUE(survey.hasOrigin());
}

// A unit cube: 8 corners, 12 triangles (two a side).
const float kCorner[8][3] = {
    {0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
const int kTriangle[12][3] = {{0, 2, 1},
                              {0, 3, 2},
                              {4, 5, 6},
                              {4, 6, 7},
                              {0, 1, 5},
                              {0, 5, 4},
                              {1, 2, 6},
                              {1, 6, 5},
                              {2, 3, 7},
                              {2, 7, 6},
                              {3, 0, 4},
                              {3, 4, 7}};

std::string CubeObj(const std::string& vertexExtra, const std::string& faces) {
  std::string obj = "# cube\no cube\n";
  for (const auto& c : kCorner) {
    obj += "v " + std::to_string(c[0]) + " " + std::to_string(c[1]) + " " + std::to_string(c[2]) +
           vertexExtra + "\n";
  }
  return obj + faces;
}

TEST(ObjFiles, VerticesArePointsAndFacesAreNot) {
  std::string quads;
  for (const char* f : {"1 4 3 2", "5 6 7 8", "1 2 6 5", "2 3 7 6", "3 4 8 7", "4 1 5 8"})
    quads += "f " + std::string(f) + "\n";
  const CloudData cube = Read(CubeObj("", quads), "cube.obj");
  ASSERT_EQ(cube.size(), 8);
  EXPECT_EQ(cube.points[3 * 6 + 2], 1.0f);
  EXPECT_TRUE(cube.normals.empty());
  EXPECT_TRUE(cube.colours.empty());

  // One normal a vertex through the faces: kept. A corner with another normal: none kept.
  std::string normals;
  for (int i = 0; i < 8; ++i) normals += "vn 0 0 " + std::to_string(i) + "\n";
  const CloudData smooth = Read(CubeObj(" 0.5 0 1",
                                        normals + "f 1//1 2//2 3//3 4//4\n"
                                                  "f 5//5 6//6 7//7 8//8\n"),
                                "smooth.obj");
  ASSERT_EQ(smooth.normals.size(), 24u);
  EXPECT_EQ(smooth.normals[3 * 7 + 2], 7.0f);
  EXPECT_EQ(smooth.colours[0], 128);
  EXPECT_EQ(smooth.colours[2], 255);
  const CloudData creased =
      Read(CubeObj("", normals + "f 1//1 2//2 3//3\nf 1//4 5//5 6//6 7//7 8//8 4//8\n"), "c.obj");
  EXPECT_TRUE(creased.normals.empty());
  EXPECT_EQ(creased.size(), 8);
}

TEST(ObjFiles, BadFacesAndFilesWithoutVerticesAreClearErrors) {
  ExpectError(CubeObj("", "f 1 2 9\n"), "range.obj", {"vertex 9", "8 vertices"});
  ExpectError(CubeObj("", "f 1 2 -9\n"), "relative.obj", {"vertex 0", "8 vertices"});
  ExpectError(CubeObj("", "f 1 2 3 4 5 6 7 12\n"), "polygon.obj", {"vertex 12"});
  ExpectError(CubeObj("", "vn 0 0 1\nf 1//1 2//1 3//4\n"), "n.obj", {"normal 4", "has 1 normal"});
  ExpectError(CubeObj("", "f 0 1 2\n"), "zero.obj", {"no OBJ we read", "zero value"});
  ExpectError("# just faces\nf 1 2 3\n", "faces.obj", {"expected OBJ vertex lines", "none"});
  ExpectError("1 2 3\n4 5 6\n", "rows.obj", {"expected OBJ vertex lines"});
}

std::string AsciiStl() {
  std::string stl = "solid cube\n";
  for (const auto& t : kTriangle) {
    stl += "  facet normal 0 0 0\n    outer loop\n";
    for (int k : t) {
      stl += "      vertex " + std::to_string(kCorner[k][0]) + " " + std::to_string(kCorner[k][1]) +
             " " + std::to_string(kCorner[k][2]) + "\n";
    }
    stl += "    endloop\n  endfacet\n";
  }
  return stl + "endsolid cube\n";
}

std::string BinaryStl(const std::string& header, uint32_t count) {
  std::string stl = header;
  stl.resize(80, ' ');
  stl.append(reinterpret_cast<const char*>(&count), 4);
  for (const auto& t : kTriangle) {
    const float normal[3] = {0, 0, -0.0f};
    stl.append(reinterpret_cast<const char*>(normal), 12);
    for (int k : t) stl.append(reinterpret_cast<const char*>(kCorner[k]), 12);
    stl.append(2, '\0');
  }
  return stl;
}

TEST(StlFiles, AsciiAndBinaryCubesGiveTheirEightCornersOnce) {
  const CloudData ascii = Read(AsciiStl(), "cube.stl");
  const CloudData binary = Read(BinaryStl("made by a tool", 12), "cube.stl");
  // Binary headers may start with "solid": the size decides.
  const CloudData solid = Read(BinaryStl("solid cube", 12), "cube.stl");
  EXPECT_EQ(ascii.format, "stl (ascii)");
  EXPECT_EQ(binary.format, "stl (binary)");
  EXPECT_EQ(solid.format, "stl (binary)");
  ASSERT_EQ(ascii.size(), 8);
  EXPECT_EQ(ascii.points, binary.points);
  EXPECT_EQ(binary.points, solid.points);
  // First met first: corners 0, 2, 1 of the first triangle.
  EXPECT_EQ(std::vector<float>(ascii.points.begin(), ascii.points.begin() + 9),
            (std::vector<float>{0, 0, 0, 1, 1, 0, 1, 0, 0}));
  EXPECT_TRUE(ascii.normals.empty());
}

TEST(StlFiles, LyingCountsAndOtherContentsAreRefused) {
  ExpectError(BinaryStl("made by a tool", 4000000000u),
              "lying.stl",
              {"4000000000 triangles needs", "the file has 684"});
  ExpectError(BinaryStl("made by a tool", 11), "short.stl", {"11 triangles needs 634"});
  ExpectError(BinaryStl("solid cube", 13), "solid.stl", {"binary bytes", "13 triangles"});
  ExpectError("solid x\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\nendloop\n",
              "cut.stl",
              {"2 vertices", "no whole number of triangles"});
  ExpectError("solid x\nfacet normal 0 0 1\nvertex 1 2 nope\n", "word.stl", {"line 3", "'nope'"});
  ExpectError("1 2 3\n", "rows.stl", {"expected 'solid'", "'1 2 3?'"});
}

TEST(CloudFiles, ContentsMustAgreeWithTheExtension) {
  // Each reader refuses what another kind of file holds, naming what it expected and found.
  ExpectError(BinaryStl("x", 12), "cube.xyz", {"expected column text", "binary"});
  ExpectError(AsciiStl(), "cube.txt", {"line 1", "no x, y and z"});
  ExpectError(CubeObj("", "f 1 2 3\n"), "cube.csv", {"'o cube'", "no x, y and z"});
  ExpectError(AsciiStl(), "cube.obj", {"expected OBJ vertex lines"});
  ExpectError(CubeObj("", ""), "cube.stl", {"expected 'solid'"});
  ExpectError("OFF\n3 1 0\n", "m.off", {"OFF meshes are not read"});
  ExpectError("1 2 3\n", "thing.bin", {"'.bin' is none of"});
  // The first bytes still win over the extension for the self-describing formats.
  EXPECT_EQ(Read("ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
                 "property float z\nend_header\n1 2 3\n",
                 "really.xyz")
                .format,
            "ply (ascii)");
}

}  // namespace
}  // namespace qorv::io
