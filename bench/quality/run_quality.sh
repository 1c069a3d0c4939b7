#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
#
# Registration quality study (docs/registration_quality.md). Builds libqorv in Release, compiles
# bench/quality/registration_quality.cpp against it (public header only) and runs
#   sweep   the detector and descriptor settings grid, per model, on seed-101 view pairs
#           (6 geometries x clean/noisy = 12 pairs a model; about 15 minutes on one core);
#   final   the table of the document: 12 geometries x clean/noisy per model, seed 1, with the
#           settings the sweep chose (about a minute).
# Usage: bench/quality/run_quality.sh [final|sweep|all]   (BUILD_DIR overrides build-quality/)
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
build=${BUILD_DIR:-$root/build-quality}
mode=${1:-final}

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DQORV_BUILD_TESTS=OFF \
  -DQORV_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" --target qorv -j2 >/dev/null
"${CXX:-c++}" -O2 -std=c++17 -Wall -Wextra -Wshadow -Werror -ffp-contract=off \
  -I"$root/include" "$root/bench/quality/registration_quality.cpp" \
  -L"$build" -lqorv -Wl,-rpath,"$build" -o "$build/registration_quality"
study=("$build/registration_quality" --data "$root/data/sample")

# The settings the sweep chose (lengths in units of s; s = factor x the view's mean spacing).
best="orient=outward,r21=0.8,r32=0.8,kp=3,nm=0.5,fr=7,hr=3.5,edge=0.9,inlier=2,iters=20000"

sweep() {
  local model=$1
  shift
  local tries=()
  for s in "$@"; do
    for orient in outward z; do
      for ratio in 0.7 0.8 0.9; do
        for kp in 2 3; do
          for nm in 0.5 1; do
            for radii in "fr=5,hr=2.5" "fr=7,hr=3.5"; do
              tries+=(--try "s=$s,orient=$orient,r21=$ratio,r32=$ratio,kp=$kp,nm=$nm,$radii")
            done
          done
        done
      done
    done
  done
  "${study[@]}" --mode sweep --models "$model" --seed 101 --geometries 6 "${tries[@]}"
}

if [[ $mode == sweep || $mode == all ]]; then
  # The bunny has 1.8k points: its views support only small resolutions.
  sweep bunny 1 1.5
  sweep dragon_res3 2 3
fi
if [[ $mode == final || $mode == all ]]; then
  "${study[@]}" --mode final --models dragon_res3,bunny --seed 1 --geometries 12 \
    --config "$best" --resolution-for dragon_res3=2 --resolution-for bunny=1 --verbose
fi
