#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
#
# Fails on a tracked source file without the licence header, or a C/C++ file that differs from
# .clang-format. Run from the top of the checkout.
set -euo pipefail
status=0
while IFS= read -r -d '' f; do
  if ! head -n 4 "$f" | grep -q "SPDX-License-Identifier: MIT"; then
    echo "$f: no licence header (SPDX-License-Identifier: MIT in its first lines)"
    status=1
  fi
done < <(git ls-files -z -- '*.c' '*.h' '*.cpp' '*.hpp' '*.py' '*.sh' '*.cmake' '*.in' '*.toml' \
                            'CMakeLists.txt' '*/CMakeLists.txt' 'Makefile' '.ci/run')
formatter=$(command -v clang-format-14 || command -v clang-format || true)
if [ -z "$formatter" ]; then
  echo "clang-format not found (Debian: clang-format)"
  exit 1
fi
git ls-files -z -- '*.c' '*.h' '*.cpp' '*.hpp' | xargs -0 "$formatter" --dry-run -Werror || status=1
exit $status
