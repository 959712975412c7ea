"""Memory and time of reading one array of one report step from a large restart file.

    python bench/results_memory.py [--cells N] [--steps S] [--rounds R] [--dir DIR]

Writes a case with resfo: CASE.EGRID (GRIDHEAD, ACTNUM) and CASE.UNRST with S
report steps, each an INTEHEAD and PRESSURE, SWAT, SGAS (float32, one value per
active cell): 5*10^7 cells and 4 steps make 2.4 GB.  Two variants of the case:
every cell active, and a tenth of them inactive.  Then each reader opens the
case and reads PRESSURE at the last report step, in a child process of its
own: kavra.results, resfo (lazy_read to the array, read_array, byte order
swapped in place) and opm.io.ecl (ERst).  The child reports how far its peak
resident memory (VmHWM, reset through /proc/self/clear_refs) rose above its
resident memory before the read, and how long the read took; the readers take
turns in each round, and each figure is the median of the rounds.  The file
was just written, so it is read from the page cache.  Linux only.
"""

import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile

import numpy as np
import resfo

READERS = {
    "kavra.results": """
import kavra.results
r = kavra.results.read(case)
before()
values = r.cell_property("PRESSURE", step)
""",
    "resfo": """
import resfo
before()
seen = None
for entry in resfo.lazy_read(case + ".UNRST"):
    keyword = entry.read_keyword().strip()
    if keyword == "SEQNUM":
        seen = int(entry.read_array()[0])
    elif keyword == "PRESSURE" and seen == step:
        values = entry.read_array()
        values = values.byteswap(inplace=True).view(values.dtype.newbyteorder("="))
        break
""",
    "opm.io.ecl": """
import opm.io.ecl
rst = opm.io.ecl.ERst(case + ".UNRST")
before()
values = rst["PRESSURE", step]
""",
}

# What a child runs around a reader: the resident memory before the read
# (after resetting the peak), the peak after it, and the time between.
CHILD = """
import json, sys, time
case, step = sys.argv[1], int(sys.argv[2])

def status(field):
    with open("/proc/self/status") as f:
        return next(int(line.split()[1]) * 1024 for line in f if line.startswith(field + ":"))

def before():
    global rss, start
    with open("/proc/self/clear_refs", "w") as f:
        f.write("5")
    rss, start = status("VmRSS"), time.perf_counter()

{reader}
seconds = time.perf_counter() - start
print(json.dumps({{"growth": status("VmHWM") - rss, "seconds": seconds, "bytes": int(values.nbytes),
                   "mask": int(np.ma.getmask(values).nbytes)}}))
"""


def write_case(base, dims, steps, inactive_fraction, rng):
    """Writes base.EGRID and base.UNRST; returns the active cells and the bytes of one step's arrays."""
    cells = int(np.prod(dims))
    active = np.ones(cells, dtype=np.int32)
    if inactive_fraction:
        active[rng.random(cells) < inactive_fraction] = 0
    nactive = int(active.sum())
    gridhead = np.zeros(100, dtype=np.int32)
    gridhead[:4] = [1, *dims]
    resfo.write(f"{base}.EGRID", [("FILEHEAD", np.zeros(100, np.int32)), ("GRIDHEAD", gridhead),
                                  ("ACTNUM  ", active), ("ENDGRID ", np.zeros(0, np.int32))])
    del active

    def arrays():
        for step in range(steps):
            header = np.zeros(411, dtype=np.int32)
            header[2], header[8:12], header[64:67] = 1, [*dims, nactive], [1, 1 + step, 2030]
            yield "SEQNUM  ", np.array([step], dtype=np.int32)
            yield "INTEHEAD", header
            yield "STARTSOL", resfo.MESS
            for name in ("PRESSURE", "SWAT    ", "SGAS    "):
                yield name, rng.random(nactive, dtype=np.float32)
            yield "ENDSOL  ", resfo.MESS

    resfo.write(f"{base}.UNRST", arrays())
    return nactive, 3 * 4 * nactive


def measure(reader, base, step):
    code = "import numpy as np\n" + CHILD.format(reader=READERS[reader])
    done = subprocess.run([sys.executable, "-c", code, str(base), str(step)], capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"{reader} failed:\n{done.stderr[-2000:]}")
    return json.loads(done.stdout.strip().splitlines()[-1])


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--cells", type=int, default=50_000_000)
    parser.add_argument("--steps", type=int, default=4)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--dir", type=pathlib.Path, default=None, help="where to write the case (a temporary "
                        "directory by default; it needs 2.4 GB at the default size)")
    args = parser.parse_args(argv)
    layer = 500 * 500
    dims = (500, 500, max(1, args.cells // layer))
    rng = np.random.default_rng(7)
    readers = list(READERS)
    print(f"{int(np.prod(dims)):,} cells, {args.steps} report steps of 3 float32 arrays; PRESSURE read at the last "
          f"step; median of {args.rounds} rounds")
    print(f"| cells | reader | read s | peak growth MB | array in file MB | x array in file | x result "
          f"| x step in file |")
    print("|---|---|---:|---:|---:|---:|---:|---:|")
    with tempfile.TemporaryDirectory(dir=args.dir) as directory:
        base = pathlib.Path(directory) / "LARGE"
        for fraction in (0.0, 0.1):
            nactive, step_bytes = write_case(base, dims, args.steps, fraction, rng)
            size = os.path.getsize(f"{base}.UNRST")
            runs = {reader: [] for reader in readers}
            for round_ in range(args.rounds):
                for reader in readers[round_ % len(readers):] + readers[:round_ % len(readers)]:
                    runs[reader].append(measure(reader, base, args.steps - 1))
            label = "all active" if not fraction else f"{fraction:.0%} inactive"
            for reader, figures in runs.items():
                growth = statistics.median(f["growth"] for f in figures)
                seconds = statistics.median(f["seconds"] for f in figures)
                result = figures[0]["bytes"] + figures[0]["mask"]
                in_file = 4 * nactive
                print(f"| {label} ({size / 1e9:.2f} GB UNRST) | {reader} | {seconds:.2f} | {growth / 1e6:.0f} | "
                      f"{in_file / 1e6:.0f} | {growth / in_file:.2f} | {growth / result:.2f} | "
                      f"{growth / step_bytes:.2f} |")


if __name__ == "__main__":
    main()
