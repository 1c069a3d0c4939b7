// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "session.hpp"

#include <cstdlib>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

namespace qorv::tools {
namespace {

std::FILE* g_out = nullptr;

const char* CodeText(QorvResult code) {
  switch (code) {
    case QORV_ERROR_FILE:
      return "file could not be read or written";
    case QORV_ERROR_INVALID_ARGUMENT:
      return "invalid argument";
    case QORV_ERROR_NULL_INSTANCE:
      return "null instance";
    case QORV_ERROR_ALLOCATION:
      return "out of memory";
    default:
      return "unknown result code";
  }
}

}  // namespace

void Check(QorvResult code, const char* name, const std::string& doing) {
  if (code == QORV_OK) return;
  throw ToolError(doing + ": " + name + " returned " + std::to_string(code) + " (" +
                  CodeText(code) + ")");
}

void RouteLibraryLog(LibraryLog where) {
  if (where == LibraryLog::kStdout) return;
  std::fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  if (saved < 0) throw ToolError("cannot duplicate standard output");
  const int target =
      where == LibraryLog::kStderr ? dup(STDERR_FILENO) : open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (target < 0 || dup2(target, STDOUT_FILENO) < 0) {
    throw ToolError("cannot redirect the library's log");
  }
  close(target);
  g_out = fdopen(saved, "w");
  if (g_out == nullptr) throw ToolError("cannot open the result stream");
}

std::FILE* Out() { return g_out != nullptr ? g_out : stdout; }

void FlushAll() {
  std::fflush(stdout);
  if (g_out != nullptr) std::fflush(g_out);
}

Session::Session(int threads) : threads_(threads < 1 ? 1 : threads) {
  if (threads_ > 1) {
    const std::string count = std::to_string(threads_);
    setenv("OMP_NUM_THREADS", count.c_str(), 1);
    // The OpenMP runtime read its environment when it was loaded with the library, before
    // main; its own entry point changes the team size of this (the calling) thread.
    using SetThreads = void (*)(int);
    if (auto* set = reinterpret_cast<SetThreads>(dlsym(RTLD_DEFAULT, "omp_set_num_threads"))) {
      set(threads_);
    }
  }
  Check(QorvCreateInstance(&inst_), "QorvCreateInstance", "creating the library instance");
  if (threads_ > 1) QorvEnableMultiThread(inst_);
}

Session::~Session() { QorvDestroyInstance(inst_); }

}  // namespace qorv::tools
