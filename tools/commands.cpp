// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// What the commands share once they run: index collection, the summary of a written cloud, timed
// reading and the snapshot.
#include "commands.hpp"

#include <cmath>
#include <cstdio>
#include <filesystem>

namespace qorv::tools {

void CollectIndices(const int32_t* indices, int32_t count, void* user) {
  auto* out = static_cast<std::vector<int32_t>*>(user);
  out->assign(indices, indices + (count > 0 ? count : 0));
}

void ReportWritten(const GlobalOptions& global, const Written& w, const std::string& note) {
  FlushAll();
  if (global.json) {
    PrintJson({{"command", w.command},
               {"input", w.input},
               {"points_in", w.pointsIn},
               {"output", w.output},
               {"points_out", w.pointsOut},
               {"ms", std::round(w.ms * 1000.0) / 1000.0}});
  } else {
    std::fprintf(Out(),
                 "%s: %lld of %lld points written to %s%s (%.1f ms)\n",
                 w.command.c_str(),
                 static_cast<long long>(w.pointsOut),
                 static_cast<long long>(w.pointsIn),
                 w.output.c_str(),
                 note.c_str(),
                 w.ms);
  }
  std::fflush(Out());
}

Cloud ReadTimed(const std::string& path, const char* stage, std::vector<StageTime>& stages) {
  const double start = Now();
  Cloud cloud = ReadCloud(path);
  stages.push_back({stage, Now() - start});
  return cloud;
}

void MakeParentFolder(const std::string& path) {
  const std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (parent.empty()) return;
  std::error_code error;
  std::filesystem::create_directories(parent, error);
  if (error) throw ToolError("cannot create folder '" + parent.string() + "': " + error.message());
}

void PrintJson(const nlohmann::ordered_json& doc) {
  std::fprintf(Out(), "%s\n", doc.dump(2).c_str());
}

void CheckSnapshotPath(const std::string& path) {
  if (!path.empty() && std::filesystem::path(path).extension() != ".png") {
    throw ToolError("--snapshot needs a file name ending in .png", 2);
  }
}

void Snapshot(const std::string& path,
              const Cloud& target,
              const Cloud& source,
              const std::vector<float>& moved,
              const SnapshotOptions& view,
              std::vector<StageTime>& stages) {
  const double start = Now();
  MakeParentFolder(path);
  WriteSnapshot(path, target.points, source.points, moved, view);
  stages.push_back({"snapshot", Now() - start});
}

}  // namespace qorv::tools
