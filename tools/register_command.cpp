// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv register`: reading, registering, reporting, writing the results.
#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "commands.hpp"

namespace qorv::tools {
namespace {

struct RegisterOptions {
  std::string target, source, output, snapshot;
  RegisterSettings settings;
  RegistrationFlags flags;    // into `settings` when the command runs
  std::string initialMatrix;  // initial guess, empty: none
  SnapshotOptions view;
};

// The initial guess (12 or 16 numbers) into the engine's options.
void SetInitial(const std::string& text, QorvEngineOptions& options) {
  const std::array<double, 12> m = MatrixArgument(text).matrix3x4();
  std::copy(m.begin(), m.end(), options.initial);
  options.initial[12] = options.initial[13] = options.initial[14] = 0.0;
  options.initial[15] = 1.0;
  options.has_initial = 1;
}

int RunRegister(const GlobalOptions& global, RegisterOptions o) {
  o.flags.applyTo(o.settings);
  if (!o.initialMatrix.empty()) SetInitial(o.initialMatrix, o.settings.engine);
  if (o.settings.engine.mode == QORV_ENGINE_MODE_LOCAL && !o.settings.engine.has_initial) {
    throw ToolError("--local needs --initial", 2);
  }
  CheckSnapshotPath(o.snapshot);
  Session session(global.threads);
  std::vector<StageTime> stages;
  const Cloud target = ReadTimed(o.target, "read target", stages);
  const Cloud source = ReadTimed(o.source, "read source", stages);
  RegistrationReport report = RegisterClouds(session, target, source, o.settings, stages);
  report.target.path = o.target;
  report.source.path = o.source;
  if (!o.output.empty()) {
    const double start = Now();
    WriteCloud(o.output, report.movedSource, QORV_ENGINE_ENCODING_DEFAULT, global.quiet);
    report.stages.push_back({"write output", Now() - start});
  }
  if (!o.snapshot.empty())
    Snapshot(o.snapshot, target, source, report.movedSource.points, o.view, report.stages);

  if (global.json) {
    FlushAll();
    nlohmann::ordered_json doc = {
        {"command", "register"},
        {"version", QorvVersion()},
        {"threads", session.threads()},
        // The one-call pipeline seeds its draws from the clock.
        {"seed",
         o.settings.exact ? nlohmann::ordered_json()
                          : nlohmann::ordered_json(o.settings.engine.seed)}};
    AddReportJson(doc, report);
    doc["output"] = o.output.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(o.output);
    doc["snapshot"] =
        o.snapshot.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(o.snapshot);
    PrintJson(doc);
  } else {
    PrintReport(report);
    if (!o.output.empty()) std::fprintf(Out(), "moved source written to %s\n", o.output.c_str());
    if (!o.snapshot.empty()) std::fprintf(Out(), "snapshot written to %s\n", o.snapshot.c_str());
  }
  std::fflush(Out());
  if (!report.registered()) {
    std::fprintf(stderr, "qorv: not registered: %s\n", report.verdict.reason);
    return 3;
  }
  return 0;
}

}  // namespace

void AddRegisterCommand(CLI::App& app, ToolRun& run) {
  CLI::App* sub =
      app.add_subcommand("register", "Register SOURCE onto TARGET and print the motion");
  RegisterOptions& o = SetCommand<RegisterOptions>(sub, run, RunRegister);
  sub->add_option("target", o.target, "Cloud that stays in place")->required();
  sub->add_option("source", o.source, "Cloud that is moved onto the target")->required();
  AddRegistrationOptions(sub, o.settings, o.flags);
  sub->add_option(
      "--initial",
      o.initialMatrix,
      "Initial guess: 12 or 16 numbers, or a file holding them (tried beside the global "
      "estimate; "
      "the start of --local and of the pipeline's iterative method)");
  sub->add_option("--output", o.output, "Write the moved source cloud");
  sub->add_option(
      "--snapshot", o.snapshot, "Write a PNG of both clouds before and after the motion");
  sub->add_option("--snapshot-width", o.view.width, "Snapshot width in pixels")
      ->check(CLI::Range(64, 8192))
      ->capture_default_str();
  sub->add_option("--snapshot-height", o.view.height, "Snapshot height in pixels")
      ->check(CLI::Range(64, 8192))
      ->capture_default_str();
}

}  // namespace qorv::tools
