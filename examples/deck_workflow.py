"""Deck workflow: two public SPE decks read with kavra.deck and pushed through the calculations
============================================================================================

Run with `make demo` (or `python examples/deck_workflow.py [--out DIR]` once the
package is installed with its deck extra, `pip install '.[deck]'`).

- SPE1CASE1 (live oil): the initial oil pressure of every cell from EQUIL and
  DENSITY, Rs from RSVD, then the bubble point, 1/Bo, the porosity under
  pressure from ROCK and its K-average per column.
- SPE3CASE1 (wet gas): the initial gas pressure from EQUIL, DENSITY and the gas
  table, then 1/Bg from PVTG, the porosity under pressure and its K-average.

Each deck gets a summary table per layer and a figure in DIR (default
examples/output): 1/B against pressure per PVT region with the deck's table
points, a vertical section of the initial pressure, and the map of the
K-averaged porosity.  All numbers stay in the deck's units (both decks are
FIELD: psia, ft, lb/ft3).
"""

import argparse
import pathlib
from collections.abc import Sequence
from typing import Any

import numpy as np
from numpy.typing import NDArray

import kavra
import kavra.deck
from kavra.tables import UNIT_LABELS

# This script's directory, from its own code (sphinx-gallery runs the examples without __file__).
HERE = pathlib.Path((lambda: None).__code__.co_filename).resolve().parent
DEFAULT_OUT = HERE / "output"

# FIELD units: a stock-tank barrel (and a reservoir barrel) holds 5.614583 ft3,
# gas ratios count Mscf (1000 scf), and a column of fluid of 1 lb/ft3 weighs
# 1/144 psi per ft of height.
FT3_PER_BBL = 5.614583
SCF_PER_MSCF = 1000.0
PSI_PER_FT_PER_LB_FT3 = 1.0 / 144.0

Floats = NDArray[np.float64]


def layer_table(deck: kavra.deck.Deck, columns: dict[str, tuple[str, Floats]]) -> None:
    """One line per layer: the mean of each quantity over the layer's active cells."""
    grid, active = deck.grid, deck.active.reshape(deck.grid.nK, -1)
    print("  " + " ".join(f"{title:>13}" for title in ["layer", *columns]))
    print("  " + " ".join(f"{unit:>13}" for unit in ["", *(unit for unit, _ in columns.values())]))
    for k in range(grid.nK):
        cells = active[k]
        means = [values.reshape(grid.nK, -1)[k][cells].mean() for _, values in columns.values()]
        print("  " + f"{k + 1:>13d} " + " ".join(f"{value:>13.6g}" for value in means))


def spe1(out: pathlib.Path) -> None:
    deck = kavra.deck.read(kavra.deck.example_path("SPE1CASE1"))
    units = UNIT_LABELS[deck.units]
    assert deck.units == "FIELD", "the constants above are FIELD units"
    assert deck.pvto is not None and deck.rock is not None
    n = deck.grid.number_of_cells()
    pvtnum = deck.cell_property("PVTNUM")
    depth = deck.cell_depths()  # of each cell's centre

    # Rs of every cell from RSVD (Rs against depth, linear between its rows).
    rsvd = deck.records("RSVD")[0].reshape(-1, 2)
    rs = np.interp(depth, rsvd[:, 0], rsvd[:, 1])

    # Initial oil pressure from EQUIL: the datum pressure at the datum depth,
    # and the weight of the oil column above or below it.  The oil's reservoir
    # density comes from DENSITY and the oil table at the datum: a stock-tank
    # barrel of oil (rho_o) with its Rs of dissolved gas (rho_g per scf)
    # fills Bo reservoir barrels, so rho = (rho_o + Rs * 1000 * rho_g / 5.614583) / Bo
    # in lb/ft3.  Bo (through 1/Bo) is taken at the datum pressure with the
    # datum's Rs; the gradient is kept constant over the thin oil column.
    datum_depth, datum_pressure = deck.equil[0].datum_depth, deck.equil[0].datum_pressure
    assert deck.density is not None
    rho_oil, _, rho_gas = deck.density.regions[0]
    rs_datum = float(np.interp(datum_depth, rsvd[:, 0], rsvd[:, 1]))
    pbub_datum = kavra.bubble_point_pressure(deck.pvto, [1], [rs_datum])
    one_over_bo_datum = kavra.one_over_bo(deck.pvto, [1], [datum_pressure], np.minimum(pbub_datum, datum_pressure))
    density = (rho_oil + rs_datum * SCF_PER_MSCF * rho_gas / FT3_PER_BBL) * float(one_over_bo_datum[0])
    gradient = density * PSI_PER_FT_PER_LB_FT3
    po = datum_pressure + gradient * (depth - datum_depth)

    # Bubble point from Rs; where it lies above the oil pressure the oil is
    # saturated at that pressure.
    pbub = np.minimum(kavra.bubble_point_pressure(deck.pvto, pvtnum, rs), po)
    one_over_bo = kavra.one_over_bo(deck.pvto, pvtnum, po, pbub)
    porosity = kavra.porosity(deck.rock, pvtnum, po, deck.cell_property("PORO"))
    porosity_avg = kavra.kaverage(porosity, deck.grid, active=deck.active)

    print(f"SPE1CASE1: {deck.grid.nI} x {deck.grid.nJ} x {deck.grid.nK} cells, {deck.units} units, "
          f"{len(deck.pvto)} PVT region(s), {np.count_nonzero(deck.active)} of {n} cells active")
    print(f"  EQUIL datum {datum_depth:g} ft at {datum_pressure:g} {units['pressure']}; oil density "
          f"{density:.4g} lb/ft3 at the datum, gradient {gradient:.5f} psi/ft")
    layer_table(deck, {"depth": ("ft", depth), "Po": (units["pressure"], po), "Rs": (units["rs"], rs),
                       "Pbub": (units["pressure"], pbub), "1/Bo": ("stb/rb", one_over_bo),
                       "porosity": ("", porosity)})

    curves = {region: oil_curves(deck, region) for region in range(1, len(deck.pvto) + 1)}
    draw(out / "deck_spe1.png", deck, "SPE1CASE1 live oil", "1/Bo", "stb/rb", "oil pressure Po",
         curves, pvtnum, po, one_over_bo, porosity_avg)


def oil_curves(deck: kavra.deck.Deck, region: int) -> dict[str, Any]:
    """1/Bo of one region along the saturated line (Po = Pbub over the table's
    bubble points) and up each undersaturated branch of the deck (Pbub at the
    record's bubble point, Po up to its last pressure); the deck's points."""
    assert deck.pvto is not None
    records = deck.pvto.regions[region - 1]
    bubble = np.array([r[1] for r in records])
    line = np.linspace(bubble[0], bubble[-1], 200)
    curves: dict[str, Any] = {"lines": [("saturated", line, kavra.one_over_bo(deck.pvto, np.full(200, region), line, line))]}
    for record in records:
        if len(record) > 4:
            po = np.linspace(record[1], record[-3], 60)
            curves["lines"].append((f"undersaturated, Pbub {record[1]:g}", po,
                                    kavra.one_over_bo(deck.pvto, np.full(60, region), po, np.full(60, record[1]))))
    rows = np.concatenate([r[1:].reshape(-1, 3) for r in records])
    curves["points"] = (rows[:, 0], 1.0 / rows[:, 1])
    return curves


def spe3(out: pathlib.Path) -> None:
    deck = kavra.deck.read(kavra.deck.example_path("SPE3CASE1"))
    units = UNIT_LABELS[deck.units]
    assert deck.units == "FIELD", "the constants above are FIELD units"
    assert deck.pvtg is not None and deck.rock is not None
    n = deck.grid.number_of_cells()
    pvtnum = deck.cell_property("PVTNUM")
    depth = deck.cell_depths()  # of each cell's centre
    gas = deck.pvtg.regions[0]

    # The gas in place is the richest gas of the table: the largest Rv of a
    # saturated point, whose dew point is the lowest gas pressure that carries it.
    saturated_rv = np.array([record[1] for record in gas])
    rv_initial = float(saturated_rv.max())
    pdew_initial = float(next(record[0] for record in gas if record[1] == rv_initial))
    rv = np.full(n, rv_initial)
    pdew = np.full(n, pdew_initial)

    # Initial gas pressure from EQUIL (the whole grid lies above its contacts,
    # in the gas).  The gas's reservoir density comes from DENSITY and the gas
    # table at the datum: an Mscf of gas (1000 * rho_g lb) with its Rv stock-tank
    # barrels of oil (Rv * 5.614583 * rho_o lb) fills Bg reservoir barrels, so
    # rho = (1000 * rho_g + Rv * 5.614583 * rho_o) / (Bg * 5.614583) in lb/ft3.
    datum_depth, datum_pressure = deck.equil[0].datum_depth, deck.equil[0].datum_pressure
    assert deck.density is not None
    rho_oil, _, rho_gas = deck.density.regions[0]
    one_over_bg_datum = float(kavra.one_over_bg(deck.pvtg, [1], [datum_pressure], [pdew_initial], [rv_initial])[0])
    density = (SCF_PER_MSCF * rho_gas + rv_initial * FT3_PER_BBL * rho_oil) * one_over_bg_datum / FT3_PER_BBL
    gradient = density * PSI_PER_FT_PER_LB_FT3
    pg = datum_pressure + gradient * (depth - datum_depth)

    one_over_bg = kavra.one_over_bg(deck.pvtg, pvtnum, pg, pdew, rv)
    porosity = kavra.porosity(deck.rock, pvtnum, pg, deck.cell_property("PORO"))
    porosity_avg = kavra.kaverage(porosity, deck.grid, active=deck.active)

    print(f"\nSPE3CASE1: {deck.grid.nI} x {deck.grid.nJ} x {deck.grid.nK} cells, {deck.units} units, "
          f"{len(deck.pvtg)} PVT region(s), {np.count_nonzero(deck.active)} of {n} cells active")
    print(f"  EQUIL datum {datum_depth:g} ft at {datum_pressure:g} {units['pressure']}; gas Rv {rv_initial:.6g} "
          f"{units['rv']}, dew point {pdew_initial:g} {units['pressure']}; gas density {density:.4g} lb/ft3, "
          f"gradient {gradient:.5f} psi/ft")
    layer_table(deck, {"depth": ("ft", depth), "Pg": (units["pressure"], pg),
                       "1/Bg": ("Mscf/rb", one_over_bg), "porosity": ("", porosity)})

    curves = {region: gas_curves(deck, region, pdew_initial, rv_initial) for region in range(1, len(deck.pvtg) + 1)}
    draw(out / "deck_spe3.png", deck, "SPE3CASE1 wet gas", "1/Bg", "Mscf/rb", "gas pressure Pg",
         curves, pvtnum, pg, one_over_bg, porosity_avg)


def gas_curves(deck: kavra.deck.Deck, region: int, pdew: float, rv: float) -> dict[str, Any]:
    """1/Bg of one region for the gas in place (its Rv and dew point) over the
    table's pressures, strictly inside them (at and beyond the first and last
    rows the calculation falls back to the saturated line); every record of
    the deck as a point."""
    assert deck.pvtg is not None
    records = deck.pvtg.regions[region - 1]
    pressures = np.array([r[0] for r in records])
    pg = np.linspace(pressures[0], pressures[-1], 402)[1:-1]
    ones = np.ones(len(pg))
    line = kavra.one_over_bg(deck.pvtg, np.full(len(pg), region), pg, pdew * ones, rv * ones)
    points = np.concatenate([np.column_stack([np.full(len(r) // 3, r[0]), 1.0 / r[2::3]]) for r in records])
    curves: dict[str, Any] = {"lines": [(f"Rv {rv:.4g}, dew point {pdew:g}", pg, line)], "points": points.T}
    # A row with further records lists them as the deck does, from the
    # saturated Rv down.  The lookup within a row's records brackets Rv among
    # them in ascending order, so for the saturated Rv of such a row it extends
    # the bracket of its two last records: the line ends below that row's
    # saturated point.
    last = records[-1]
    if len(last) > 4:
        curves["note"] = (f"{last[0]:g} {UNIT_LABELS[deck.units]['pressure']}: {len(last) // 3} records, "
                          f"Rv from {last[1]:.3g} down to {last[-3]:.3g};\nthe line ends below its saturated point", (last[0], 1.0 / last[2]))
    return curves


def draw(png: pathlib.Path, deck: kavra.deck.Deck, title: str, quantity: str, unit: str, pressure_name: str,
         curves: dict[int, dict[str, Any]], pvtnum: NDArray[np.int32], pressure: Floats, cell_values: Floats,
         porosity_avg: Floats) -> None:
    """1/B against pressure per region, a section of the pressure, the porosity map."""
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    from matplotlib.ticker import MaxNLocator

    p_unit = UNIT_LABELS[deck.units]["pressure"]
    grid = deck.grid
    regions = sorted(curves)
    figure, axes = plt.subplots(1, len(regions) + 2, figsize=(5.2 * (len(regions) + 2), 4.6), layout="constrained")
    figure.suptitle(f"{title}: {grid.nI} x {grid.nJ} x {grid.nK} cells, {deck.units} units")
    for axis, region in zip(axes, regions):
        for index, (label, p, values) in enumerate(curves[region]["lines"]):
            axis.plot(p, values, linewidth=2.0 if index == 0 else 1.2, linestyle="-" if index == 0 else "--",
                      label=label)
        axis.plot(*curves[region]["points"], "o", markersize=4, color="black", fillstyle="none", label="deck table")
        if "note" in curves[region]:
            text, (x, y) = curves[region]["note"]
            axis.annotate(text, xy=(x, y), xytext=(0.04, 0.9), textcoords="axes fraction", ha="left", va="top", fontsize=8,
                          arrowprops={"arrowstyle": "->", "color": "gray"})
        cells = pvtnum == region
        axis.plot(pressure[cells], cell_values[cells], "*", markersize=10, color="tab:red",
                  label=f"cells at initial pressure ({np.count_nonzero(cells)})")
        axis.set_xlabel(f"{pressure_name} [{p_unit}]")
        axis.set_ylabel(f"{quantity} [{unit}]")
        axis.set_title(f"{quantity}, PVT region {region}", fontsize=10)
        axis.legend(fontsize=8)

    # A section along I at J = 1, cells drawn at their depths (layers of the deck's thickness).
    section = axes[-2]
    tops = deck.cell_property("TOPS").reshape(grid.nK, grid.nJ, grid.nI)[:, 0, :]
    bottoms = tops + deck.cell_property("DZ").reshape(grid.nK, grid.nJ, grid.nI)[:, 0, :]
    edges = np.append(tops.mean(axis=1), bottoms[-1].mean())
    values = pressure.reshape(grid.nK, grid.nJ, grid.nI)[:, 0, :]
    image = section.pcolormesh(np.arange(grid.nI + 1) + 0.5, edges, values, cmap="viridis", edgecolors="white",
                               linewidth=0.3)
    section.invert_yaxis()
    section.set_xlabel("I")
    section.set_ylabel("depth [ft]")
    section.xaxis.set_major_locator(MaxNLocator(integer=True))
    section.set_title(f"Initial pressure, section at J = 1 ({grid.nK} layers)", fontsize=10)
    figure.colorbar(image, ax=section, label=f"{pressure_name} [{p_unit}]")

    layer = porosity_avg.reshape(grid.nK, grid.nJ, grid.nI)[0]  # equal in every layer
    spread = float(layer.max() - layer.min())
    centre = float(layer.mean())
    half = max(spread / 2.0, 1e-4 * centre)  # a uniform map still gets a readable colour bar
    image = axes[-1].imshow(layer, origin="lower", cmap="viridis", aspect="equal", interpolation="nearest",
                            vmin=centre - half, vmax=centre + half,
                            extent=(0.5, grid.nI + 0.5, 0.5, grid.nJ + 0.5))  # cells counted from 1
    axes[-1].set_xlabel("I")
    axes[-1].set_ylabel("J")
    axes[-1].xaxis.set_major_locator(MaxNLocator(integer=True))
    axes[-1].yaxis.set_major_locator(MaxNLocator(integer=True))
    axes[-1].set_title(f"K-average of porosity at initial pressure\n(over {grid.nK} layers; "
                       f"{'uniform: flat, laterally uniform layers' if spread == 0.0 else 'per column'})",
                       fontsize=10)
    bar = figure.colorbar(image, ax=axes[-1], label="porosity", format="%.6g")
    if spread == 0.0:
        bar.set_ticks([centre])
    png.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(png, dpi=100)
    plt.close(figure)
    print(f"  Figure written to {png}")


def main(argv: Sequence[str] | None = None) -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--out", type=pathlib.Path, default=DEFAULT_OUT, help="where the figures go")
    args = parser.parse_args(argv)
    spe1(args.out)
    spe3(args.out)


if __name__ == "__main__":
    main()
