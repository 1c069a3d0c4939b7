// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv transform`: a rigid motion, given as numbers or read from a file, applied to a cloud.
#include <string>

#include "commands.hpp"

namespace qorv::tools {
namespace {

struct TransformOptions {
  std::string input, output;
  std::string matrix;  // 12 or 16 numbers, or @FILE
  bool inverse = false;
};

int RunTransform(const GlobalOptions& global, const TransformOptions& o) {
  Rigid motion = MatrixArgument(o.matrix);
  if (o.inverse) motion = motion.inverse();
  Session session(global.threads);
  const Cloud cloud = ReadCloud(o.input);
  const double start = Now();
  const Cloud moved = MoveCloud(session, cloud, motion);
  const double ms = Now() - start;
  WriteCloud(o.output, moved);
  ReportWritten(global, {"transform", o.input, cloud.size(), o.output, moved.size(), ms});
  return 0;
}

}  // namespace

void AddTransformCommand(CLI::App& app, ToolRun& run) {
  CLI::App* sub = app.add_subcommand("transform", "Apply a rigid motion (QorvTransformPoints)");
  TransformOptions& o = SetCommand<TransformOptions>(sub, run, RunTransform);
  AddInputOutput(sub, o.input, o.output);
  sub->add_option("--matrix",
                  o.matrix,
                  "12 numbers (3 x 4 [R | t], row after row, as register prints) or 16 "
                  "(4 x 4); @FILE reads them from a file")
      ->required();
  sub->add_flag("--inverse", o.inverse, "Apply the inverse motion");
}

}  // namespace qorv::tools
