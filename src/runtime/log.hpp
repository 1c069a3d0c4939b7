// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

namespace qorv {

// Writes "[QORV INFO] ", the formatted message and a newline to standard output, as three printf
// calls. The log cannot be switched off.
void LogInfo(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace qorv
