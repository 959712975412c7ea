"""Relative permeability and capillary pressure per SATNUM region, unscaled and scaled, against Flow
==================================================================================================

Run with `make demo` (or `python examples/satfunc_curves.py [--png PATH]` with kavra installed
with its results extra and the opm-simulators package).

Flow runs two of the test decks (tests/flow_cases.py): SATFUNC_SWOF (SWOF and SGOF, two SATNUM
regions, no scaling) and SATFUNC_VERTICAL (the same tables with ENDSCALE: end points per cell
in boxes, vertical scaling, PCW and PCG).  ``kavra.satfunc.from_deck`` reads each deck; the
figure (examples/output/satfunc_curves.png) has a row per SATNUM region:

* left, water and oil against Sw (no gas): krw and krow;
* middle, gas and oil against Sg (at connate water): krg and krog;
* right, Pcow against Sw and Pcog against Sg (bar);

as lines: the region's tables (black) and three cells of the scaled deck with end points of
their own (colours); as dots: Flow's WATKR, OILKR, GASKR, PCOW and PCOG of every report step,
grey for the cells of the unscaled deck, coloured for the three cells (OILKR only where the
cell holds no more than a trace of the third phase, as the curve assumes).

The script prints each cell's end points and the largest difference to Flow's values.
"""

import argparse
import pathlib
import sys
import tempfile
from collections.abc import Sequence

import numpy as np

import kavra.deck
import kavra.results
from kavra import satfunc

# This script's directory, from its own code (sphinx-gallery runs the examples without __file__).
HERE = pathlib.Path((lambda: None).__code__.co_filename).resolve().parent
DEFAULT_PNG = HERE / "output" / "satfunc_curves.png"
sys.path.insert(0, str(HERE.parent / "tests"))
from flow_cases import run_flow  # noqa: E402  (the decks and schedules of the tests)

NAMES = ("SWAT", "SGAS", "WATKR", "OILKR", "GASKR", "PCOW", "PCOG")
COLOURS = ("tab:blue", "tab:orange", "tab:green")
TRACE = 1e-3  # the most of the third phase a cell may hold for its OILKR to sit on a two-phase curve


def flow_steps(case: pathlib.Path) -> dict[str, np.ndarray]:
    """Flow's arrays, one row per report step (float64)."""
    r = kavra.results.read(case)
    return {n: np.array([np.ma.getdata(r.cell_property(n, s)) for s in r.steps], dtype=float) for n in NAMES}


def curves(sf: satfunc.SaturationFunctions, cell: int, ends: dict[str, np.ndarray]) -> dict[str, np.ndarray]:
    """Cell `cell`'s curves: kr and Pc against Sw (no gas) and against Sg (connate water)."""
    s = np.linspace(0.0, 1.0, 401)
    satnum = np.full(s.size, sf.satnum[cell], dtype=np.int32)
    own = {name: np.full(s.size, ends[name][cell]) for name in satfunc.END_POINTS}
    local = satfunc.SaturationFunctions(sf._curves, satnum, sf.model, own if sf.scaled else None,
                                        scaled=sf.scaled, three_point=sf.three_point)
    swl = np.full(s.size, ends["SWL"][cell])
    water, gas = local.relperm(s, 0.0 * s), local.relperm(swl, np.minimum(s, 1 - swl))
    pc_w, pc_g = local.capillary_pressure(s, 0.0 * s), local.capillary_pressure(swl, s)
    return {"s": s, "krw": water.water, "krow": water.oil, "krg": gas.gas, "krog": gas.oil,
            "pcow": pc_w.oil_water, "pcog": pc_g.gas_oil}


def chosen_cells(sf: satfunc.SaturationFunctions, flow: dict[str, np.ndarray]) -> list[int]:
    """Three scaled cells: the widest swing of Sw in region 1, of Sg in region 1, of Sw in region 2."""
    swing_w, swing_g = np.ptp(flow["SWAT"], axis=0), np.ptp(flow["SGAS"], axis=0)
    one, two = sf.satnum == 1, sf.satnum == 2
    first = int(np.argmax(np.where(one, swing_w, -1)))
    second = int(np.argmax(np.where(one & (np.arange(one.size) != first), swing_g, -1)))
    return [first, second, int(np.argmax(np.where(two, swing_w, -1)))]


def draw(png: pathlib.Path, plain, scaled, flow_plain, flow_scaled, cells) -> None:
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    ends_plain, ends_scaled = plain.end_points, scaled.end_points
    fig, axes = plt.subplots(2, 3, figsize=(15, 8.5), constrained_layout=True)
    for row, region in enumerate((1, 2)):
        ax_w, ax_g, ax_p = axes[row]
        in_region = plain.satnum == region
        base = curves(plain, int(np.flatnonzero(in_region)[0]), ends_plain)
        # Flow's unscaled cells: every step, grey
        sw, sg = flow_plain["SWAT"][:, in_region], flow_plain["SGAS"][:, in_region]
        ax_w.plot(sw, flow_plain["WATKR"][:, in_region], ".", color="0.6", ms=3)
        ax_w.plot(sw[sg < TRACE], flow_plain["OILKR"][:, in_region][sg < TRACE], ".", color="0.6", ms=3)
        near = np.abs(sw - ends_plain["SWL"][in_region]) < TRACE
        ax_g.plot(sg, flow_plain["GASKR"][:, in_region], ".", color="0.6", ms=3)
        ax_g.plot(sg[near], flow_plain["OILKR"][:, in_region][near], ".", color="0.6", ms=3)
        ax_p.plot(sw, flow_plain["PCOW"][:, in_region], ".", color="0.6", ms=3)
        ax_p.plot(sg, flow_plain["PCOG"][:, in_region], "x", color="0.6", ms=3)
        for ax, pair in ((ax_w, ("krw", "krow")), (ax_g, ("krg", "krog"))):
            for key in pair:
                ax.plot(base["s"], base[key], "k-", lw=1.5, label=f"{key}, table" if row == 0 else None)
        ax_p.plot(base["s"], base["pcow"], "k-", lw=1.5, label="Pcow, table" if row == 0 else None)
        ax_p.plot(base["s"], base["pcog"], "k--", lw=1.5, label="Pcog, table" if row == 0 else None)
        for colour, cell in zip(COLOURS, cells):
            if scaled.satnum[cell] != region:
                continue
            c = curves(scaled, cell, ends_scaled)
            label = f"cell {cell}"
            for ax, keys in ((ax_w, ("krw", "krow")), (ax_g, ("krg", "krog"))):
                for key, style in zip(keys, ("-", "--")):
                    ax.plot(c["s"], c[key], style, color=colour, lw=1.2, label=f"{key}, {label}")
            ax_p.plot(c["s"], c["pcow"], "-", color=colour, lw=1.2, label=f"Pcow, {label}")
            ax_p.plot(c["s"], c["pcog"], "--", color=colour, lw=1.2, label=f"Pcog, {label}")
            w, g = flow_scaled["SWAT"][:, cell], flow_scaled["SGAS"][:, cell]
            ax_w.plot(w, flow_scaled["WATKR"][:, cell], "o", color=colour, ms=5)
            ax_w.plot(w[g < TRACE], flow_scaled["OILKR"][:, cell][g < TRACE], "s", color=colour, ms=5)
            ax_g.plot(g, flow_scaled["GASKR"][:, cell], "o", color=colour, ms=5)
            at_swl = np.abs(w - ends_scaled["SWL"][cell]) < TRACE
            ax_g.plot(g[at_swl], flow_scaled["OILKR"][:, cell][at_swl], "s", color=colour, ms=5)
            ax_p.plot(w, flow_scaled["PCOW"][:, cell], "o", color=colour, ms=5)
            ax_p.plot(g, flow_scaled["PCOG"][:, cell], "s", color=colour, ms=5)
        ax_w.set(title=f"SATNUM {region}: water and oil (Sg = 0)", xlabel="Sw", ylabel="kr", xlim=(0, 1))
        ax_g.set(title=f"SATNUM {region}: gas and oil (Sw = SWL)", xlabel="Sg", ylabel="kr", xlim=(0, 1))
        ax_p.set(title=f"SATNUM {region}: capillary pressure", xlabel="Sw (Pcow), Sg (Pcog)", ylabel="bar",
                 xlim=(0, 1))
        for ax in (ax_w, ax_g, ax_p):
            ax.grid(alpha=0.3)
            ax.legend(fontsize=7, loc="best")
    fig.suptitle("kavra.satfunc: lines; OPM Flow's cells at every report step: dots (grey: unscaled deck)")
    png.parent.mkdir(parents=True, exist_ok=True)
    fig.savefig(png, dpi=90)
    plt.close(fig)


def largest(sf: satfunc.SaturationFunctions, flow: dict[str, np.ndarray]) -> dict[str, float]:
    """The largest difference of each of Flow's arrays to kavra's, over steps and cells, relative to
    the array's largest value."""
    found = {}
    rows = [(sf.relperm(w, g), sf.capillary_pressure(w, g)) for w, g in zip(flow["SWAT"], flow["SGAS"])]
    for name, pick in (("WATKR", lambda k, p: k.water), ("OILKR", lambda k, p: k.oil), ("GASKR", lambda k, p: k.gas),
                       ("PCOW", lambda k, p: p.oil_water), ("PCOG", lambda k, p: p.gas_oil)):
        ours = np.array([pick(k, p) for k, p in rows])
        found[name] = float(np.max(np.abs(ours - flow[name])) / np.max(np.abs(flow[name])))
    return found


def main(argv: Sequence[str] | None = None) -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--png", type=pathlib.Path, default=DEFAULT_PNG, help="where the figure goes")
    args = parser.parse_args(argv)
    with tempfile.TemporaryDirectory() as scratch:
        runs = {}
        for name in ("SATFUNC_SWOF", "SATFUNC_VERTICAL"):
            case = run_flow(name, pathlib.Path(scratch))
            runs[name] = (satfunc.from_deck(kavra.deck.read(case.with_suffix(".DATA"))), flow_steps(case))
    (plain, flow_plain), (scaled, flow_scaled) = runs["SATFUNC_SWOF"], runs["SATFUNC_VERTICAL"]
    cells = chosen_cells(scaled, flow_scaled)
    ends = scaled.end_points
    for cell in cells:
        print(f"cell {cell} (SATNUM {scaled.satnum[cell]}): "
              + ", ".join(f"{k} {ends[k][cell]:.3g}" for k in ("SWL", "SWCR", "SWU", "SGCR", "SGU", "SOWCR", "SOGCR",
                                                               "KRW", "KRO", "KRG", "PCW")))
    for name, (sf, flow) in runs.items():
        print(f"{name}: largest difference to Flow / the array's largest: "
              + ", ".join(f"{k} {v:.1e}" for k, v in largest(sf, flow).items()))
    draw(args.png, plain, scaled, flow_plain, flow_scaled, cells)
    print(f"figure: {args.png}")


if __name__ == "__main__":
    main()
