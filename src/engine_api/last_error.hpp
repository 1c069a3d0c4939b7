// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>

namespace qorv::engine {

// The message of the last failed C call on this thread, as QorvEngineLastError returns it.
void SetLastError(const std::string& message);
const char* LastError();

// The warning of the last successful C call on this thread that had one ("" after any other).
void SetLastWarning(const std::string& message);
const char* LastWarning();

}  // namespace qorv::engine
