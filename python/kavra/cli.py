"""The command line ``kavra`` (also ``python -m kavra``): info, volumetrics and map of a case or deck.

Every failure is one line on standard error, ``kavra COMMAND: error: ...``: exit
status 2 for a bad use (an unknown option, a file, step or property that is
not there), 1 for anything else that went wrong.
"""

from __future__ import annotations

import argparse
import os
import pathlib
import sys
import textwrap
from collections.abc import Sequence
from typing import Any, NoReturn

__all__ = ["main"]

_EXAMPLES = {
    "info": ["kavra info run/SPE1CASE1          # a case: its base name or any of its files",
             "kavra info SPE1CASE1.DATA         # a deck"],
    "volumetrics": ["kavra volumetrics run/SPE1CASE1 --step 0 --zones zones.lyr -o volumes.csv",
                    "kavra volumetrics run/SPE1CASE1 --all-steps --regions EQLNUM -o volumes.parquet"],
    "map": ["kavra map run/SPE1CASE1 PRESSURE --step 6 --reduce mean --weights PORV -o pressure.png",
            "kavra map run/SPE1CASE1 PORV -o porv.csv      # the INIT's PORV summed over K: I, J, value"],
}


def _epilog(*commands: str) -> str:
    return "examples:\n" + "\n".join("  " + line for command in commands for line in _EXAMPLES[command])


class UsageError(Exception):
    """A use of the command line that cannot work: exit status 2."""


class _Parser(argparse.ArgumentParser):
    """argparse, with its errors in one line (no usage block) and exit status 2."""

    def error(self, message: str) -> NoReturn:
        self.exit(2, f"{self.prog}: error: {message} (see {self.prog} --help)\n")


def _parser() -> _Parser:
    # The commands are listed in the description, in kavra's own layout: argparse's listing of
    # sub-commands is indented differently from one Python version to the next.
    parser = _Parser(
        prog="kavra", usage="kavra [-h] [--version] COMMAND ...", formatter_class=argparse.RawDescriptionHelpFormatter,
        epilog=_epilog(*_EXAMPLES))
    from . import __version__
    parser.add_argument("--version", action="version", version=f"kavra {__version__}")
    commands = parser.add_subparsers(dest="command", metavar="COMMAND", parser_class=_Parser, help=argparse.SUPPRESS)
    commands.required = True
    summaries: dict[str, str] = {}

    def command(name: str, summary: str) -> _Parser:
        summaries[name] = summary
        sub: _Parser = commands.add_parser(name, description=summary, epilog=_epilog(name),
                                           formatter_class=argparse.RawDescriptionHelpFormatter)
        return sub

    info = command("info", "What a case or deck holds: grid, units, active cells, report steps and dates, "
                           "arrays per step, tables.")
    info.add_argument("source", metavar="CASE_OR_DECK", help="a case (its base name or any of its files) or a deck (.DATA)")

    volumes = command("volumetrics", "The volumetrics table (bulk, net, pore and hydrocarbon pore volume, "
                                     "STOIIP, GIIP, associated gas and oil, water) per zone, region and fluid.")
    volumes.add_argument("source", metavar="CASE_OR_DECK", help="a case (its base name or any of its files) or a deck (.DATA)")
    at = volumes.add_mutually_exclusive_group()
    at.add_argument("--step", type=int, metavar="N", help="the report step of a case (default: 0, the initial state)")
    at.add_argument("--all-steps", action="store_true",
                    help="one table per report step of a case, read one step at a time, in one output with "
                         "STEP and DATE columns (a progress bar on a terminal, with tqdm)")
    volumes.add_argument("--regions", default="FIPNUM", metavar="NAME",
                         help="the integer property that numbers the regions (default: FIPNUM)")
    volumes.add_argument("--zones", metavar="FILE",
                         help="a zone file of 'name' k1-k2 lines (K from 1), or an integer property")
    volumes.add_argument("-o", "--output", metavar="FILE",
                         help="write the table to FILE.csv or FILE.parquet (parquet needs pyarrow) instead of printing it")

    maps = command("map", "A property of a case or deck reduced over each column (all cells of one I, J): a "
                          "figure, CSV or NumPy file.")
    maps.add_argument("source", metavar="CASE", help="a case (its base name or any of its files) or a deck (.DATA)")
    maps.add_argument("property", metavar="PROPERTY", help="a cell property: of the INIT, or of a report step with --step")
    maps.add_argument("--step", type=int, metavar="N", help="the report step to read PROPERTY at (default: the INIT)")
    maps.add_argument("--reduce", default="sum", choices=("sum", "mean", "max", "min"),
                      help="how a column's cells make its value (default: sum)")
    maps.add_argument("--weights", metavar="NAME",
                      help="a property to weight the sum or mean by (PORV, DZ, ...): of the step, else of the INIT")
    maps.add_argument("-o", "--output", metavar="FILE",
                      help="write map.png (a figure with a colour bar; needs matplotlib), map.csv (I, J from 1, "
                           "value) or map.npy (an nJ x nI array, NaN where no cell takes part) instead of printing it")
    listing = [f"  {name:<12} " + "\n".join(textwrap.wrap(summary, 100 - 15, subsequent_indent=" " * 15))
               for name, summary in summaries.items()]
    parser.description = ("Reservoir-engineering calculations on simulation cases and decks.\n\ncommands:\n"
                          + "\n".join(listing))
    return parser


# --- sources ---------------------------------------------------------------------------------

def _open(text: str) -> tuple[str, Any]:
    """("results", case) or ("deck", deck) of a path given on the command line."""
    from . import _volumetrics as volumetrics

    path = pathlib.Path(text)
    if path.is_dir():
        raise UsageError(f"{text} is a directory; give a case (its base name or any of its files) or a deck")
    if path.suffix.upper() == ".DATA" and not path.is_file():
        raise UsageError(f"{text}: no such file")
    try:
        return volumetrics.case_or_deck(path)
    except FileNotFoundError as error:
        raise UsageError(_message(error)) from None


def _message(error: BaseException) -> str:
    text = error.args[0] if isinstance(error, KeyError) and error.args else str(error)
    return " ".join(str(text).split())  # one line


# --- info ------------------------------------------------------------------------------------

def _tables(deck: Any) -> str:
    names = [name for name in ("pvto", "pvtg", "pvdg", "pvdo", "pvtw", "rock", "density") if getattr(deck, name) is not None]
    return ", ".join(f"{name.upper()} ({len(getattr(deck, name).regions)} region{'s' * (len(getattr(deck, name).regions) > 1)})"
                     for name in names) or "none"


def _info(arguments: argparse.Namespace, out: Any) -> None:
    kind, source = _open(arguments.source)
    g = source.grid
    lines: list[tuple[str, str]] = []
    if kind == "results":
        lines.append(("case", f"{source.case} ({', '.join(p.name for p in source.files.values())})"))
    else:
        lines.append(("deck", str(pathlib.Path(arguments.source))))
    cells = g.nI * g.nJ * g.nK
    active = int(source.active.sum())
    lines += [("grid", f"{g.nI} x {g.nJ} x {g.nK} = {cells} cells, {active} active"), ("units", source.units)]
    if kind == "results":
        if source.steps:
            dates = source.dates
            lines.append(("report steps", f"{len(source.steps)}: " + ", ".join(
                f"{step} ({str(date)[:10]})" for step, date in zip(source.steps, dates))))
        else:
            lines.append(("report steps", "none (no restart file)"))
        if "INIT" in source.files:
            lines.append(("INIT arrays", " ".join(source.property_names())))
        previous: tuple[str, ...] | None = None
        for step in source.steps:
            names = source.property_names(step)
            if names != previous:
                lines.append((f"step {step} arrays", " ".join(names)))
            previous = names
        if len(source.steps) > 1:
            lines.append(("", "(each later step has the arrays of the step listed before it)"))
        if source.summary_keys:
            lines.append(("summary", f"{len(source.summary_keys)} vectors: {' '.join(source.summary_keys[:12])}"
                                     + (" ..." if len(source.summary_keys) > 12 else "")))
        deck_path = source.case.with_name(source.case.name + ".DATA")
        if deck_path.is_file():
            from . import deck as decks
            lines.append(("tables", f"{_tables(decks.read(deck_path))} (of {deck_path.name})"))
        else:
            lines.append(("tables", f"no deck {deck_path.name} beside the case"))
    else:
        lines.append(("tables", _tables(source)))
        lines.append(("report steps", "none (a deck)"))
    width = max(len(label) for label, _ in lines)
    for label, text in lines:
        print(f"{label:<{width}}  {text}", file=out)


# --- volumetrics -----------------------------------------------------------------------------

def _zones(value: str | None) -> Any:
    if value is None:
        return None
    path = pathlib.Path(value)
    if path.is_file():
        return path
    if path.suffix or os.sep in value:
        raise UsageError(f"--zones {value}: no such zone file")
    return value.upper()  # an integer property


def _output_kind(path: str | None, kinds: Sequence[str]) -> str | None:
    if path is None:
        return None
    suffix = pathlib.Path(path).suffix.lower()
    if suffix not in kinds:
        raise UsageError(f"-o {path}: write {' or '.join('FILE' + k for k in kinds)}")
    if not pathlib.Path(path).resolve().parent.is_dir():
        raise UsageError(f"-o {path}: the directory {pathlib.Path(path).parent} does not exist")
    return suffix


def _parquet_writer() -> Any:
    try:
        import pyarrow
        import pyarrow.parquet
    except ImportError:
        raise UsageError("writing .parquet needs pyarrow, which is not installed: pip install pyarrow "
                         "(or write .csv)") from None
    return pyarrow, pyarrow.parquet


def _print_table(frame: Any, out: Any, title: str) -> None:
    units = frame.attrs.get("column_units", {})
    print(title + "; " + ", ".join(f"{k} {v}" for k, v in units.items()), file=out)
    print(frame.to_string(index=False, float_format=lambda x: f"{x:.1f}"), file=out)


def _volumetrics(arguments: argparse.Namespace, out: Any) -> None:
    from . import _volumetrics as v

    suffix = _output_kind(arguments.output, (".csv", ".parquet"))
    if suffix == ".parquet":
        _parquet_writer()
    kind, source = _open(arguments.source)
    zones = _zones(arguments.zones)
    regions = arguments.regions.upper()
    if kind == "deck" and (arguments.step is not None or arguments.all_steps):
        raise UsageError("--step and --all-steps are for a case; a deck gives its initial state")
    if kind == "results" and not source.steps:
        raise UsageError(f"the case {source.case.name} has no restart file: no report step to take the fluids from")
    if kind == "deck":
        try:
            state = v.initial_state(source)
        except (ValueError, NotImplementedError) as error:  # a deck kavra.equil cannot equilibrate
            raise UsageError(f"{arguments.source}: no initial state: {_message(error)}; give a case run from "
                             "the deck (its base name) and --step 0") from None
        frame = v.volumetrics(source, regions=regions, zones=zones, state=state)
        if suffix is None:
            _print_table(frame, out, f"{arguments.source}, initial state ({frame.attrs['units']})")
        else:
            _write(frame, arguments.output, suffix)
        return
    if not arguments.all_steps:
        step = arguments.step if arguments.step is not None else source.steps[0]
        frame = v.volumetrics(source, regions=regions, zones=zones, step=step)
        if suffix is None:
            where = f"report step {step}, {frame.attrs.get('date', '')[:10]}"
            _print_table(frame, out, f"{arguments.source} at {where} ({frame.attrs['units']})")
        else:
            _write(frame, arguments.output, suffix)
        return
    _all_steps(v, source, regions, zones, arguments.output, suffix, out)


def _write(frame: Any, path: str, suffix: str) -> None:
    """Writes a table whole: into a file beside `path` first, then renamed over it."""
    part = pathlib.Path(path).with_name(pathlib.Path(path).name + ".part")
    try:
        if suffix == ".csv":
            frame.to_csv(part, index=False)
        else:
            pa, pq = _parquet_writer()
            pq.write_table(pa.Table.from_pandas(frame, preserve_index=False), part)
        os.replace(part, path)
    finally:
        part.unlink(missing_ok=True)


def _progress(steps: Sequence[int]) -> Any:
    """The steps, with a tqdm progress bar on standard error when that is a terminal and tqdm is there."""
    if not sys.stderr.isatty():
        return steps
    try:
        from tqdm import tqdm
    except ImportError:
        return steps
    return tqdm(steps, desc="report steps", unit="step", file=sys.stderr)


def _all_steps(v: Any, case: Any, regions: Any, zones: Any, output: str | None, suffix: str | None, out: Any) -> None:
    """One table per report step, read and written one step at a time."""
    part = pathlib.Path(output).with_name(pathlib.Path(output).name + ".part") if output else None
    writer = None
    try:
        dates = case.dates
        for index, step in enumerate(_progress(case.steps)):
            frame = v.volumetrics(case, regions=regions, zones=zones, step=step)
            frame.insert(0, "DATE", str(dates[index])[:10])
            frame.insert(0, "STEP", step)
            if part is None:
                _print_table(frame, out, f"report step {step} ({frame.attrs['units']})")
                print(file=out)
            elif suffix == ".csv":
                frame.to_csv(part, index=False, mode="w" if index == 0 else "a", header=index == 0)
            else:
                pa, pq = _parquet_writer()
                table = pa.Table.from_pandas(frame, preserve_index=False)
                if writer is None:
                    writer = pq.ParquetWriter(part, table.schema)
                writer.write_table(table)
        if writer is not None:
            writer.close()
            writer = None
        if part is not None and output is not None:
            os.replace(part, output)
    finally:
        if writer is not None:
            writer.close()
        if part is not None:
            part.unlink(missing_ok=True)


# --- map -------------------------------------------------------------------------------------

# The unit of the arrays a map is most often drawn of, per unit system: METRIC, FIELD, LAB, PVT-M.
_PRESSURE = ("barsa", "psia", "atma", "atma")
_LENGTH = ("m", "ft", "cm", "m")
_RESERVOIR = ("rm3", "rb", "rcc", "rm3")
_ARRAY_UNITS: dict[str, tuple[str, ...]] = {
    **dict.fromkeys(("PRESSURE", "PBUB", "PDEW", "PCOW", "PCOG"), _PRESSURE),
    **dict.fromkeys(("DEPTH", "DX", "DY", "DZ", "TOPS"), _LENGTH),
    **dict.fromkeys(("PORV", "RPORV"), _RESERVOIR),
    **dict.fromkeys(("PERMX", "PERMY", "PERMZ"), ("mD",) * 4),
    **dict.fromkeys(("SWAT", "SGAS", "SOIL", "PORO", "NTG"), ("fraction",) * 4),
    **dict.fromkeys(("OIL_VISC", "GAS_VISC", "WAT_VISC"), ("cP",) * 4),
    **dict.fromkeys(("OIL_DEN", "GAS_DEN", "WAT_DEN"), ("kg/m3", "lb/ft3", "g/cc", "kg/m3")),
    "RS": ("sm3/sm3", "Mscf/stb", "scc/scc", "sm3/sm3"), "RSSAT": ("sm3/sm3", "Mscf/stb", "scc/scc", "sm3/sm3"),
    "RV": ("sm3/sm3", "stb/Mscf", "scc/scc", "sm3/sm3"),
    "FIPOIL": ("sm3", "stb", "scc", "sm3"), "FIPGAS": ("sm3", "Mscf", "scc", "sm3"),
    "FIPWAT": ("sm3", "stb", "scc", "sm3"),
}
_SYSTEMS = ("METRIC", "FIELD", "LAB", "PVT-M")


def _unit(name: str, units: str) -> str | None:
    known = _ARRAY_UNITS.get(name.upper())
    if known is None or units not in _SYSTEMS:
        return None
    return known[_SYSTEMS.index(units)]


def _map_label(arguments: argparse.Namespace, units: str) -> str:
    unit = _unit(arguments.property, units)
    if arguments.weights and arguments.reduce == "sum":
        weight = _unit(arguments.weights, units)
        unit = f"{unit or '?'} x {weight or '?'}" if (unit, weight) != ("fraction", None) else None
    label = f"{arguments.property.upper()}"
    how = {"sum": "sum", "mean": "mean", "max": "maximum", "min": "minimum"}[arguments.reduce]
    label += f", {how} over K" + (f" weighted by {arguments.weights.upper()}" if arguments.weights else "")
    return label + (f" [{unit}]" if unit else " [unit not known]")


def _map(arguments: argparse.Namespace, out: Any) -> None:
    import numpy as np

    from .maps import column_map

    if arguments.weights and arguments.reduce in ("max", "min"):
        raise UsageError(f"--weights applies to --reduce sum and mean, not {arguments.reduce}")
    suffix = _output_kind(arguments.output, (".png", ".csv", ".npy"))
    if suffix == ".png":
        try:
            import matplotlib
        except ImportError:
            raise UsageError("writing .png needs matplotlib, which is not installed: pip install matplotlib "
                             "(or write .csv or .npy)") from None
    kind, source = _open(arguments.source)
    if kind == "deck":
        if arguments.step is not None:
            raise UsageError("--step is for a case; a deck has its properties only")
        read = source.cell_property

        def weights_of(name: str) -> Any:
            return source.cell_property(name)
    else:
        def read(name: str) -> Any:
            return source.cell_property(name, arguments.step)

        def weights_of(name: str) -> Any:
            if arguments.step is not None and name.upper() in source.property_names(arguments.step):
                return source.cell_property(name, arguments.step)
            return source.cell_property(name)
    values = read(arguments.property)
    if np.ma.getdata(values).dtype.kind not in "biuf":
        raise UsageError(f"{arguments.property} does not hold numbers")
    weights = weights_of(arguments.weights) if arguments.weights else None
    active = source.active & np.isfinite(np.ma.filled(np.ma.asarray(values, dtype=np.float64), np.nan))
    result = column_map(values, source.grid, arguments.reduce, weights=weights, active=active)
    g = source.grid
    label = _map_label(arguments, source.units)
    if suffix is None:
        import pandas as pd
        table = pd.DataFrame(np.ma.filled(result, np.nan), index=pd.RangeIndex(1, g.nJ + 1, name="J"),
                             columns=pd.RangeIndex(1, g.nI + 1, name="I"))
        print(label, file=out)
        print(table.to_string(float_format=lambda x: f"{x:.6g}", na_rep="-"), file=out)
        return
    part = pathlib.Path(arguments.output).with_name(pathlib.Path(arguments.output).name + ".part" + suffix)
    try:
        if suffix == ".npy":
            np.save(part, np.ma.filled(result, np.nan))
        elif suffix == ".csv":
            j, i = np.nonzero(~np.ma.getmaskarray(result))
            with open(part, "w", encoding="utf-8") as stream:
                stream.write(f"# {label}\nI,J,VALUE\n")
                for a, b, value in zip(i + 1, j + 1, result.data[j, i]):
                    stream.write(f"{a},{b},{float(value)!r}\n")  # repr: every digit, read back exactly
        else:
            matplotlib.use("Agg")
            import matplotlib.pyplot as plt
            figure, axes = plt.subplots(figsize=(7.0, 6.0), layout="constrained")
            image = axes.imshow(result, extent=(0.5, g.nI + 0.5, g.nJ + 0.5, 0.5), interpolation="nearest",
                                cmap="viridis")
            axes.set_xlabel("I")
            axes.set_ylabel("J")
            name = source.case.name if kind == "results" else pathlib.Path(arguments.source).stem
            at = f"report step {arguments.step}" if arguments.step is not None else ("INIT" if kind == "results" else "deck")
            axes.set_title(f"{name}, {at}")
            figure.colorbar(image, ax=axes, label=label, shrink=max(0.4, min(1.0, g.nJ / g.nI)))  # as tall as the map
            figure.savefig(part, dpi=120, format="png")
            plt.close(figure)
        os.replace(part, arguments.output)
    finally:
        part.unlink(missing_ok=True)


# --- main ------------------------------------------------------------------------------------

_COMMANDS = {"info": _info, "volumetrics": _volumetrics, "map": _map}


def main(argv: Sequence[str] | None = None) -> int:
    """Runs the command line with `argv` (default: ``sys.argv[1:]``); returns the exit status."""
    arguments = _parser().parse_args(argv)
    prog = f"kavra {arguments.command}"
    try:
        _COMMANDS[arguments.command](arguments, sys.stdout)
    except UsageError as error:
        print(f"{prog}: error: {error}", file=sys.stderr)
        return 2
    except (FileNotFoundError, KeyError) as error:
        print(f"{prog}: error: {_message(error)}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print(f"{prog}: interrupted", file=sys.stderr)
        return 130
    except BrokenPipeError:  # the reader (head, say) stopped reading
        sys.stderr.close()
        return 0
    except Exception as error:  # noqa: BLE001: one line for anything else
        print(f"{prog}: error: {type(error).__name__}: {_message(error)}", file=sys.stderr)
        return 1
    return 0
