"""1/Bo and 1/Bg of SPE1 two ways, against what OPM Flow computed in every cell
============================================================================

Run with `make demo` (or `python examples/blackoil_flow.py [--png PATH]` with kavra
installed with its results extra and the opm-simulators package).

Flow runs SPE1 with the test schedule (tests/flow_cases.py); kavra.results reads
the restart.  The figure (examples/output/blackoil_flow.png) draws, against
pressure:

* left, 1/Bo: kavra's own calculation (``kavra.one_over_bo``: B interpolated
  within the record of the cell's bubble point) and the simulator's reading of
  the same PVTO (``kavra.blackoil.one_over_bo``: 1/B between records in Rs),
  along the saturated line and up the undersaturated branch of three Rs;
* right, 1/Bg: ``kavra.one_over_b`` (B linear in pressure) and
  ``kavra.blackoil.one_over_bg`` (1/B linear in pressure) along PVDG;
* as dots, Flow's 1OVERBO and 1OVERBG of every cell at every report step.

The script prints the largest relative difference of each way to Flow's cells.
"""

import argparse
import pathlib
import sys
import tempfile
from collections.abc import Sequence

import numpy as np

import kavra
import kavra.deck
import kavra.results
from kavra import blackoil

# This script's directory, from its own code (sphinx-gallery runs the examples without __file__).
HERE = pathlib.Path((lambda: None).__code__.co_filename).resolve().parent
DEFAULT_PNG = HERE / "output" / "blackoil_flow.png"
sys.path.insert(0, str(HERE.parent / "tests"))
from flow_cases import run_flow  # noqa: E402  (the decks and schedules of the tests)


def flow_cells(r: kavra.results.Results) -> dict[str, np.ndarray]:
    """PRESSURE, RS, 1OVERBO and 1OVERBG of every cell at every report step, one after the other."""
    names = ("PRESSURE", "RS", "1OVERBO", "1OVERBG")
    return {n: np.concatenate([r.cell_property(n, s).compressed() for s in r.steps]).astype(float) for n in names}


def largest(ours: np.ndarray, flow: np.ndarray) -> float:
    return float(np.max(np.abs(ours - flow) / np.abs(flow)))


def main(argv: Sequence[str] | None = None) -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--png", type=pathlib.Path, default=DEFAULT_PNG, help="where the figure goes")
    args = parser.parse_args(argv)
    with tempfile.TemporaryDirectory() as scratch:
        case = run_flow("SPE1CASE1", pathlib.Path(scratch))
        r, deck = kavra.results.read(case), kavra.deck.read(case.with_suffix(".DATA"))
        cells = flow_cells(r)
    p, rs = cells["PRESSURE"], cells["RS"]
    pbub = np.minimum(p, kavra.bubble_point_pressure(deck.pvto, 1, rs))
    print(f"SPE1, {len(r.steps)} report steps, {p.size} cell values; largest relative difference to Flow:")
    print(f"  1/Bo  kavra.one_over_bo {largest(kavra.one_over_bo(deck.pvto, 1, p, pbub), cells['1OVERBO']):.1e}"
          f"   kavra.blackoil.one_over_bo {largest(blackoil.one_over_bo(deck.pvto, 1, p, rs), cells['1OVERBO']):.1e}")
    print(f"  1/Bg  kavra.one_over_b  {largest(kavra.one_over_b(deck.pvdg, 1, p), cells['1OVERBG']):.1e}"
          f"   kavra.blackoil.one_over_bg {largest(blackoil.one_over_bg(deck.pvdg, 1, p), cells['1OVERBG']):.1e}")
    draw(deck, cells, args.png)


def draw(deck: kavra.deck.Deck, cells: dict[str, np.ndarray], png: pathlib.Path) -> None:
    """Two rows (1/Bo, 1/Bg), two columns (kavra's calculation, the simulator's reading), Flow's cells
    as black dots in each, the method's value at each of those cells as a coloured ring."""
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    oil, gas = deck.pvto, deck.pvdg
    p, rs = cells["PRESSURE"], cells["RS"]
    pbub = np.minimum(p, kavra.bubble_point_pressure(oil, 1, rs))
    saturated = np.linspace(14.7, 6200.0, 400)
    branches = (1.27, 1.618, 1.95)  # Rs (Mscf/stb) of the undersaturated branches drawn
    methods = {
        "kavra.one_over_bo (B within the record of Pbub)": (
            lambda q: kavra.one_over_bo(oil, 1, q, q),
            lambda q, r: kavra.one_over_bo(oil, 1, q, np.full_like(q, float(kavra.bubble_point_pressure(oil, 1, [r])[0]))),
            kavra.one_over_bo(oil, 1, p, pbub)),
        "kavra.blackoil.one_over_bo (1/B between records in Rs)": (
            lambda q: blackoil.one_over_bo(oil, 1, q, blackoil.rs_sat(oil, 1, q)),
            lambda q, r: blackoil.one_over_bo(oil, 1, q, np.full_like(q, r)),
            blackoil.one_over_bo(oil, 1, p, rs)),
    }
    figure, axes = plt.subplots(2, 2, figsize=(14, 11), layout="constrained", sharey="row")
    for ax, (label, (line, branch, at_cells)) in zip(axes[0], methods.items()):
        ax.plot(saturated, line(saturated), color="tab:blue", lw=1.5, label="saturated line")
        ends: dict[float, list[float]] = {}  # branches that end at one point share their label
        for r in branches:
            above = np.linspace(float(blackoil.bubble_point(oil, 1, [r])[0]), 9014.7, 100)
            ax.plot(above, branch(above, r), color="tab:blue", ls="--", lw=1.2)
            ends.setdefault(round(float(branch(above[-1:], r)[0]), 3), []).append(r)
        for end, rs_of_end in ends.items():
            ax.annotate("Rs " + ", ".join(map(str, rs_of_end)), (9014.7, end), fontsize=8, ha="right", va="bottom")
        ax.scatter(p, cells["1OVERBO"], s=14, color="black", zorder=3, label="Flow's 1OVERBO, every cell and step")
        ax.scatter(p, at_cells, s=40, facecolors="none", edgecolors="tab:red", zorder=4,
                   label="this method at those cells (p, Rs)")
        worst = np.max(np.abs(at_cells - cells["1OVERBO"]) / cells["1OVERBO"])
        ax.set(xlabel="oil pressure (psia)", ylabel="1/Bo (stb/rb)",
               title=f"{label}\nlargest relative difference to Flow {worst:.1e}")
        ax.title.set_fontsize(10)
        ax.legend(fontsize=8, loc="lower left")
    q = np.linspace(14.7, 9014.7, 600)
    rows = np.asarray(gas.regions[0])
    for ax, (label, function) in zip(axes[1], [("kavra.one_over_b (B linear in p)", kavra.one_over_b),
                                               ("kavra.blackoil.one_over_bg (1/B linear in p)", blackoil.one_over_bg)]):
        at_cells = function(gas, 1, p)
        ax.plot(q, function(gas, 1, q), color="tab:blue", lw=1.5, label="along PVDG")
        ax.scatter(rows[:, 0], 1 / rows[:, 1], marker="s", s=60, facecolors="none", edgecolors="tab:green", lw=2, zorder=5,
                   label="PVDG rows")
        ax.scatter(p, cells["1OVERBG"], s=14, color="black", zorder=3, label="Flow's 1OVERBG, every cell and step")
        ax.scatter(p, at_cells, s=40, facecolors="none", edgecolors="tab:red", zorder=4, label="this method at those cells")
        worst = np.max(np.abs(at_cells - cells["1OVERBG"]) / cells["1OVERBG"])
        ax.set(xlabel="gas pressure (psia)", ylabel="1/Bg (Mscf/rb)", xlim=(3800, 6300), ylim=(1.1, 1.9),
               title=f"{label}\nlargest relative difference to Flow {worst:.1e}")
        ax.title.set_fontsize(10)
        ax.legend(fontsize=8, loc="lower right")
    figure.suptitle("SPE1 run by OPM Flow: kavra's calculation (left) and the simulator's reading (right)")
    png.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(png, dpi=80)
    plt.close(figure)
    print(f"\nFigure written to {png}")


if __name__ == "__main__":
    main()
