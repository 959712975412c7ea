"""Simulation cases for the tests and examples: the SPE decks that ship with kavra and the decks
of tests/data, run with OPM Flow.

The SPE decks have no SCHEDULE.  Each of their cases adds files of tests/data
to its deck (CASES): the restart output, summary and schedule before END, and
for SPE3 inactive cells at the end of the GRID section.  The decks of
tests/data (EDITED: edited properties and two PVT regions; FAULTED: corner
points; CROSSED: those corner points crossing and overlapping; ENDPOINTS: end-point scaling,
region numbers left to their defaults; TWOREGIONS: METRIC, two PVT regions, for kavra.blackoil;
SPE9: our own deck modelled on the SPE ninth comparative problem, see its header)
are whole, and run as they are.  `run_flow` writes the deck
into a directory and runs Flow there (package opm-simulators), in a child
process: Flow writes its files beside the deck, prints its progress and keeps
state between runs.

    from flow_cases import flow_case   # a fixture: the case's base path

    @pytest.mark.parametrize("flow_case", ["SPE1CASE1"], indirect=True)
    def test_something(flow_case): ...
"""

import os
import pathlib
import subprocess
import sys

import pytest

from kavra.deck import EXAMPLES, example_path

DATA = pathlib.Path(__file__).resolve().parent / "data"

# For each deck: the file of tests/data that goes in before the deck's line of that keyword.
CASES = {
    "SPE1CASE1": {"END": "SPE1CASE1.SCHEDULE.INC"},
    "SPE3CASE1": {"PROPS": "SPE3CASE1.GRID.INC", "END": "SPE3CASE1.SCHEDULE.INC"},
    "EDITED": {},
    "FAULTED": {},
    "CROSSED": {},
    "ENDPOINTS": {},
    "TWOREGIONS": {},
    # The saturation-function cases start from SATFUNC.DATA ("FROM"); a tuple puts several files in.
    "SATFUNC_SWOF": {"FROM": "SATFUNC", "REGIONS": "SATFUNC_SWOF.INC"},
    "SATFUNC_FAMILY": {"FROM": "SATFUNC", "REGIONS": "SATFUNC_FAMILY.INC"},
    "SATFUNC_SLGOF": {"FROM": "SATFUNC", "REGIONS": "SATFUNC_SLGOF.INC"},
    "SATFUNC_ENDSCALE": {"FROM": "SATFUNC", "START": "SATFUNC_ENDSCALE.START.INC",
                         "REGIONS": ("SATFUNC_SWOF.INC", "SATFUNC_ENDSCALE.INC")},
    "SATFUNC_VERTICAL": {"FROM": "SATFUNC", "START": "SATFUNC_ENDSCALE.START.INC",
                         "REGIONS": ("SATFUNC_SWOF.INC", "SATFUNC_ENDSCALE.INC", "SATFUNC_VERTICAL.INC")},
    "SATFUNC_SCALECRS": {"FROM": "SATFUNC", "START": "SATFUNC_ENDSCALE.START.INC",
                         "REGIONS": ("SATFUNC_SWOF.INC", "SATFUNC_ENDSCALE.INC", "SATFUNC_VERTICAL.INC",
                                     "SATFUNC_SCALECRS.INC")},
    "SATFUNC_STONE1": {"FROM": "SATFUNC", "START": "SATFUNC_ENDSCALE.START.INC",
                       "REGIONS": ("SATFUNC_SWOF.INC", "SATFUNC_ENDSCALE.INC", "SATFUNC_STONE1.INC")},
    "SATFUNC_STONE2": {"FROM": "SATFUNC", "START": "SATFUNC_ENDSCALE.START.INC",
                       "REGIONS": ("SATFUNC_SWOF.INC", "SATFUNC_ENDSCALE.INC", "SATFUNC_STONE2.INC")},
    "DOME": {},
    "DOME2": {},
    "DOME_ESP": {},
    "TRANSITION": {},
    "TRANSITION_ESP": {},
    "TRANSITION_SWATINIT": {},
    "SWATINIT_SLICES": {},
    "TRANSITION_SWATINIT_ENDSCALE": {"FROM": "TRANSITION_SWATINIT", "START": "TRANSITION_SWATINIT_ENDSCALE.START.INC",
                                     "SOLUTION": "TRANSITION_SWATINIT_ENDSCALE.INC",
                                     "TSTEP": "TRANSITION_SWATINIT_ENDSCALE.SCHEDULE.INC"},
    "GASWATER": {},
    "GASWATER_SWATINIT": {"FROM": "GASWATER", "SOLUTION": "GASWATER_SWATINIT.INC"},
    "MIXEDPVT": {},
    "SPE9": {},
    "DEEPCONTACT": {},
    "DEEPCONTACT_FIELD": {},
    "LEVELPC": {},
    "LEVELPC_ENDSCALE": {"FROM": "LEVELPC", "START": "SATFUNC_ENDSCALE.START.INC", "SWOF": "LEVELPC_ENDSCALE.INC"},
    "GASWATER_LEVEL": {},
    # the domes and SPE9 with Flow's region report of the initial state in the PRT file (RPTSOL 'FIP=2')
    "DOME_FIP": {"FROM": "DOME", "RPTRST": "RPTSOL_FIP2.INC"},
    "DOME2_FIP": {"FROM": "DOME2", "RPTRST": "RPTSOL_FIP2.INC"},
    "SPE9_FIP": {"FROM": "SPE9", "RPTRST": "RPTSOL_FIP2.INC"},
}

_RUN = """
import sys
import opm.simulators
simulator = opm.simulators.BlackOilSimulator(sys.argv[1])
simulator.step_init()
while not simulator.check_simulation_finished():
    simulator.step()
simulator.step_cleanup()
"""


def write_deck(name, directory, unified=True):
    """Writes deck `name` of CASES, with its additions, to directory/name.DATA; returns that path.

    unified=False leaves out UNIFIN and UNIFOUT: Flow then writes a restart file per report
    step (name.X0000, ...) and a summary file per report step (name.S0001, ...).
    """
    additions = dict(CASES[name])
    base = additions.pop("FROM", name)
    lines, seen = [], set()
    source = example_path(base) if base in EXAMPLES else DATA / f"{base}.DATA"
    for line in source.read_text().splitlines():
        if not unified and line.strip() in ("UNIFIN", "UNIFOUT"):
            continue
        if line.strip() in additions:
            files = additions[line.strip()]
            for file in (files,) if isinstance(files, str) else files:
                lines += [(DATA / file).read_text(), ""]
            seen.add(line.strip())
        lines.append(line)
    assert seen == set(additions), f"{base}.DATA has no line {set(additions) - seen} to put an addition before"
    text = "\n".join(lines) + "\n"
    deck = pathlib.Path(directory) / f"{name}.DATA"
    deck.write_text(text)
    return deck


def flow(deck, simulator="BlackOilSimulator"):
    """Runs Flow (opm.simulators' `simulator`) on the deck file `deck`, beside it, in a child process.

    Flow is the yardstick, not what is tested: the child runs without the sanitizer runtimes that
    make sanitize preloads (they abort on opm's own faults when it exits)."""
    environment = {key: value for key, value in os.environ.items()
                   if key not in ("LD_PRELOAD", "ASAN_OPTIONS", "UBSAN_OPTIONS")}
    done = subprocess.run([sys.executable, "-c", _RUN.replace("BlackOilSimulator", simulator), str(deck)],
                          cwd=pathlib.Path(deck).parent, capture_output=True, text=True, timeout=600, env=environment)
    if done.returncode != 0:
        raise RuntimeError(f"Flow failed on {deck} (exit status {done.returncode}):\n"
                           + (done.stdout + done.stderr)[-3000:])
    return pathlib.Path(deck).with_suffix("")


def run_flow(name, directory, unified=True):
    """Runs Flow on deck `name` of CASES in `directory`; returns the case's base path (directory/name)."""
    return flow(write_deck(name, directory, unified))


@pytest.fixture(scope="session")
def flow_run(tmp_path_factory):
    """run(name, unified=True): the base path of case `name` of CASES, run with Flow once in the session."""
    pytest.importorskip("opm.simulators", reason="OPM Flow is not installed (pip install opm-simulators)")
    runs = {}

    def run(name, unified=True):
        if (name, unified) not in runs:
            runs[name, unified] = run_flow(name, tmp_path_factory.mktemp(name), unified)
        return runs[name, unified]

    return run


@pytest.fixture
def flow_case(request, flow_run):
    """The base path of the case named by the test's parameter (indirect parametrization)."""
    return flow_run(request.param)
