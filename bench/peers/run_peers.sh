#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
#
# Builds bench/peers into build-peers (one compile job: the PCL unit is heavy), measures Qorv,
# PCL and Open3D at 1 and 2 threads (one process per thread count, OMP_NUM_THREADS set), prints
# the markdown table and writes it to build-peers/peers_table.md.
#
#   bench/peers/run_peers.sh [qorv_peers options, e.g. --budget 1 --pairs 2 --large 0]
# Environment: PEERS_DATA (required: the folder holding dragon_res2.asc),
#              PEERS_BUILD_DIR (default <repo>/build-peers), PEERS_THREADS (default "1 2"),
#              PEERS_JOBS (default 1), QORV_PEERS_LIBRARY (measure another libqorv.so).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=${PEERS_BUILD_DIR:-$root/build-peers}
threads=${PEERS_THREADS:-1 2}

if [ -z "${PEERS_DATA:-}" ] || [ ! -f "$PEERS_DATA/dragon_res2.asc" ]; then
  echo "run_peers.sh: set PEERS_DATA to the folder holding dragon_res2.asc (now '${PEERS_DATA:-}')" >&2
  exit 2
fi
configure=(-S "$root/bench/peers" -B "$build" -DCMAKE_BUILD_TYPE=Release
           "-DQORV_PEERS_DATA_DIR=$(cd "$PEERS_DATA" && pwd)")
if [ -n "${QORV_PEERS_LIBRARY:-}" ]; then
  configure+=("-DQORV_PEERS_LIBRARY=$QORV_PEERS_LIBRARY")
fi
mkdir -p "$build"
cmake "${configure[@]}" > "$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 1; }
cmake --build "$build" -j "${PEERS_JOBS:-1}"

tables=()
for t in $threads; do
  echo "== measuring at $t thread(s); Qorv's log lines go to $build/qorv_log_$t.txt" >&2
  OMP_NUM_THREADS=$t "$build/qorv_peers" --threads "$t" --out "$build/results_$t.tsv" \
    --work "$build" "$@" > "$build/qorv_log_$t.txt"
  tables+=("$build/results_$t.tsv")
done
echo
"$build/qorv_peers" --table "${tables[@]}" --md "$build/peers_table.md"
echo "(written to $build/peers_table.md)" >&2
