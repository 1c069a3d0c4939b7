#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Fails when a file under src/ includes a layer above its own, or a public header it should not
speak: only src/api speaks qorv/qorv.h, only src/engine_api the engine's headers."""
import pathlib
import re
import sys

# Each layer and the layers it may include (its own always).
BELOW = {
    "runtime": set(),
    "geometry": {"runtime"},
    "search": {"runtime"},
    "surface": {"search", "geometry", "runtime"},
    "features": {"surface", "search", "geometry", "runtime"},
    "registration": {"features", "surface", "search", "geometry", "runtime"},
    "api": {"registration", "features", "surface", "search", "geometry", "runtime"},
}
LIBRARY = BELOW["api"]
BELOW["engine"] = set(LIBRARY)
BELOW["io"] = set(LIBRARY)
BELOW["multiway"] = LIBRARY | {"engine", "io"}
BELOW["engine_api"] = LIBRARY | {"engine", "io", "multiway"}
PUBLIC = {"api": {"qorv/qorv.h"},
          "engine_api": {"qorv/engine.h", "qorv/engine_io.h", "qorv/engine_multiway.h"}}

root = pathlib.Path(__file__).resolve().parents[1] / "src"
problems = []
for path in sorted(root.rglob("*")):
    if path.suffix not in (".cpp", ".hpp", ".h", ".c"):
        continue
    layer = path.relative_to(root).parts[0]
    if layer not in BELOW:
        problems.append(f"{path}: folder src/{layer} is no known layer (add it to {__file__})")
        continue
    for number, line in enumerate(path.read_text().splitlines(), 1):
        m = re.match(r'\s*#\s*include\s*([<"])([^>"]+)[>"]', line)
        if not m:
            continue
        target = m.group(2)
        if target.startswith("qorv/"):
            if target not in PUBLIC.get(layer, set()):
                problems.append(f"{path}:{number}: src/{layer} includes the public header {target}")
            continue
        top = target.split("/")[0]
        if m.group(1) == '"' and top in BELOW and top != layer and top not in BELOW[layer]:
            problems.append(f"{path}:{number}: src/{layer} includes {target} from a layer above it")
for p in problems:
    print(p)
print(f"layers: {len(problems)} problem(s)")
sys.exit(1 if problems else 0)
