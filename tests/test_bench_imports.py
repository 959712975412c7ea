"""The benchmarks share their helpers through bench/common.py and import one another in no circle: in a
circle, one of them runs as the other's import half made (its names below the import not yet there)."""

import ast
import graphlib

from conftest import ROOT

BENCH = ROOT / "bench"


def bench_imports(path):
    """The modules of bench/ that the file at `path` imports, at its top or inside a function."""
    modules = set()
    for node in ast.walk(ast.parse(path.read_text())):
        if isinstance(node, ast.Import):
            modules.update(alias.name for alias in node.names)
        elif isinstance(node, ast.ImportFrom) and node.module and not node.level:
            modules.add(node.module)
    return {module for module in modules if (BENCH / f"{module}.py").is_file()}


def test_the_benchmarks_import_one_another_in_no_circle():
    graph = {path.stem: bench_imports(path) for path in BENCH.glob("*.py")}
    try:
        graphlib.TopologicalSorter(graph).prepare()
    except graphlib.CycleError as error:
        raise AssertionError(f"bench/ imports in a circle: {' -> '.join(error.args[1])}") from None
    assert graph["common"] == set(), "bench/common.py imports no benchmark"
