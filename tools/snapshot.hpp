// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <string>
#include <vector>

namespace qorv::tools {

struct SnapshotOptions {
  int width = 1200;  // whole image: two panels side by side
  int height = 600;
  float yawDegrees = 35.0f;    // fixed oblique view: turn about the vertical (y) axis,
  float pitchDegrees = 25.0f;  // then tilt down towards the viewer
};

// Draws the target and the source before (left panel) and after (right panel) the motion,
// target in blue, source in orange, as depth-shaded splats with a z-buffer, and writes a PNG.
// Where the source lies on the target's surface the pixel turns purple, so an aligned overlap
// reads as one purple band. Each panel is framed on its own content. Throws ToolError when the file
// cannot be written.
void WriteSnapshot(const std::string& path,
                   const std::vector<float>& target,
                   const std::vector<float>& sourceBefore,
                   const std::vector<float>& sourceAfter,
                   const SnapshotOptions& options);

}  // namespace qorv::tools
