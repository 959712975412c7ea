#!/usr/bin/env bash
# Installs what building and testing need, on a fresh machine or an old one:
# Boost.Python from the system packages, a virtual environment in .venv with
# the Python build and test tools.  Safe to run again: it only adds what is
# missing.
set -euo pipefail
cd "$(dirname "$0")/.."

VENV=${VENV:-.venv}
PYTHON=${PYTHON:-python3.11}

boost_config=/usr/lib/x86_64-linux-gnu/cmake/boost_python-1.74.0/boost_python-config.cmake
if ! dpkg -s libboost-python-dev >/dev/null 2>&1 && [ ! -f "$boost_config" ]; then
    echo "bootstrap: installing libboost-python-dev"
    sudo_cmd=""
    [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
    $sudo_cmd apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq libboost-python-dev >/dev/null
fi

if ! command -v "$PYTHON" >/dev/null 2>&1; then
    PYTHON=python3
fi
if [ ! -x "$VENV/bin/python" ]; then
    echo "bootstrap: creating $VENV with $($PYTHON --version)"
    "$PYTHON" -m venv "$VENV"
fi

stamp="$VENV/.requirements-installed"
if [ ! -f "$stamp" ] || [ requirements-dev.txt -nt "$stamp" ]; then
    echo "bootstrap: installing Python requirements"
    "$VENV/bin/python" -m pip install -q --upgrade pip
    "$VENV/bin/python" -m pip install -q -r requirements-dev.txt
    touch "$stamp"
fi
