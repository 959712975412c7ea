"""The demo runs and draws its figure."""

import runpy
import struct

from conftest import ROOT


def test_demo_writes_its_figure(tmp_path, capsys):
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
