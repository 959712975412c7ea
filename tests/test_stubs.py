"""The type stubs against the built modules.

stubtest checks that the stubs and the modules have the same names, classes,
properties and metaclasses.  Boost.Python functions carry no introspectable
signature, so stubtest cannot compare parameters; the tests below do that by
calling: every overload in the stubs is accepted by the module with
arguments of the annotated types, and the stubs have exactly the arities of
the C++ overloads that Boost.Python lists when a call matches none.
"""

import ast
import importlib
import pathlib
import subprocess
import sys

import numpy as np
import pytest
import tessel

import kavra
from conftest import ROOT

STUBS = {
    "kavra._kavracore": ROOT / "python/kavra/_kavracore.pyi",
    "tessel._tessel": ROOT / "python/tessel/_tessel.pyi",
}


def test_stubtest_finds_no_difference(tmp_path):
    done = subprocess.run(
        [sys.executable, "-m", "mypy.stubtest", "--allowlist", str(ROOT / "tests/stubtest_allowlist.txt"), *STUBS],
        capture_output=True, text=True, cwd=tmp_path, timeout=300,
    )
    assert done.returncode == 0, done.stdout + done.stderr


@pytest.mark.parametrize("example", ["workflow.py", "arrays_and_tables.py", "ensemble_dask.py"])
def test_examples_type_check_strictly(tmp_path, example):
    done = subprocess.run(
        [sys.executable, "-m", "mypy", "--strict", "--cache-dir", str(tmp_path), str(ROOT / "examples" / example)],
        capture_output=True, text=True, cwd=tmp_path, timeout=300,
    )
    assert done.returncode == 0, done.stdout + done.stderr


def test_installed_packages_ship_stubs_and_marker():
    for module in STUBS:
        package = pathlib.Path(importlib.import_module(module.split(".")[0]).__file__).parent
        assert (package / "py.typed").is_file()
        installed = package / (module.split(".")[1] + ".pyi")
        assert installed.read_text() == STUBS[module].read_text()


# --- signatures, by calling ------------------------------------------------------


def _selection():
    return tessel.ReservoirSelectionTopology(tessel.ReservoirTopology(1, 1, 1), [[0, 0, 0]])


# One sample value per annotation (or union member) used in the stubs.
SAMPLES = {
    "float": lambda: 1.0,
    "int": lambda: 0,
    "str": lambda: "s",
    "object": object,
    "None": lambda: None,
    "SupportsIndex": lambda: 1,
    "ArrayLike": lambda: [1],
    "NDArray[_Element]": lambda: np.zeros(1),
    "Sequence[_E]": lambda: [],
    "NDArray[np.int32]": lambda: np.zeros(1, np.int32),
    "NDArray[np.float32]": lambda: np.zeros(1, np.float32),
    "NDArray[np.float64]": lambda: np.zeros(1),
    "DTypeLike": lambda: np.float64,
    "bool": lambda: True,
    "Any": lambda: 0,
}  # and an instance for a class of the stubs
# Parameters whose samples depend on more than their type.
BY_NAME = {"cells": lambda: [[0, 0, 0]]}


def _runtime(name):
    for module in (kavra._kavracore, tessel._tessel):
        if hasattr(module, name):
            return getattr(module, name)
    raise LookupError(name)


class Stub:
    """The functions and classes of one stub file, from its syntax tree."""

    def __init__(self, path):
        self.tree = ast.parse(path.read_text())
        self.classes = {n.name: n for n in self.tree.body if isinstance(n, ast.ClassDef)}

    def functions(self):
        names = sorted({n.name for n in self.tree.body if isinstance(n, ast.FunctionDef)})
        return [(name, [n for n in self.tree.body if isinstance(n, ast.FunctionDef) and n.name == name])
                for name in names]

    def methods(self, cls):
        """The methods of a class and its stub bases ({name: overloads}) and the element type of a _Vector base."""
        found, owners, element = {}, {}, None
        node = self.classes[cls]
        while node is not None and node.name != "_Instance":
            for item in node.body:
                if isinstance(item, ast.FunctionDef) and not _is_property(item):
                    if owners.setdefault(item.name, node.name) == node.name:  # the most derived class wins
                        found.setdefault(item.name, []).append(item)
            base = node.bases[0] if node.bases else None
            if isinstance(base, ast.Subscript):
                element = ast.unparse(base.slice)
                base = base.value
            node = self.classes.get(ast.unparse(base)) if base is not None else None
        return found, element


def _is_property(function):
    return any(ast.unparse(d) == "property" for d in function.decorator_list)


def _members(annotation, element):
    text = ast.unparse(annotation)
    members = [m.strip() for m in text.split("|")]
    return [element if m == "_E" else m for m in members]


def _sample(member, param, owner):
    if param in BY_NAME:
        return BY_NAME[param]()
    if member.startswith("_Vector["):
        return _runtime(owner)()
    if member in SAMPLES:
        return SAMPLES[member]()
    return _construct(member)


def _construct(cls):
    """An instance of a stub class: the class itself where it can be built, else a concrete subclass."""
    concrete = {"IGridFunction": "DoubleGridFunction", "IDoubleTypeGridFunction": "DoubleGridFunction",
                "IWritableDoubleTypeGridFunction": "DoubleGridFunction", "IIntTypeGridFunction": "IntGridFunction",
                "IWritableIntTypeGridFunction": "IntGridFunction", "IFloatTypeGridFunction": "FloatGridFunction",
                "IWritableFloatTypeGridFunction": "FloatGridFunction", "ITopology": "ReservoirTopology"}
    cls = concrete.get(cls, cls)
    if cls == "SelectionViewGridFunction":
        return tessel.SelectionViewGridFunction(_selection(), tessel.DoubleGridFunction(1))
    if cls == "ReservoirSelectionTopology":
        return _selection()
    if cls == "ReservoirTopology":
        return tessel.ReservoirTopology(1, 1, 1)
    if cls in ("IntGridFunction", "FloatGridFunction", "DoubleGridFunction", "IntVector"):
        return _runtime(cls)([1])
    if cls == "TScalar":
        return kavra.TScalar(1.0, "", "")
    # Records take one scalar (or None) per field; lists start empty.
    init = next((f for f in STUB_KAVRA.classes[cls].body if isinstance(f, ast.FunctionDef) and f.name == "__init__"), None)
    return _runtime(cls)(*([None] * (len(init.args.posonlyargs) - 1 if init else 0)))


def _argument_sets(overload, element, owner):
    """Argument lists for one overload: every union member of every parameter at least once."""
    params = overload.args.posonlyargs + overload.args.args
    if params and params[0].arg == "self":
        params = params[1:]
    options = [_members(p.annotation, element) for p in params]
    rounds = max((len(o) for o in options), default=1)
    for r in range(rounds):
        yield [_sample(o[min(r, len(o) - 1)], p.arg, owner) for o, p in zip(options, params)]


def _cpp_arities(function):
    """Numbers of arguments of the C++ overloads that Boost.Python lists for `function`."""
    with pytest.raises(TypeError) as info:
        function()
    text = str(info.value)
    assert "did not match C++ signature" in text, text
    arities = set()
    for line in text.split("did not match C++ signature:")[1].strip().splitlines():
        inside = line.strip()[line.strip().index("(") + 1 : -1]
        depth, count = 0, 1 if inside.strip() else 0
        for ch in inside:
            depth += ch in "<(" and 1 or ch in ">)" and -1 or 0
            count += ch == "," and depth == 0
        arities.add(count)
    return arities


def _stub_arities(overloads):
    return {len(o.args.posonlyargs + o.args.args) for o in overloads}


def _check(call, runtime_function, overloads, element, owner):
    for overload in overloads:
        for args in _argument_sets(overload, element, owner):
            try:
                call(*args)
            except Exception as error:  # noqa: BLE001 - only a failed match is a stub error
                assert type(error).__name__ != "ArgumentError", f"{owner}: {ast.unparse(overload.args)}\n{error}"
    assert _cpp_arities(runtime_function) == _stub_arities(overloads)


STUB_KAVRA = Stub(STUBS["kavra._kavracore"])
STUB_TESSEL = Stub(STUBS["tessel._tessel"])


def _function_cases():
    for stub in (STUB_KAVRA, STUB_TESSEL):
        for name, overloads in stub.functions():
            yield pytest.param(stub, name, overloads, id=name)


def _method_cases():
    for stub in (STUB_KAVRA, STUB_TESSEL):
        for cls in stub.classes:
            if cls.startswith("_"):
                continue
            methods, element = stub.methods(cls)
            for name, overloads in methods.items():
                if name in ("__eq__", "__ne__", "__str__", "__repr__", "__iter__"):
                    continue  # Python's own fallbacks answer for these; __iter__ is tested below
                yield pytest.param(cls, name, overloads, element, id=f"{cls}.{name}")


@pytest.mark.parametrize("stub, name, overloads", list(_function_cases()))
def test_function_stub_matches_overloads(stub, name, overloads):
    function = _runtime(name)
    _check(function, function, overloads, None, name)


@pytest.mark.parametrize("cls, name, overloads, element", list(_method_cases()))
def test_method_stub_matches_overloads(cls, name, overloads, element):
    runtime_class = _runtime(cls)
    raw = runtime_class.__dict__.get(name) or next(
        vars(k)[name] for k in runtime_class.__mro__ if name in vars(k))
    if name == "__init__":
        call = runtime_class
    else:
        instance = _construct(cls)
        call = getattr(instance, name)
    _check(call, raw, overloads, element, cls)


def _iterable_cases():
    for stub in (STUB_KAVRA, STUB_TESSEL):
        for cls in stub.classes:
            methods, element = stub.methods(cls)
            if not cls.startswith("_") and "__iter__" in methods:
                declared = ast.unparse(methods["__iter__"][0].returns)  # Iterator[...]
                yield pytest.param(cls, element if declared.endswith("[_E]") else declared[9:-1], id=cls)


@pytest.mark.parametrize("cls, element", list(_iterable_cases()))
def test_declared_iteration_works_through_the_sequence_protocol(cls, element):
    item = _sample(element, "", cls)
    container = _runtime(cls)([item, item])
    items = list(container)
    assert len(items) == 2
    assert all(type(i) is type(item) for i in items)
