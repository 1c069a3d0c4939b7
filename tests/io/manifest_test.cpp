// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The manifests of batch and multiway as users write them (CSV with quotes and comments, JSON
// lines with a guess as rows, scan lists with Windows line ends), paths beside the manifest, and
// errors that name the line.
#include "io/manifest.hpp"

#include <gtest/gtest.h>

#include "io/cloud_data.hpp"

namespace qorv::io {
namespace {

TEST(Manifests, CsvAndJsonLinesGiveThePairsWithPathsBesideTheManifest) {
  const std::vector<ManifestPair> csv = ParsePairManifest(
      "# made by hand\n"
      "source, target ,initial\r\n"
      "\n"
      "\"scans/b, second.ply\", a.ply, 0 -1 0 1  1 0 0 2  0 0 1 3\n"
      "c.ply,/data/d.ply,\n",
      "runs/pairs.csv");
  ASSERT_EQ(csv.size(), 2u);
  EXPECT_EQ(csv[0].line, 4);
  EXPECT_EQ(csv[0].source, "scans/b, second.ply");
  EXPECT_EQ(csv[0].target, "a.ply");
  EXPECT_EQ(csv[0].sourcePath, "runs/scans/b, second.ply");
  EXPECT_EQ(csv[0].targetPath, "runs/a.ply");
  ASSERT_TRUE(csv[0].hasInitial);
  const double expected[16] = {0, -1, 0, 1, 1, 0, 0, 2, 0, 0, 1, 3, 0, 0, 0, 1};
  for (int i = 0; i < 16; ++i) EXPECT_EQ(csv[0].initial[i], expected[i]) << i;
  EXPECT_FALSE(csv[1].hasInitial);
  EXPECT_EQ(csv[1].targetPath, "/data/d.ply");
  EXPECT_EQ(csv[1].initial[0], 1.0);

  const std::vector<ManifestPair> json = ParsePairManifest(
      "{\"target\": \"t.ply\", \"source\": \"../s.ply\", \"initial\": [[1,0,0,5],[0,1,0,0],"
      "[0,0,1,0],[0,0,0,1]]}\n"
      "{\"target\": \"u.ply\", \"source\": \"v.ply\", \"initial\": null}\n",
      "runs/pairs.jsonl");
  ASSERT_EQ(json.size(), 2u);
  EXPECT_EQ(json[0].sourcePath, "s.ply");
  EXPECT_EQ(json[0].initial[3], 5.0);
  EXPECT_FALSE(json[1].hasInitial);
}

TEST(Manifests, FaultsAreErrorsNamingTheManifestAndLine) {
  auto message = [](const std::string& text) -> std::string {
    try {
      ParsePairManifest(text, "m.csv");
    } catch (const IoError& e) {
      EXPECT_EQ(e.kind(), IoError::kFormat);
      return e.what();
    }
    return "read";
  };
  EXPECT_EQ(message("a,b\nx,y\n"),
            "manifest 'm.csv' line 1: a CSV manifest starts with a header naming target and "
            "source columns");
  EXPECT_EQ(message("target,source\n\nx\n"), "manifest 'm.csv' line 3: too few columns");
  EXPECT_EQ(message("target,source\n,y\n"),
            "manifest 'm.csv' line 2: a target and a source path are needed");
  EXPECT_NE(message("target,source,initial\nx,y,1 2 3\n").find("line 2: an initial guess is 12"),
            std::string::npos);
  EXPECT_NE(message("target,source,initial\nx,y,1 0 0 0 0 1 0 0 0 0 1 0 0 0 0 2\n")
                .find("must end with the row 0 0 0 1"),
            std::string::npos);
  EXPECT_NE(message("target,source,initial\nx,y,1 0 0 0 0 1 0 0 0 0 1 nan\n").find("not finite"),
            std::string::npos);
  EXPECT_NE(message("target,source,initial\nx,y,one\n").find("no number"), std::string::npos);
  EXPECT_NE(message("{\"target\": \"t\"}\n").find("line 1: needs \"target\" and \"source\""),
            std::string::npos);
  EXPECT_NE(message("{\"target\": \"t\", \"source\": \"s\"}\n{oops\n").find("line 2: not JSON"),
            std::string::npos);
  EXPECT_NE(message("{\"target\": \"t\", \"source\": \"s\", \"initial\": [1, \"x\"]}\n")
                .find("not a number"),
            std::string::npos);
  EXPECT_EQ(message("# nothing\n\ntarget,source\n"), "manifest 'm.csv' lists no pair");
  EXPECT_THROW(ReadPairManifest("/nonexistent/m.csv"), IoError);
}

TEST(Manifests, ScanListsArePathsBesideTheList) {
  const std::vector<std::string> scans =
      ParseScanList("a.ply\r\n  # not a scan\n\n  b/c.pcd\n/abs.ply", "lists/scans.txt");
  ASSERT_EQ(scans.size(), 3u);
  EXPECT_EQ(scans[0], "lists/a.ply");
  EXPECT_EQ(scans[1], "lists/b/c.pcd");
  EXPECT_EQ(scans[2], "/abs.ply");
}

}  // namespace
}  // namespace qorv::io
