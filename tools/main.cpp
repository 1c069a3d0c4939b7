// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The qorv command-line tool: the commands are put on one CLI::App and the one named runs from
// its callback; here parse errors and failures become the messages and exit statuses. Every
// command works through the library's C interface only.
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "commands.hpp"
#include "session.hpp"

#include <CLI/CLI.hpp>

namespace {

std::string VersionText() {
  return std::string("qorv ") + QORV_VERSION_TEXT + " (library " + QorvVersion() + ")";
}

// What a missing command is reported as: the command that wants one of its own, an unknown name,
// or no command at all.
std::string MissingCommand(const CLI::App& app) {
  for (const CLI::App* command : app.get_subcommands()) {
    if (command->get_require_subcommand_min() == 0 || !command->get_subcommands().empty()) continue;
    std::string names;
    for (const CLI::App* sub : command->get_subcommands([](const CLI::App*) { return true; })) {
      names += (names.empty() ? "" : ", ") + sub->get_name();
    }
    return command->get_name() + " needs one of: " + names;
  }
  const std::vector<std::string> extra = app.remaining();
  return !extra.empty() ? "unknown command '" + extra.front() + "'"
                        : "a command is required: register, batch, multiway, info, convert, depth, "
                          "normals, filter, keypoints, transform or demo";
}

}  // namespace

int main(int argc, char** argv) {
  using namespace qorv::tools;
  CLI::App app{
      "Point-cloud registration with libqorv.\n"
      "Clouds are read from PLY, PCD, LAS, column text (.asc .xyz .pts .txt .csv), OBJ and STL "
      "vertices and depth images (16-bit PNG or TIFF) and written as PLY, PCD, LAS or ASC, by the "
      "output's extension.\nThe library's '[QORV INFO]' lines (from its 28 functions) go to "
      "stdout; with --json they go to stderr and stdout holds only the JSON document; --quiet "
      "drops them and the warnings.",
      "qorv"};
  app.set_version_flag("--version", VersionText);
  app.require_subcommand(1, 1);
  app.fallthrough();
  ToolRun run;
  AddGlobalOptions(app, run.global);
  AddRegisterCommand(app, run);
  AddInfoCommand(app, run);
  AddNormalsCommand(app, run);
  AddFilterCommand(app, run);
  AddKeyPointsCommand(app, run);
  AddTransformCommand(app, run);
  AddConvertCommands(app, run);
  AddBatchCommand(app, run);
  AddMultiwayCommand(app, run);
  AddDemoCommand(app, run);
  // Each command's --help lists the options every command takes.
  for (CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    AddGlobalOptions(*command, run.global);
    for (CLI::App* sub : command->get_subcommands([](const CLI::App*) { return true; }))
      AddGlobalOptions(*sub, run.global);
  }

  // The command runs inside parse, once the whole line has parsed: a CLI::ParseError is always a
  // usage error, before anything ran.
  try {
    app.parse(argc, argv);
    FlushAll();
    return run.status;
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    std::string message = e.what();
    if (message == "A subcommand is required") message = MissingCommand(app);
    std::fprintf(stderr,
                 "qorv: error: %s\nRun 'qorv --help' or 'qorv COMMAND --help' for usage.\n",
                 message.c_str());
    return 2;
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
