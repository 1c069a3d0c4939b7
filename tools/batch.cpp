// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "batch.hpp"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cloud_io.hpp"
#include "manifest.hpp"
#include "rigid.hpp"
#include "session.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace qorv::tools {
namespace {

std::vector<std::string> SplitCsv(const std::string& line) {
  std::vector<std::string> cells;
  std::string cell;
  bool quoted = false;
  for (char c : line) {
    if (c == '"') {
      quoted = !quoted;
    } else if (c == ',' && !quoted) {
      cells.push_back(cell);
      cell.clear();
    } else if (c != '\r') {
      cell += c;
    }
  }
  cells.push_back(cell);
  for (std::string& s : cells) {
    const size_t a = s.find_first_not_of(" \t"), b = s.find_last_not_of(" \t");
    s = a == std::string::npos ? "" : s.substr(a, b - a + 1);
  }
  return cells;
}

void SetInitial(BatchPair& pair, const std::string& text) {
  const Rigid guess = ParseMatrix(text);
  const std::array<double, 12> m = guess.matrix3x4();
  std::copy(m.begin(), m.end(), pair.initial);
  pair.initial[12] = pair.initial[13] = pair.initial[14] = 0.0;
  pair.initial[15] = 1.0;
  pair.hasInitial = true;
}

}  // namespace

std::vector<BatchPair> ReadManifest(const std::string& path) {
  std::vector<BatchPair> pairs;
  int targetColumn = -1, sourceColumn = -1, initialColumn = -1;
  bool json = false, header = false;
  for (const ManifestLine& entry : ReadManifestLines(path)) {
    const std::string& line = entry.text;
    const std::string& where = entry.where;
    if (!header && !json && line[line.find_first_not_of(" \t")] == '{') json = true;
    BatchPair pair;
    pair.index = static_cast<int64_t>(pairs.size());
    if (json) {
      nlohmann::json doc;
      try {
        doc = nlohmann::json::parse(line);
      } catch (const nlohmann::json::exception& e) {
        throw ToolError(where + ": not JSON: " + e.what());
      }
      if (!doc.is_object() || !doc.contains("target") || !doc.contains("source") ||
          !doc["target"].is_string() || !doc["source"].is_string()) {
        throw ToolError(where + ": needs \"target\" and \"source\" strings");
      }
      pair.target = doc["target"].get<std::string>();
      pair.source = doc["source"].get<std::string>();
      if (doc.contains("initial") && !doc["initial"].is_null()) {
        std::string numbers;
        for (const auto& v : doc["initial"]) {
          if (v.is_array()) {
            for (const auto& x : v) numbers += x.dump() + " ";
          } else {
            numbers += v.dump() + " ";
          }
        }
        SetInitial(pair, numbers);
      }
    } else if (!header) {
      const std::vector<std::string> cells = SplitCsv(line);
      for (size_t c = 0; c < cells.size(); ++c) {
        if (cells[c] == "target") targetColumn = static_cast<int>(c);
        if (cells[c] == "source") sourceColumn = static_cast<int>(c);
        if (cells[c] == "initial") initialColumn = static_cast<int>(c);
      }
      if (targetColumn < 0 || sourceColumn < 0) {
        throw ToolError(where +
                        ": a CSV manifest starts with a header naming target and source columns");
      }
      header = true;
      continue;
    } else {
      const std::vector<std::string> cells = SplitCsv(line);
      const int needed = std::max(targetColumn, sourceColumn);
      if (static_cast<int>(cells.size()) <= needed) throw ToolError(where + ": too few columns");
      pair.target = cells[static_cast<size_t>(targetColumn)];
      pair.source = cells[static_cast<size_t>(sourceColumn)];
      if (initialColumn >= 0 && static_cast<int>(cells.size()) > initialColumn &&
          !cells[static_cast<size_t>(initialColumn)].empty()) {
        SetInitial(pair, cells[static_cast<size_t>(initialColumn)]);
      }
    }
    pair.targetPath = ResolveBeside(path, pair.target);
    pair.sourcePath = ResolveBeside(path, pair.source);
    pairs.push_back(pair);
  }
  if (pairs.empty()) throw ToolError("manifest '" + path + "' lists no pair");
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
