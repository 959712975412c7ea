"""The build's configuration: without Boost.Python for its Python (or with KAVRA_WITHOUT_BOOST_PYTHON) it
leaves out the modules that need it, says so once and why, and keeps the rest; likewise the engine's stub.
A wrong line of the calculation list fails to compile there, in words."""

import os
import pathlib
import re
import shutil
import subprocess
import sys

import pytest

from conftest import BOOST_PYTHON_BUILT, ROOT

CMAKE = shutil.which("cmake", path=str(pathlib.Path(sys.executable).parent))
CXX = shutil.which(os.environ.get("CXX", "g++"))
THIS_PYTHON = "Python %d.%d" % sys.version_info[:2]
WITHOUT_STUB = "kavra: building without the type stub of kavra._engine"


def configure(directory, *definitions):
    return subprocess.run([CMAKE, "-S", str(ROOT), "-B", str(directory), f"-DPython_EXECUTABLE={sys.executable}",
                           *(f"-D{d}" for d in definitions)], capture_output=True, text=True, timeout=300)


def targets_of(directory):
    return {path.name for path in (directory / "CMakeFiles").glob("*.dir")}  # a directory per target


@pytest.mark.skipif(CMAKE is None, reason="no cmake in this environment (requirements-dev.txt has it)")
@pytest.mark.parametrize("hidden", [False, True], ids=["as-installed", "hidden"])
def test_what_needs_boost_python_is_left_out_with_one_message(tmp_path, hidden):
    done = configure(tmp_path, f"KAVRA_WITHOUT_BOOST_PYTHON={'ON' if hidden else 'OFF'}")
    assert done.returncode == 0, done.stderr
    without = hidden or not BOOST_PYTHON_BUILT
    assert done.stderr.count("kavra: building without kavra._kavracore and the Python bindings of tessel") == without
    if without:
        why = "KAVRA_WITHOUT_BOOST_PYTHON is ON" if hidden else f"not {THIS_PYTHON}"
        assert f"Boost.Python for {THIS_PYTHON}" in done.stderr and why in done.stderr, done.stderr
    targets = targets_of(tmp_path)
    assert {"tessel.dir", "kavra_core.dir"} <= targets
    assert {"_kavracore.dir", "_tessel.dir"} & targets == (set() if without else {"_kavracore.dir", "_tessel.dir"})
    assert ("_engine_stub.dir" in targets) == (WITHOUT_STUB not in done.stderr)


@pytest.mark.skipif(CMAKE is None, reason="no cmake in this environment (requirements-dev.txt has it)")
def test_the_engine_stub_is_left_out_with_one_message(tmp_path):
    done = configure(tmp_path, "KAVRA_ENGINE_STUB=OFF")
    assert done.returncode == 0, done.stderr
    assert done.stderr.count(WITHOUT_STUB + ": KAVRA_ENGINE_STUB is OFF.") == 1, done.stderr
    assert "_engine_stub.dir" not in targets_of(tmp_path) and "_engine.dir" in targets_of(tmp_path)


def compile_errors(directory, source):
    """The errors of compiling `source` against the tree, with `directory` searched first."""
    (directory / "check.cpp").write_text(source)
    done = subprocess.run([CXX, "-std=c++17", "-fsyntax-only", f"-I{directory}", f"-I{ROOT}", "check.cpp"],
                          capture_output=True, text=True, cwd=directory, timeout=300)
    assert done.returncode != 0, "compiled"
    return [line for line in done.stderr.splitlines() if "error:" in line], done.stderr


LIST = (ROOT / "core/Calculations.h").read_text()


@pytest.mark.skipif(CXX is None, reason="no C++ compiler")
@pytest.mark.parametrize("line, written, takes", [
    ("CELL(one_over_bo, CalcOneOverBo, TPVTOList, 2, 1)", 3, "2"),
    ("CELL(bulk_volume, CalcBulkVolume, NoTables, 2, 1)", 3, "1, 2"),  # two overloads of the core function
    ("CELL(dew_point, CalcDewPoint, TPVTGList, 1, 0)", 0, "1"),
    ("CELL(porosity, CalcPorosity, TRockList, 2, 1)", 1, "2"),
])
def test_a_wrong_count_of_inputs_on_a_list_line_fails_in_words(tmp_path, line, written, takes):
    parts = line[len("CELL("):-1].split(", ")
    name, parts[3] = parts[0], str(written)
    assert line in LIST
    (tmp_path / "core").mkdir()
    (tmp_path / "core/Calculations.h").write_text(LIST.replace(line, f"CELL({', '.join(parts)})"))
    errors, text = compile_errors(tmp_path, '#include "core/Calculations.h"\n')
    assert "static assertion failed: a CELL line of core/Calculations.h writes a count of inputs" in errors[0], text
    assert re.search(rf"Line<[\w:]*\b{name}, [\w:]*inputs_written<{written}>, "
                     rf"[\w:]*inputs_its_core_function_takes<{takes}> ?>", text), text


@pytest.mark.skipif(CXX is None, reason="no C++ compiler")
def test_black_oil_entries_of_more_than_two_inputs_fail_in_words(tmp_path):
    errors, text = compile_errors(tmp_path, """#include "core/blackoil/Cells.h"
namespace kavra {
KAVRA_BLACKOIL_ENTRIES(CalcThree, TPVTOList, blackoil::LiveOil, blackoil::LiveB, p, rs, t, result)
}
""")
    assert errors[0].endswith("static assertion failed: KAVRA_BLACKOIL_ENTRIES(CalcThree, ...) names 4 grid functions: "
                              "it takes at most three, two inputs and the result"), text


HIDDEN = """
import sys

class Hide:  # as if the build had left them out
    def find_spec(self, name, path=None, target=None):
        if name in ("kavra._kavracore", "kavra.tessel._tessel"):
            raise ModuleNotFoundError(f"No module named {name!r}", name=name)

sys.meta_path.insert(0, Hide())
"""


def test_without_boost_python_modules_kavra_imports_and_what_needs_them_says_why():
    script = HIDDEN + """
import importlib, pickle
import numpy as np
import kavra, kavra.tables
from kavra._grid import reservoir_grid
table = kavra.tables.PVTO([[[50.0, 120.0, 1.25, 0.9], [80.0, 180.0, 1.35, 0.8]]], units="FIELD")
assert pickle.loads(pickle.dumps(table)) == table and "TPVT" not in kavra.__all__ and not hasattr(kavra, "TPVT")
grid = reservoir_grid(3, 2, 1)  # a deck's or a case's grid
assert grid == (3, 2, 1) and grid.number_of_cells() == 6 and kavra.ksum(np.ones(6), grid).tolist() == [1.0] * 6
try:
    reservoir_grid(3, 70000, 1)
except ValueError as error:
    print("ValueError", error)
for call in (table.to_native, lambda: kavra.tables.ROCK.from_native(None), lambda: importlib.import_module("kavra.tessel")):
    try:
        call()
    except ImportError as error:
        print(type(error).__name__, error.name, error)
"""
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    grid_error, *lines = done.stdout.splitlines()
    assert grid_error == "ValueError nJ = 70000 is outside [0, 65535]"  # tessel's words, where it is built
    if BOOST_PYTHON_BUILT:
        from kavra import tessel
        with pytest.raises(ValueError, match=re.escape(grid_error.split(" ", 1)[1])):
            tessel.ReservoirTopology(3, 70000, 1)
    assert [line.split()[:2] for line in lines] == [["NotBuilt", "kavra._kavracore"]] * 2 + [["NotBuilt", "kavra.tessel._tessel"]]
    for line in lines:
        assert f"needs Boost.Python for {THIS_PYTHON}, and none was found when kavra was built" in line
        assert "pip install --no-binary kavra kavra" in line
