// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include <cstring>

#include <gtest/gtest.h>

#include <qorv/qorv.h>

namespace {

TEST(SettingsTest, FreshInstanceHasTheDefaults) {
  QorvInstance* inst = nullptr;
  ASSERT_EQ(QorvCreateInstance(&inst), QORV_OK);
  int32_t n = -1;
  EXPECT_EQ(QorvGetMatchNeighborNum(inst, &n), QORV_OK);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(QorvSetMatchNeighborNum(inst, 7), QORV_OK);
  EXPECT_EQ(QorvGetMatchNeighborNum(inst, &n), QORV_OK);
  EXPECT_EQ(n, 7);
  EXPECT_EQ(QorvSetMatchNeighborNum(inst, 0), QORV_OK);
  EXPECT_EQ(QorvSetMatchNeighborNum(inst, -1), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(QorvGetMatchNeighborNum(inst, &n), QORV_OK);
  EXPECT_EQ(n, 0);
  for (auto toggle : {QorvEnableCrossCheck,
                      QorvDisableCrossCheck,
                      QorvEnableMultiThread,
                      QorvDisableMultiThread}) {
    EXPECT_EQ(toggle(inst), QORV_OK);
    EXPECT_EQ(toggle(nullptr), QORV_ERROR_NULL_INSTANCE);
  }
  EXPECT_EQ(QorvDestroyInstance(inst), QORV_OK);
}

TEST(SettingsTest, TwoExportsTestTheirArgumentBeforeTheHandle) {
  EXPECT_EQ(QorvGetMatchNeighborNum(nullptr, nullptr), QORV_ERROR_INVALID_ARGUMENT);
  int32_t n = 0;
  EXPECT_EQ(QorvGetMatchNeighborNum(nullptr, &n), QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(QorvSetMatchNeighborNum(nullptr, -1), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(QorvSetMatchNeighborNum(nullptr, 0), QORV_ERROR_NULL_INSTANCE);
  EXPECT_EQ(QorvDestroyInstance(nullptr), QORV_OK);
  EXPECT_EQ(QorvCreateInstance(nullptr), QORV_ERROR_INVALID_ARGUMENT);
  EXPECT_STREQ(QorvVersion(), QORV_VERSION_TEXT);
}

}  // namespace
