// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Reading one PCD file with Qorv's reader (the engine library's QorvEngineReadCloud) and with PCL's
// (pcl::io::loadPCDFile into a PCLPointCloud2: decoded, no field conversion), in turns; prints the
// median of each.
// usage: qorv_pcd_read FILE.pcd [runs]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <qorv/engine_io.h>

#include <pcl/PCLPointCloud2.h>
#include <pcl/io/pcd_io.h>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FILE.pcd [runs]\n", argv[0]);
    return 2;
  }
  const int runs = argc > 2 ? std::atoi(argv[2]) : 7;
  std::vector<double> ours, pcl;
  size_t oursPoints = 0, pclPoints = 0;
  for (int r = 0; r < runs; ++r) {
    auto start = std::chrono::steady_clock::now();
    QorvEngineCloudData* data = nullptr;
    if (QorvEngineReadCloud(argv[1], 1, nullptr, &data) != QORV_ENGINE_OK) {
      std::fprintf(stderr, "qorv: %s\n", QorvEngineLastError());
      return 1;
    }
    oursPoints = static_cast<size_t>(data->count);
    QorvEngineFreeCloud(data);
    ours.push_back(
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
            .count());
    start = std::chrono::steady_clock::now();
    pcl::PCLPointCloud2 cloud;
    if (pcl::io::loadPCDFile(argv[1], cloud) != 0) return 1;
    pclPoints = static_cast<size_t>(cloud.width) * cloud.height;
    pcl.push_back(
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
            .count());
  }
  std::sort(ours.begin(), ours.end());
  std::sort(pcl.begin(), pcl.end());
  std::printf("%s: Qorv %.1f ms (%zu points), PCL %.1f ms (%zu points), PCL / Qorv %.2f\n",
              argv[1],
              ours[ours.size() / 2],
              oursPoints,
              pcl[pcl.size() / 2],
              pclPoints,
              pcl[pcl.size() / 2] / ours[ours.size() / 2]);
  return 0;
}
