"""The type stubs against the built modules: stubtest compares names, classes, properties and metaclasses.
Boost.Python functions carry no signature to compare, so every stubbed overload is called with arguments of
its annotated types, and its arities are compared with those of the C++ overloads that Boost.Python lists.
kavra._engine's stub is written by the build (nanobind's stub generator) and compared with a reference here;
those tests run on every Python, the others where the build made the Boost.Python modules."""

import ast
import importlib
import pathlib
import subprocess
import sys

import numpy as np
import pytest

import kavra
import kavra._engine
from conftest import ROOT, needs_boost_python

STUBS = {"kavra._kavracore": ROOT / "python/kavra/_kavracore.pyi", "kavra.tessel._tessel": ROOT / "python/kavra/tessel/_tessel.pyi"}
ENGINE_STUB = pathlib.Path(kavra._engine.__file__).with_name("_engine.pyi")  # as the build wrote it
ENGINE_REFERENCE = ROOT / "tests/data/_engine.pyi.ref"
needs_engine_stub = pytest.mark.skipif(not ENGINE_STUB.is_file(), reason="this build wrote no stub of kavra._engine "
                                       "(KAVRA_ENGINE_STUB, and the build's message says why)")


def stubtest(allowlist, *modules):
    return ["mypy.stubtest", "--allowlist", str(ROOT / "tests" / allowlist), *modules]


@pytest.mark.parametrize("command", [
    pytest.param(stubtest("stubtest_allowlist.txt", *STUBS), marks=needs_boost_python, id="stubtest"),
    pytest.param(stubtest("stubtest_allowlist_engine.txt", "kavra._engine"), marks=needs_engine_stub, id="stubtest-engine"),
    *(pytest.param(["mypy", "--strict", "--cache-dir", "{tmp}", str(ROOT / "examples" / example)],
                   marks=needs_boost_python, id=f"{name}-strict")
      for name, example in (("workflow", "workflow.py"), ("arrays", "arrays_and_tables.py"),
                            ("ensemble", "ensemble_dask.py"))),
])
def test_tools_find_no_difference(tmp_path, command):
    command = [sys.executable, "-m", *(c.replace("{tmp}", str(tmp_path)) for c in command)]
    done = subprocess.run(command, capture_output=True, text=True, cwd=tmp_path, timeout=300)
    assert done.returncode == 0, done.stdout + done.stderr


@needs_engine_stub
def test_the_engine_stub_is_the_reference():
    """The build writes the stub from the module it built: a change of the engine's interface shows here."""
    assert ENGINE_STUB.read_text() == ENGINE_REFERENCE.read_text(), (
        f"kavra._engine's stub, as this build wrote it, differs from the reference. Where the change is meant, "
        f"refresh the reference after make build: cp {ENGINE_STUB} {ENGINE_REFERENCE}")


@needs_boost_python
def test_installed_packages_ship_stubs_and_marker():
    importlib.import_module("kavra.tessel")
    for module, stub in STUBS.items():
        package, _, name = module.rpartition(".")
        directory = pathlib.Path(importlib.import_module(package).__file__).parent
        assert (directory / "py.typed").is_file()
        assert (directory / (name + ".pyi")).read_text() == stub.read_text()


def tessel():
    """kavra.tessel, imported by the tests that need Boost.Python when they run."""
    return importlib.import_module("kavra.tessel")


def scalar(value):
    from catalogue import S
    return S(value)


def runtime(name):
    return getattr(kavra._kavracore, name, None) or getattr(tessel()._tessel, name)


TREES = [ast.parse(path.read_text()) for path in STUBS.values()]
CLASSES = {node.name: node for tree in TREES for node in tree.body if isinstance(node, ast.ClassDef)}
CONCRETE = {"IGridFunction": "DoubleGridFunction", "IDoubleTypeGridFunction": "DoubleGridFunction",
            "IWritableDoubleTypeGridFunction": "DoubleGridFunction", "IIntTypeGridFunction": "IntGridFunction",
            "IWritableIntTypeGridFunction": "IntGridFunction", "IFloatTypeGridFunction": "FloatGridFunction",
            "IWritableFloatTypeGridFunction": "FloatGridFunction", "ITopology": "ReservoirTopology"}
SAMPLES = {"float": lambda: 1.0, "int": lambda: 0, "str": lambda: "s", "object": object, "None": lambda: None,
           "SupportsIndex": lambda: 1, "ArrayLike": lambda: [1], "NDArray[_Element]": lambda: np.zeros(1),
           "Sequence[_E]": list, "TScalar": lambda: scalar(1.0), "NDArray[np.int32]": lambda: np.zeros(1, np.int32),
           "NDArray[np.float32]": lambda: np.zeros(1, np.float32), "NDArray[np.float64]": lambda: np.zeros(1),
           "DTypeLike": lambda: np.float64, "bool": lambda: True, "Any": lambda: 0,
           "ReservoirTopology": lambda: tessel().ReservoirTopology(1, 1, 1),
           "ReservoirSelectionTopology": lambda: tessel().ReservoirSelectionTopology(SAMPLES["ReservoirTopology"](),
                                                                                    [[0, 0, 0]]),
           "SelectionViewGridFunction": lambda: tessel().SelectionViewGridFunction(
               SAMPLES["ReservoirSelectionTopology"](), tessel().DoubleGridFunction(1))}


def sample(annotation, owner):
    """An instance of a stub annotation (a union member, _E already replaced)."""
    name = CONCRETE.get(annotation, annotation)
    if name in SAMPLES:
        return SAMPLES[name]()
    if name == "_Vector[_E]" or name.endswith(("List", "Table")):
        return runtime(owner if name == "_Vector[_E]" else name)()
    init = next((f for f in CLASSES[name].body if isinstance(f, ast.FunctionDef) and f.name == "__init__"), None)
    if name in ("IntGridFunction", "FloatGridFunction", "DoubleGridFunction", "IntVector"):
        return runtime(name)([1])
    return runtime(name)(*[None] * (len(init.args.posonlyargs) - 1))  # a record of unset scalars


def entries():
    """(class or None, name, overloads, element type) for every function and method of the stubs."""
    for tree in TREES:
        functions = [n for n in tree.body if isinstance(n, ast.FunctionDef)]
        for name in dict.fromkeys(f.name for f in functions):
            yield pytest.param(None, name, [f for f in functions if f.name == name], None, id=name)
    for cls in CLASSES.values():
        base = cls.bases[0] if cls.bases else None
        element, methods = None, [n for n in cls.body if isinstance(n, ast.FunctionDef)]
        if isinstance(base, ast.Subscript):  # a list class: the _Vector methods, with its element type
            element, methods = ast.unparse(base.slice), methods + [
                n for n in CLASSES["_Vector"].body if isinstance(n, ast.FunctionDef)]
        if cls.name.startswith("_"):
            continue
        methods = [m for m in methods if not m.decorator_list or ast.unparse(m.decorator_list[0]) == "overload"]
        for name in dict.fromkeys(m.name for m in methods):
            if name not in ("__eq__", "__ne__", "__str__", "__iter__"):  # Python's own fallbacks answer for these
                yield pytest.param(cls.name, name, [m for m in methods if m.name == name], element,
                                   id=f"{cls.name}.{name}")


def cpp_arities(function):
    """Numbers of arguments of the C++ overloads that Boost.Python lists for `function`."""
    with pytest.raises(TypeError, match=r"did not match C\+\+ signature") as info:
        function()
    arities = set()
    for line in str(info.value).split("did not match C++ signature:")[1].strip().splitlines():
        inside = line.strip()[line.strip().index("(") + 1 : -1]
        depth, count = 0, 1 if inside.strip() else 0
        for ch in inside:
            depth += (ch in "<(") - (ch in ">)")
            count += ch == "," and depth == 0
        arities.add(count)
    return arities


@needs_boost_python
@pytest.mark.parametrize("owner, name, overloads, element", list(entries()))
def test_every_stubbed_overload_is_callable(owner, name, overloads, element):
    if owner is None:
        call = raw = runtime(name)
    else:
        raw = getattr(runtime(owner), name)
        call = runtime(owner) if name == "__init__" else getattr(sample(owner, owner), name)
    for overload in overloads:
        params = (overload.args.posonlyargs + overload.args.args)[1 if owner else 0 :]
        options = [[element if m == "_E" else m for m in ast.unparse(p.annotation).split(" | ")] for p in params]
        for r in range(max((len(o) for o in options), default=1)):  # every union member at least once
            try:
                call(*(sample(o[min(r, len(o) - 1)], owner) for o in options))
            except Exception as error:  # noqa: BLE001 - only a failed match is a stub error
                assert type(error).__name__ != "ArgumentError", f"{ast.unparse(overload.args)}\n{error}"
    assert cpp_arities(raw) == {len(o.args.posonlyargs + o.args.args) for o in overloads}
