// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qorv/qorv.h>

#include <unistd.h>

namespace {

class GeometryExportsTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(QorvCreateInstance(&inst_), QORV_OK); }
  void TearDown() override { QorvDestroyInstance(inst_); }

  static std::string TempPath(const std::string& name) {
    return ::testing::TempDir() + "qorv_exports_" + std::to_string(getpid()) + "_" + name;
  }

  QorvInstance* inst_ = nullptr;
};

struct Received {
  int calls = 0;
  std::vector<float> points;
  bool hasNormals = false;
  bool hasColours = false;
  int64_t count = 0;
};

int32_t Collect(const float* points,
                const float* normals,
                const unsigned char* colours,
                int64_t count,
                void* user) {
  auto* r = static_cast<Received*>(user);
  ++r->calls;
  r->points.assign(points, points + 3 * count);
  r->hasNormals = normals != nullptr;
  r->hasColours = colours != nullptr;
  r->count = count;
  return 0;
}

TEST_F(GeometryExportsTest, ChecksComeInTheDocumentedOrder) {
  const double m[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
  const float in[3] = {1, 2, 3};
  float out[3] = {9, 9, 9};
  double motion[12];
  for (double& v : motion) v = 42.0;
  // A null handle wins over every other bad argument.
  EXPECT_EQ(QorvReadPointsFromASC(nullptr, nullptr, nullptr, nullptr), QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(QorvWritePointsToASC(nullptr, nullptr, nullptr, nullptr, nullptr, 0),
            QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(QorvRotatePoints(nullptr, nullptr, nullptr, nullptr, 0), QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(QorvTransformPoints(nullptr, nullptr, nullptr, nullptr, 0), QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(QorvAbsoluteOrientation(nullptr, nullptr, nullptr, 0, nullptr),
            QORV_ERROR_NULL_INSTANCE);

  for (auto transform : {QorvRotatePoints, QorvTransformPoints}) {
    EXPECT_EQ(transform(inst_, nullptr, in, out, 1), QORV_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(transform(inst_, m, nullptr, out, 1), QORV_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(transform(inst_, m, in, nullptr, 1), QORV_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(transform(inst_, m, in, out, 0), QORV_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(transform(inst_, m, in, out, -5), QORV_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(out[0], 9.0f);  // nothing written on a failed check
  }
  EXPECT_EQ(QorvAbsoluteOrientation(inst_, in, in, 1, nullptr), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(QorvAbsoluteOrientation(inst_, in, nullptr, 1, motion), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(QorvAbsoluteOrientation(inst_, nullptr, in, 1, motion), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(QorvAbsoluteOrientation(inst_, in, in, 0, motion), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(motion[0], 42.0);

  const std::string path = TempPath("checks.asc");
  EXPECT_EQ(QorvWritePointsToASC(inst_, path.c_str(), nullptr, nullptr, nullptr, 1),
            QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(QorvWritePointsToASC(inst_, path.c_str(), in, nullptr, nullptr, 0),
            QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_NE(access(path.c_str(), F_OK), 0);  // no file was created
  // The path is not an argument check: a null or unusable path is a file error.
  EXPECT_EQ(QorvWritePointsToASC(inst_, nullptr, in, nullptr, nullptr, 1), QORV_ERROR_FILE);
  EXPECT_EQ(QorvWritePointsToASC(inst_, TempPath("none/x.asc").c_str(), in, nullptr, nullptr, 1),
            QORV_ERROR_FILE);
}

TEST_F(GeometryExportsTest, ReadHandsTheArraysToTheCallbackOnce) {
  const std::string path = TempPath("read.asc");
  const float points[6] = {1, 2, 3, 4, 5, 6};
  const float normals[6] = {0, 0, 1, 0, 1, 0};
  const unsigned char colours[6] = {10, 20, 30, 40, 50, 60};
  for (int columns : {3, 6, 9}) {
    ASSERT_EQ(QorvWritePointsToASC(inst_,
                                   path.c_str(),
                                   points,
                                   columns >= 6 ? normals : nullptr,
                                   columns == 9 ? colours : nullptr,
                                   2),
              QORV_OK);
    Received r;
    ASSERT_EQ(QorvReadPointsFromASC(inst_, path.c_str(), Collect, &r), QORV_OK);
    EXPECT_EQ(r.calls, 1);
    EXPECT_EQ(r.count, 2);
    EXPECT_EQ(r.points, std::vector<float>(points, points + 6));
    EXPECT_EQ(r.hasNormals, columns >= 6);
    EXPECT_EQ(r.hasColours, columns == 9);
  }
  EXPECT_EQ(QorvReadPointsFromASC(inst_, path.c_str(), nullptr, nullptr), QORV_OK);

  // No point, a missing file, a missing folder or no path: 1, and the callback is not called.
  std::FILE* file = std::fopen(path.c_str(), "w");
  ASSERT_NE(file, nullptr);
  std::fputs("1 2\nword\n", file);
  std::fclose(file);
  Received none;
  EXPECT_EQ(QorvReadPointsFromASC(inst_, path.c_str(), Collect, &none), QORV_ERROR_FILE);
  EXPECT_EQ(QorvReadPointsFromASC(inst_, TempPath("missing.asc").c_str(), Collect, &none),
            QORV_ERROR_FILE);
  EXPECT_EQ(QorvReadPointsFromASC(inst_, TempPath("none/x.asc").c_str(), Collect, &none),
            QORV_ERROR_FILE);
  EXPECT_EQ(QorvReadPointsFromASC(inst_, nullptr, Collect, &none), QORV_ERROR_FILE);
  EXPECT_EQ(none.calls, 0);
  std::remove(path.c_str());
}

// The motion found by absolute orientation, reordered into the transform layout, carries B onto A.
TEST_F(GeometryExportsTest, OrientationFeedsTheTransformAfterReordering) {
  std::vector<float> b;
  for (int i = 0; i < 20; ++i) {
    b.insert(b.end(), {std::sin(1.0f * i), std::cos(0.7f * i), 0.1f * static_cast<float>(i)});
  }
  std::vector<float> a(b.size());
  const double quarterTurnAndShift[12] = {0, -1, 0, 1, 0, 0, 0, 0, 1, 1, 2, 3};
  ASSERT_EQ(QorvTransformPoints(inst_, quarterTurnAndShift, b.data(), a.data(), 20), QORV_OK);

  double out[12];
  ASSERT_EQ(QorvAbsoluteOrientation(inst_, a.data(), b.data(), 20, out), QORV_OK);
  const double expected[12] = {0, -1, 0, 1, 1, 0, 0, 2, 0, 0, 1, 3};  // [R | t] row after row
  for (int i = 0; i < 12; ++i) EXPECT_NEAR(out[i], expected[i], 1e-5) << i;

  const double reordered[12] = {out[0],
                                out[1],
                                out[2],
                                out[4],
                                out[5],
                                out[6],
                                out[8],
                                out[9],
                                out[10],
                                out[3],
                                out[7],
                                out[11]};
  std::vector<float> moved(b.size());
  ASSERT_EQ(QorvTransformPoints(inst_, reordered, b.data(), moved.data(), 20), QORV_OK);
  for (size_t i = 0; i < a.size(); ++i) EXPECT_NEAR(moved[i], a[i], 1e-5f);

  // Rotation alone, in place.
  const double rotation[9] = {0, -1, 0, 1, 0, 0, 0, 0, 1};
  std::vector<float> rotated = b;
  ASSERT_EQ(QorvRotatePoints(inst_, rotation, rotated.data(), rotated.data(), 20), QORV_OK);
  for (size_t i = 0; i < a.size(); i += 3) {
    EXPECT_EQ(rotated[i] + 1.0f, a[i]);
    EXPECT_EQ(rotated[i + 1] + 2.0f, a[i + 1]);
  }
}

}  // namespace
