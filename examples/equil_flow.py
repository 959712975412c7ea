"""The initial state of a dome from EQUIL: kavra.equil against what OPM Flow computed in every cell
================================================================================================

Run with ``python examples/equil_flow.py [--png PATH]`` (kavra installed with its deck and results
extras and the opm-simulators package).

Flow initialises tests/data/DOME.DATA (two equilibration regions, the first with a gas cap;
capillary pressure in SWOF and SGOF) and writes its step 0; ``kavra.equil.initial_state``
computes the same from the deck alone.  The figure (examples/output/equil_flow.png) draws, per
equilibration region against depth, the oil pressure and the water and gas saturations: kavra's
cells, sorted by depth, as a line, Flow's cells as dots; and on the right the oil in place of
each region as the oil-water contact moves (scenarios of ``contacts=``), the deck's contact
marked.  The script prints the largest difference of each array to Flow's.
"""

import argparse
import pathlib
import sys
import tempfile
from collections.abc import Sequence

import numpy as np

import kavra.deck
import kavra.equil
import kavra.results

# This script's directory, from its own code (sphinx-gallery runs the examples without __file__).
HERE = pathlib.Path((lambda: None).__code__.co_filename).resolve().parent
DEFAULT_PNG = HERE / "output" / "equil_flow.png"
sys.path.insert(0, str(HERE.parent / "tests"))
from flow_cases import run_flow  # noqa: E402  (the decks of the tests)


def main(argv: Sequence[str] | None = None) -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--png", type=pathlib.Path, default=DEFAULT_PNG, help="where the figure goes")
    args = parser.parse_args(argv)
    with tempfile.TemporaryDirectory() as scratch:  # opm reads the deck's file when kavra first asks for the grid
        case = run_flow("DOME", pathlib.Path(scratch))
        r, deck = kavra.results.read(case), kavra.deck.read(case.with_suffix(".DATA"))
        flow = {name: np.ma.filled(r.cell_property(name, 0).astype(float), np.nan)
                for name in ("PRESSURE", "SWAT", "SGAS")}
        state = kavra.equil.initial_state(deck)
        owc = np.linspace(2040.0, 2100.0, 31)
        eqlnum = deck.cell_property("EQLNUM")
        scenarios = kavra.equil.initial_state(deck, contacts=[(c, np.nan) for c in owc])
        in_place = np.array([[np.ma.filled(s.in_place().oil, 0.0)[eqlnum == k].sum() for k in (1, 2)]
                             for s in scenarios])
        depth, active = deck.cell_depths(), deck.active
    ours = {"PRESSURE": state.pressure, "SWAT": state.sw, "SGAS": state.sg}
    print("DOME: largest difference to Flow's step 0 (PRESSURE relative, SWAT and SGAS absolute):")
    for name, values in ours.items():
        error = np.abs(np.ma.filled(values, np.nan) - flow[name])[active]
        print(f"  {name:8s} {(error / flow[name][active] if name == 'PRESSURE' else error).max():.1e}")
    draw(deck, depth, eqlnum, active, state, flow, owc, in_place, args.png)


def draw(deck, depth, eqlnum, active, state, flow, owc, in_place, png):
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    figure, axes = plt.subplots(1, 3, figsize=(16, 7), layout="constrained")
    for region, colour in ((1, "tab:blue"), (2, "tab:orange")):
        cells = np.flatnonzero(active & (eqlnum == region))
        cells = cells[np.argsort(depth[cells], kind="stable")]
        z = depth[cells]
        axes[0].plot(state.pressure[cells], z, color=colour, lw=1.5, label=f"kavra, EQLNUM {region}")
        axes[0].scatter(flow["PRESSURE"][cells], z, s=6, color="black", zorder=3)
        for name, values, style in (("SWAT", state.sw, "-"), ("SGAS", state.sg, "--")):
            axes[1].plot(values[cells], z, color=colour, ls=style, lw=1.5, label=f"kavra {name}, EQLNUM {region}")
            axes[1].scatter(flow[name][cells], z, s=6, color="black", zorder=3)
        axes[2].plot(owc, in_place[:, region - 1] / 1e6, color=colour, marker="o", ms=3,
                     label=f"EQLNUM {region}")
        axes[2].axvline(deck.equil[region - 1].owc_depth, color=colour, ls=":", lw=1)
    axes[0].scatter([], [], s=6, color="black", label="Flow's cells at step 0")
    axes[1].scatter([], [], s=6, color="black", label="Flow's cells at step 0")
    axes[0].set(xlabel="oil pressure (barsa)", ylabel="depth (m)", title="Oil pressure")
    axes[1].set(xlabel="saturation", ylabel="depth (m)", title="Water (solid) and gas (dashed) saturation")
    axes[2].set(xlabel="oil-water contact (m)", ylabel="oil in place (10^6 sm3)",
                title="Oil in place against the oil-water contact\n(the deck's contact dotted)")
    for ax in axes[:2]:
        ax.invert_yaxis()
        ax.legend(fontsize=8)
    axes[2].legend(fontsize=8)
    figure.suptitle("DOME initialised by kavra.equil (lines) and by OPM Flow (dots)")
    png.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(png, dpi=80)
    plt.close(figure)
    print(f"\nFigure written to {png}")


if __name__ == "__main__":
    main()
