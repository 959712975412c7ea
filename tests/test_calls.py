"""The table of calls (kavra._calls) against the engine's list, the modules, kavra.dask, the API pages and
README's Contributing; and the imports of the package and of bench/: no circle, and no private name taken
from another module of the package but the table's."""

import ast
import doctest
import importlib
import importlib.util
import inspect
import pathlib
import re
import subprocess
import sys

import pytest

import kavra
import kavra.tables
from kavra import _calls, _engine
from conftest import ROOT

CALLS = _calls.CALLS
PACKAGE = ROOT / "python/kavra"
MODULES = sorted({call.module for call in CALLS.values()})


def engine_lists(call):
    return {_engine.CALCULATIONS[name][0] for name in call.engine} - {None}


def test_every_engine_calculation_has_a_row_and_every_row_an_engine_calculation():
    run = {name for call in CALLS.values() for name in call.engine}
    assert set(_engine.CALCULATIONS) - run == set(), "engine calculations without a row in kavra._calls.CALLS"
    assert run - set(_engine.CALCULATIONS) == set(), "rows that name a calculation the engine lacks"


@pytest.mark.parametrize("name", [name for name, call in CALLS.items() if call.engine])
def test_the_table_kinds_of_a_row_are_those_of_its_engine_calculations(name):
    call = CALLS[name]
    kinds = [getattr(kavra.tables, kind) for kind in call.tables]
    assert {kind._list_name for kind in kinds} == engine_lists(call)


@pytest.mark.parametrize("module", MODULES)
def test_each_module_exports_its_rows(module):
    assert importlib.import_module(f"kavra.{module}").__all__ == _calls.names_of(module)


def test_the_package_gives_each_of_its_rows_and_type_checkers_see_them():
    namespace: dict = {}
    exec("from kavra import *", namespace)
    for name, module in _calls.FACE.items():
        assert namespace[name] is getattr(kavra, name) is getattr(importlib.import_module(f"kavra.{module}"), name)
    tree = ast.parse((PACKAGE / "__init__.py").read_text())
    starred = {node.module for node in ast.walk(tree)
               if isinstance(node, ast.ImportFrom) and [a.name for a in node.names] == ["*"]}
    assert starred - {"_kavracore"} == set(_calls.FACE.values())


def recorded_engine_calculations(function, monkeypatch):
    """The engine calculations that the examples of `function`'s docstring run (and whether they pass)."""
    calculate, names = _engine.calculate, []
    monkeypatch.setattr(_engine, "calculate", lambda name, *rest: (names.append(name), calculate(name, *rest))[1])
    runner = doctest.DocTestRunner(optionflags=doctest.NORMALIZE_WHITESPACE)
    for test in doctest.DocTestFinder().find(function, function.__name__, globs={}):
        runner.run(test)
    return set(names), runner.summarize(verbose=False)


@pytest.mark.parametrize("name", [name for name, call in CALLS.items() if call.engine])
def test_a_row_names_the_engine_calculations_its_function_runs(name, monkeypatch):
    call = CALLS[name]
    function = getattr(importlib.import_module(f"kavra.{call.module}"), name.rpartition(".")[2])
    ran, (failed, tried) = recorded_engine_calculations(function, monkeypatch)
    assert tried and not failed
    assert ran and ran <= set(call.engine)


@pytest.mark.parametrize("module, of", [("kavra.dask", ("calculations", "reductions", "maps")),
                                        ("kavra.dask.blackoil", ("blackoil",))])
def test_each_row_with_a_dask_form_has_it_with_the_arguments_of_its_function(module, of):
    dask = pytest.importorskip("dask")  # noqa: F841
    import kavra.dask
    lazy = kavra.dask if module == "kavra.dask" else kavra.dask.blackoil
    rows = {name.rpartition(".")[2]: call for name, call in CALLS.items() if call.module in of and call.dask}
    assert lazy.__all__ == list(rows)
    for name, call in rows.items():
        form = getattr(lazy, name)
        if call.dask == "cells":
            function = getattr(importlib.import_module(f"kavra.{call.module}"), name)
            expected = [p for p in inspect.signature(function).parameters.values() if p.name not in ("out", "threads")]
            assert list(inspect.signature(form).parameters.values()) == expected
            assert form.__module__ == module and form.__doc__.split("\n")[0] == function.__doc__.split("\n")[0]


def test_kavra_dask_imports_with_a_row_left_out():
    pytest.importorskip("dask")
    script = ("import kavra._calls as c\n"
              "del c.CALLS['porosity'], c.CALLS['blackoil.dew_point']\n"
              "import kavra.dask\n"
              "print(hasattr(kavra.dask, 'porosity'), 'porosity' in kavra.dask.__all__,"
              " hasattr(kavra.dask.blackoil, 'dew_point'), hasattr(kavra.dask.blackoil, 'rv_sat'))")
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=120)
    assert done.stdout.split() == ["False", "False", "False", "True"], done.stderr


def code_names(path):
    """The identifiers of a source file, and the names in its strings that hold nothing else.

    A function called through its module (``blackoil.rs_sat(...)`` after ``from . import blackoil``)
    is used there, not named: such attributes are left out."""
    tree = ast.parse(path.read_text())
    modules = {alias.asname or alias.name for node in ast.walk(tree)
               if isinstance(node, ast.ImportFrom) and node.level and not node.module for alias in node.names}
    names = set()
    for node in ast.walk(tree):
        if isinstance(node, ast.Name):
            names.add(node.id)
        elif isinstance(node, ast.Attribute):
            if not (isinstance(node.value, ast.Name) and node.value.id in modules):
                names.add(node.attr)
        elif isinstance(node, (ast.FunctionDef, ast.ClassDef, ast.AsyncFunctionDef)):
            names.add(node.name)
        elif isinstance(node, ast.alias):
            names |= {node.name.rpartition(".")[2], node.asname}
        elif isinstance(node, (ast.arg, ast.keyword)):
            names.add(node.arg)
        elif isinstance(node, ast.Constant) and isinstance(node.value, str) and re.fullmatch(r"[\w.]+", node.value):
            names |= set(node.value.split("."))  # a name in a string ("blackoil.dew_point"), not prose
    return names - {None}


def test_a_calculations_name_stands_in_the_code_of_its_module_the_table_and_the_package_only():
    sources = {path.relative_to(ROOT).as_posix(): code_names(path) for path in (ROOT / "python").rglob("*.py")}
    for name, call in CALLS.items():
        if call.engine:
            short = name.rpartition(".")[2]
            allowed = {f"python/kavra/{c.module}.py" for n, c in CALLS.items() if n.rpartition(".")[2] == short}
            allowed |= {"python/kavra/_calls.py", "python/kavra/__init__.py"}
            assert {path for path, names in sources.items() if short in names} <= allowed, name


# --- imports ------------------------------------------------------------------------------------

def modules_of(root, package):
    """Module name -> source file of every module under `root` (`package`: the name of `root`, or None for a
    directory of scripts)."""
    found = {}
    for path in sorted(root.rglob("*.py")):
        parts = list(path.relative_to(root).with_suffix("").parts)
        if parts[-1] == "__init__":
            parts = parts[:-1]
        found[".".join([package, *parts] if package else parts)] = path
    return found


def imports_of(name, path):
    """(module, imported name or None, bound name) of each import of a module, but those that only type
    checkers read (``if TYPE_CHECKING:``)."""
    tree = ast.parse(path.read_text())
    for_types = {id(inner) for node in ast.walk(tree)
                 if isinstance(node, ast.If) and "TYPE_CHECKING" in ast.unparse(node.test)
                 for statement in node.body for inner in ast.walk(statement)}
    package = name.split(".") if path.name == "__init__.py" else name.split(".")[:-1]
    for node in ast.walk(tree):
        if id(node) in for_types:
            continue
        if isinstance(node, ast.Import):
            for alias in node.names:
                yield alias.name, None, alias.asname or alias.name.split(".")[0]
        elif isinstance(node, ast.ImportFrom):
            base = node.module or ""
            if node.level:
                base = ".".join(package[:len(package) - node.level + 1] + ([node.module] if node.module else []))
            for alias in node.names:
                yield base, alias.name, alias.asname or alias.name


def is_module(name, known):
    if name in known:
        return True
    try:
        return importlib.util.find_spec(name) is not None
    except (ImportError, ValueError):
        return False


def private_names_taken(root, package):
    """(module, where from, name) of each private name that a module of `package` takes from another one:
    imported (``from .x import _y``) or read off an imported module (``x._y``)."""
    known = modules_of(root, package)
    taken = []
    for name, path in known.items():
        modules = {}
        for base, imported, bound in imports_of(name, path):
            whole = base if imported is None else f"{base}.{imported}"
            if whole.split(".")[0] == package and is_module(whole, known):
                modules[bound] = whole
            elif imported and imported.startswith("_") and not imported.startswith("__") and base in known and base != f"{package}._calls":
                taken.append((name, base, imported))
        for node in ast.walk(ast.parse(path.read_text())):
            if (isinstance(node, ast.Attribute) and isinstance(node.value, ast.Name) and node.value.id in modules
                    and node.attr.startswith("_") and not node.attr.startswith("__")
                    and modules[node.value.id] not in (name, f"{package}._calls")
                    and not is_module(f"{modules[node.value.id]}.{node.attr}", known)):
                taken.append((name, modules[node.value.id], node.attr))
    return taken


def circles(root, package):
    """The import circles among the modules under `root`, each as a sorted list of its modules."""
    known = modules_of(root, package)
    edges = {name: set() for name in known}
    for name, path in known.items():
        for base, imported, _ in imports_of(name, path):
            target = f"{base}.{imported}" if imported and f"{base}.{imported}" in known else base
            if target in known and target != name and target != package:  # (a module's package is imported first)
                edges[name].add(target)
    found, done = set(), set()

    def walk(node, path):
        if node in path:
            found.add(tuple(sorted(path[path.index(node):])))
            return
        if node in done:
            return
        for target in edges[node]:
            walk(target, path + [node])
        done.add(node)

    for name in known:
        walk(name, [])
    return sorted(found)


def test_the_checks_of_imports_find_what_they_look_for(tmp_path):
    (tmp_path / "pkg").mkdir()
    for file, text in {"__init__.py": "", "_calls.py": "_shared = 1\n",
                       "a.py": "from . import b\nfrom ._calls import _shared\nfrom .b import _helper\n",
                       "b.py": "from . import a as _a\ndef _helper(): return _a._private\n"}.items():
        (tmp_path / "pkg" / file).write_text(text)
    sys.path.insert(0, str(tmp_path))
    try:
        assert private_names_taken(tmp_path / "pkg", "pkg") == [("pkg.a", "pkg.b", "_helper"),
                                                                ("pkg.b", "pkg.a", "_private")]
        assert circles(tmp_path / "pkg", "pkg") == [("pkg.a", "pkg.b")]
    finally:
        sys.path.remove(str(tmp_path))


def test_no_module_takes_a_private_name_of_another_but_the_table_of_calls():
    assert private_names_taken(PACKAGE, "kavra") == []


@pytest.mark.parametrize("root, package", [(PACKAGE, "kavra"), (ROOT / "bench", None)], ids=["kavra", "bench"])
def test_no_import_circle(root, package):
    assert circles(root, package) == []


# --- documentation --------------------------------------------------------------------------------

def test_the_api_pages_list_every_row():
    conf = ast.parse((ROOT / "docs/conf.py").read_text())
    values = {node.targets[0].id: ast.literal_eval(node.value) for node in conf.body
              if isinstance(node, ast.Assign) and isinstance(node.targets[0], ast.Name)
              and node.targets[0].id in ("MODULES", "FACE_HEADINGS")}
    assert set(_calls.FACE.values()) <= set(values["FACE_HEADINGS"])
    documented = {f"kavra.{call.module}" for name, call in CALLS.items() if "." in name}
    documented |= {"kavra.dask"} if any(call.dask for call in CALLS.values()) else set()
    assert documented <= set(values["MODULES"])
    # every submodule has a page of its own, but those whose functions are the package's own
    assert {f"kavra.{name}" for name in kavra._SUBMODULES} - {f"kavra.{m}" for m in _calls.FACE.values()} \
        <= set(values["MODULES"])
    assert "_pages/api/*" in (ROOT / "docs/api.rst").read_text()  # (the package's page among the modules')


def test_readme_says_what_a_new_cell_calculation_touches():
    text = (ROOT / "README.md").read_text()
    contributing = text[text.index("## Contributing"):]
    step = contributing[contributing.index("- **A cell calculation**"):contributing.index("- **An element type")]
    for path in set(re.findall(r"`((?:core|python|bench|tests)/[\w/.]+\.(?:h|py))`", step)):
        assert (ROOT / path).is_file(), path
    for function in ("calculate", "run_plain"):
        assert f"`{function}" in step and callable(getattr(_calls, function))
    assert "`CALLS` of `python/kavra/_calls.py`" in " ".join(step.split())
