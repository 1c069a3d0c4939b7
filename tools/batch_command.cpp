// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// `qorv batch`: the pairs of a manifest registered in parallel, each result one line of a
// JSON-lines file; a rerun skips the pairs already there.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "batch.hpp"
#include "commands.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace qorv::tools {
namespace {

struct BatchOptions {
  std::string manifest, output;
  int jobs = 0;  // 0: one a core
  bool allowFailures = false;
  QorvEngineOptions engine;

  BatchOptions() { QorvEngineDefaultOptions(&engine); }
};

// Exit status when a pair of the run failed or was not registered (as `qorv register`'s).
constexpr int kExitNotAllRegistered = 3;

class Progress {
 public:
  Progress(int64_t total, int64_t skipped, bool quiet)
      : total_(total), skipped_(skipped), quiet_(quiet), terminal_(isatty(STDERR_FILENO) != 0) {}

  void done(const nlohmann::ordered_json& line) {
    ++done_;
    if (quiet_) return;
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const double rate = done_ / std::max(seconds, 1e-9);
    const double left = (total_ - skipped_ - done_) / std::max(rate, 1e-9);
    if (terminal_) {
      const int width = 30;
      const int filled =
          static_cast<int>(width * (skipped_ + done_) / std::max<int64_t>(total_, 1));
      std::fprintf(stderr,
                   "\r[%s%s] %lld/%lld  %.2f pairs/s  %.0f s left ",
                   std::string(static_cast<size_t>(filled), '#').c_str(),
                   std::string(static_cast<size_t>(width - filled), '.').c_str(),
                   static_cast<long long>(skipped_ + done_),
                   static_cast<long long>(total_),
                   rate,
                   left);
    } else {
      const std::string verdict =
          !line["error"].is_null()         ? "failed: " + line["error"].get<std::string>()
          : line["registered"].get<bool>() ? std::string("registered")
                                           : "not registered: " + line["reason"].get<std::string>();
      std::fprintf(stderr,
                   "%lld/%lld pair %lld: %s (%.2f pairs/s, %.0f s left)\n",
                   static_cast<long long>(skipped_ + done_),
                   static_cast<long long>(total_),
                   static_cast<long long>(line["pair"].get<int64_t>()),
                   verdict.c_str(),
                   rate,
                   left);
    }
  }

  void finish() {
    if (!quiet_ && terminal_) std::fprintf(stderr, "\n");
  }

 private:
  int64_t total_, skipped_, done_ = 0;
  bool quiet_, terminal_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

int RunBatch(const GlobalOptions& global, const BatchOptions& o) {
  const std::vector<BatchPair> pairs = ReadManifest(o.manifest);
  const std::set<int64_t> done = DonePairs(o.output);
  std::vector<const BatchPair*> todo;
  for (const BatchPair& p : pairs) {
    if (!done.count(p.index)) todo.push_back(&p);
  }
  const int fd = ::open(o.output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0)
    throw ToolError("cannot open '" + o.output + "' for appending: " + std::strerror(errno));
  const int jobs =
      o.jobs > 0 ? o.jobs : std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  Progress progress(static_cast<int64_t>(pairs.size()),
                    static_cast<int64_t>(pairs.size() - todo.size()),
                    global.quiet || global.json);
  std::atomic<size_t> next{0};
  std::mutex guard;
  int64_t registered = 0, rejected = 0, failed = 0;
  double pairMs = 0.0;
  std::string writeError;
  const auto start = std::chrono::steady_clock::now();
  auto worker = [&]() {
    for (size_t k = next++; k < todo.size(); k = next++) {
      const nlohmann::ordered_json line = RunPair(*todo[k], o.engine);
      std::lock_guard<std::mutex> lock(guard);
      try {
        AppendLine(fd, line.dump());
      } catch (const std::exception& e) {
        writeError = e.what();
        next = todo.size();
        return;
      }
      if (!line["error"].is_null()) {
        ++failed;
      } else if (line["registered"].get<bool>()) {
        ++registered;
      } else {
        ++rejected;
      }
      pairMs += line["ms"].get<double>();
      progress.done(line);
    }
  };
  std::vector<std::thread> threads;
  for (int j = 0; j < std::min<int>(jobs, static_cast<int>(std::max<size_t>(todo.size(), 1))); ++j)
    threads.emplace_back(worker);
  for (std::thread& t : threads) t.join();
  ::close(fd);
  progress.finish();
  if (!writeError.empty()) throw ToolError(writeError);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const int64_t ran = registered + rejected + failed;
  FlushAll();
  if (global.json) {
    nlohmann::ordered_json summary = {
        {"command", "batch"},
        {"pairs", pairs.size()},
        {"skipped", pairs.size() - todo.size()},
        {"registered", registered},
        {"not_registered", rejected},
        {"failed", failed},
        {"seconds", seconds},
        {"pairs_per_second", ran / std::max(seconds, 1e-9)},
        {"mean_pair_ms", ran > 0 ? pairMs / static_cast<double>(ran) : 0.0},
        {"jobs", jobs}};
    std::fprintf(Out(), "%s\n", summary.dump().c_str());
  } else if (!global.quiet) {
    std::fprintf(Out(),
                 "batch: %lld pairs (%lld already done): %lld registered, %lld not registered, "
                 "%lld failed to read; "
                 "%.1f s, %.2f pairs/s with %d jobs, %.0f ms a pair\n",
                 static_cast<long long>(pairs.size()),
                 static_cast<long long>(pairs.size() - todo.size()),
                 static_cast<long long>(registered),
                 static_cast<long long>(rejected),
                 static_cast<long long>(failed),
                 seconds,
                 ran / std::max(seconds, 1e-9),
                 jobs,
                 ran > 0 ? pairMs / static_cast<double>(ran) : 0.0);
  }
  std::fflush(Out());
  return (rejected > 0 || failed > 0) && !o.allowFailures ? kExitNotAllRegistered : 0;
}

}  // namespace

void AddBatchCommand(CLI::App& app, ToolRun& run) {
  CLI::App* sub =
      app.add_subcommand("batch", "Register every pair of a manifest into a JSON-lines file");
  BatchOptions& o = SetCommand<BatchOptions>(sub, run, RunBatch);
  sub->add_option("manifest", o.manifest, "CSV with target,source[,initial] columns, or JSON lines")
      ->required();
  sub->add_option(
         "--output", o.output, "Results, one JSON line a pair; a rerun skips the pairs in it")
      ->required();
  sub->add_option("--jobs", o.jobs, "Pairs at once (default: one a core)")
      ->check(CLI::Range(1, 1024));
  AddVoxelOption(sub, o.engine.voxel, "Working voxel (default: from the point budget)");
  AddSeedOption(sub, o.engine.seed, "Seed of every random draw");
  AddMaxTriesOption(sub, o.engine);
  AddSensorOriginOption(sub, o.engine);
  AddRefineOption(sub, o.engine);
  sub->add_flag("--allow-failures",
                o.allowFailures,
                "Exit 0 even when some pairs failed or were not registered (default: exit 3)");
}

}  // namespace qorv::tools
