// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>

namespace qorv::engine {

// The message of the last failed C call on this thread, as QorvEngineLastError returns it.
void SetLastError(const std::string& message);
const char* LastError();

}  // namespace qorv::engine
