"""Example workflow: a small reservoir grid, pushed through the calculations
=========================================================================

Run with `make demo` (or `python examples/workflow.py [--png PATH]` once the
package is installed).  Every input is built with tessel; every result is
read back through the zero-copy `.values` view of its grid function.  The
figure (1/Bo against pressure per region, and a map of the K-averaged
porosity) goes to examples/output/workflow.png unless --png says otherwise.
"""

import argparse
import dataclasses
import pathlib
from collections.abc import Sequence

import numpy as np
from numpy.typing import ArrayLike, NDArray

import kavra
from kavra import tessel

# This script's directory, from its own code (sphinx-gallery runs the examples without __file__).
DEFAULT_PNG = pathlib.Path((lambda: None).__code__.co_filename).resolve().parent / "output" / "workflow.png"

Curve = tuple[NDArray[np.float64], NDArray[np.float64]]  # pressures, 1/Bo


@dataclasses.dataclass
class OilResults:
    pvtnum: NDArray[np.int32]
    po: NDArray[np.float64]
    one_over_bo: NDArray[np.float64]
    curves: dict[int, dict[str, Curve]]  # per region, per sweep


def show(title: str, values: ArrayLike, unit: str = "") -> None:
    values = np.asarray(values)
    print(f"  {title:<28} min {values.min():10.4g}  mean {values.mean():10.4g}  max {values.max():10.4g} {unit}")


def scalar(value: float, category: str, unit: str) -> kavra.TScalar:
    return kavra.TScalar(value, category, unit)


def live_oil_table(rs_values: Sequence[float], pbub_values: Sequence[float], bo_values: Sequence[float],
                   undersaturated_slope: float) -> kavra.TPVTOTable:
    """A live-oil table: one row per Rs, each with two undersaturated pressure rows."""
    table = kavra.TPVTOTable()
    for rs, pbub, bo in zip(rs_values, pbub_values, bo_values):
        row = kavra.TPVTO(scalar(rs, "rs", "sm3/sm3"), scalar(pbub, "pressure", "bar"),
                          scalar(bo, "fvf", "rm3/sm3"), scalar(1.0, "viscosity", "cP"))
        for dp in (100.0, 200.0):
            row.under_sat.append(kavra.TPVT(scalar(pbub + dp, "pressure", "bar"),
                                            scalar(bo - undersaturated_slope * dp, "fvf", "rm3/sm3"),
                                            scalar(1.1, "viscosity", "cP")))
        table.append(row)
    return table


def wet_gas_table(pressures: Sequence[float], rv_values: Sequence[float],
                  bg_values: Sequence[float]) -> kavra.TPVTGTable:
    """A wet-gas table: one row per gas pressure, each with a dry and a rich record."""
    table = kavra.TPVTGTable()
    for pg, rv, bg in zip(pressures, rv_values, bg_values):
        row = kavra.TPVTG(scalar(pg, "pressure", "bar"), scalar(rv, "rv", "sm3/sm3"),
                          scalar(bg, "fvf", "rm3/sm3"), scalar(0.02, "viscosity", "cP"))
        row.under_sat.append(kavra.TPVTGRecord(scalar(0.0, "rv", "sm3/sm3"), scalar(bg * 0.97, "fvf", "rm3/sm3"),
                                               scalar(0.019, "viscosity", "cP")))
        table.append(row)
    return table


def one_over_bo_curves(oil: kavra.TPVTOList, region: int) -> dict[str, Curve]:
    """1/Bo of one region along pressure sweeps: the saturated line (Po = Pbub)
    and the undersaturated branch of each table row but the first (Pbub at
    that row's saturated pressure, Po above it)."""
    sweeps: dict[str, tuple[NDArray[np.float64], NDArray[np.float64]]] = {}
    line = np.linspace(40.0, 340.0, 121)
    sweeps["saturated"] = (line, line)
    table = oil[region - 1]
    for r in range(1, len(table)):
        saturated = table[r].under_sat[0].P
        assert saturated is not None
        po = np.linspace(saturated.value, 400.0, 60)
        sweeps[f"Pbub {saturated.value:.0f} bar"] = (po, np.full(len(po), saturated.value))
    curves: dict[str, Curve] = {}
    for label, (po, pbub) in sweeps.items():
        result = tessel.DoubleGridFunction(len(po))
        kavra.CalcOneOverBo(oil, tessel.IntGridFunction(np.full(len(po), region)), tessel.DoubleGridFunction(po),
                            tessel.DoubleGridFunction(pbub), result)
        curves[label] = (po, result.values.copy())
    return curves


def fluids(rng: np.random.Generator, grid: tessel.ReservoirTopology) -> OilResults:
    """Two PVT regions: bubble point, 1/Bo, 1/Bg and 1/Bw for every cell."""
    n = grid.number_of_cells()
    # Region 1 in the west half of the grid, region 2 in the east; the first column is outside both.
    i = np.arange(n) % grid.nI
    pvtnum = tessel.IntGridFunction(np.where(i < grid.nI // 2, 1, 2))
    pvtnum.values[i == 0] = 0

    oil = kavra.TPVTOList([
        live_oil_table([20.0, 60.0, 100.0, 140.0], [60.0, 140.0, 220.0, 300.0], [1.10, 1.22, 1.34, 1.46], 2e-4),
        live_oil_table([30.0, 80.0, 130.0], [90.0, 190.0, 290.0], [1.15, 1.30, 1.45], 3e-4),
    ])
    gas = kavra.TPVTGList([
        wet_gas_table([100.0, 200.0, 300.0], [2e-4, 5e-4, 9e-4], [0.012, 0.0062, 0.0043]),
        wet_gas_table([120.0, 240.0, 360.0], [3e-4, 6e-4, 1e-3], [0.010, 0.0052, 0.0036]),
    ])
    water = kavra.TPVTWList([
        kavra.TPVTW(scalar(200.0, "pressure", "bar"), scalar(1.02, "fvf", "rm3/sm3"),
                    scalar(4.5e-5, "compressibility", "1/bar"), scalar(0.5, "viscosity", "cP"),
                    scalar(0.0, "viscosibility", "1/bar")),
        kavra.TPVTW(scalar(250.0, "pressure", "bar"), scalar(1.03, "fvf", "rm3/sm3"),
                    scalar(4.0e-5, "compressibility", "1/bar"), scalar(0.45, "viscosity", "cP"),
                    scalar(0.0, "viscosibility", "1/bar")),
    ])

    po = tessel.DoubleGridFunction(rng.uniform(150.0, 320.0, n))
    rs = tessel.DoubleGridFunction(rng.uniform(30.0, 120.0, n))
    pbub = tessel.DoubleGridFunction(n)
    kavra.CalcBubblePointPressure(oil, pvtnum, rs, pbub)
    # Where the bubble point exceeds the oil pressure the oil is saturated at Po.
    saturated = pbub.values > po.values
    pbub.values[saturated] = po.values[saturated]

    one_over_bo = tessel.DoubleGridFunction(n)
    kavra.CalcOneOverBo(oil, pvtnum, po, pbub, one_over_bo)

    pg = tessel.DoubleGridFunction(po.values + 5.0)
    pdew = tessel.DoubleGridFunction(rng.uniform(150.0, 330.0, n))
    rv = tessel.DoubleGridFunction(rng.uniform(0.0, 8e-4, n))
    one_over_bg = tessel.DoubleGridFunction(n)
    kavra.CalcOneOverBg(gas, pvtnum, pg, pdew, rv, one_over_bg)

    one_over_bw = tessel.DoubleGridFunction(n)
    kavra.CalcOneOverBw(water, pvtnum, po, one_over_bw)

    print("\nFluids, two PVT regions (region 0 cells get 0.0)")
    for region in (1, 2):
        cells = pvtnum.values == region
        print(f" region {region}: {np.count_nonzero(cells)} cells")
        show("bubble point", pbub.values[cells], "bar")
        show("1/Bo", one_over_bo.values[cells], "sm3/rm3")
        show("1/Bg", one_over_bg.values[cells], "sm3/rm3")
        show("1/Bw", one_over_bw.values[cells], "sm3/rm3")
    print(f" saturated oil cells: {np.count_nonzero(saturated & (pvtnum.values > 0))}")
    print(f" InterpolateB on the undersaturated rows of one oil row, 175 bar: "
          f"{kavra.InterpolateB(oil[0][1].under_sat, 175.0):.5f} rm3/sm3")
    return OilResults(pvtnum.values, po.values, one_over_bo.values,
                      {region: one_over_bo_curves(oil, region) for region in (1, 2)})


def rock_and_pinch_outs(rng: np.random.Generator, grid: tessel.ReservoirTopology,
                        poro: tessel.DoubleGridFunction) -> None:
    """Porosity under pressure per rock region, then pinch-outs in a selection."""
    n = grid.number_of_cells()
    rock = kavra.TRockList([
        kavra.TRock(scalar(250.0, "pressure", "bar"), scalar(4.5e-5, "compressibility", "1/bar")),
        kavra.TRock(scalar(230.0, "pressure", "bar"), scalar(8.0e-5, "compressibility", "1/bar")),
    ])
    # Two rock regions side by side in I; the first column of cells is inactive (0).
    i = np.arange(n) % grid.nI
    pvtnum = tessel.IntGridFunction(np.where(i == 0, 0, np.where(i < grid.nI // 2, 1, 2)))
    po = tessel.DoubleGridFunction(rng.uniform(150.0, 350.0, n))
    porosity = tessel.DoubleGridFunction(np.full(n, -1.0))
    kavra.CalcPorosity(rock, pvtnum, po, poro, porosity)
    active = pvtnum.values > 0
    print("\nPorosity under pressure")
    show("reference PORO", poro.values[active])
    show("at cell pressure", porosity.values[active])
    print(f"  {'inactive cells kept at -1':<28} {np.count_nonzero(porosity.values == -1.0)}")

    # A selection of two columns; layer 2 of column (3, 4) is pinched out, so
    # layers 1 and 3 connect directly (and, listed once more, 1 and 4).  The
    # connection in column (9, 9) lies outside the selection.
    def cell(i: int, j: int, k: int) -> int:
        return i + grid.nI * (j + grid.nJ * k)

    picked = [[i, j, k] for (i, j) in ((3, 4), (4, 4)) for k in range(grid.nK) if (i, j, k) != (3, 4, 2)]
    selection = tessel.ReservoirSelectionTopology(grid, picked)
    tran_k = tessel.SelectionViewGridFunction(selection, tessel.DoubleGridFunction(len(picked)))
    nnc1 = tessel.IntVector([cell(3, 4, 1), cell(3, 4, 1), cell(3, 4, 0), cell(3, 4, 1), cell(9, 9, 0)])
    nnc2 = tessel.IntVector([cell(3, 4, 3), cell(4, 4, 2), cell(4, 4, 5), cell(3, 4, 4), cell(9, 9, 3)])
    print("\nPinch-outs in a two-column selection")
    print(f"  before: {list(zip(nnc1, nnc2))}")
    kavra.CalcTransmissibilityK(nnc1, nnc2, selection, tran_k)
    print(f"  kept (between columns): {list(zip(nnc1, nnc2))}")
    marked = [tuple(int(v) for v in c) for c, m in zip(selection.selected_cells, tran_k.values) if m == 1.0]
    print(f"  marked first cells (i, j, k): {marked}")


def draw(png: pathlib.Path, grid: tessel.ReservoirTopology, poro_avg: NDArray[np.float64],
         oil: OilResults) -> None:
    """The figure: 1/Bo against pressure per region, and the K-averaged porosity map."""
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    from matplotlib.ticker import MaxNLocator

    figure, (left, right) = plt.subplots(1, 2, figsize=(11.0, 4.4), layout="constrained")
    for region, color in ((1, "tab:blue"), (2, "tab:orange")):
        cells = oil.pvtnum == region
        left.scatter(oil.po[cells], oil.one_over_bo[cells], s=4, color=color, alpha=0.25, linewidths=0)
        for label, (p, value) in oil.curves[region].items():
            saturated = label == "saturated"
            left.plot(p, value, color=color, linewidth=2.0 if saturated else 1.0, linestyle="-" if saturated else "--",
                      label=f"region {region}" if saturated else None)
    left.set_xlabel("oil pressure Po [bar]")
    left.set_ylabel("1/Bo [sm3/rm3]")
    left.set_title("1/Bo: saturated line (solid), undersaturated branches (dashed), cells (dots)", fontsize=9)
    left.legend()

    layer = poro_avg.reshape(grid.nK, grid.nJ, grid.nI)[0]  # equal in every layer
    image = right.imshow(layer, origin="lower", cmap="viridis", aspect="equal")
    right.xaxis.set_major_locator(MaxNLocator(integer=True))
    right.yaxis.set_major_locator(MaxNLocator(integer=True))
    right.set_xlabel("I")
    right.set_ylabel("J")
    right.set_title(f"KAverage of porosity over {grid.nK} layers", fontsize=9)
    figure.colorbar(image, ax=right, label="porosity")
    png.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(png, dpi=110)
    plt.close(figure)
    print(f"\nFigure written to {png}")


def main(argv: Sequence[str] | None = None) -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--png", type=pathlib.Path, default=DEFAULT_PNG, help="where the figure goes")
    args = parser.parse_args(argv)
    rng = np.random.default_rng(7)
    grid = tessel.ReservoirTopology(20, 15, 6)
    n = grid.number_of_cells()
    print(f"Grid {grid}: {n} cells")

    # Rock: pore volume and porosity per cell; a few cells are pinched out (porosity 0).
    poro = tessel.DoubleGridFunction(rng.uniform(0.08, 0.32, n))
    poro.values[rng.choice(n, 40, replace=False)] = 0.0
    porv = tessel.DoubleGridFunction(poro.values * rng.uniform(900.0, 1100.0, n))
    ntg = tessel.DoubleGridFunction(rng.uniform(0.6, 1.0, n))

    bulk = tessel.DoubleGridFunction(n)
    kavra.CalcBulkVolume(porv, poro, bulk)
    print("\nBulk volume")
    show("from PORV / PORO", bulk.values, "rm3")
    kavra.CalcBulkVolume(ntg, bulk)
    show("after net-to-gross", bulk.values, "rm3")
    print(f"  {'inactive cells (0.0)':<28} {np.count_nonzero(bulk.values == 0.0)}")

    # Dissolved gas ratio from component quantities.
    oil = tessel.DoubleGridFunction(rng.uniform(50.0, 80.0, n))
    gas = tessel.DoubleGridFunction(oil.values * rng.uniform(60.0, 140.0, n))
    rs = tessel.DoubleGridFunction(n)
    kavra.CalcRsFromComponents(oil, gas, rs)
    print("\nRs from components")
    show("Rs", rs.values, "sm3/sm3")

    # Column averages: every cell gets the mean porosity of its (I, J) column,
    # pinched-out cells included.
    print("\nK-average of porosity")
    poro_avg = kavra.KAverage(grid, poro.values)
    show("per-column mean", poro_avg)
    layers = poro_avg.reshape(grid.nK, grid.nJ, grid.nI)
    print(f"  {'equal in every layer':<28} {bool((layers == layers[0]).all())}")

    rock_and_pinch_outs(rng, grid, poro)
    oil_results = fluids(rng, grid)

    # A bad call: the error names the argument and where the check stands.
    print("\nA float grid function where doubles are required:")
    try:
        kavra.CalcBulkVolume(tessel.FloatGridFunction(n), bulk)  # type: ignore[call-overload]  # on purpose
    except RuntimeError as error:
        print("  " + str(error).rstrip("\n").replace("\n", "\n  "))

    draw(args.png, grid, poro_avg, oil_results)


if __name__ == "__main__":
    main()
