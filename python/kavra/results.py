"""Simulation results read lazily: the grid, INIT, restart and summary files of a case.

A case is what a simulator writes for one deck, files that share a base name:

* ``CASE.EGRID``: the grid, and in ACTNUM its active cells;
* ``CASE.INIT``: the static properties (PORV, DEPTH, DX, PORO, PVTNUM, ...);
* ``CASE.UNRST`` (or one ``CASE.X0000``, ``CASE.X0001``, ... per report step):
  the solution at each report step (PRESSURE, SWAT, SGAS, RS, ...);
* ``CASE.SMSPEC`` with ``CASE.UNSMRY`` (or ``CASE.S0001``, ...): the summary
  vectors (FOPR, WBHP:PROD, BPR:1,1,1, ...).

These are the unformatted (binary) files: Fortran records of big-endian
numbers, each array a header (name, count, type) and its values in blocks.
:func:`read` reads the headers only, with ``resfo`` (``pip install
'kavra[results]'``), and keeps where each array's values start.  Every call
then reads one array, in blocks straight into the array it returns, so
reading one report step of a restart file of any size costs that array's
memory (and a buffer of 4 MiB).  Numbers keep the file's type (float32 stays
float32, in the machine's byte order) and the file's units (:attr:`Results.units`).

Examples
--------
SPE1 with the schedule of the tests, run with Flow (``examples/flow_case.py``
runs it; the examples need its files, hence the skips):

>>> import kavra.results
>>> r = kavra.results.read("run/SPE1CASE1")              # doctest: +SKIP
>>> r                                                      # doctest: +SKIP
<kavra.results.Results SPE1CASE1 10x10x3 FIELD, 300 active cells, report steps 0..6, 14 summary vectors>
>>> r.cell_property("PRESSURE", step=3)[:3]                # psia  # doctest: +SKIP
masked_array(data=[6025.857, 5845.081, 5670.806],
             mask=False,
       fill_value=np.float64(1e+20),
            dtype=float32)
>>> dates, fpr = r.summary("FPR")                          # doctest: +SKIP
>>> dates[:2], fpr[:2]                                     # doctest: +SKIP
(array(['2015-01-02T00:00:00', '2015-01-05T00:00:00'], dtype='datetime64[s]'),
 array([4794.366 , 4800.7407], dtype=float32))
"""

from __future__ import annotations

import datetime
import os
import pathlib
import re
from collections.abc import Iterable, Sequence
from typing import TYPE_CHECKING, Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from ._grid import reservoir_grid

if TYPE_CHECKING:
    from . import tessel
    from ._grid import Grid

from .tables import UNIT_SYSTEMS

try:
    import resfo
except ImportError as _error:  # the optional extra is not installed
    raise ImportError(
        "kavra.results reads the array headers with the resfo package, which is not installed: "
        "pip install 'kavra[results]' (or pip install resfo)") from _error

__all__ = ["Results", "Summary", "read"]

# The big-endian type of each numeric array type of the files, and how many
# values a block holds (character arrays, 105 a block, are never cell values).
_NUMERIC: dict[bytes, np.dtype[Any]] = {b"INTE": np.dtype(">i4"), b"REAL": np.dtype(">f4"),
                                        b"DOUB": np.dtype(">f8"), b"LOGI": np.dtype(">i4")}
_NATIVE: dict[bytes, np.dtype[Any]] = {b"INTE": np.dtype(np.int32), b"REAL": np.dtype(np.float32),
                                       b"DOUB": np.dtype(np.float64), b"LOGI": np.dtype(np.bool_)}
_BLOCK_VALUES = 1000
_BLOCKS_PER_READ = 1024  # 4 MiB of float32 values a read

# INTEHEAD: the items (from 0) of the unit system, the grid's nI, nJ, nK and
# its number of active cells, and of the date of a report step.
_UNITS, _DIMS, _NACTIVE = 2, slice(8, 11), 11
_DAY, _MONTH, _YEAR, _HOUR, _MINUTE, _MICROSECOND = 64, 65, 66, 206, 207, 410

_STEP_FILE = re.compile(r"\.[XS]\d{4}$", re.IGNORECASE)
_EXTENSIONS = ("EGRID", "INIT", "UNRST", "SMSPEC", "UNSMRY")
# The files a simulator writes beside these that name a case too.
_CASE_SUFFIXES = {"." + e for e in (*_EXTENSIONS, "DATA", "PRT", "DBG", "ESMRY", "RSM", "RFT", "FEGRID",
                                    "FINIT", "FUNRST", "FSMSPEC", "FUNSMRY")}


class _Array(NamedTuple):
    """Where one array of a file is: its values start at `offset` (the first block's marker)."""

    path: pathlib.Path
    offset: int
    length: int
    kind: bytes


class Summary(NamedTuple):
    """One summary vector: a value at each time step the summary holds.

    Attributes
    ----------
    dates : numpy.ndarray of datetime64[s]
        The date of each time step: the start date plus TIME, to the second below (TIME is
        float32 days: after 100 days its values are about a second apart).
    values : numpy.ndarray
        The vector's value at each time step, in the file's type (float32) and units
        (:attr:`Results.summary_units`).
    """

    dates: NDArray[np.datetime64]
    values: NDArray[Any]


def _listing(names: Iterable[object], most: int = 40) -> str:
    """Names for a message: all of them, or the first `most` and how many there are."""
    texts = [str(name) for name in names]
    if not texts:
        return "none"
    if len(texts) <= most:
        return ", ".join(texts)
    return ", ".join(texts[:most]) + f", ... ({len(texts)} in all)"


def _data_bytes(count: int, kind: bytes) -> int:
    """The bytes that `count` values of type `kind` take on disk, block markers included."""
    if kind == b"MESS" or count == 0:
        return 0
    item = 8 if kind in (b"CHAR", b"DOUB") else int(kind[2:]) if kind[:2] == b"C0" else 4
    per_block = 105 if kind[:1] == b"C" else _BLOCK_VALUES
    return count * item + 8 * -(-count // per_block)


def _scan(path: pathlib.Path, small: Sequence[str] = ()) -> list[tuple[str, _Array, Any]]:
    """The arrays of a file in file order: (name, where, values), with values read for the names in `small`.

    Only the headers are read (resfo moves from one to the next without reading the values).
    """
    found: list[tuple[str, _Array, Any]] = []
    with open(path, "rb") as stream:
        size = os.fstat(stream.fileno()).st_size
        try:
            for entry in resfo.lazy_read(stream, resfo.Format.UNFORMATTED):
                name, count, kind = entry.read_keyword().strip(), entry.read_length(), entry.read_type()
                kind = kind.encode("ascii") if isinstance(kind, str) else kind
                end = stream.tell()
                if end > size or count < 0:
                    raise resfo.ResfoParsingError(f"the file ends inside the values of {name}")
                values = entry.read_array() if name in small else None
                found.append((name, _Array(path, end - _data_bytes(count, kind), count, kind), values))
                stream.seek(end)
        # a length that leads before the start of the file makes the seek fail (EINVAL)
        except (resfo.ResfoParsingError, UnicodeDecodeError, OSError) as error:
            raise ValueError(f"{path} is not an unformatted result file, or it is cut short: {error}") from error
    return found


def _read_into(array: _Array, out: NDArray[Any]) -> None:
    """Reads the values of a numeric array into `out` (its count of values, any numeric type).

    The blocks are read a few thousand at a time into one buffer and converted
    from big-endian into `out`; their markers are checked on the way.
    """
    big = _NUMERIC[array.kind]
    block_bytes = _BLOCK_VALUES * big.itemsize
    buffer = np.empty(_BLOCKS_PER_READ * (block_bytes + 8), dtype=np.uint8)
    done = 0
    with open(array.path, "rb") as stream:
        stream.seek(array.offset)
        while done < array.length:
            values = min(array.length - done, _BLOCKS_PER_READ * _BLOCK_VALUES)
            full, last = divmod(values, _BLOCK_VALUES)
            layout = [(full, _BLOCK_VALUES)] if full else []
            layout += [(1, last)] if last else []
            for blocks, per_block in layout:
                record = np.dtype([("head", ">i4"), ("values", big, (per_block,)), ("tail", ">i4")])
                raw = buffer[:blocks * record.itemsize]
                if stream.readinto(raw.data) != raw.size:
                    raise ValueError(f"{array.path} ends inside an array (at byte {stream.tell()})")
                records = raw.view(record)
                marker = per_block * big.itemsize
                if np.any(records["head"] != marker) or np.any(records["tail"] != marker):
                    raise ValueError(f"{array.path} has a damaged array at byte {array.offset}: "
                                     f"its blocks are not {marker} bytes")
                out[done:done + blocks * per_block].reshape(blocks, per_block)[...] = records["values"]
                done += blocks * per_block


def _first_of_each(arrays: list[tuple[str, _Array, Any]], values: bool = False) -> dict[str, Any]:
    """Where each name's first array is (or its values), in file order."""
    first: dict[str, Any] = {}
    for name, where, read in arrays:
        first.setdefault(name, read if values else where)
    return first


def _case_base(path: pathlib.Path) -> pathlib.Path:
    """The case a path names: itself, or the path without the extension of one of its files."""
    suffix = path.suffix.upper()
    if suffix in _CASE_SUFFIXES or _STEP_FILE.search(path.name):
        return path.with_suffix("")
    return path


def _case_file(base: pathlib.Path, extension: str) -> pathlib.Path | None:
    for name in (f"{base.name}.{extension}", f"{base.name}.{extension.lower()}"):
        candidate = base.with_name(name)
        if candidate.is_file():
            return candidate
    return None


def _step_files(base: pathlib.Path, letter: str) -> list[pathlib.Path]:
    """The non-unified files of a case (CASE.X0000, ... or CASE.S0001, ...), in step order."""
    pattern = re.compile(re.escape(base.name) + rf"\.{letter}(\d{{4}})$", re.IGNORECASE)
    found = [p for p in base.parent.glob(base.name + ".*") if pattern.match(p.name)]
    return sorted(found, key=lambda p: int(p.suffix[2:]))


def _cases_in(directory: pathlib.Path) -> str:
    """The cases of a directory and their files, for a message."""
    cases: dict[str, list[str]] = {}
    if directory.is_dir():
        for p in sorted(directory.iterdir()):
            if p.suffix[1:].upper() in _EXTENSIONS or _STEP_FILE.search(p.name):
                cases.setdefault(p.stem, []).append(p.suffix[1:])
    return _listing(f"{name} ({', '.join(files)})" for name, files in cases.items())


class Results:
    """The result files of one simulation case, read lazily (see :func:`read`).

    Attributes
    ----------
    case : pathlib.Path
        The case's base name (its files are ``case`` with ``.EGRID``, ``.INIT``, ...).
    grid : kavra.tessel.ReservoirTopology
        The grid (nI, nJ, nK) of the EGRID (or of the INIT, restart or summary when the case
        has no EGRID); in a build without kavra.tessel, a named tuple ``(nI, nJ, nK)`` with
        ``number_of_cells()``, which kavra's functions take as well.
    units : str
        The unit system that the files write every number in: ``"METRIC"``, ``"FIELD"``,
        ``"LAB"`` or ``"PVT-M"``.  Pressures are barsa in METRIC, psia in FIELD, atma in LAB.
    steps : tuple of int
        The report steps of the restart file(s), in file order (empty without restart files).
    files : dict of str to pathlib.Path
        The files found: ``"EGRID"``, ``"INIT"``, ``"RESTART"`` (the UNRST, or the first of
        the non-unified restart files), ``"SMSPEC"``, ``"SUMMARY"``.
    """

    case: pathlib.Path
    grid: tessel.ReservoirTopology | Grid
    units: str
    steps: tuple[int, ...]
    files: dict[str, pathlib.Path]

    def __init__(self, case: pathlib.Path) -> None:
        self.case = case
        self.files = {}
        for key, extension in (("EGRID", "EGRID"), ("INIT", "INIT"), ("RESTART", "UNRST"),
                               ("SMSPEC", "SMSPEC"), ("SUMMARY", "UNSMRY")):
            found = _case_file(case, extension)
            if found is not None:
                self.files[key] = found
        restarts = [self.files["RESTART"]] if "RESTART" in self.files else _step_files(case, "X")
        summaries = [self.files["SUMMARY"]] if "SUMMARY" in self.files else _step_files(case, "S")
        if restarts:
            self.files["RESTART"] = restarts[0]
        if summaries:
            self.files["SUMMARY"] = summaries[0]
        if not self.files:
            raise FileNotFoundError(
                f"no results of a case {case.name} in {case.parent}: no {case.name}.EGRID, .INIT, .UNRST or "
                f".SMSPEC there.  The cases there: {_cases_in(case.parent)}")
        self._summary_files = summaries
        self._actnum: _Array | None = None
        # The inactive cells, read from ACTNUM when first needed and kept a bit a cell (None when
        # every cell is active), and how many there are.
        self._inactive_bits: NDArray[np.uint8] | None = None
        self._inactive_count: int | None = None

        egrid = _scan(self.files["EGRID"], ("GRIDHEAD",)) if "EGRID" in self.files else []
        init = _scan(self.files["INIT"], ("INTEHEAD",)) if "INIT" in self.files else []
        self._init = _first_of_each(init)
        self._steps: dict[int, dict[str, _Array]] = {}
        self._headers: dict[int, NDArray[np.int32]] = {}
        for path in restarts:
            self._index_restart(path)
        self.steps = tuple(self._steps)

        dims: Sequence[int] | None = None
        header = next((values for name, _, values in init if name == "INTEHEAD"),
                      next(iter(self._headers.values()), None))
        if header is not None and header.size <= _NACTIVE:
            raise ValueError(f"the INTEHEAD of {case.name} holds {header.size} items, too few for the grid")
        for name, where, values in egrid:
            if name == "GRIDHEAD" and dims is None:
                dims = [int(n) for n in values[1:4]]
            elif name == "ACTNUM" and self._actnum is None:
                self._actnum = where
        if dims is None and header is not None:
            dims = [int(n) for n in header[_DIMS]]
        wanted = ("DIMENS", "KEYWORDS", "WGNAMES", "NAMES", "NUMS", "UNITS", "STARTDAT")
        self._smspec: dict[str, Any] = {name: values for name, values in _first_of_each(
            _scan(self.files["SMSPEC"], wanted), values=True).items() if name in wanted} if "SMSPEC" in self.files else {}
        if dims is None and "DIMENS" in self._smspec:
            dims = [int(n) for n in self._smspec["DIMENS"][1:4]]
        if dims is None:
            raise ValueError(f"the case {case} has no grid dimensions: no GRIDHEAD in an EGRID, no INTEHEAD "
                             "in an INIT or restart, no DIMENS in an SMSPEC")
        if len(dims) != 3 or min(dims) < 1:
            raise ValueError(f"the case {case} has a grid of {dims} cells")
        self.grid = reservoir_grid(*dims)
        self._cells = dims[0] * dims[1] * dims[2]
        # The active cells that the headers count: what a case without ACTNUM is checked against.
        self._header_active = int(header[_NACTIVE]) if header is not None else self._cells
        # INTEHEAD numbers the unit systems 1 to 4 in the order of UNIT_SYSTEMS.
        code = int(header[_UNITS]) if header is not None else 0
        self.units = UNIT_SYSTEMS[code - 1] if 1 <= code <= len(UNIT_SYSTEMS) else f"unknown ({code})"
        # Each summary vector's position in a time step's record, and its unit.
        self._vectors: dict[str, tuple[int, str]] = {}
        if self._smspec:
            header = self._smspec
            lacking = {"KEYWORDS", "NUMS", "UNITS", "STARTDAT"} - set(header) | ({"WGNAMES"} - set(header) - {"NAMES"})
            if lacking - {"NAMES"}:
                raise ValueError(f"{self.files['SMSPEC']} lacks {_listing(sorted(lacking))}")
            names = header["WGNAMES"] if "WGNAMES" in header else header["NAMES"]
            for position, (keyword, wgname, num, unit) in enumerate(zip(
                    _strings(header["KEYWORDS"]), _strings(names), header["NUMS"], _strings(header["UNITS"]))):
                key = _summary_key(keyword, wgname, int(num), self.grid)
                if key:
                    self._vectors.setdefault(key, (position, unit))
        self._records: list[_Array] | None = None

    def _index_restart(self, path: pathlib.Path) -> None:
        """Adds the report steps of a restart file to the index: its arrays after each SEQNUM."""
        non_unified = _STEP_FILE.search(path.name)
        arrays: dict[str, _Array] | None = None
        for name, where, values in _scan(path, ("SEQNUM", "INTEHEAD")):
            if name == "SEQNUM" and len(values) != 1:
                raise ValueError(f"{path}: a SEQNUM of {len(values)} values, not one")
            if name == "SEQNUM" or (arrays is None and non_unified):
                step = int(values[0]) if name == "SEQNUM" else int(path.suffix[2:])
                arrays = self._steps.setdefault(step, {})
            if arrays is None:
                raise ValueError(f"{path} is not a restart file: its first array is {name}, not SEQNUM")
            arrays.setdefault(name, where)
            if name == "INTEHEAD":
                self._headers.setdefault(step, values)

    def __repr__(self) -> str:
        g = self.grid
        parts = [f"{self.case.name} {g.nI}x{g.nJ}x{g.nK} {self.units}"]
        parts.append(f"{self._header_active} active cells")
        if self.steps:
            parts.append(f"report steps {self.steps[0]}..{self.steps[-1]}" if len(self.steps) > 1
                         else f"report step {self.steps[0]}")
        if self._smspec:
            parts.append(f"{len(self._vectors)} summary vectors")
        return f"<kavra.results.Results {', '.join(parts)}>"

    def _inactive_total(self) -> int:
        """How many cells are inactive: ACTNUM is read the first time, and kept a bit a cell."""
        if self._inactive_count is None:
            if self._actnum is None:
                if self._header_active != self._cells:
                    raise FileNotFoundError(
                        f"the case has {self._header_active} active cells of {self._cells}, and which they are "
                        f"is in the ACTNUM of {self.case.name}.EGRID, which the case does not have")
                self._inactive_count = 0
            else:
                if self._actnum.length != self._cells or self._actnum.kind != b"INTE":
                    raise ValueError(f"{self._actnum.path}: ACTNUM holds {self._actnum.length} values, "
                                     f"not one for each of the {self._cells} cells")
                inactive = np.empty(self._cells, dtype=bool)
                _read_into(self._actnum, inactive)  # nonzero: active
                np.logical_not(inactive, out=inactive)
                self._inactive_count = int(np.count_nonzero(inactive))
                self._inactive_bits = np.packbits(inactive) if self._inactive_count else None
        return self._inactive_count

    def _inactive_cells(self) -> NDArray[np.bool_] | None:
        """A new array, True at each inactive cell; None when every cell is active."""
        if self._inactive_total() == 0 or self._inactive_bits is None:
            return None
        return np.unpackbits(self._inactive_bits, count=self._cells).view(np.bool_)

    @property
    def active(self) -> NDArray[np.bool_]:
        """True at each active cell, in cell order (I fastest): ACTNUM of the EGRID, else all True."""
        inactive = self._inactive_cells()
        return np.ones(self._cells, dtype=bool) if inactive is None else ~inactive

    @property
    def dates(self) -> NDArray[np.datetime64]:
        """The date of each report step of :attr:`steps` (datetime64[s]), from the restart headers."""
        stamps = []
        for step in self.steps:
            h = self._headers.get(step)
            if h is None or h.size <= _YEAR:
                raise ValueError(f"report step {step} of {self.files['RESTART'].name} has no INTEHEAD with its date")
            time = [int(h[i]) if h.size > i else 0 for i in (_HOUR, _MINUTE, _MICROSECOND)]
            stamps.append(datetime.datetime(int(h[_YEAR]), int(h[_MONTH]), int(h[_DAY]))
                          + datetime.timedelta(hours=time[0], minutes=time[1], seconds=time[2] // 1_000_000))
        return np.array(stamps, dtype="datetime64[s]")

    def _arrays(self, step: int | None) -> tuple[dict[str, _Array], str]:
        """The arrays of the INIT (step None) or of a report step, and what they are, for messages."""
        if step is None:
            if "INIT" not in self.files:
                raise FileNotFoundError(f"{self.case.name}.INIT does not exist (the case has: "
                                        f"{_listing(p.name for p in self.files.values())})")
            return self._init, self.files["INIT"].name
        if isinstance(step, bool) or not isinstance(step, (int, np.integer)):
            raise TypeError(f"step must be an integer report step or None, not {type(step).__name__}")
        if step not in self._steps:
            if not self._steps:
                raise FileNotFoundError(f"the case {self.case.name} has no restart file ({self.case.name}.UNRST "
                                        f"or .X0000, ...)")
            raise KeyError(f"report step {step} is not in the restart file {self.files['RESTART'].name}: "
                           f"its report steps are {_listing(self.steps)}")
        return self._steps[int(step)], f"{self.files['RESTART'].name} at report step {step}"

    def _cell_arrays(self, arrays: dict[str, _Array]) -> list[str]:
        """The names of the numeric arrays with a value per cell or per active cell."""
        sizes = (self._cells, self._cells - self._inactive_total())
        return [name for name, a in arrays.items() if a.kind in _NUMERIC and a.length in sizes]

    def property_names(self, step: int | None = None) -> tuple[str, ...]:
        """The names of the arrays with a value per cell: of the INIT, or of a report step.

        Parameters
        ----------
        step : int or None
            None for the INIT, else a report step of :attr:`steps`.

        Returns
        -------
        tuple of str
            The names, in file order.

        Raises
        ------
        KeyError
            `step` is not a report step of the restart file.
        FileNotFoundError
            The case has no INIT (or no restart file).
        """
        return tuple(self._cell_arrays(self._arrays(step)[0]))

    def in_place(self, step: int, deck: Any = None, *, threads: int | None = None) -> Any:
        """Oil, gas and water in place per cell at a report step, as the simulator's FIP arrays.

        :func:`kavra.blackoil.in_place` of the step's PRESSURE, SWAT, SGAS, RS and RV (those
        the restart holds; a missing saturation is 0), with the INIT's PORV, PVTNUM and SATNUM
        and the tables of the deck; water and gas at their own pressures, the capillary
        pressure of SWOF or SWFN (SGOF or SGFN) at the cell's saturation and SATNUM region
        taken off (added to) PRESSURE.  :func:`kavra.region_totals` of a part with the
        INIT's FIPNUM gives the totals per region.

        Parameters
        ----------
        step : int
            A report step of the restart (see :attr:`steps`).
        deck : kavra.deck.Deck, str or path, optional
            The deck of the run (default: ``CASE.DATA`` beside the case's files).
        threads : int, optional
            Threads to run on (default: :func:`kavra.get_num_threads`).

        Returns
        -------
        kavra.blackoil.InPlace
            ``(oil, gas, water)``: masked arrays of one value per cell, masked where the cell
            is inactive, in surface volumes of the deck's units (sm3 in METRIC; stb, Mscf and
            stb in FIELD).

        Raises
        ------
        FileNotFoundError
            No deck given, and none beside the case; no INIT or restart file.
        KeyError
            `step` is not a report step; the restart has no PRESSURE.

        Examples
        --------
        >>> import kavra.results
        >>> r = kavra.results.read("run/SPE1CASE1")                    # doctest: +SKIP
        >>> fluids = r.in_place(6)                                       # doctest: +SKIP
        >>> kavra.region_totals(fluids.oil, r.cell_property("FIPNUM"))   # doctest: +SKIP
        array([2.81011183e+08])
        """
        from . import blackoil
        from . import deck as decks

        if deck is None:
            deck = self.case.with_name(self.case.name + ".DATA")
            if not deck.exists():
                raise FileNotFoundError(f"in_place needs the deck of {self.case.name}: there is no {deck.name} "
                                        "beside the case; pass deck=")
        if not isinstance(deck, decks.Deck):
            deck = decks.read(pathlib.Path(deck))
        names, static = self.property_names(step), self.property_names()

        def restart(name: str) -> Any:
            return self.cell_property(name, step) if name in names else None

        def init(name: str) -> Any:
            return self.cell_property(name) if name in static else 1

        p, sw, sg = self.cell_property("PRESSURE", step), restart("SWAT"), restart("SGAS")
        sw = np.float32(0.0) if sw is None else sw
        sg = np.float32(0.0) if sg is None else sg
        satnum = init("SATNUM")
        pw = p - _capillary(deck, satnum, sw, ("SWOF", 4), ("SWFN", 3))
        pg = p + _capillary(deck, satnum, sg, ("SGOF", 4), ("SGFN", 3))
        return blackoil.in_place(deck, init("PVTNUM"), self.cell_property("PORV"), p, sw, sg, restart("RS"),
                                 restart("RV"), pw=pw, pg=pg, threads=threads)

    def cell_property(self, name: str, step: int | None = None) -> np.ma.MaskedArray[Any, Any]:
        """One value per cell of an INIT array (step None) or a restart array at a report step.

        Reads that array only, in blocks straight into the array returned.

        Parameters
        ----------
        name : str
            The array's name, in any case: PORV, DEPTH, DX, PORO, NTG, PVTNUM, FIPNUM, ... of
            the INIT; PRESSURE, SWAT, SGAS, RS, RV, 1OVERBO, PBUB, OIL_VISC, FIPOIL, ... of
            a restart step (what a step holds depends on the deck's RPTRST).
        step : int or None
            None for the INIT, else a report step of :attr:`steps`.

        Returns
        -------
        numpy.ma.MaskedArray
            A new 1-D array of nI * nJ * nK values in cell order (I fastest, then J, then K),
            masked at the inactive cells (no mask when every cell is active; the data there
            is 0).  Its type is the file's (float32, float64, int32, or bool for logical
            arrays), in the machine's byte order; its numbers are in the file's units
            (:attr:`units`): PRESSURE in barsa (METRIC) or psia (FIELD), PORV in rm3 or
            rb, DEPTH and DX in m or ft, saturations and PORO as fractions.

        Raises
        ------
        KeyError
            No array of that name with a value per cell (the message lists those there
            are), or `step` is not a report step of the file (the message lists them).
        FileNotFoundError
            The case has no INIT (step None) or no restart file.
        TypeError
            `step` is neither None nor an integer.

        Examples
        --------
        SPE1 run with Flow (see the module's examples): its pore volume in rb, and the gas
        saturation of the first four cells of the top layer at the last report step.

        >>> r = kavra.results.read("run/SPE1CASE1.UNRST")           # doctest: +SKIP
        >>> r.cell_property("PORV").sum()                           # doctest: +SKIP
        np.float32(5.343228e+08)
        >>> sgas = r.cell_property("SGAS", step=r.steps[-1])         # doctest: +SKIP
        >>> sgas.reshape(r.grid.nK, r.grid.nJ, r.grid.nI)[0, 0, :4]  # doctest: +SKIP
        masked_array(data=[0.4393898 , 0.36187738, 0.3287215 , 0.2755231 ],
                     mask=False,
               fill_value=np.float64(1e+20),
                    dtype=float32)
        """
        arrays, what = self._arrays(step)
        cells = self._cell_arrays(arrays)
        key = name if name in cells else str(name).upper()
        if key not in cells:
            raise KeyError(f"{name} is not an array with a value per cell in {what}; "
                           f"those with one: {_listing(cells)}")
        array = arrays[key]
        out = np.empty(self._cells, dtype=_NATIVE[array.kind])
        inactive = self._inactive_cells()
        if inactive is None:
            _read_into(array, out)
            return np.ma.MaskedArray(out, mask=np.ma.nomask)
        _read_into(array, out[:array.length])
        if array.length < self._cells:  # a value per active cell
            _spread(out, inactive, array.length)
        out[inactive] = 0
        return np.ma.MaskedArray(out, mask=inactive)

    # -- summary ---------------------------------------------------------------------------

    @property
    def summary_keys(self) -> tuple[str, ...]:
        """The summary vectors of the SMSPEC: FOPR, WBHP:PROD, GOPR:G1, BPR:1,1,1, RPR:1, COPR:PROD:1,1,1, ..."""
        return tuple(self._vectors)

    @property
    def summary_units(self) -> dict[str, str]:
        """The unit of each summary vector (``"STB/DAY"``, ``"PSIA"``, ``"DAYS"``, ...), from the SMSPEC."""
        return {key: unit for key, (_, unit) in self._vectors.items()}

    def _summary_records(self) -> list[_Array]:
        """The PARAMS record (the values of every vector) of each time step; the files are scanned when first used."""
        if self._records is None:
            self._records = [where for path in self._summary_files for name, where, _ in _scan(path)
                             if name == "PARAMS"]
        return self._records

    def summary(self, key: str) -> Summary:
        """A summary vector: its value at each time step of the summary, with the dates.

        Reads one value of each time step's record.

        Parameters
        ----------
        key : str
            The vector: a field keyword (``"FOPR"``), a well's or group's (``"WBHP:PROD"``,
            ``"GOPR:G1"``), a block's by its I,J,K from 1 (``"BPR:1,1,1"``), a region's
            (``"RPR:1"``), a connection's (``"COPR:PROD:10,10,3"``).  See :attr:`summary_keys`.

        Returns
        -------
        Summary
            ``(dates, values)``: datetime64[s] dates (the start date plus TIME) and the values
            (float32) in the vector's unit (:attr:`summary_units`).

        Raises
        ------
        KeyError
            No such vector (the message lists those there are).
        FileNotFoundError
            The case has no SMSPEC or no summary data file.

        Examples
        --------
        >>> dates, fpr = kavra.results.read("run/SPE1CASE1").summary("FPR")      # psia  # doctest: +SKIP
        >>> fpr[:2]                                                             # doctest: +SKIP
        array([4794.366 , 4800.7407], dtype=float32)
        """
        if "SMSPEC" not in self.files:
            raise FileNotFoundError(f"{self.case.name}.SMSPEC does not exist (the case has: "
                                    f"{_listing(p.name for p in self.files.values())})")
        if key not in self._vectors:
            raise KeyError(f"{key} is not a summary vector of {self.case.name}.SMSPEC; "
                           f"those it has: {_listing(self._vectors)}")
        if not self._summary_files:
            raise FileNotFoundError(f"{self.case.name}.UNSMRY does not exist (nor .S0001, ...)")
        if "TIME" not in self._vectors:
            raise ValueError(f"{self.case.name}.SMSPEC has no TIME vector to date the time steps")
        start = [int(n) for n in self._smspec["STARTDAT"]] + [0, 0, 0]
        origin = np.datetime64(datetime.datetime(start[2], start[1], start[0], start[3], start[4]), "s")
        origin += np.timedelta64(start[5] // 1_000_000, "s")
        position, unit = self._vectors["TIME"]
        seconds = _gather(self._summary_records(), position).astype(np.float64) * (
            3600.0 if unit.upper() == "HOURS" else 86400.0)
        with np.errstate(invalid="ignore"):  # a TIME that is NaN has no date (NaT)
            dates = origin + np.trunc(seconds).astype("timedelta64[s]")
        return Summary(dates, _gather(self._summary_records(), self._vectors[key][0]))


def _spread(out: NDArray[Any], inactive: NDArray[np.bool_], count: int) -> None:
    """Moves the `count` values of the active cells, at the start of `out`, to their cells.

    In place, from the last cells back, a million cells at a time: a value only
    ever moves to a later cell, and each is read before its place is written.
    """
    end, taken = out.size, count
    while end > 0:
        start = max(0, end - (1 << 20))
        part = ~inactive[start:end]
        n = int(np.count_nonzero(part))
        out[start:end][part] = out[taken - n:taken].copy()  # the two may overlap
        taken -= n
        end = start


def _gather(records: list[_Array], position: int) -> NDArray[Any]:
    """The value at `position` of each record (one float each), read from the files through a memory map."""
    if not records:
        return np.empty(0, dtype=np.float32)
    big = _NUMERIC[records[0].kind]
    if any(r.length <= position or r.kind != records[0].kind for r in records):
        raise ValueError(f"{records[0].path}: a time step's record does not hold the value at {position}")
    block, within = divmod(position, _BLOCK_VALUES)
    skip = block * (_BLOCK_VALUES * big.itemsize + 8) + 4 + within * big.itemsize
    values: NDArray[Any] = np.empty(len(records), dtype=_NATIVE[records[0].kind])
    paths = [r.path for r in records]
    for path in dict.fromkeys(paths):
        chosen = [i for i, p in enumerate(paths) if p == path]
        offsets = np.array([records[i].offset + skip for i in chosen], dtype=np.int64)
        mapped = np.memmap(path, dtype=np.uint8, mode="r")
        values[chosen] = mapped[offsets[:, None] + np.arange(big.itemsize)].view(big)[:, 0]
        del mapped
    return values


def _strings(values: Any) -> list[str]:
    return [v.decode("ascii", "replace").strip() if isinstance(v, bytes) else str(v).strip() for v in values]


def _summary_key(keyword: str, wgname: str, num: int, grid: tessel.ReservoirTopology | Grid) -> str:
    """The key of a summary vector: its keyword, with the well or group, block or region that it is of.

    Vectors of no well (the name ``:+:+:+:+``) or of no block or region (number 0) where one is
    needed have no key ("").
    """
    none = wgname in ("", ":+:+:+:+")
    kind = keyword[:1]
    if not kind:
        return ""

    def ijk() -> str:
        i, rest = (num - 1) % grid.nI + 1, (num - 1) // grid.nI
        return f"{i},{rest % grid.nJ + 1},{rest // grid.nJ + 1}"

    if (kind in "ABCR" and num <= 0) or (kind in "WGCS" and none):
        return ""
    if kind == "A" or kind == "R":
        return f"{keyword}:{num}"
    if kind == "B":
        return f"{keyword}:{ijk()}"
    if kind == "C":
        return f"{keyword}:{wgname}:{ijk()}"
    if kind == "S":
        return f"{keyword}:{wgname}:{num}"
    if kind in "WG" or (kind == "N" and not none):
        return f"{keyword}:{wgname}"
    return keyword


def read(path: str | os.PathLike[str]) -> Results:
    """Opens the result files of a simulation case: reads their array headers, no values.

    Parameters
    ----------
    path : str or path-like
        The case's base name (``"run/SPE1CASE1"``) or any of its files
        (``"run/SPE1CASE1.UNRST"``, ``.EGRID``, ``.DATA``, ...).

    Returns
    -------
    Results
        The grid, units, report steps and dates at once; the arrays and summary vectors
        read when asked for (:meth:`Results.cell_property`, :meth:`Results.summary`).

    Raises
    ------
    FileNotFoundError
        None of the case's EGRID, INIT, restart or SMSPEC files exists (the message lists the
        cases in that directory).
    ValueError
        A file is not an unformatted result file, or is cut short.

    Examples
    --------
    >>> import kavra.results
    >>> r = kavra.results.read("run/SPE1CASE1.DATA")                 # doctest: +SKIP
    >>> r.grid, r.units, r.steps                                      # doctest: +SKIP
    (ReservoirTopology(10, 10, 3), 'FIELD', (0, 1, 2, 3, 4, 5, 6))
    """
    return Results(_case_base(pathlib.Path(os.fspath(path))))


def _capillary(deck: Any, satnum: Any, saturation: Any, *sources: tuple[str, int]) -> Any:
    """The capillary pressure per cell at its saturation, from the first of `sources` (keyword,
    columns: the last column is the capillary pressure, the first the saturation) that the deck
    has, linear in the saturation within each SATNUM region's table; 0.0 without any."""
    for keyword, columns in sources:
        try:
            records = deck.records(keyword)
        except KeyError:
            continue
        s = np.asarray(np.ma.getdata(saturation), dtype=np.float64)
        regions = np.broadcast_to(np.ma.getdata(satnum), s.shape)
        pc = np.zeros(s.shape)
        for region, record in enumerate(records, start=1):
            table = record.reshape(-1, columns)
            at = regions == region
            pc[at] = np.interp(s[at], table[:, 0], np.nan_to_num(table[:, -1]))  # a defaulted Pc is 0
        return pc
    return 0.0
