// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "batch.hpp"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <qorv/engine_io.h>

#include "cloud_io.hpp"
#include "rigid.hpp"
#include "session.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace qorv::tools {

std::vector<BatchPair> ReadManifest(const std::string& path) {
  QorvEngineManifest* manifest = nullptr;
  if (QorvEngineReadManifest(path.c_str(), &manifest) != QORV_ENGINE_OK)
    throw ToolError(QorvEngineLastError());
  std::vector<BatchPair> pairs;
  for (int64_t i = 0; i < manifest->count; ++i) {
    const QorvEngineManifestPair& listed = manifest->pairs[i];
    BatchPair pair;
    pair.index = i;
    pair.target = listed.target;
    pair.source = listed.source;
    pair.targetPath = listed.target_path;
    pair.sourcePath = listed.source_path;
    pair.hasInitial = listed.has_initial != 0;
    std::copy(listed.initial, listed.initial + 16, pair.initial);
    pairs.push_back(std::move(pair));
  }
  QorvEngineFreeManifest(manifest);
  return pairs;
}

std::set<int64_t> DonePairs(const std::string& resultsPath) {
  std::set<int64_t> done;
  std::ifstream in(resultsPath, std::ios::binary);
  if (!in) return done;
  std::stringstream buffer;
  buffer << in.rdbuf();
  const std::string text = buffer.str();
  in.close();
  const size_t complete = text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1;
  if (complete < text.size()) std::filesystem::resize_file(resultsPath, complete);  // a half line
  std::istringstream lines(text.substr(0, complete));
  std::string line;
  while (std::getline(lines, line)) {
    try {
      const nlohmann::json doc = nlohmann::json::parse(line);
      if (doc.contains("pair") && doc["pair"].is_number_integer())
        done.insert(doc["pair"].get<int64_t>());
    } catch (const nlohmann::json::exception&) {
      // A line that is no JSON was not written by us: leave it, it marks nothing as done.
    }
  }
  return done;
}

nlohmann::ordered_json RunPair(const BatchPair& pair, const QorvEngineOptions& options) {
  const auto start = std::chrono::steady_clock::now();
  nlohmann::ordered_json line;
  line["pair"] = pair.index;
  line["target"] = pair.target;
  line["source"] = pair.source;
  QorvEngineResult result{};
  result.struct_size = sizeof(result);
  std::string error;
  try {
    const Cloud target = ReadCloud(pair.targetPath);
    const Cloud source = ReadCloud(pair.sourcePath);
    QorvEngineOptions o = options;
    o.threads = 1;
    if (pair.hasInitial) {
      o.has_initial = 1;
      std::copy(pair.initial, pair.initial + 16, o.initial);
    }
    const QorvEngineCloud t = EngineView(target), s = EngineView(source);
    if (QorvEngineRegister(&t, &s, &o, &result) != QORV_ENGINE_OK) error = QorvEngineLastError();
  } catch (const std::exception& e) {
    error = e.what();
  }
  line["registered"] = error.empty() && result.registered != 0;
  if (error.empty()) {
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    for (int r = 0; r < 4; ++r)
      rows.push_back({result.transform[4 * r],
                      result.transform[4 * r + 1],
                      result.transform[4 * r + 2],
                      result.transform[4 * r + 3]});
    line["transform"] = rows;
    line["fitness"] = result.fitness;
    line["target_overlap"] = result.target_overlap;
    line["inlier_rmse"] = result.inlier_rmse;
    line["consistent_pairs"] = result.consistent_pairs;
    line["voxel"] = result.voxel;
    line["reason"] =
        result.registered ? nlohmann::ordered_json() : nlohmann::ordered_json(result.reason);
    line["error"] = nullptr;
  } else {
    line["transform"] = nullptr;
    line["error"] = error;
  }
  line["ms"] =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  return line;
}

void AppendLine(int fd, const std::string& line) {
  const std::string whole = line + "\n";
  size_t written = 0;
  while (written < whole.size()) {
    const ssize_t n = ::write(fd, whole.data() + written, whole.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw ToolError(std::string("cannot append to the results: ") + std::strerror(errno));
    }
    written += static_cast<size_t>(n);
  }
  ::fsync(fd);
}

}  // namespace qorv::tools
