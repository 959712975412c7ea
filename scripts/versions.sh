#!/usr/bin/env bash
# kavra on several Python versions, one after the other, each with its own
# environment (.venv-X.Y, made by bootstrap.sh) and build directory
# (build/{wheel_tag}); every version is run, and the script fails at the end
# when one of them failed.
#
#   scripts/versions.sh test 3.11 3.10 3.12 3.13
#       builds kavra into the version's environment (make build) and runs the
#       tests there: all of them, but, on a Python without Boost.Python, those
#       that need it (tests/conftest.py).
#   scripts/versions.sh wheels 3.10 3.11 3.12 3.13
#       a wheel per version in dist/ (make wheel: auditwheel repair), installed
#       with its test extra into a fresh environment (build/wheel-test-X.Y),
#       where the tests run against it.
#
# The interpreter of version X.Y is pyenv's newest X.Y.*, else pythonX.Y on
# the PATH.
# (Each step below chains its commands: set -e does not hold inside a function
# called as the condition of an if.)
set -euo pipefail
cd "$(dirname "$0")/.."

usage="usage: $0 test|wheels VERSION..."
[ $# -ge 2 ] || { echo "$usage" >&2; exit 2; }
mode=$1
shift

interpreter() {
    local found=""
    if command -v pyenv >/dev/null 2>&1; then
        found=$(compgen -G "$(pyenv root)/versions/$1.*/bin/python" | grep -E "/$1\.[0-9]+/bin/python$" \
                | sort -V | tail -n 1 || true)
    fi
    [ -n "$found" ] || found=$(command -v "python$1" || true)
    [ -n "$found" ] || { echo "versions: no Python $1 (pyenv install $1, or python$1 on the PATH)" >&2; return 1; }
    echo "$found"
}

# The environment of version $1: make build's .venv when it has that version
# (bootstrap.sh makes it with Boost.Python's; make test and make wheels make it
# first), else .venv-X.Y.
venv_of() {
    if [ "$(.venv/bin/python -c 'import sys; print("%d.%d" % sys.version_info[:2])' 2>/dev/null)" = "$1" ]; then
        echo .venv
    else
        echo ".venv-$1"
    fi
}

# The tests with the environment $1; pytest exits with 5 when it collected no
# test: that is a broken suite here.
run_tests() {
    local rc=0
    "$1/bin/python" -c 'import kavra; print("versions: testing", kavra.__file__)'
    "$1/bin/pytest" tests || rc=$?
    if [ $rc -eq 5 ]; then echo "versions: pytest collected no tests" >&2; fi
    return $rc
}

test_version() {  # version, interpreter
    local venv
    venv=$(venv_of "$1")
    make --no-print-directory VENV="$venv" PYTHON="$2" build && run_tests "$venv"
}

wheel_version() {  # version, interpreter
    local tag="cp${1/./}" env="build/wheel-test-$1" wheel
    rm -f dist/kavra-*-"$tag"-*.whl
    make --no-print-directory VENV="$(venv_of "$1")" PYTHON="$2" wheel || return
    wheel=$(compgen -G "dist/kavra-*-$tag-$tag-*.whl") || return
    echo "versions: $wheel"
    rm -rf "$env"
    "$2" -m venv "$env" && "$env/bin/python" -m pip install -q "$wheel[test]" || return
    # The tests (pytest's script: the working directory is not on sys.path) import the installed kavra.
    run_tests "$env"
}

case $mode in
    test) step=test_version ;;
    wheels) step=wheel_version ;;
    *) echo "$usage" >&2; exit 2 ;;
esac

failed=()
summary=()
for version in "$@"; do
    start=$SECONDS
    echo "=== versions: $mode on Python $version"
    if python=$(interpreter "$version") && $step "$version" "$python"; then
        summary+=("Python $version: passed ($((SECONDS - start)) s)")
    else
        failed+=("$version")
        summary+=("Python $version: FAILED ($((SECONDS - start)) s)")
    fi
done
printf 'versions: %s\n' "${summary[@]}"
[ ${#failed[@]} -eq 0 ] || { echo "versions: $mode failed on Python ${failed[*]}" >&2; exit 1; }
