// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The commands of the qorv tool. Each Add*Command puts its subcommand on the tool's CLI::App with
// the options it owns and a callback that runs it once the whole command line has parsed; the
// helpers below keep the options several commands take (and what they print) in one place.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <qorv/engine.h>

#include "cloud_io.hpp"
#include "register.hpp"
#include "snapshot.hpp"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace qorv::tools {

// Options every command takes (given before or after the command's name).
struct GlobalOptions {
  bool json = false;               // results as one JSON document on stdout; library log on stderr
  bool quiet = false;              // library log and warnings discarded
  int threads = DefaultThreads();  // > 1: the library's multi-threaded variants
  ReadSettings read;               // depth camera, columns of column text

  // Every core the machine has (at least 1).
  static int DefaultThreads();
};

// One run of the tool: the options on the main app, and the exit status of the command that ran.
struct ToolRun {
  GlobalOptions global;
  int status = 0;
};

void AddRegisterCommand(CLI::App& app, ToolRun& run);
void AddInfoCommand(CLI::App& app, ToolRun& run);
void AddNormalsCommand(CLI::App& app, ToolRun& run);
void AddFilterCommand(CLI::App& app, ToolRun& run);
void AddKeyPointsCommand(CLI::App& app, ToolRun& run);
void AddTransformCommand(CLI::App& app, ToolRun& run);
void AddConvertCommands(CLI::App& app, ToolRun& run);  // convert and depth
void AddBatchCommand(CLI::App& app, ToolRun& run);
void AddMultiwayCommand(CLI::App& app, ToolRun& run);
void AddDemoCommand(CLI::App& app, ToolRun& run);

// ---- Options (command_line.cpp) ----------------------------------------------------------------

extern const CLI::Validator kPositive;     // finite and greater than 0
extern const CLI::Validator kNonNegative;  // finite and at least 0
extern const CLI::Validator kOpenUnit;     // strictly between 0 and 1

// --json, --quiet, --threads and the reading options (--columns, the depth camera), on the main
// app and on every command (so that each command's --help lists them).
void AddGlobalOptions(CLI::App& app, GlobalOptions& global);

// Makes `command` the callback of `sub`: the library's log routed as the global options ask,
// the command run and its exit status kept in `run`. Exceptions pass through to the caller of
// CLI::App::parse.
void SetCommand(CLI::App* sub, ToolRun& run, std::function<int(const GlobalOptions&)> command);

// The same for a command run on an options struct of its own: the struct, returned for the
// options to bind to, lives as long as the callback.
template <typename Options, typename Command>
Options& SetCommand(CLI::App* sub, ToolRun& run, Command command) {
  auto options = std::make_shared<Options>();
  SetCommand(sub, run, [options, command](const GlobalOptions& global) {
    return command(global, *options);
  });
  return *options;
}

// The positional input and output file names.
void AddInputOutput(CLI::App* sub,
                    std::string& input,
                    std::string& output,
                    const std::string& inputHelp = "Cloud file",
                    const std::string& outputHelp = "Cloud file, written as its extension says");

// --voxel, a working or thinning voxel edge (0, its default, leaves the choice to the command).
template <typename Length>
CLI::Option* AddVoxelOption(CLI::App* sub, Length& voxel, const std::string& help) {
  return sub->add_option("--voxel", voxel, help)->check(kPositive);
}

// --seed with its default shown.
template <typename Seed>
CLI::Option* AddSeedOption(CLI::App* sub, Seed& seed, const std::string& help) {
  return sub->add_option("--seed", seed, help)->capture_default_str();
}

// --max-tries of the engine.
void AddMaxTriesOption(CLI::App* sub, QorvEngineOptions& engine);

// --sensor-origin: scans centred on their sensor, so the verdict may check free space.
void AddSensorOriginOption(CLI::App* sub, QorvEngineOptions& engine);

// --refine plane|gicp: the engine's dense refinement.
void AddRefineOption(CLI::App* sub, QorvEngineOptions& engine);

// The registration options of register and demo that are no field of RegisterSettings as
// typed; applyTo puts them there once parsed.
struct RegistrationFlags {
  std::string method = "ransac";
  bool noCrossCheck = false;
  bool local = false;
  int64_t seed = 1;

  void applyTo(RegisterSettings& s) const;
};

// The registration options: the engine's, and the one-call pipeline's for --exact.
void AddRegistrationOptions(CLI::App* sub, RegisterSettings& s, RegistrationFlags& flags);

// ---- Results (commands.cpp) --------------------------------------------------------------------

// A QorvIndexCallback that copies the indices into the std::vector<int32_t> at `user`.
void CollectIndices(const int32_t* indices, int32_t count, void* user);

// What a command read and wrote.
struct Written {
  std::string command;
  std::string input;
  int64_t pointsIn = 0;
  std::string output;
  int64_t pointsOut = 0;
  double ms = 0.0;
};

// One summary line, or a JSON object, for a command that turned its input into its output; the
// line gets `note` after the output's name.
void ReportWritten(const GlobalOptions& global, const Written& w, const std::string& note = "");

// Prints a command's JSON document on the tool's output, indented, with a final newline.
void PrintJson(const nlohmann::ordered_json& doc);

// Reads a cloud and records the time taken as `stage`.
Cloud ReadTimed(const std::string& path, const char* stage, std::vector<StageTime>& stages);

// Creates the folder `path` is to be written in. Throws ToolError when it cannot.
void MakeParentFolder(const std::string& path);

// A usage error (status 2) unless `path` is empty or names a .png file.
void CheckSnapshotPath(const std::string& path);

// Writes the before-and-after PNG and records the time taken.
void Snapshot(const std::string& path,
              const Cloud& target,
              const Cloud& source,
              const std::vector<float>& moved,
              const SnapshotOptions& view,
              std::vector<StageTime>& stages);

}  // namespace qorv::tools
