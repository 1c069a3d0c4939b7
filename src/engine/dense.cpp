// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Dense refinement of a try's answer on the refinement clouds: a wide pass, then one narrowed to
// the residuals it measured.
#include <algorithm>

#include "engine/steps.hpp"

namespace qorv::engine {
namespace {

// In the refinement unit: pairs within 3 units, a Geman-McClure kernel of 2 (wider than the unit,
// so that sensor noise of a few spacings still pulls).
constexpr float kFineIcpDistance = 3.0f;
constexpr double kFineKernel = 2.0;
// The narrow pass: a kernel of 3 x the wide pass's residual scale, never below a quarter unit,
// pairs within twice the kernel (never below a unit), 30 steps.
constexpr double kNarrowKernel = 3.0;
constexpr double kNarrowFloor = 0.25;
constexpr double kNarrowDistance = 2.0;
constexpr int32_t kNarrowIterations = 30;

// The weighted RMS point-to-plane residual of the pose as given (the step is not taken): what the
// verdict's lengths follow, measured so whichever refiner moved the clouds.
double PlaneResidual(const Registration& reg, const Pose& pose, const IcpParams& params) {
  IcpParams probe = params;
  probe.maxIterations = 1;
  return FindRefiner(RefineMethod::kPointToPlane)
      ->Refine(reg.refineSource, reg.refineTarget, pose, probe)
      .residualScale;
}

// The narrow pass's lengths for a wide pass that measured this residual.
IcpParams Narrowed(const IcpParams& wide, double residual, double unit) {
  IcpParams narrow = wide;
  narrow.kernel = std::max(kNarrowKernel * residual, kNarrowFloor * unit);
  narrow.maxDistance = static_cast<float>(std::max(kNarrowDistance * narrow.kernel, unit));
  narrow.maxIterations = kNarrowIterations;
  return narrow;
}

}  // namespace

IcpParams DenseParams(const Registration& reg) {
  const double unit = reg.scales.refineUnit;
  IcpParams ip;
  ip.maxDistance = kFineIcpDistance * static_cast<float>(unit);
  ip.kernel = kFineKernel * unit;
  ip.maxIterations = reg.steps.denseIterations;
  ip.stopShift = 1e-3 * unit;
  return ip;
}

// Local mode pulls its guess in first with a pass at the working scale; evaluate mode only
// measures the residual of the pose as given.
Refined RefineDensely(const TryResult& tr,
                      const Pose& start,
                      double tryVoxel,
                      const Registration& reg) {
  const IcpParams ip = DenseParams(reg);
  const double unit = reg.scales.refineUnit;
  const Refiner& refiner = reg.refiner;
  Refined out;
  out.pose = start;
  if (reg.steps.pullIn) {
    IcpParams coarse = ip;
    coarse.maxDistance = kFineIcpDistance * static_cast<float>(tryVoxel);
    coarse.kernel = tryVoxel;
    // On the working clouds: at this distance their samples pull as well, at a fraction of the
    // points.
    out.pose =
        refiner.Refine(tr.source->level.refining(), tr.target->level.refining(), out.pose, coarse)
            .pose;
  }
  if (reg.steps.probe) {
    out.residual = PlaneResidual(reg, out.pose, ip);
    return out;
  }
  const IcpOutcome wide = refiner.Refine(reg.refineSource, reg.refineTarget, out.pose, ip);
  if (!refiner.Narrows()) {
    out.pose = wide.pose;
    out.residual =
        PlaneResidual(reg, out.pose, Narrowed(ip, PlaneResidual(reg, out.pose, ip), unit));
    return out;
  }
  // Then narrow to the residuals the data shows: clean scans settle on their exact overlap, noisy
  // sensors keep a kernel as wide as their noise.
  const IcpOutcome settled = refiner.Refine(
      reg.refineSource, reg.refineTarget, wide.pose, Narrowed(ip, wide.residualScale, unit));
  out.pose = settled.pose;
  out.residual = settled.residualScale;
  return out;
}

}  // namespace qorv::engine
