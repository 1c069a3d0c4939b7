// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "engine/engine.hpp"

namespace qorv::engine {

int32_t Register(const CloudView&, const CloudView&, const Options&, Outcome& outcome, std::string&) {
  outcome = Outcome();
  outcome.reason = "not implemented yet";
  return 0;
}

}  // namespace qorv::engine
