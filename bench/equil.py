"""The initial state of a deck from EQUIL: kavra.equil against Flow's own initialisation.

    python bench/equil.py [--shape NI NJ NK] [--rounds R] [--scenarios S] [--dir DIR] [--compare]

Writes the dome of tests/data/DOME.DATA (two equilibration regions, one with a gas cap,
capillary pressure in SWOF and SGOF, RSVD) on a grid of 100 x 100 x 100 cells (10^6, all
active), then times:

- from the file, in --rounds interleaved rounds, each side in a fresh child process so that
  neither finds anything read or built before it:
  kavra: ``kavra.deck.read`` (opm's parse) and ``kavra.equil.initial_state`` on all cores
  (opm's grid and properties, kavra's geometry of the cells, the regions' pressure curves,
  every cell's pressures, saturations and Rs);
  Flow: ``opm.simulators.BlackOilSimulator(deck).step_init()`` (its parse of the deck, its
  grid and properties, and its equilibration; no time step);
  each round's ratio is taken from the two runs next to each other, the median printed;
- in this process, on the deck read once: ``initial_state`` again on one thread and on all;
- S scenarios of contacts (``contacts=``) with the fluids in place per FIPNUM region of each
  (``state.in_place()`` and ``kavra.region_totals``).

Printed: each time, and with --compare the largest relative difference of PRESSURE between
kavra and Flow's step 0 (Flow's first report step is run to write the restart).
"""

import argparse
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

import numpy as np

import kavra
import kavra.deck
import kavra.equil
import kavra.results

ROOT = pathlib.Path(__file__).resolve().parent.parent
ALL = len(os.sched_getaffinity(0))

_KAVRA = """
import sys, time
import kavra.deck, kavra.equil
start = time.perf_counter()
deck = kavra.deck.read(sys.argv[1])
read = time.perf_counter()
deck.active  # opm's EclipseState of the deck (its grid and properties) and kavra's geometry of the cells
active = time.perf_counter()
kavra.equil.initial_state(deck)
print("initial_state seconds", time.perf_counter() - start, "read", read - start, "active", active - read, flush=True)
"""

_FLOW = """
import sys, time
import opm.simulators
start = time.perf_counter()
simulator = opm.simulators.BlackOilSimulator(sys.argv[1])
simulator.step_init()
print("step_init seconds", time.perf_counter() - start, flush=True)
if len(sys.argv) > 2:
    simulator.step()
    simulator.step_cleanup()
"""


def dome(ni, nj, nk):
    """The text of DOME.DATA on a grid of ni x nj x nk cells, the dome and the layers scaled to it."""
    text = (ROOT / "tests/data/DOME.DATA").read_text()
    n = ni * nj * nk
    i, j = np.meshgrid(np.arange(ni), np.arange(nj), indexing="xy")
    radius = ((i - (ni - 1) / 2) / ni * 12) ** 2 + ((j - (nj - 1) / 2) / nj * 12) ** 2
    tops = "\n".join(" ".join(f"{t:.3f}" for t in row) for row in 2000 + 0.8 * radius)
    eqlnum = np.where(i < ni // 2, 1, 2)
    fipnum = np.where(j < nj // 2, 1, 2)
    layer = lambda a: "\n".join(" ".join(map(str, row)) for row in a)  # noqa: E731
    text = re.sub(r"DIMENS\n [^/]*/", f"DIMENS\n {ni} {nj} {nk} /", text)
    text = re.sub(r"\n 1440\*", f"\n {n}*", text)
    text = re.sub(r"DZ\n [^/]*/", f"DZ\n {n}*{60.0 / nk:g} /", text)
    text = re.sub(r"TOPS\n[^/]*/", f"TOPS\n{tops}\n/", text)
    text = re.sub(r"EQLNUM\n[^/]*/", "EQLNUM\n" + "\n".join([layer(eqlnum)] * nk) + "\n/", text)
    text = re.sub(r"FIPNUM\n[^/]*/", "FIPNUM\n" + "\n".join([layer(fipnum)] * nk) + "\n/", text)
    return text


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--shape", type=int, nargs=3, default=(100, 100, 100))
    parser.add_argument("--scenarios", type=int, default=100)
    parser.add_argument("--rounds", type=int, default=5, help="rounds of kavra and Flow from the file")
    parser.add_argument("--dir", type=pathlib.Path)
    parser.add_argument("--compare", action="store_true", help="check PRESSURE against Flow's step 0")
    args = parser.parse_args()
    directory = args.dir or pathlib.Path(tempfile.mkdtemp(prefix="kavra-equil-"))
    path = directory / "DOMEBENCH.DATA"
    path.write_text(dome(*args.shape))
    print(f"{np.prod(args.shape)} cells, deck {path}; {ALL} cores")

    ratios = []
    for r in range(args.rounds):
        cold, read, active = child(_KAVRA, path, "initial_state", "read", "active")
        flow, = child(_FLOW, path, "step_init")
        ratios.append(flow / cold)
        print(f"round {r + 1}: from the file, kavra {cold:.2f} s (read {read:.2f} s, the grid and its properties "
              f"{active:.2f} s, the state {cold - read - active:.2f} s), Flow BlackOilSimulator(...).step_init() "
              f"{flow:.2f} s: {flow / cold:.1f}x")
    print(f"median of {args.rounds} rounds: {np.median(ratios):.1f}x")

    deck = kavra.deck.read(path)
    kavra.equil.initial_state(deck)
    states = {}
    for threads in (1, ALL):
        start = time.perf_counter()
        states[threads] = kavra.equil.initial_state(deck, threads=threads)
        print(f"deck read: kavra.equil.initial_state, {threads} thread(s): {time.perf_counter() - start:.2f} s")
    assert np.array_equal(states[1].pressure, states[ALL].pressure)

    fipnum = deck.cell_property("FIPNUM")
    start = time.perf_counter()
    owc = np.linspace(2040.0, 2080.0, args.scenarios)
    scenarios = kavra.equil.initial_state(deck, contacts=[(c, np.nan) for c in owc])
    totals = [kavra.region_totals(np.ma.filled(s.in_place().oil, 0.0), fipnum) for s in scenarios]
    print(f"{args.scenarios} scenarios of contacts, oil in place per FIPNUM region: "
          f"{time.perf_counter() - start:.2f} s (last: {np.asarray(totals[-1]).round(-3)})")

    if args.compare:
        child(_FLOW, path, "step_init", compare=True)
        pressure = kavra.results.read(directory / "DOMEBENCH").cell_property("PRESSURE", 0)
        error = np.abs(states[ALL].pressure - pressure) / pressure
        print(f"PRESSURE against Flow's step 0: largest relative difference {error.max():.1e}")


def child(code, path, label, *parts, compare=False):
    """The seconds that a fresh Python process, running code on the deck, prints after label,
    and those of its parts."""
    done = subprocess.run([sys.executable, "-c", code, str(path), *(["compare"] if compare else [])],
                          cwd=path.parent, capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"{label} failed:\n" + (done.stdout + done.stderr)[-3000:])
    seconds = lambda name: float(re.search(name + r" (?:seconds )?(\S+)", done.stdout).group(1))  # noqa: E731
    return seconds(label), *(seconds(part) for part in parts)

if __name__ == "__main__":
    main()
