#!/usr/bin/env bash
# Installs what building and testing need, on a fresh machine or an old one:
# Boost.Python from the system packages, a virtual environment in .venv with
# the Python build and test tools.  Safe to run again: it only adds what is
# missing.
#
# The environment's Python is $PYTHON when set, else the Python that the
# system's Boost.Python is built for (Boost.Python is built for one Python
# version; with any other, the build leaves out the modules that need it),
# else python3.
set -euo pipefail
cd "$(dirname "$0")/.."

VENV=${VENV:-.venv}

multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch 2>/dev/null || true)
boost_cmake_dirs() {
    # The CMake package directories of Boost.Python, one per Boost version.
    local libdir
    for libdir in ${multiarch:+/usr/lib/$multiarch} /usr/lib /usr/lib64 /usr/local/lib; do
        compgen -G "$libdir/cmake/boost_python-*" || true
    done
}

missing=()
if ! dpkg -s libboost-python-dev >/dev/null 2>&1 && [ -z "$(boost_cmake_dirs)" ]; then
    missing+=(libboost-python-dev)
fi
command -v g++ >/dev/null 2>&1 || missing+=(g++)
if [ ${#missing[@]} -gt 0 ]; then
    echo "bootstrap: installing ${missing[*]}"
    sudo_cmd=""
    [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
    $sudo_cmd apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}" >/dev/null
fi

# The Python versions Boost.Python is built for, from its variant files
# (libboost_python-variant-shared-py3.11.cmake and the like).
boost_pythons=$(boost_cmake_dirs | while read -r dir; do
    compgen -G "$dir/libboost_python-variant-*-py*.cmake" || true
done | sed -E 's/.*-py([0-9]+\.[0-9]+)\.cmake$/\1/' | sort -u -V -r)

if [ -z "${PYTHON:-}" ]; then
    PYTHON=python3
    for version in $boost_pythons; do
        if command -v "python$version" >/dev/null 2>&1; then
            PYTHON=python$version
            break
        fi
    done
fi
if [ ! -x "$VENV/bin/python" ]; then
    echo "bootstrap: creating $VENV with $("$PYTHON" --version)"
    "$PYTHON" -m venv "$VENV"
fi
python_version=$("$VENV/bin/python" -c 'import sys; print("%d.%d" % sys.version_info[:2])')
if ! grep -qx "$python_version" <<<"$boost_pythons"; then
    echo "bootstrap: $VENV has Python $python_version, and Boost.Python is built for Python" \
         "$(echo ${boost_pythons:-none} | tr ' ' ','): the build leaves out kavra._kavracore and the" \
         "Python bindings of tessel"
fi

stamp="$VENV/.requirements-installed"
if [ ! -f "$stamp" ] || [ requirements-dev.txt -nt "$stamp" ]; then
    echo "bootstrap: installing Python requirements"
    "$VENV/bin/python" -m pip install -q --upgrade pip
    "$VENV/bin/python" -m pip install -q -r requirements-dev.txt
    touch "$stamp"
fi
