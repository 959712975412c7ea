"""Volumetrics: the in-place table of a Flow run, and the command line kavra
============================================================================

Run with `python examples/volumetrics.py [--png PATH] [--keep DIR]` (kavra
installed with its results and deck extras, pandas, matplotlib, and the
opm-simulators package for Flow).

Flow runs the two-region deck of the tests (tests/data/TWOREGIONS.DATA:
METRIC, 8 x 6 x 3 cells, three FIPNUM regions, one per layer, and two
equilibration regions side by side) in a temporary directory (or DIR).
:func:`kavra.volumetrics` gives the table per zone, EQLNUM region
and fluid zone at the start and at the last report step, when the injected gas
has made a gas zone; the figure (examples/output/volumetrics.png unless --png
says otherwise) shows STOIIP and GIIP per zone and region at both, and the
hydrocarbon fraction of the pore volume (HCPV / PORV).  The deck alone gives
the table of its initial state (:mod:`kavra.equil`), and scenarios of its
oil-water contact give one long table with a SCENARIO column.  The same table comes
from the shell: ``kavra volumetrics CASE --zones FILE``, and ``kavra map``
draws a column map (examples/output/volumetrics_map.png).
"""

import argparse
import pathlib
import subprocess
import sys
import tempfile
from collections.abc import Sequence

import numpy as np

import kavra.deck
import kavra.equil
import kavra.results
from kavra import volumetrics

# This script's directory, from its own code (sphinx-gallery runs the examples without __file__).
HERE = pathlib.Path((lambda: None).__code__.co_filename).resolve().parent
DEFAULT_PNG = HERE / "output" / "volumetrics.png"
sys.path.insert(0, str(HERE.parent / "tests"))
from flow_cases import run_flow  # noqa: E402  (the decks and schedules of the tests)

ZONES = {"Top": (1, 1), "Lower": (2, 3)}


def kavra_command(*arguments: object) -> None:
    """Runs the command line kavra, printing the command and what it prints."""
    print("\n$ kavra " + " ".join(str(a) for a in arguments))
    done = subprocess.run([sys.executable, "-m", "kavra", *map(str, arguments)], capture_output=True, text=True)
    print((done.stdout + done.stderr).rstrip())


def draw(tables: dict[str, "object"], units: dict[str, str], png: pathlib.Path) -> None:
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    figure, axes = plt.subplots(1, 3, figsize=(15, 4.5), layout="constrained")
    for column, (label, unit) in enumerate((("STOIIP", units["STOIIP"]), ("GIIP", units["GIIP"]))):
        ax = axes[column]
        for offset, (when, table) in enumerate(tables.items()):
            rows = table[table.ZONE != "Totals"].groupby(["ZONE", "REGION"])[label].sum()
            names = [f"{zone}\nEQLNUM {region}" for zone, region in rows.index]
            positions = [i + 0.4 * offset for i in range(len(rows))]
            ax.bar(positions, rows.to_numpy(), width=0.4, label=when)
            ax.set_xticks([i + 0.2 for i in range(len(rows))], names)
        ax.set_ylabel(f"{label} ({unit})")
        ax.set_title(f"{label} per zone and region")
        ax.legend()
    ax = axes[2]
    for offset, (when, table) in enumerate(tables.items()):
        totals = table[table.ZONE == "Totals"].set_index("FLUID")
        fraction = totals.HCPV / totals.PORV
        ax.bar([i + 0.4 * offset for i in range(len(fraction))], fraction.to_numpy(), width=0.4, label=when)
        ax.set_xticks([i + 0.2 for i in range(len(fraction))], [f"{f} zone" for f in fraction.index])
    ax.set_ylabel("HCPV / PORV (fraction)")
    ax.set_title("hydrocarbon fraction of the pore volume")
    ax.legend()
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
        r = kavra.results.read(run_flow("TWOREGIONS", directory))
        tables = {}
        for step in (r.steps[0], r.steps[-1]):
            table = volumetrics(r, step=step, regions="EQLNUM", zones=ZONES)
            tables[f"step {step} ({table.attrs['date'][:10]})"] = table
            print(f"\n{r.case.name} at report step {step}, {table.attrs['date'][:10]} ({table.attrs['units']}):")
            print(table.to_string(index=False, float_format=lambda x: f"{x:.0f}"))
        draw(tables, tables[next(iter(tables))].attrs["column_units"], args.png)

        # The deck alone: its initial state from kavra.equil gives the table of step 0 without Flow,
        # and scenarios of the oil-water contact (here raised from the deck's 2100 m) one long table.
        deck = kavra.deck.read(r.case.with_suffix(".DATA"))
        names = ["deck's contacts", "OWC 2020 m", "OWC 2010 m"]
        states = kavra.equil.initial_state(deck, contacts=[(np.nan, np.nan), (2020.0, np.nan), (2010.0, np.nan)])
        long = volumetrics(deck, state=zip(names, states), regions="EQLNUM")
        units = long.attrs["column_units"]
        print(f"\n{r.case.name}.DATA alone, per scenario of the oil-water contact "
              f"(HCPV {units['HCPV']}, STOIIP {units['STOIIP']}, WIIP {units['WIIP']}):")
        totals = long[long.ZONE == "Totals"].groupby("SCENARIO", sort=False)[["HCPV", "STOIIP", "WIIP"]].sum()
        print(totals.to_string(float_format=lambda x: f"{x:.0f}"))

        zone_file = directory / "zones.lyr"
        zone_file.write_text("".join(f"'{name}' {k1}-{k2}\n" for name, (k1, k2) in ZONES.items()))
        kavra_command("info", r.case)
        kavra_command("volumetrics", r.case, "--step", r.steps[-1], "--regions", "EQLNUM", "--zones", zone_file)
        kavra_command("map", r.case, "SGAS", "--step", r.steps[-1], "--reduce", "mean", "--weights", "PORV",
                      "-o", args.png.with_name("volumetrics_map.png"))


if __name__ == "__main__":
    main()
