import ast
import importlib.util
import pathlib
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parent.parent

# kavra._kavracore and the Python bindings of tessel are built where the build found Boost.Python for
# its Python.  Without them, a test module that imports them or a name of _kavracore (itself or
# through a helper module of tests/) is skipped, and so is a test marked needs_boost_python (one
# that uses kavra's stand-in for _kavracore, `from kavra import _kavracore`, or to_native).  (The
# build makes both modules or neither.)
BOOST_PYTHON_MODULES = ("kavra._kavracore", "kavra.tessel")
BOOST_PYTHON_BUILT = importlib.util.find_spec("kavra._kavracore") is not None
WITHOUT_BOOST_PYTHON = (f"{' or '.join(BOOST_PYTHON_MODULES)}, which kavra was built without (no Boost.Python for "
                        f"Python {sys.version_info[0]}.{sys.version_info[1]})")
needs_boost_python = pytest.mark.skipif(not BOOST_PYTHON_BUILT, reason="needs " + WITHOUT_BOOST_PYTHON)
KAVRACORE_NAMES = {node.name for node in ast.parse((ROOT / "python/kavra/_kavracore.pyi").read_text()).body
                    if isinstance(node, (ast.ClassDef, ast.FunctionDef))}


def imports_boost_python_modules(path):
    """Whether the test or helper module at `path` imports a Boost.Python module or a name of _kavracore
    when it is imported (a test that imports one itself is marked needs_boost_python)."""
    for node in ast.parse(path.read_text()).body:
        if isinstance(node, ast.Import):
            modules = [alias.name for alias in node.names]
        elif isinstance(node, ast.ImportFrom) and node.module:
            names = {alias.name for alias in node.names}
            if node.module == "kavra" and names & KAVRACORE_NAMES:
                return True
            modules = [node.module] + [f"{node.module}.{name}" for name in names
                                       if (node.module, name) != ("kavra", "_kavracore")]  # the stand-in
        else:
            continue
        for module in modules:
            helper = path.parent / (module + ".py")
            if any(module == name or module.startswith(name + ".") for name in BOOST_PYTHON_MODULES) or (
                    helper.is_file() and helper != path and imports_boost_python_modules(helper)):
                return True
    return False


class _WithoutBoostPython(pytest.Module):
    def collect(self):
        pytest.skip(f"{self.path.name} imports {WITHOUT_BOOST_PYTHON}", allow_module_level=True)


def pytest_pycollect_makemodule(module_path, parent):
    if not BOOST_PYTHON_BUILT and imports_boost_python_modules(module_path):
        return _WithoutBoostPython.from_parent(parent, path=module_path)
    return None


def precondition_text(relative_path, condition, message):
    """The four-line text of a failed check, with the line (from 1) of the only check of `condition` in the file."""
    lines = (ROOT / relative_path).read_text().splitlines()
    hits = [n for n, text in enumerate(lines, start=1) if f"PRECONDITION({condition}," in text]
    assert len(hits) == 1, f"{condition!r} is checked {len(hits)} times in {relative_path}"
    return f"KAVRA-lib 2.0 Exception\n{relative_path}:{hits[0]}:\nPrecondition Violated:\n{condition} {message}\n"


def cast_failure_text(name):
    return precondition_text("core/utils/gridfunction_checking.h", "reservoirGridFunction.get()!=0",
                             f"The type cast for {name} failed!!")


@pytest.fixture
def raises_text():
    """Calls `call(*args)`, which must raise RuntimeError with exactly the text `expected`."""

    def check(expected, call, *args):
        with pytest.raises(RuntimeError) as info:
            call(*args)
        assert str(info.value) == expected

    return check
