#!/usr/bin/env bash
# Moves the Python package tessel under kavra (kavra.tessel): the commit that
# did it is this script's work alone.  It can run again, after merging a branch
# that still imports the top-level tessel, and changes only what is left; once
# no such branch is left, this script can go.
set -euo pipefail
cd "$(dirname "$0")/.."
[ ! -d python/tessel ] || git mv python/tessel python/kavra/tessel
mapfile -t files < <(git ls-files -- python tests examples bench README.md | grep -E '\.(py|pyi|txt|md)$')
sed -i -E 's/^import tessel$/from . import tessel/' python/kavra/*.py
sed -i -E \
    -e 's/^(\s*(>>> )?)import tessel\b/\1from kavra import tessel/' \
    -e 's/\bfrom tessel(\._tessel)? import/from kavra.tessel\1 import/' \
    -e 's/(^|[^.[:alnum:]_\\])tessel(\\?\.)_tessel/\1kavra\2tessel\2_tessel/g' \
    -e 's/"tessel"\)/"kavra.tessel")/g' \
    -e 's|python/tessel/|python/kavra/tessel/|g' \
    "${files[@]}"
sed -i 's|, "python/tessel"\]|]|' pyproject.toml
sed -i -E -e 's|DESTINATION tessel\)|DESTINATION kavra/tessel)|' -e 's|\$ORIGIN/\.\./tessel|$ORIGIN/tessel|' CMakeLists.txt
# kavra.tessel is a submodule of kavra's namespace once imported, as the others
sed -i 's/<= {"calculations", /<= {"tessel", "calculations", /' tests/test_module.py
