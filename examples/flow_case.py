"""Flow case: SPE1 run with OPM Flow, its results read with kavra.results
======================================================================

Run with `make demo` (or `python examples/flow_case.py [--png PATH] [--keep DIR]`
with kavra installed with its results extra and the opm-simulators package).

The SPE1 deck that ships with kavra gets the six-month schedule that the tests use
(tests/flow_cases.py: gas injected at the top of one corner, oil produced from
the bottom of the opposite one); Flow runs it in a temporary directory (or
DIR), and kavra.results reads the case: one restart array per call.  The
script prints the field's state at each report step and draws the PRESSURE
and SGAS maps of the top layer, and maps of the oil in place of each column
(kavra.results' in_place summed over K) and of its pore-volume-weighted
pressure (kavra.column_map), at four of them (examples/output/flow_case.png
unless --png says otherwise), and the oil, gas and water in place per FIPNUM
region (kavra.region_totals) beside the totals of Flow's own FIP arrays.
"""

import argparse
import pathlib
import sys
import tempfile
from collections.abc import Callable, Sequence
from typing import Any

import numpy as np

import kavra.results
from kavra.tables import UNIT_LABELS

# This script's directory, from its own code (sphinx-gallery runs the examples without __file__).
HERE = pathlib.Path((lambda: None).__code__.co_filename).resolve().parent
DEFAULT_PNG = HERE / "output" / "flow_case.png"
sys.path.insert(0, str(HERE.parent / "tests"))
from flow_cases import run_flow  # noqa: E402  (the decks and schedules of the tests)


def report(r: kavra.results.Results) -> None:
    """One line per report step: pressure, gas saturation and gas-filled cells, and the oil rate."""
    pressure_unit = UNIT_LABELS[r.units]["pressure"]
    dates, fopr = r.summary("FOPR")
    rate_unit = r.summary_units["FOPR"]
    print(f"  {'step':>4} {'date':>10} {'mean PRESSURE':>14} {'max SGAS':>9} {'cells with gas':>15} {'FOPR':>9}")
    print(f"  {'':>4} {'':>10} {pressure_unit:>14} {'':>9} {'':>15} {rate_unit:>9}")
    for step, date in zip(r.steps, r.dates):
        pressure, sgas = r.cell_property("PRESSURE", step), r.cell_property("SGAS", step)
        at = np.flatnonzero(dates == date)
        rate = f"{fopr[at[0]]:9.0f}" if at.size else f"{'-':>9}"
        print(f"  {step:>4} {str(date)[:10]:>10} {pressure.mean():14.1f} {sgas.max():9.3f} "
              f"{int((sgas > 0).sum()):>15} {rate}")


# Surface volumes of oil (and water) and of gas in each unit system.
OIL_VOLUME = {"FIELD": "stb", "METRIC": "sm3", "LAB": "scc", "PVT-M": "sm3"}
GAS_VOLUME = {"FIELD": "Mscf", "METRIC": "sm3", "LAB": "scc", "PVT-M": "sm3"}


def regions(r: kavra.results.Results) -> None:
    """Oil, gas and water in place per FIPNUM region at each report step: kavra's (in_place, then
    region_totals) beside the totals of Flow's FIPOIL, FIPGAS and FIPWAT."""
    fipnum = r.cell_property("FIPNUM")
    count = int(fipnum.max())
    units = {"oil": OIL_VOLUME[r.units], "gas": GAS_VOLUME[r.units], "water": OIL_VOLUME[r.units]}
    print(f"\n  in place per FIPNUM region: kavra / Flow ({', '.join(f'{k} {u}' for k, u in units.items())})")
    print(f"  {'step':>4} {'region':>6} " + " ".join(f"{part:>27}" for part in units))
    for step in r.steps:
        fluids = r.in_place(step)
        ours = [kavra.region_totals(getattr(fluids, part), fipnum, count=count) for part in units]
        flow = [kavra.region_totals(r.cell_property(name, step), fipnum, count=count)
                for name in ("FIPOIL", "FIPGAS", "FIPWAT")]
        for region in range(count):
            print(f"  {step:>4} {region + 1:>6} " + " ".join(f"{o[region]:13.6g} / {f[region]:11.6g}"
                                                            for o, f in zip(ours, flow)))


def draw(r: kavra.results.Results, png: pathlib.Path) -> None:
    """PRESSURE and SGAS of the top layer, the oil in place of each column and its pore-volume-
    weighted pressure, at four report steps; one colour scale per row."""
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    g = r.grid
    grid = (g.nI, g.nJ, g.nK)
    steps = [r.steps[i] for i in np.linspace(0, len(r.steps) - 1, 4).round().astype(int)]
    pressure_unit = UNIT_LABELS[r.units]["pressure"]

    def top(name: str) -> Callable[[int], Any]:
        # the top layer (K = 1) of a step, shaped (nJ, nI)
        return lambda step: r.cell_property(name, step).reshape(g.nK, g.nJ, g.nI)[0]

    rows: list[tuple[str, str, str, Callable[[int], Any]]] = [
        ("PRESSURE, K = 1", f"PRESSURE ({pressure_unit})", "viridis", top("PRESSURE")),
        ("SGAS, K = 1", "SGAS (fraction of pore volume)", "magma", top("SGAS")),
        ("oil in place per column", f"oil in place, summed over K ({OIL_VOLUME[r.units]})", "cividis",
         lambda step: kavra.column_map(r.in_place(step).oil, grid, "sum")),
        ("pore-volume-weighted pressure", f"PRESSURE weighted by RPORV ({pressure_unit})", "viridis",
         lambda step: kavra.column_map(r.cell_property("PRESSURE", step), grid, "mean",
                                       weights=r.cell_property("RPORV", step))),
    ]
    figure, axes = plt.subplots(len(rows), len(steps), figsize=(4 * len(steps) + 1.5, 3.6 * len(rows)),
                                squeeze=False, layout="constrained")
    dates = dict(zip(r.steps, r.dates))
    for row, (title, label, colours, of_step) in enumerate(rows):
        maps = [of_step(step) for step in steps]
        low, high = min(float(m.min()) for m in maps), max(float(m.max()) for m in maps)
        for column, (step, values) in enumerate(zip(steps, maps)):
            ax = axes[row, column]
            image = ax.imshow(values, origin="upper", cmap=colours, vmin=low, vmax=high,
                              extent=(0.5, g.nI + 0.5, g.nJ + 0.5, 0.5))
            ax.set_title(f"{title}, step {step} ({str(dates[step])[:10]})", fontsize=9)
            ax.set_xlabel("I")
            ax.set_ylabel("J")
            ax.set_xticks(range(1, g.nI + 1))
            ax.set_yticks(range(1, g.nJ + 1))
        figure.colorbar(image, ax=axes[row, :].tolist(), label=label, shrink=0.9)
    figure.suptitle(f"{r.case.name} over time, {r.units} units (I and J counted from 1, as the deck counts them)")
    png.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(png, dpi=90)
    plt.close(figure)
    print(f"\nFigure written to {png}")


def main(argv: Sequence[str] | None = None) -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--png", type=pathlib.Path, default=DEFAULT_PNG, help="where the figure goes")
    parser.add_argument("--keep", type=pathlib.Path, default=None,
                        help="run Flow in this directory and keep its files (default: a temporary one)")
    args = parser.parse_args(argv)
    with tempfile.TemporaryDirectory() as scratch:
        directory = args.keep or pathlib.Path(scratch)
        directory.mkdir(parents=True, exist_ok=True)
        r = kavra.results.read(run_flow("SPE1CASE1", directory))
        print(r)
        report(r)
        regions(r)
        draw(r, args.png)


if __name__ == "__main__":
    main()
