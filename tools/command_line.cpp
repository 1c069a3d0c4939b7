// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The options several commands share, and how a parsed command gets run.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>

#include "commands.hpp"

namespace qorv::tools {
namespace {

// A validator of numbers: `accept` judges a parsed, fully consumed number; `rule` ends the
// message "must be <rule>, got '<text>'".
CLI::Validator NumberValidator(bool (*accept)(double), const char* rule, const char* description) {
  return CLI::Validator(
      [accept, rule](std::string& text) -> std::string {
        char* end = nullptr;
        const double v = std::strtod(text.c_str(), &end);
        if (end == text.c_str() || *end != '\0' || !accept(v)) {
          return std::string("must ") + rule + ", got '" + text + "'";
        }
        return {};
      },
      description);
}

}  // namespace

const CLI::Validator kPositive = NumberValidator(
    [](double v) { return std::isfinite(v) && v > 0.0; }, "be a number greater than 0", "POSITIVE");
const CLI::Validator kNonNegative =
    NumberValidator([](double v) { return std::isfinite(v) && v >= 0.0; },
                    "be a number of at least 0",
                    "NON-NEGATIVE");
const CLI::Validator kOpenUnit = NumberValidator(
    [](double v) { return v > 0.0 && v < 1.0; }, "lie strictly between 0 and 1", "(0,1)");

int GlobalOptions::DefaultThreads() {
  return static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 1024u));
}

void AddGlobalOptions(CLI::App& app, GlobalOptions& global) {
  const char* group = "Every command";
  app.add_flag("--json", global.json, "Print results as one JSON document")->group(group);
  app.add_flag("--quiet", global.quiet, "Drop the library's log lines and the tool's warnings")
      ->group(group);
  app.add_option("--threads",
                 global.threads,
                 "Worker threads (default: every core); above 1 turns on the library's "
                 "multi-threaded variants, with the same results")
      ->check(CLI::Range(1, 1024))
      ->group(group);
  const char* reading = "Reading files";
  app.add_option("--columns",
                 global.read.columns,
                 "Column text (.xyz .pts .txt .csv ...): the columns' names in order, e.g. "
                 "'x y z skip intensity' (default: from the file's header line or its width)")
      ->group(reading);
  QorvEngineDepthCamera& camera = global.read.camera;
  app.add_option("--camera",
                 global.read.cameraFile,
                 "Depth images: a JSON camera file (fx, fy, cx, cy, depth_scale; or Open3D's "
                 "intrinsic_matrix)")
      ->check(CLI::ExistingFile)
      ->group(reading);
  app.add_option("--fx", camera.fx, "Depth images: focal length in pixels, x")
      ->check(kPositive)
      ->capture_default_str()
      ->group(reading);
  app.add_option("--fy", camera.fy, "Depth images: focal length in pixels, y")
      ->check(kPositive)
      ->capture_default_str()
      ->group(reading);
  app.add_option("--cx", camera.cx, "Depth images: principal point, x")
      ->capture_default_str()
      ->group(reading);
  app.add_option("--cy", camera.cy, "Depth images: principal point, y")
      ->capture_default_str()
      ->group(reading);
  app.add_option("--depth-scale", camera.depth_scale, "Depth images: depth units a metre")
      ->check(kPositive)
      ->capture_default_str()
      ->group(reading);
}

void SetCommand(CLI::App* sub, ToolRun& run, std::function<int(const GlobalOptions&)> command) {
  sub->callback([&run, command = std::move(command)]() {
    const GlobalOptions& global = run.global;
    RouteLibraryLog(global.quiet  ? LibraryLog::kDiscard
                    : global.json ? LibraryLog::kStderr
                                  : LibraryLog::kStdout);
    UseReadSettings(global.read);
    run.status = command(global);
  });
}

void AddInputOutput(CLI::App* sub,
                    std::string& input,
                    std::string& output,
                    const std::string& inputHelp,
                    const std::string& outputHelp) {
  sub->add_option("input", input, inputHelp)->required();
  sub->add_option("output", output, outputHelp)->required();
}

void AddMaxTriesOption(CLI::App* sub, QorvEngineOptions& engine) {
  sub->add_option("--max-tries", engine.max_tries, "Scales tried while the verdict is negative")
      ->check(CLI::Range(1, QORV_ENGINE_MAX_TRIES))
      ->capture_default_str();
}

void AddSensorOriginOption(CLI::App* sub, QorvEngineOptions& engine) {
  sub->add_flag_function(
      "--sensor-origin",
      [&engine](int64_t count) { engine.sensor_origin = count > 0 ? 1 : 0; },
      "Each cloud was taken by a sensor at its origin (spinning LiDAR scans centred on their "
      "sensor): the verdict also checks the space each sensor saw through. Organized frames and "
      "PCD viewpoints say so on their own");
}

void AddRefineOption(CLI::App* sub, QorvEngineOptions& engine) {
  sub->add_option_function<std::string>(
         "--refine",
         [&engine](const std::string& name) {
           engine.refine = name == "gicp" ? QORV_ENGINE_REFINE_GICP : QORV_ENGINE_REFINE_PLANE;
         },
         "Dense refinement: gicp (generalized ICP: both clouds' local surfaces) or plane "
         "(point-to-plane ICP)")
      ->check(CLI::IsMember({"plane", "gicp"}))
      ->default_str("gicp");
}

void RegistrationFlags::applyTo(RegisterSettings& s) const {
  s.method = method == "iterative" ? Method::kIterative : Method::kRansac;
  s.crossCheck = !noCrossCheck;
  s.engine.mode = local ? QORV_ENGINE_MODE_LOCAL : QORV_ENGINE_MODE_GLOBAL;
  s.engine.seed = static_cast<uint64_t>(seed);
}

void AddRegistrationOptions(CLI::App* sub, RegisterSettings& s, RegistrationFlags& flags) {
  QorvEngineOptions& e = s.engine;
  AddVoxelOption(sub,
                 e.voxel,
                 "Working voxel edge; every length derives from it (default: chosen so that a "
                 "cloud keeps about --point-budget voxels)");
  sub->add_option("--point-budget", e.point_budget, "Voxels a cloud keeps for feature matching")
      ->check(CLI::Range(100, 1000000))
      ->capture_default_str();
  sub->add_option("--refine-budget", e.refine_budget, "Points a cloud keeps for dense refinement")
      ->check(CLI::Range(100, 10000000))
      ->capture_default_str();
  AddSeedOption(sub, flags.seed, "Seed of every random draw: same input and seed, same bits")
      ->check(CLI::NonNegativeNumber);
  AddSensorOriginOption(sub, s.engine);
  AddRefineOption(sub, s.engine);
  sub->add_flag("--local",
                flags.local,
                "Only refine from --initial (consecutive frames, a known rough pose)");
  AddMaxTriesOption(sub, e);
  sub->add_option("--ransac-iterations", e.max_ransac_iterations, "Upper bound of RANSAC draws")
      ->check(CLI::Range(1, 100000000))
      ->capture_default_str();
  sub->add_option("--confidence", e.ransac_confidence, "RANSAC stops at this confidence")
      ->check(kOpenUnit)
      ->capture_default_str();
  const char* group = "One-call pipeline (--exact)";
  sub->add_flag("--exact",
                s.exact,
                "One QorvMatchPairPointCloud call with its own fixed chain instead of the engine "
                "(its answer is then judged by the engine's verdict)")
      ->group(group);
  sub->add_option("--resolution",
                  s.resolution,
                  "Length s of the pipeline (default: 1.25 x the coarser cloud's mean spacing)")
      ->check(kPositive)
      ->group(group);
  sub->add_option("--method", flags.method, "ransac or iterative")
      ->check(CLI::IsMember({"ransac", "iterative"}))
      ->capture_default_str()
      ->group(group);
  sub->add_option("--iterations",
                  s.iterations,
                  "RANSAC samples, or the iterative method's step limit (default: 20000 / 64)")
      ->check(CLI::NonNegativeNumber)
      ->group(group);
  sub->add_flag("--no-cross-check", flags.noCrossCheck, "Keep descriptor matches another beats")
      ->group(group);
  sub->add_option("--kernel-scale",
                  s.kernelScale,
                  "Initial robust kernel scale of the iterative method, squared length "
                  "(default: (4 s)^2)")
      ->check(kPositive)
      ->group(group);
}

}  // namespace qorv::tools
