"""Example workflow: a small reservoir grid, pushed through the calculations.

Run with `make demo` (or `python examples/workflow.py` once the package is
installed).  Every input is built with tessel; every result is read back
through the zero-copy `.values` view of its grid function.
"""

import numpy as np

import kavra
import tessel


def show(title, values, unit=""):
    values = np.asarray(values)
    print(f"  {title:<28} min {values.min():10.4g}  mean {values.mean():10.4g}  max {values.max():10.4g} {unit}")


def main():
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

    # A bad call: the error names the argument and where the check stands.
    print("\nA float grid function where doubles are required:")
    try:
        kavra.CalcBulkVolume(tessel.FloatGridFunction(n), bulk)
    except RuntimeError as error:
        print("  " + str(error).rstrip("\n").replace("\n", "\n  "))


if __name__ == "__main__":
    main()
