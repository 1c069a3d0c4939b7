// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The qorv command-line tool: option parsing and dispatch. Every command works through the
// library's C interface only.
#include <cmath>
#include <cstdio>
#include <new>
#include <string>

#include "commands.hpp"
#include "session.hpp"

#include <CLI/CLI.hpp>

#ifndef QORV_TOOL_VERSION
#define QORV_TOOL_VERSION "unknown"
#endif

namespace {

using qorv::tools::GlobalOptions;
using qorv::tools::Method;
using qorv::tools::RegisterSettings;

// Finite and greater than 0.
const CLI::Validator kPositive(
    [](std::string& text) -> std::string {
      char* end = nullptr;
      const double v = std::strtod(text.c_str(), &end);
      if (end == text.c_str() || *end != '\0' || !std::isfinite(v) || !(v > 0.0)) {
        return "must be a number greater than 0, got '" + text + "'";
      }
      return {};
    },
    "POSITIVE");

const CLI::Validator kNonNegative(
    [](std::string& text) -> std::string {
      char* end = nullptr;
      const double v = std::strtod(text.c_str(), &end);
      if (end == text.c_str() || *end != '\0' || !std::isfinite(v) || v < 0.0) {
        return "must be a number of at least 0, got '" + text + "'";
      }
      return {};
    },
    "NON-NEGATIVE");

const CLI::Validator kOpenUnit(
    [](std::string& text) -> std::string {
      char* end = nullptr;
      const double v = std::strtod(text.c_str(), &end);
      if (end == text.c_str() || *end != '\0' || !(v > 0.0 && v < 1.0)) {
        return "must lie strictly between 0 and 1, got '" + text + "'";
      }
      return {};
    },
    "(0,1)");

// Options of the registration, shared by register and demo: the engine's, and the one-call
// pipeline's for --exact.
struct RegisterFlags {
  std::string method = "ransac";
  bool noCrossCheck = false;
  bool local = false;
  int64_t seed = 1;

  void applyTo(RegisterSettings& s) const {
    s.method = method == "iterative" ? Method::kIterative : Method::kRansac;
    s.crossCheck = !noCrossCheck;
    s.engine.mode = local ? QORV_ENGINE_MODE_LOCAL : QORV_ENGINE_MODE_GLOBAL;
    s.engine.seed = static_cast<uint64_t>(seed);
  }
};

void AddRegisterOptions(CLI::App* sub, RegisterSettings& s, RegisterFlags& flags) {
  QorvEngineOptions& e = s.engine;
  sub->add_option("--voxel", e.voxel,
                  "Working voxel edge; every length derives from it (default: chosen so that a "
                  "cloud keeps about --point-budget voxels)")
      ->check(kPositive);
  sub->add_option("--point-budget", e.point_budget, "Voxels a cloud keeps for feature matching")
      ->check(CLI::Range(100, 1000000))
      ->capture_default_str();
  sub->add_option("--refine-budget", e.refine_budget, "Points a cloud keeps for dense refinement")
      ->check(CLI::Range(100, 10000000))
      ->capture_default_str();
  sub->add_option("--seed", flags.seed, "Seed of every random draw: same input and seed, same bits")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  sub->add_flag("--local", flags.local,
                "Only refine from --initial (consecutive frames, a known rough pose)");
  sub->add_option("--max-tries", e.max_tries, "Scales tried while the verdict is negative")
      ->check(CLI::Range(1, 8))
      ->capture_default_str();
  sub->add_option("--ransac-iterations", e.max_ransac_iterations, "Upper bound of RANSAC draws")
      ->check(CLI::Range(1, 100000000))
      ->capture_default_str();
  sub->add_option("--confidence", e.ransac_confidence, "RANSAC stops at this confidence")
      ->check(kOpenUnit)
      ->capture_default_str();
  const char* group = "One-call pipeline (--exact)";
  sub->add_flag("--exact", s.exact,
                "One QorvMatchPairPointCloud call with its own fixed chain instead of the engine "
                "(its answer is then judged by the engine's verdict)")
      ->group(group);
  sub->add_option("--resolution", s.resolution,
                  "Length s of the pipeline (default: 1.25 x the coarser cloud's mean spacing)")
      ->check(kPositive)
      ->group(group);
  sub->add_option("--method", flags.method, "ransac or iterative")
      ->check(CLI::IsMember({"ransac", "iterative"}))
      ->capture_default_str()
      ->group(group);
  sub->add_option("--iterations", s.iterations,
                  "RANSAC samples, or the iterative method's step limit (default: 20000 / 64)")
      ->check(CLI::NonNegativeNumber)
      ->group(group);
  sub->add_flag("--no-cross-check", flags.noCrossCheck, "Keep descriptor matches another beats")
      ->group(group);
  sub->add_option("--kernel-scale", s.kernelScale,
                  "Initial robust kernel scale of the iterative method, squared length "
                  "(default: (4 s)^2)")
      ->check(kPositive)
      ->group(group);
}

std::string VersionText() {
  return std::string("qorv ") + QORV_TOOL_VERSION + " (library " + QorvVersion() + ")";
}

}  // namespace

int main(int argc, char** argv) {
  using namespace qorv::tools;
  CLI::App app{
      "Point-cloud registration with libqorv.\n"
      "Clouds are read from PLY, PCD (ascii, binary, compressed), ASC and depth images (16-bit PNG "
      "or TIFF) and written as PLY, PCD or ASC, by the output's extension.\nThe library's '[QORV INFO]' lines go to stdout; with --json they go to stderr "
      "and stdout holds only the JSON document; --quiet drops them.",
      "qorv"};
  app.set_version_flag("--version", VersionText);
  app.require_subcommand(1, 1);
  app.fallthrough();
  GlobalOptions global;
  app.add_flag("--json", global.json, "Print results as one JSON document");
  app.add_flag("--quiet", global.quiet, "Drop the library's log lines");
  app.add_option("--threads",
                 global.threads,
                 "Worker threads; above 1 turns on the library's multi-threaded variants")
      ->check(CLI::Range(1, 1024))
      ->capture_default_str();

  // register
  RegisterOptions reg;
  RegisterFlags regFlags;
  CLI::App* registerCmd =
      app.add_subcommand("register", "Register SOURCE onto TARGET and print the motion");
  registerCmd->add_option("target", reg.target, "Cloud that stays in place")->required();
  registerCmd->add_option("source", reg.source, "Cloud that is moved onto the target")->required();
  AddRegisterOptions(registerCmd, reg.settings, regFlags);
  registerCmd->add_option("--initial", reg.initialMatrix,
                          "Initial guess, 12 or 16 numbers (tried beside the global estimate; "
                          "the start of --local and of the pipeline's iterative method)");
  registerCmd->add_option("--output", reg.output, "Write the moved source cloud");
  registerCmd->add_option(
      "--snapshot", reg.snapshot, "Write a PNG of both clouds before and after the motion");
  registerCmd->add_option("--snapshot-width", reg.view.width, "Snapshot width in pixels")
      ->check(CLI::Range(64, 8192))
      ->capture_default_str();
  registerCmd->add_option("--snapshot-height", reg.view.height, "Snapshot height in pixels")
      ->check(CLI::Range(64, 8192))
      ->capture_default_str();

  // info
  std::string infoPath;
  CLI::App* infoCmd = app.add_subcommand("info", "Points, bounding box and spacing of a cloud");
  infoCmd->add_option("file", infoPath, "Cloud file")->required();

  // normals
  std::string normalsIn, normalsOut;
  float normalsRadius = 0.0f;
  int32_t orientNeighbors = 10;
  CLI::App* normalsCmd = app.add_subcommand("normals", "Estimate normals (QorvComputeNormals)");
  normalsCmd->add_option("input", normalsIn, "Cloud file")->required();
  normalsCmd->add_option("output", normalsOut, "ASC file with normals")->required();
  normalsCmd->add_option("--radius", normalsRadius, "Neighbourhood radius")
      ->required()
      ->check(kPositive);
  normalsCmd
      ->add_option("--orient-neighbors", orientNeighbors, "Neighbour count of the orientation pass")
      ->check(CLI::Range(0, 1000))
      ->capture_default_str();

  // filter
  FilterOptions filter;
  CLI::App* filterCmd = app.add_subcommand("filter", "Voxel, outlier, edge or Gaussian filter");
  filterCmd->require_subcommand(1, 1);
  auto filterSub = [&](const char* name, const char* what) {
    CLI::App* sub = filterCmd->add_subcommand(name, what);
    sub->add_option("input", filter.input, "Cloud file")->required();
    sub->add_option("output", filter.output, "ASC file")->required();
    sub->callback([&filter, name]() { filter.kind = name; });
    return sub;
  };
  filterSub("voxel", "Keep the point nearest each voxel's centre (QorvVoxelFilter)")
      ->add_option("--leaf", filter.leaf, "Voxel edge length")
      ->required()
      ->check(kPositive);
  CLI::App* sorCmd = filterSub("sor", "Statistical outlier removal (QorvSORFilter)");
  sorCmd->add_option("--k", filter.meanK, "Neighbours scored")
      ->check(CLI::Range(1, 100000))
      ->capture_default_str();
  sorCmd->add_option("--std", filter.stdMul, "Deviation multiplier of the threshold")
      ->check(kNonNegative)
      ->capture_default_str();
  filterSub("edge", "Keep boundary points (QorvEdgeFilter)")
      ->add_option("--radius", filter.radius, "Neighbourhood radius")
      ->required()
      ->check(kPositive);
  filterSub("gaussian", "Gaussian smoothing (QorvGaussianFilter)")
      ->add_option("--radius", filter.radius, "Neighbourhood radius")
      ->required()
      ->check(kPositive);

  // keypoints
  KeyPointOptions keys;
  CLI::App* keysCmd =
      app.add_subcommand("keypoints", "Detect key points with descriptors (QorvDetectAndCompute)");
  keysCmd->add_option("input", keys.input, "Cloud file (normals estimated when it has none)")
      ->required();
  keysCmd->add_option("output", keys.output, "ASC file of key points with their normals")
      ->required();
  keysCmd->add_option("--radius", keys.radius, "Detector neighbourhood")
      ->required()
      ->check(kPositive);
  keysCmd->add_option("--non-max-radius", keys.nonMaxRadius, "Non-maximum suppression (0: off)")
      ->check(kNonNegative);
  keysCmd->add_option("--feature-radius", keys.featureRadius, "Default 2.5 x radius")
      ->check(kPositive);
  keysCmd->add_option("--histogram-radius", keys.histogramRadius, "Default 1.25 x radius")
      ->check(kPositive);
  keysCmd->add_option("--normal-radius", keys.normalRadius, "Default: radius")->check(kPositive);
  keysCmd->add_option("--ratio21", keys.ratio21, "Bound on lambda2 / lambda1")
      ->check(kPositive)
      ->capture_default_str();
  keysCmd->add_option("--ratio32", keys.ratio32, "Bound on lambda3 / lambda2")
      ->check(kPositive)
      ->capture_default_str();
  keysCmd->add_option("--max", keys.maxKeyPoints, "Keep the best N (0: all)")
      ->check(CLI::NonNegativeNumber);
  keysCmd->add_option("--descriptors", keys.descriptors, "Also write the 33-float descriptors");

  // transform
  std::string transformIn, transformOut, matrix;
  bool inverse = false;
  CLI::App* transformCmd =
      app.add_subcommand("transform", "Apply a rigid motion (QorvTransformPoints)");
  transformCmd->add_option("input", transformIn, "Cloud file")->required();
  transformCmd->add_option("output", transformOut, "ASC file")->required();
  transformCmd
      ->add_option("--matrix",
                   matrix,
                   "12 numbers (3 x 4 [R | t], row after row, as register prints) or 16 "
                   "(4 x 4); @FILE reads them from a file")
      ->required();
  transformCmd->add_flag("--inverse", inverse, "Apply the inverse motion");

  // convert and depth
  auto addOutputOptions = [](CLI::App* sub, ConvertOptions& o) {
    sub->add_flag_function("--ascii", [&o](int64_t) { o.encoding = QORV_ENGINE_ENCODING_ASCII; },
                           "Text PLY or PCD");
    sub->add_flag_function("--compressed", [&o](int64_t) { o.encoding = QORV_ENGINE_ENCODING_COMPRESSED; },
                           "PCD binary_compressed");
    const char* group = "Depth camera (depth images)";
    sub->add_option("--fx", o.camera.fx, "Focal length in pixels, x")->check(kPositive)->capture_default_str()->group(group);
    sub->add_option("--fy", o.camera.fy, "Focal length in pixels, y")->check(kPositive)->capture_default_str()->group(group);
    sub->add_option("--cx", o.camera.cx, "Principal point, x")->capture_default_str()->group(group);
    sub->add_option("--cy", o.camera.cy, "Principal point, y")->capture_default_str()->group(group);
    sub->add_option("--depth-scale", o.camera.depth_scale, "Depth units per metre")
        ->check(kPositive)->capture_default_str()->group(group);
  };
  ConvertOptions convert;
  CLI::App* convertCmd = app.add_subcommand("convert", "Any cloud format (or depth image) to PLY, PCD or ASC");
  convertCmd->add_option("input", convert.input, "Cloud file or depth image")->required();
  convertCmd->add_option("output", convert.output, "Written by its extension: .ply, .pcd, else ASC")->required();
  convertCmd->add_option("--voxel", convert.voxel, "Thin to one point a voxel of this edge (QorvVoxelFilter)")
      ->check(kPositive);
  addOutputOptions(convertCmd, convert);
  ConvertOptions depth;
  CLI::App* depthCmd = app.add_subcommand("depth", "A depth image (16-bit PNG or TIFF) to an organized cloud");
  depthCmd->add_option("image", depth.input, "Depth image")->required();
  depthCmd->add_option("output", depth.output, "Cloud file (.pcd keeps the image's layout)")->required();
  addOutputOptions(depthCmd, depth);

  // batch
  BatchOptions batch;
  CLI::App* batchCmd = app.add_subcommand("batch", "Register every pair of a manifest into a JSON-lines file");
  batchCmd->add_option("manifest", batch.manifest, "CSV with target,source[,initial] columns, or JSON lines")
      ->required();
  batchCmd->add_option("--output", batch.output, "Results, one JSON line a pair; a rerun skips the pairs in it")
      ->required();
  batchCmd->add_option("--jobs", batch.jobs, "Pairs at once (default: one a core)")->check(CLI::Range(1, 1024));
  batchCmd->add_option("--voxel", batch.engine.voxel, "Working voxel (default: from the point budget)")->check(kPositive);
  batchCmd->add_option("--seed", batch.engine.seed, "Seed of every random draw")->capture_default_str();
  batchCmd->add_option("--max-tries", batch.engine.max_tries, "Scales tried while the verdict is negative")
      ->check(CLI::Range(1, 8))
      ->capture_default_str();

  // multiway
  MultiwayOptions multi;
  CLI::App* multiwayCmd = app.add_subcommand("multiway", "Align many scans into one frame");
  multiwayCmd->add_option("scans", multi.scans, "Scan files, in order");
  multiwayCmd->add_option("--manifest", multi.manifest, "A file listing (more) scans, one a line");
  multiwayCmd->add_option("--output", multi.output, "Poses and edges as JSON")->required();
  multiwayCmd->add_option("--log", multi.log, "Poses in the trajectory-log layout");
  multiwayCmd->add_option("--merged", multi.merged, "Write all scans in one frame (PLY, PCD or ASC)");
  multiwayCmd->add_option("--merge-voxel", multi.mergeVoxel, "Thin the merged cloud to this voxel")->check(kPositive);
  multiwayCmd->add_flag("--no-loops", multi.noLoops, "Register neighbouring scans only");
  multiwayCmd->add_option("--voxel", multi.engine.voxel, "Working voxel of the pairs")->check(kPositive);
  multiwayCmd->add_option("--seed", multi.engine.seed, "Seed of every random draw")->capture_default_str();

  // demo
  DemoOptions demo;
  RegisterFlags demoFlags;
  CLI::App* demoCmd = app.add_subcommand(
      "demo", "Cut two overlapping views from one scan, move one, register it back");
  demoCmd->add_option("--data", demo.data, "Scan to cut the views from")->capture_default_str();
  demoCmd->add_option("--snapshot", demo.snapshot, "PNG written")->capture_default_str();
  demoCmd->add_option("--views", demo.viewsDir, "Folder to write the two views to (ASC)");
  demoCmd->add_option("--overlap", demo.overlap, "Share of the scan's length in both views")
      ->check(kOpenUnit)
      ->capture_default_str();
  demoCmd->add_option("--angle", demo.angleDegrees, "Rotation of the known motion, degrees")
      ->check(CLI::Range(0.0, 180.0))
      ->capture_default_str();
  demoCmd->add_flag("--check", demo.check, "Exit with status 3 when the motion is not recovered");
  AddRegisterOptions(demoCmd, demo.settings, demoFlags);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    std::string message = e.what();
    if (message == "A subcommand is required") {
      const std::vector<std::string> extra = app.remaining();
      message = filterCmd->parsed() ? "filter needs one of: voxel, sor, edge, gaussian"
                : !extra.empty()    ? "unknown command '" + extra.front() + "'"
                                    : "a command is required: register, batch, multiway, info, "
                                      "convert, depth, normals, filter, keypoints, transform or demo";
    }
    std::fprintf(stderr,
                 "qorv: error: %s\nRun 'qorv --help' or 'qorv COMMAND --help' for usage.\n",
                 message.c_str());
    return 2;
  }

  try {
    RouteLibraryLog(global.quiet  ? LibraryLog::kDiscard
                    : global.json ? LibraryLog::kStderr
                                  : LibraryLog::kStdout);
    int status = 0;
    if (registerCmd->parsed()) {
      regFlags.applyTo(reg.settings);
      status = RunRegister(global, reg);
    } else if (infoCmd->parsed()) {
      status = RunInfo(global, infoPath);
    } else if (normalsCmd->parsed()) {
      status = RunNormals(global, normalsIn, normalsOut, normalsRadius, orientNeighbors);
    } else if (filterCmd->parsed()) {
      status = RunFilter(global, filter);
    } else if (keysCmd->parsed()) {
      status = RunKeyPoints(global, keys);
    } else if (transformCmd->parsed()) {
      status = RunTransform(global, transformIn, transformOut, matrix, inverse);
    } else if (multiwayCmd->parsed()) {
      status = RunMultiway(global, multi);
    } else if (batchCmd->parsed()) {
      status = RunBatch(global, batch);
    } else if (convertCmd->parsed()) {
      status = RunConvert(global, convert);
    } else if (depthCmd->parsed()) {
      status = RunDepth(global, depth);
    } else if (demoCmd->parsed()) {
      demoFlags.applyTo(demo.settings);
      status = RunDemo(global, demo);
    }
    FlushAll();
    return status;
  } catch (const ToolError& e) {
    FlushAll();
    std::fprintf(stderr, "qorv: error: %s\n", e.what());
    return e.exitCode();
  } catch (const std::bad_alloc&) {
    FlushAll();
    std::fprintf(stderr, "qorv: error: out of memory\n");
    return 1;
  } catch (const std::exception& e) {
    FlushAll();
    std::fprintf(stderr, "qorv: error: %s\n", e.what());
    return 1;
  }
}
