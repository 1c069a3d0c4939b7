// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

#include <qorv/qorv.h>

namespace qorv::tools {

// A failure the tool reports as "qorv: error: <message>" with the given exit status.
class ToolError : public std::runtime_error {
 public:
  explicit ToolError(const std::string& message, int exitCode = 1)
      : std::runtime_error(message), exitCode_(exitCode) {}
  int exitCode() const { return exitCode_; }

 private:
  int exitCode_;
};

// Turns a failure code of export `name` into a ToolError naming what was being done.
void Check(QorvResult code, const char* name, const std::string& doing);

// Where the library's "[QORV INFO]" lines go. The library prints them with printf to standard
// output and cannot be silenced, so the tool moves file descriptor 1 itself: results are written
// to Out(), a stream on the original standard output, and descriptor 1 (what the library's
// printf reaches) is pointed at standard error (JSON mode, so that stdout holds only the
// document) or at /dev/null (quiet mode).
enum class LibraryLog { kStdout, kStderr, kDiscard };

// Sets up the routing once, before the first library call. Throws ToolError on failure.
void RouteLibraryLog(LibraryLog where);

// The stream for the tool's own results (stdout, or the saved original stdout when rerouted).
std::FILE* Out();

// Flushes both the library's stdout buffer and Out(), keeping their lines in order.
void FlushAll();

// Owns one QorvInstance for the run.
class Session {
 public:
  // threads > 1 turns on the library's multi-threaded variants and asks the OpenMP runtime for
  // that many threads (OMP_NUM_THREADS, and omp_set_num_threads when the runtime is loaded).
  explicit Session(int threads);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  QorvInstance* get() const { return inst_; }
  int threads() const { return threads_; }

 private:
  QorvInstance* inst_ = nullptr;
  int threads_ = 1;
};

}  // namespace qorv::tools
