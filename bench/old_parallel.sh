#!/usr/bin/env bash
# Builds kavra._parallel as it was before the engine replaced it (the last
# commit that had it), into build/old-parallel, for bench/engine.py to time
# side by side with the engine in one process.  Uses .venv's Python and the
# system's Boost.Python, as that commit's build did.
set -euo pipefail
cd "$(dirname "$0")/.."
COMMIT=${1:-40008c1}
SRC=build/old-parallel-src
OUT=build/old-parallel
rm -rf "$SRC" && mkdir -p "$SRC" "$OUT"
git archive "$COMMIT" | tar -x -C "$SRC"
cmake -S "$SRC" -B "$OUT" -G Ninja -DCMAKE_BUILD_TYPE=Release -DPython_EXECUTABLE="$PWD/.venv/bin/python" >/dev/null
cmake --build "$OUT" --target _parallel >/dev/null
echo "$OUT"
