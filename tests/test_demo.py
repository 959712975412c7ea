"""The demos run and draw their figures."""

import importlib.util
import runpy
import struct

import pytest

from conftest import ROOT, needs_boost_python


@needs_boost_python  # the demo of the native calls over grid functions
def test_demo_writes_its_figure(tmp_path, capsys):
    pytest.importorskip("matplotlib")
    workflow = runpy.run_path(str(ROOT / "examples/workflow.py"))
    png = tmp_path / "figure" / "workflow.png"
    workflow["main"](["--png", str(png)])
    data = png.read_bytes()
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    width, height = struct.unpack(">II", data[16:24])
    assert width > 800 and height > 300
    assert f"Figure written to {png}" in capsys.readouterr().out


def test_the_numpy_first_example_runs(capsys):
    runpy.run_path(str(ROOT / "examples/arrays_and_tables.py"), run_name="__main__")
    assert "inactive cells (masked in every result): 54 of 1800" in capsys.readouterr().out


@pytest.mark.skipif(importlib.util.find_spec("opm") is None, reason="opm is not installed (pip install '.[deck]')")
def test_deck_demo_writes_a_figure_per_deck(tmp_path, capsys):
    pytest.importorskip("matplotlib")
    workflow = runpy.run_path(str(ROOT / "examples/deck_workflow.py"))
    workflow["main"](["--out", str(tmp_path)])
    out = capsys.readouterr().out
    for name in ("deck_spe1.png", "deck_spe3.png"):
        data = (tmp_path / name).read_bytes()
        assert data[:8] == b"\x89PNG\r\n\x1a\n" and struct.unpack(">II", data[16:24])[0] > 1000
        assert f"Figure written to {tmp_path / name}" in out
    assert "oil density 39.19 lb/ft3" in out and "dew point 3427.6 psia" in out
