#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""The verdict's operating point: precision and recall of our answers as each threshold moves with
the others held at their defaults, from the measures the benchmark recorded (run.py's
registration_results.json). Each answer is the one the engine returned; its measures decide it
again under the moved threshold. Right answers that the search did not find are not counted as
recall the verdict could win.

usage: calibrate.py RESULTS.json [--split dev|test|all]"""

import argparse
import json

# The engine's defaults (src/engine/verdict.hpp, VerdictRules).
DEFAULTS = dict(min_overlap=0.1, max_rmse_share=0.6, min_normal_agreement=0.5, min_conditioning=0.003,
                min_constrained=0.18, chance_sigmas=4.0, min_consistent=6, max_free_space=0.1,
                max_rival=0.9)
SWEEPS = dict(min_constrained=[0.0, 0.05, 0.1, 0.15, 0.18, 0.25, 0.3, 0.4],
              min_conditioning=[0.0, 0.001, 0.003, 0.01, 0.02],
              chance_sigmas=[0.0, 1.0, 2.0, 4.0, 6.0],
              max_free_space=[0.05, 0.1, 0.2, 0.5, 1.0],
              min_overlap=[0.0, 0.05, 0.1, 0.2, 0.3],
              min_normal_agreement=[0.0, 0.3, 0.5, 0.7, 0.8])


def passes(r, t):
    shared = min(r["fitness"], r["target_overlap"])
    if shared < t["min_overlap"] or r["inlier_rmse"] > t["max_rmse_share"] * r["inlier_distance"]:
        return False
    if r["normal_agreement"] < t["min_normal_agreement"] or r["conditioning"] < t["min_conditioning"]:
        return False
    if r["constrained"] < t["min_constrained"]:
        return False
    if r["free_space_conflict"] > t["max_free_space"]:
        return False
    if r["mode"] == "global":
        chance = max(0.0, r["chance_pairs"])
        floor = max(t["min_consistent"], int(chance + t["chance_sigmas"] * chance ** 0.5) + 1)
        if r["consistent_pairs"] < floor:
            return False
    return r["rival_share"] <= t["max_rival"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("results")
    parser.add_argument("--split", choices=["dev", "test", "all"], default="all")
    args = parser.parse_args()
    rs = [r for r in json.load(open(args.results)) if r["method"] == "ours" and r["threads"] == 2]
    if args.split != "all":
        rs = [r for r in rs if f"({args.split})" in r["set"] or "(" not in r["set"]]
    # An answer judged at the working scale (screened) carries coarse measures: keep it refused.
    rs = [r for r in rs if "reason" in r]
    right = sum(r["ok"] for r in rs)
    print(f"{len(rs)} answers ({right} right, {len(rs) - right} wrong or with no right answer), "
          f"split {args.split}\n")
    print("| threshold | value | registered | wrong among them | precision | recall of right answers |")
    print("|---|---|---|---|---|---|")
    for name, values in SWEEPS.items():
        for value in values:
            t = dict(DEFAULTS, **{name: value})
            said = [r for r in rs if passes(r, t)]
            wrong = sum(not r["ok"] for r in said)
            precision = 100.0 * (len(said) - wrong) / len(said) if said else 100.0
            recall = 100.0 * (len(said) - wrong) / right if right else 0.0
            mark = " (default)" if value == DEFAULTS[name] else ""
            print(f"| {name} | {value:g}{mark} | {len(said)} | {wrong} | {precision:.1f} % | {recall:.1f} % |")


if __name__ == "__main__":
    main()
