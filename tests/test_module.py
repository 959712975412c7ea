"""The module frame: names, argument matching, and the NumPy import path."""

import subprocess
import sys
import textwrap

import pytest
from kavra.tessel import DoubleGridFunction

import kavra

ARGUMENT_ERROR = TypeError  # Boost.Python.ArgumentError derives from it


def test_package_exposes_every_extension_name():
    assert kavra._kavracore.__name__ == "kavra._kavracore"
    public = {n for n in dir(kavra._kavracore) if not n.startswith("_")}
    assert public <= set(dir(kavra)) and public <= set(kavra.__all__)
    assert {"CalcBulkVolume", "CalcRsFromComponents", "CalcPorosity", "CalcPorosityFromPORV",
            "CalcTransmissibilityK"} <= public


def test_the_namespace_holds_only_what_it_exports():
    public = {n for n in dir(kavra) if not n.startswith("_")}
    assert public - set(kavra.__all__) <= {*kavra._SUBMODULES, "tessel", "dask", "cli"}
    assert not hasattr(kavra, "Any") and not hasattr(kavra, "TYPE_CHECKING")


@pytest.mark.parametrize("module, extra", [("opm", "deck"), ("dask", "dask")])
def test_without_an_extra_the_import_says_what_to_install(module, extra):
    hide = (f"import sys; sys.modules[{module!r}] = None; import kavra\n"
            f"try:\n    import kavra.{extra}\nexcept ImportError as error:\n    print(error)\n")
    run = subprocess.run([sys.executable, "-c", hide], capture_output=True, text=True, check=True)
    assert f"pip install 'kavra[{extra}]'" in run.stdout


def test_functions_have_no_documentation_text():
    for name in ("CalcBulkVolume", "CalcRsFromComponents", "KMax", "KMin", "KSum", "KAverage"):
        assert getattr(kavra, name).__doc__ is None


@pytest.mark.parametrize(
    "call",
    [
        lambda g: kavra.CalcBulkVolume(NTG=g, BulkVolume=g),
        lambda g: kavra.CalcBulkVolume(g, BulkVolume=g),
        lambda g: kavra.CalcRsFromComponents(g, g, p_Rs=g),
        lambda g: kavra.CalcBulkVolume(g),
        lambda g: kavra.CalcBulkVolume(g, g, g, g),
        lambda g: kavra.KSum(topology=None, array=g),
    ],
    ids=["keywords", "one-keyword", "rs-keyword", "too-few", "too-many", "k-keywords"],
)
def test_arguments_that_fit_no_overload_are_type_errors(call):
    with pytest.raises(ARGUMENT_ERROR) as info:
        call(DoubleGridFunction(1))
    assert type(info.value).__name__ == "ArgumentError"


# A stand-in for NumPy's compiled core, placed first on sys.path in a child
# interpreter.  Its function table answers the version and byte-order queries.
FAKE_CORE = textwrap.dedent(
    """
    import ctypes
    unsigned = ctypes.CFUNCTYPE(ctypes.c_uint)
    signed = ctypes.CFUNCTYPE(ctypes.c_int)
    _keep = [unsigned(lambda: {abi}), signed(lambda: {endian}), unsigned(lambda: {feature})]
    _table = (ctypes.c_void_p * 300)()
    for slot, function in zip((0, 210, 211), _keep):
        _table[slot] = ctypes.cast(function, ctypes.c_void_p)
    new_capsule = ctypes.pythonapi.PyCapsule_New
    new_capsule.restype = ctypes.py_object
    new_capsule.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p]
    _ARRAY_API = new_capsule(ctypes.addressof(_table), None, None)
    """
)


def import_with_fake_numpy(tmp_path, core_source):
    core = tmp_path / "numpy" / "_core"
    core.mkdir(parents=True)
    (tmp_path / "numpy" / "__init__.py").write_text("")
    (core / "__init__.py").write_text("")
    (core / "_multiarray_umath.py").write_text(core_source)
    script = textwrap.dedent(
        f"""
        import sys
        sys.path.insert(0, {str(tmp_path)!r})
        try:
            import kavra._kavracore
        except ImportError as error:
            print("ImportError:", error)
        else:
            print("imported")
        """
    )
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, cwd=tmp_path, timeout=60)
    return done.stdout.strip(), done.stderr


@pytest.mark.parametrize(
    "core_source, first_error",
    [
        ("", "AttributeError: _ARRAY_API not found"),
        ("_ARRAY_API = 5", "RuntimeError: _ARRAY_API is not PyCapsule object"),
        (
            FAKE_CORE.format(abi="0x3000000", endian=1, feature="0x13"),
            "RuntimeError: module compiled against ABI version 0x2000000 but this version of numpy is 0x3000000",
        ),
        (
            FAKE_CORE.format(abi="0x1000009", endian=1, feature="0xC"),
            "RuntimeError: module compiled against API version 0xd but this version of numpy is 0xc",
        ),
        (FAKE_CORE.format(abi="0x1000009", endian=0, feature="0xD"), "RuntimeError: FATAL: module compiled as unknown endian"),
        (
            FAKE_CORE.format(abi="0x1000009", endian=2, feature="0xD"),
            "RuntimeError: FATAL: module compiled as little endian, but detected different endianness at runtime",
        ),
    ],
    ids=["no-table", "not-capsule", "abi-too-new", "api-too-old", "unknown-endian", "big-endian"],
)
def test_failed_numpy_import_prints_cause_and_fails_the_import(tmp_path, core_source, first_error):
    stdout, stderr = import_with_fake_numpy(tmp_path, core_source)
    assert stdout == "ImportError: numpy.core.multiarray failed to import"
    assert first_error in stderr.splitlines()


def test_an_older_abi_and_newer_api_pass_the_import(tmp_path):
    # NumPy 1.x (ABI 0x1000009) with a newer C API is accepted.
    stdout, stderr = import_with_fake_numpy(tmp_path, FAKE_CORE.format(abi="0x1000009", endian=1, feature="0x11"))
    assert stdout == "imported", stderr
