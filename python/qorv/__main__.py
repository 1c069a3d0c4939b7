# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""python3 -m qorv batch MANIFEST --output RESULTS.jsonl [--scheduler tcp://HOST:PORT] [--workers N]"""

from __future__ import annotations

import argparse
import json
import logging
import sys
from typing import Optional, Sequence

from .batch import run_batch


def _show_log_on_stderr(quiet):
    """The package logs its progress and warnings (logger "qorv"); the command shows them on standard
    error, progress only without --quiet."""
    handler = logging.StreamHandler(sys.stderr)
    handler.setFormatter(logging.Formatter("%(message)s"))
    handler.setLevel(logging.WARNING if quiet else logging.INFO)
    logger = logging.getLogger("qorv")
    logger.addHandler(handler)
    previous = logger.level
    logger.setLevel(logging.INFO)
    return handler, previous


def main(argv: Optional[Sequence[str]] = None) -> int:
    """The command line: `python3 -m qorv batch ...`; returns the exit status."""
    parser = argparse.ArgumentParser(prog="python3 -m qorv", description="Qorv on many scans")
    commands = parser.add_subparsers(dest="command", required=True)
    batch = commands.add_parser("batch", help="register every pair of a manifest on a Dask cluster")
    batch.add_argument("manifest", help="CSV with target,source[,initial] columns, or JSON lines")
    batch.add_argument("--output", required=True, help="results, one JSON line a pair (a rerun resumes)")
    batch.add_argument("--scheduler", help="address of a running dask scheduler (default: a local cluster)")
    batch.add_argument("--workers", type=int, help="worker processes of the local cluster (default: one a core)")
    batch.add_argument("--voxel", type=float, default=0.0)
    batch.add_argument("--seed", type=int, default=1)
    batch.add_argument("--max-tries", type=int)
    batch.add_argument("--sensor-origin", action="store_true",
                       help="each scan was taken by a sensor at its origin (spinning LiDAR)")
    batch.add_argument("--refine", choices=("plane", "gicp"), default="gicp",
                       help="dense refinement: generalized or point-to-plane ICP")
    batch.add_argument("--quiet", action="store_true")
    batch.add_argument("--allow-failures", action="store_true",
                       help="exit 0 even when some pairs failed or were not registered (default: exit 3)")
    args = parser.parse_args(argv)
    options = dict(voxel=args.voxel, seed=args.seed)
    if args.refine != "gicp":
        options["refine"] = args.refine
    if args.sensor_origin:
        options["sensor_origin"] = True
    if args.max_tries:
        options["max_tries"] = args.max_tries
    handler, previous_level = _show_log_on_stderr(args.quiet)
    try:
        summary = run_batch(args.manifest, args.output, scheduler=args.scheduler, workers=args.workers,
                            options=options, quiet=args.quiet)
    except (OSError, ValueError) as error:
        print(f"qorv: error: {error}", file=sys.stderr)
        return 1
    finally:
        logging.getLogger("qorv").removeHandler(handler)
        logging.getLogger("qorv").setLevel(previous_level)
    print(json.dumps(summary))
    return 3 if (summary["failed"] or summary["not_registered"]) and not args.allow_failures else 0


if __name__ == "__main__":
    sys.exit(main())
