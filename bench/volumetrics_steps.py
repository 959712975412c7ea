"""Peak memory of ``kavra volumetrics CASE --all-steps`` over a large restart file, against one step.

    python bench/volumetrics_steps.py                    # 10^7 cells, 10 report steps: a 2 GB restart
    python bench/volumetrics_steps.py --cells 1000000 --steps 4 --dir /tmp/case

Writes a case with resfo beside the generated deck of bench/volumetrics.py
(SPE1's tables, FIELD): CASE.EGRID (GRIDHEAD), CASE.INIT (INTEHEAD, PORV, NTG,
FIPNUM and SATNUM, which the simulators write) and CASE.UNRST with --steps
report steps, each PRESSURE, SWAT, SGAS, RS and RV (float32, 20 bytes a cell a
step).  Then runs the command line in a child process twice: ``--step 0`` (one
table) and ``--all-steps`` (a table per step, into one CSV), and reports each
child's peak resident memory (its own getrusage at the end) and time.  The aim:
--all-steps within 1.2x of one step, whatever the number of steps.

On the shared 2-core machine (load average about 3.3), at 10,240,000 cells and
10 steps (a restart of 2.05 GB): --step 0 peaked at 1.64 GB in 6.8 s,
--all-steps at 1.89 GB in 14.5 s (1.15x one step: from the second step on, the
deck's cell geometry, 0.36 GB, is held while the step's fluids are worked out;
the first step works it out after them).  The tables are the same to the byte
as before.  Before (main at de7cdcb, the same case, run just before): 3.84 GB in
35.3 s and 3.84 GB in 55.3 s.  The 1.5 GB that one step had gained since this
bench was written (2.35 GB then) was opm's EclipseState of the deck of 10^7
cells (1.95 GB held, 2.8 GB while it was built, 22 s), built to read each cell's
SATNUM for the capillary pressures that Results.in_place has taken since the
saturation functions were wired in; it now takes SATNUM from the INIT (the
state is still built for a deck with ENDSCALE, whose end points are read from
it).  Of a step now: opm's parse of the deck 0.58 GB, the cell geometry 0.36 GB,
in_place's arrays 0.98 GB at most (tracemalloc; 1.27 GB before its parts were
let go as they were used); the rest of the table takes less.
"""

import argparse
import pathlib
import subprocess
import sys
import tempfile
import time

import numpy as np
import resfo

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from volumetrics import deck_text  # noqa: E402


def intehead(ni, nj, nk, date=(1, 1, 2020)):
    head = np.zeros(411, dtype=np.int32)
    head[2] = 2  # FIELD
    head[8:11] = (ni, nj, nk)
    head[11] = ni * nj * nk
    head[64:67] = date
    return head


def write_case(base, ni, nj, nk, steps, fip=False):
    """The case BASE.* of --steps report steps; `fip`: each step holds the simulator's FIPOIL, FIPGAS and
    FIPWAT too (RPTRST FIP), made up as PORV x saturation x a formation volume factor."""
    n = ni * nj * nk
    base.with_suffix(".DATA").write_text(deck_text(ni, nj, nk))
    resfo.write(str(base.with_suffix(".EGRID")), [("GRIDHEAD", np.array([1, ni, nj, nk] + [0] * 96, dtype=np.int32))])
    layer = np.repeat(np.arange(nk), ni * nj)
    resfo.write(str(base.with_suffix(".INIT")), [
        ("INTEHEAD", intehead(ni, nj, nk)), ("PORV    ", np.full(n, 100 * 100 * 2 * 0.25 * 0.8 / 5.614583, np.float32)),
        ("NTG     ", np.full(n, 0.8, np.float32)), ("FIPNUM  ", (1 + layer // 10).astype(np.int32)),
        ("SATNUM  ", np.ones(n, np.int32))])
    rng = np.random.default_rng(7)

    def arrays():
        for step in range(steps):
            yield "SEQNUM  ", np.array([step], dtype=np.int32)
            yield "INTEHEAD", intehead(ni, nj, nk, (1, 1 + step % 12, 2020 + step // 12))
            yield "PRESSURE", rng.uniform(4000.0, 5000.0, n).astype(np.float32)
            yield "SWAT    ", np.where(layer > 80, 1.0, 0.12).astype(np.float32)
            yield "SGAS    ", np.where(layer < 10, 0.5 + 0.01 * step, 0.0).astype(np.float32)
            yield "RS      ", np.full(n, 1.27, np.float32)
            yield "RV      ", np.zeros(n, np.float32)
            if fip:
                porv = np.float32(100 * 100 * 2 * 0.25 * 0.8 / 5.614583)
                so = np.where(layer > 80, 0.0, np.where(layer < 10, 0.38 - 0.01 * step, 0.88))
                sg = np.where(layer < 10, 0.5 + 0.01 * step, 0.0)
                oil = (porv * so / 1.2).astype(np.float32)
                yield "FIPOIL  ", oil
                yield "FIPGAS  ", (porv * sg / 0.8 + oil * 1.27).astype(np.float32)
                yield "FIPWAT  ", (porv * np.where(layer > 80, 1.0, 0.12) / 1.01).astype(np.float32)

    resfo.write(str(base.with_suffix(".UNRST")), arrays())


# The child: the command line, then its own peak resident memory (kB) as the last line on stderr.
CHILD = """
import resource, sys
from kavra.cli import main
status = main(sys.argv[1:])
print(resource.getrusage(resource.RUSAGE_SELF).ru_maxrss, file=sys.stderr)
sys.exit(status)
"""


def run(arguments):
    """Runs the command line in a child; its peak resident memory in bytes and its time."""
    start = time.perf_counter()
    done = subprocess.run([sys.executable, "-c", CHILD, *map(str, arguments)], capture_output=True, text=True)
    seconds = time.perf_counter() - start
    if done.returncode != 0:
        raise RuntimeError(done.stderr)
    return int(done.stderr.splitlines()[-1]) * 1024, seconds


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--cells", type=int, default=10_000_000)
    parser.add_argument("--steps", type=int, default=10)
    parser.add_argument("--dir", type=pathlib.Path, default=None, help="where the case goes (default: a temporary one)")
    args = parser.parse_args(argv)
    side = int(round((args.cells / 100) ** 0.5 / 10)) * 10
    with tempfile.TemporaryDirectory() as scratch:
        directory = args.dir or pathlib.Path(scratch)
        directory.mkdir(parents=True, exist_ok=True)
        base = directory / "BIG"
        write_case(base, side, side, 100, args.steps)
        size = base.with_suffix(".UNRST").stat().st_size
        one, one_s = run(["volumetrics", base, "--step", 0, "-o", directory / "one.csv"])
        every, every_s = run(["volumetrics", base, "--all-steps", "-o", directory / "all.csv"])
        print(f"{side * side * 100} cells, {args.steps} report steps, restart {size / 1e9:.2f} GB")
        print(f"  --step 0:    peak {one / 1e9:.2f} GB, {one_s:.1f} s")
        print(f"  --all-steps: peak {every / 1e9:.2f} GB, {every_s:.1f} s ({every / one:.2f}x one step)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
