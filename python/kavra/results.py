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
Before reading values, the file's size and modification time and the array's
header are checked against what :func:`read` saw: a file rewritten since is an
error that names it, never another array's numbers.

The formatted (text) files of a case (``.FEGRID``, ``.FINIT``, ``.FUNRST``,
``.FSMSPEC``, ``.FUNSMRY``, ``.F0001``, ``.A0001``, ...) are read too, to the
numbers they write (resfo's reading, bit for bit; such a file writes 8
significant digits, where a float32 may need 9); reading one of their arrays
parses its text.

The output of the simulators of the ECLIPSE family reads the same way:

* dual porosity (``DUALPORO``, ``DUALPERM``): the INIT and restart arrays hold
  2·NZ layers, the matrix layers first, then the fracture; :attr:`Results.grid`
  has those 2·NZ layers and :attr:`Results.dual_porosity` is True.  Each cell
  is masked by its own bit of the EGRID's ACTNUM (1: matrix active, 2:
  fracture active, 3: both).  ``a[:a.size // 2]`` is the matrix,
  ``a[a.size // 2:]`` the fracture, each on a grid of ``(nI, nJ, nK // 2)``;
* cells named by ``CELLID`` (IX): the arrays of an INIT (and of its restart)
  with one value per cell that CELLID names (1-based cell numbers) are placed
  in those cells, and masked elsewhere.

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
import struct
import threading
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

# LOGIHEAD: the item (from 0) that is True in a dual-porosity run; FILEHEAD of an EGRID: the item
# of its dual-porosity model (0 single porosity, 1 dual porosity, 2 dual permeability).
_LOGI_DUAL, _FILE_DUAL = 14, 5
# GRIDUNIT of an EGRID: the length unit of the grid, and the unit system it belongs to.
_GRID_UNITS = {"METRES": "METRIC", "FEET": "FIELD", "CM": "LAB"}

# Unified files and step files (X0000 restart, S0001 summary; formatted: F0000, A0001).
_STEP_FILE = re.compile(r"\.[XSFA]\d{4}$", re.IGNORECASE)
_EXTENSIONS = ("EGRID", "INIT", "UNRST", "SMSPEC", "UNSMRY")
_FORMATTED = {"F" + e for e in _EXTENSIONS}
# Each kind of file of a case: its unformatted and formatted extension, and the letters of its step files.
_KINDS = {"EGRID": ("EGRID", "FEGRID", None), "INIT": ("INIT", "FINIT", None),
          "RESTART": ("UNRST", "FUNRST", ("X", "F")), "SMSPEC": ("SMSPEC", "FSMSPEC", None),
          "SUMMARY": ("UNSMRY", "FUNSMRY", ("S", "A"))}
# The files a simulator writes beside these that name a case too.
_CASE_SUFFIXES = {"." + e for e in (*_EXTENSIONS, *_FORMATTED, "DATA", "PRT", "DBG", "ESMRY", "RSM", "RFT")}


def _is_formatted(path: pathlib.Path) -> bool:
    """Whether a result file is formatted (text), by its extension."""
    suffix = path.suffix[1:].upper()
    return suffix in _FORMATTED or (len(suffix) == 5 and suffix[0] in "FA" and suffix[1:].isdigit())


class _Array(NamedTuple):
    """Where one array of a file is: its header starts at `header`, its values at `offset` (the first
    block's marker; unformatted files); `seen` is the file's (size, mtime_ns) when it was scanned."""

    path: pathlib.Path
    offset: int
    length: int
    kind: bytes
    name: str = ""
    header: int = -1
    seen: tuple[int, int] = (-1, -1)
    formatted: bool = False


class _CellState(NamedTuple):
    """What the masks of a case's arrays come from, read from its files once."""

    inactive: NDArray[np.uint8] | None  # a bit a cell (packed), set at the inactive cells; None: all active
    inactive_count: int
    cellid: NDArray[np.intp] | None  # the cells (from 0) that CELLID names, in its order


def _unpacking_grid(ni: int, nj: int, nk: int) -> Any:
    """The grid of nI x nJ x nK cells (see kavra._grid), which unpacks as ``nI, nJ, nK``."""
    grid = reservoir_grid(ni, nj, nk)
    if isinstance(grid, tuple):
        return grid
    return _ReservoirGrid(ni, nj, nk)


try:
    from .tessel import ReservoirTopology as _Topology
except ImportError:  # a build without Boost.Python: grids are (nI, nJ, nK) named tuples
    _Topology = object  # type: ignore[misc, assignment]


class _ReservoirGrid(_Topology):  # type: ignore[misc, valid-type]
    """A kavra.tessel.ReservoirTopology that unpacks as ``nI, nJ, nK``."""

    def __iter__(self) -> Any:
        return iter((self.nI, self.nJ, self.nK))

    def __repr__(self) -> str:
        return f"ReservoirTopology({self.nI}, {self.nJ}, {self.nK})"


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


def _stamp(stream: Any) -> tuple[int, int]:
    """The (size, mtime_ns) of an open file."""
    status = os.fstat(stream.fileno())
    return status.st_size, status.st_mtime_ns


def _changed(path: pathlib.Path, what: str) -> ValueError:
    return ValueError(f"{path} has changed since kavra.results.read opened it ({what}): read the case again")


def _scan(path: pathlib.Path, small: Sequence[str] = ()) -> list[tuple[str, _Array, Any]]:
    """The arrays of a file in file order: (name, where, values), with values read for the names in `small`.

    Only the headers are read from an unformatted file (resfo moves from one to the next without
    reading the values); a formatted file is parsed whole.
    """
    formatted = _is_formatted(path)
    found: list[tuple[str, _Array, Any]] = []
    with (open(path, "r", encoding="latin-1") if formatted else open(path, "rb")) as stream:
        seen = _stamp(stream)
        try:
            for entry in resfo.lazy_read(stream, resfo.Format.FORMATTED if formatted else resfo.Format.UNFORMATTED):
                name, count, kind = entry.read_keyword().strip(), entry.read_length(), entry.read_type()
                kind = kind.encode("ascii") if isinstance(kind, str) else kind
                end = stream.tell()
                if count < 0 or (not formatted and end > seen[0]):
                    raise resfo.ResfoParsingError(f"the file ends inside the values of {name}")
                values = entry.read_array() if name in small else None
                offset = -1 if formatted else end - _data_bytes(count, kind)
                found.append((name, _Array(path, offset, int(count), kind, name, entry.start, seen, formatted),
                              values))
                stream.seek(end)
        # a length that leads before the start of the file makes the seek fail (EINVAL); a formatted
        # header without a count ends numpy's parsing with nothing (IndexError)
        except (resfo.ResfoParsingError, UnicodeDecodeError, OSError, IndexError, ValueError) as error:
            form = "a formatted" if formatted else "an unformatted"
            raise ValueError(f"{path} is not {form} result file, or it is cut short: {error}") from error
    return found


def _check_header(array: _Array, stream: Any) -> Any:
    """Checks that the file is as it was scanned: its size and time, and the array's header (name, count,
    type); returns the formatted file's entry of the array (None for an unformatted file)."""
    if _stamp(stream) != array.seen:
        raise _changed(array.path, "its size or modification time differ")
    stream.seek(array.header)
    entry = None
    if array.formatted:
        try:
            entry = next(iter(resfo.lazy_read(stream, resfo.Format.FORMATTED)), None)
            header = None if entry is None else (entry.read_keyword().strip(), entry.read_length(), entry.read_type())
        except (resfo.ResfoParsingError, ValueError, IndexError, UnicodeDecodeError):
            header = None
    else:
        raw = stream.read(24)
        fields = struct.unpack(">i8si4si", raw) if len(raw) == 24 else (0,) * 5  # marker, name, count, type, marker
        header = (fields[1].decode("latin-1").strip(), fields[2], fields[3]) if fields[0] == 16 == fields[4] else None
    if header is None or (header[0], int(header[1]), header[2]) != (array.name, array.length, array.kind):
        raise _changed(array.path, f"the header of {array.name} is not where it was")
    return entry


def _read_into(array: _Array, out: NDArray[Any]) -> None:
    """Reads the values of a numeric array into `out` (its count of values, any numeric type).

    The blocks are read a few thousand at a time into one buffer and converted
    from big-endian into `out`; their markers are checked on the way.  The file
    and the array's header are checked first (:func:`_check_header`).
    """
    if array.formatted:
        with open(array.path, "r", encoding="latin-1") as text:
            entry = _check_header(array, text)
            try:
                out[:array.length] = entry.read_array()
            except (resfo.ResfoParsingError, ValueError, IndexError) as error:
                raise ValueError(f"{array.path} has a damaged array {array.name}: {error}") from error
        return
    big = _NUMERIC[array.kind]
    block_bytes = _BLOCK_VALUES * big.itemsize
    buffer = np.empty(_BLOCKS_PER_READ * (block_bytes + 8), dtype=np.uint8)
    done = 0
    with open(array.path, "rb") as stream:
        _check_header(array, stream)
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


def _case_files(case: pathlib.Path, named: pathlib.Path | None) -> dict[str, list[pathlib.Path]]:
    """The files of each kind of a case (a list of step files, or one file), unformatted ones first,
    formatted ones first when `named` is a formatted file; the kind of `named` is that file."""
    formatted_first = named is not None and _is_formatted(named)
    named_kind = None
    if named is not None:
        suffix = named.suffix[1:].upper()
        for key, (binary, text, letters) in _KINDS.items():
            if suffix in (binary, text) or (letters and _STEP_FILE.search(named.name) and suffix[0] in letters):
                named_kind = key
        if named_kind is not None and not named.is_file():
            raise FileNotFoundError(f"{named} does not exist")
    found: dict[str, list[pathlib.Path]] = {}
    for key, (binary, text, letters) in _KINDS.items():
        forms = [(text, 1), (binary, 0)] if formatted_first else [(binary, 0), (text, 1)]
        if key == named_kind:
            forms = forms[:1]
        for extension, form in forms:
            unified = _case_file(case, extension)
            files = [unified] if unified is not None else _step_files(case, letters[form]) if letters else []
            if files:
                found[key] = files
                break
    return found


def _cases_in(directory: pathlib.Path) -> str:
    """The cases of a directory and their files, for a message."""
    cases: dict[str, list[str]] = {}
    if directory.is_dir():
        for p in sorted(directory.iterdir()):
            if p.suffix[1:].upper() in (*_EXTENSIONS, *_FORMATTED) or _STEP_FILE.search(p.name):
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
        has no EGRID), which unpacks as ``nI, nJ, nK = r.grid``; in a build without
        kavra.tessel, a named tuple ``(nI, nJ, nK)`` with ``number_of_cells()``, which kavra's
        functions take as well.  In a dual-porosity case, nK is twice the EGRID's NZ.
    dual_porosity : bool
        Whether the case is dual porosity (or dual permeability): its arrays hold 2·NZ layers,
        the matrix layers first, then the fracture layers, each cell masked by its own bit of
        ACTNUM (1: matrix, 2: fracture, 3: both).  Either half of an array ``a`` is a grid of
        its own, ``(nI, nJ, nK // 2)``: ``a[:a.size // 2]`` the matrix, ``a[a.size // 2:]``
        the fracture (for :func:`kavra.column_map` and the rest).
    units : str
        The unit system that the files write every number in: ``"METRIC"``, ``"FIELD"``,
        ``"LAB"`` or ``"PVT-M"``; of an EGRID alone, the one of its GRIDUNIT (METRES,
        FEET, CM).  Pressures are barsa in METRIC, psia in FIELD, atma in LAB.
    steps : tuple of int
        The report steps of the restart file(s), in file order (empty without restart files).
    files : dict of str to pathlib.Path
        The files found: ``"EGRID"``, ``"INIT"``, ``"RESTART"`` (the UNRST, or the first of
        the non-unified restart files), ``"SMSPEC"``, ``"SUMMARY"``: the unformatted files, or
        the formatted ones where the case has no unformatted file of that kind (formatted
        first when :func:`read` was given a formatted file; the file given is always the one
        of its kind).
    """

    case: pathlib.Path
    grid: tessel.ReservoirTopology | Grid
    dual_porosity: bool
    units: str
    steps: tuple[int, ...]
    files: dict[str, pathlib.Path]

    def __init__(self, case: pathlib.Path, named: pathlib.Path | None = None) -> None:
        self.case = case
        found = _case_files(case, named)
        self.files = {key: paths[0] for key, paths in found.items()}
        if not self.files:
            raise FileNotFoundError(
                f"no results of a case {case.name} in {case.parent}: no {case.name}.EGRID, .INIT, .UNRST or "
                f".SMSPEC there.  The cases there: {_cases_in(case.parent)}")
        self._summary_files = found.get("SUMMARY", [])
        self._actnum: _Array | None = None
        # What the arrays' masks come from, read from ACTNUM (and CELLID) when first needed: set
        # once, whole, under the lock (threads may ask for the first array at once).
        self._lock = threading.Lock()
        self._state: _CellState | None = None

        egrid = _scan(self.files["EGRID"], ("GRIDHEAD", "FILEHEAD", "GRIDUNIT")) if "EGRID" in self.files else []
        init = _scan(self.files["INIT"], ("INTEHEAD", "LOGIHEAD")) if "INIT" in self.files else []
        self._init = _first_of_each(init)
        init_values = _first_of_each(init, values=True)
        self._init_header: NDArray[np.int32] | None = init_values.get("INTEHEAD")
        self._cellid: _Array | None = self._init.get("CELLID")
        self._steps: dict[int, dict[str, _Array]] = {}
        self._headers: dict[int, NDArray[np.int32]] = {}
        for path in found.get("RESTART", []):
            self._index_restart(path)
        self.steps = tuple(self._steps)

        dims: list[int] | None = None
        egrid_values = _first_of_each(egrid, values=True)
        header = init_values.get("INTEHEAD", next(iter(self._headers.values()), None))
        if header is not None and header.size <= _NACTIVE:
            raise ValueError(f"the INTEHEAD of {case.name} holds {header.size} items, too few for the grid")
        self._actnum = _first_of_each(egrid).get("ACTNUM")
        if egrid_values.get("GRIDHEAD") is not None and len(egrid_values["GRIDHEAD"]) >= 4:
            dims = [int(n) for n in egrid_values["GRIDHEAD"][1:4]]
        filehead, logihead = egrid_values.get("FILEHEAD"), init_values.get("LOGIHEAD")
        self.dual_porosity = bool(filehead[_FILE_DUAL] in (1, 2)) if filehead is not None and len(
            filehead) > _FILE_DUAL else bool(logihead is not None and len(logihead) > _LOGI_DUAL and logihead[_LOGI_DUAL])
        if dims is not None and self.dual_porosity:
            dims[2] *= 2  # matrix layers, then fracture layers
        if dims is None and header is not None:
            dims = [int(n) for n in header[_DIMS]]  # in a dual-porosity run, 2 NZ layers already
        self._summary_error: str | None = None
        self._smspec: dict[str, Any] = {}
        self._vectors: dict[str, tuple[int, str]] = {}  # each vector's position in a step's record, and unit
        if "SMSPEC" in self.files:
            try:
                self._smspec = self._read_smspec()
            except ValueError as error:  # a damaged summary hides nothing else: summary() says what is wrong
                self._summary_error = str(error)
        if dims is None and "DIMENS" in self._smspec:
            dims = [int(n) for n in self._smspec["DIMENS"][1:4]]
        if dims is None:
            raise ValueError(f"the case {case} has no grid dimensions: no GRIDHEAD in an EGRID, no INTEHEAD "
                             "in an INIT or restart, no DIMENS in an SMSPEC")
        if len(dims) != 3 or min(dims) < 1:
            raise ValueError(f"the case {case} has a grid of {dims} cells")
        self.grid = _unpacking_grid(*dims)
        self._cells = dims[0] * dims[1] * dims[2]
        # The active cells that the headers count: what a case without ACTNUM is checked against.
        self._header_active = int(header[_NACTIVE]) if header is not None else self._cells
        # INTEHEAD numbers the unit systems 1 to 4 in the order of UNIT_SYSTEMS; an EGRID alone says
        # its length unit in GRIDUNIT.
        code = int(header[_UNITS]) if header is not None else 0
        gridunit = "".join(_strings(egrid_values.get("GRIDUNIT", []))[:1]).upper()
        if header is None and gridunit in _GRID_UNITS:
            self.units = _GRID_UNITS[gridunit]
        else:
            self.units = UNIT_SYSTEMS[code - 1] if 1 <= code <= len(UNIT_SYSTEMS) else f"unknown ({code})"
        if self._smspec:
            try:
                self._vectors = self._summary_vectors()
            except ValueError as error:
                self._summary_error = str(error)
        self._records: list[_Array] | None = None

    def _read_smspec(self) -> dict[str, Any]:
        """The arrays of the SMSPEC that name its vectors, checked to be there."""
        wanted = ("DIMENS", "KEYWORDS", "WGNAMES", "NAMES", "NUMS", "UNITS", "STARTDAT")
        header = {name: values for name, values in _first_of_each(
            _scan(self.files["SMSPEC"], wanted), values=True).items() if name in wanted}
        lacking = sorted({"KEYWORDS", "NUMS", "UNITS", "STARTDAT"} - set(header))
        if "WGNAMES" not in header and "NAMES" not in header:
            lacking.append("WGNAMES (or NAMES)")
        if lacking:
            raise ValueError(f"{self.files['SMSPEC']} lacks {_listing(lacking)}")
        return header

    def _summary_vectors(self) -> dict[str, tuple[int, str]]:
        """Each summary vector's key: its position in a time step's record, and its unit."""
        header = self._smspec
        names = header["WGNAMES"] if "WGNAMES" in header else header["NAMES"]
        columns = [_strings(header["KEYWORDS"]), _strings(names), header["NUMS"], _strings(header["UNITS"])]
        if len({len(c) for c in columns}) != 1:
            raise ValueError(f"{self.files['SMSPEC']} holds KEYWORDS, {'WGNAMES' if 'WGNAMES' in header else 'NAMES'}, "
                             f"NUMS and UNITS of {', '.join(str(len(c)) for c in columns)} items, not one each a vector")
        vectors: dict[str, tuple[int, str]] = {}
        for position, (keyword, wgname, num, unit) in enumerate(zip(*columns)):
            key = _summary_key(keyword, wgname, int(num), self.grid)
            if key:
                vectors.setdefault(key, (position, unit))
        return vectors

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
        if self.dual_porosity:
            parts[0] += f" (dual porosity: {g.nK // 2} matrix layers, then {g.nK // 2} fracture layers)"
        try:  # the cells that ACTNUM marks (read once), else those the headers count
            active = self._cells - self._cell_state().inactive_count
        except (OSError, ValueError):
            active = self._header_active
        parts.append(f"{active} active cells")
        if self.steps:
            parts.append(f"report steps {self.steps[0]}..{self.steps[-1]}" if len(self.steps) > 1
                         else f"report step {self.steps[0]}")
        if self._summary_error is not None:
            parts.append("a summary that cannot be read")
        elif self._smspec:
            parts.append(f"{len(self._vectors)} summary vectors")
        return f"<kavra.results.Results {', '.join(parts)}>"

    def _cell_state(self) -> _CellState:
        """The inactive cells and the cells of CELLID: read the first time, set whole under the lock."""
        state = self._state
        if state is None:
            with self._lock:
                if self._state is None:
                    self._state = self._read_cell_state()
                state = self._state
        return state

    def _read_cell_state(self) -> _CellState:
        cellid = None
        if self._cellid is not None:
            where = self._cellid
            if where.kind != b"INTE" or where.length > self._cells:
                raise ValueError(f"{where.path}: CELLID holds {where.length} values of type {where.kind.decode()}, "
                                 f"not integer cell numbers of the {self._cells} cells")
            numbers = np.empty(where.length, dtype=np.int32)
            _read_into(where, numbers)
            if numbers.size and (numbers.min() < 1 or numbers.max() > self._cells
                                 or np.unique(numbers).size != numbers.size):
                raise ValueError(f"{where.path}: CELLID holds numbers that are not distinct cells "
                                 f"of 1..{self._cells}")
            cellid = numbers.astype(np.intp) - 1
        if self._actnum is None:
            if self._header_active != self._cells:
                raise FileNotFoundError(
                    f"the case has {self._header_active} active cells of {self._cells}, and which they are "
                    f"is in the ACTNUM of {self.case.name}.EGRID, which the case does not have")
            return _CellState(None, 0, cellid)
        layer_cells = self._cells // 2 if self.dual_porosity else self._cells
        if self._actnum.length != layer_cells or self._actnum.kind != b"INTE":
            raise ValueError(f"{self._actnum.path}: ACTNUM holds {self._actnum.length} values, "
                             f"not one for each of the {layer_cells} cells")
        actnum = np.empty(layer_cells, dtype=np.int32)
        _read_into(self._actnum, actnum)
        if self.dual_porosity:  # bit 1: the matrix cell is active, bit 2: the fracture cell
            inactive = np.concatenate(((actnum & 1) == 0, (actnum & 2) == 0))
        else:
            inactive = actnum == 0
        count = int(np.count_nonzero(inactive))
        return _CellState(np.packbits(inactive) if count else None, count, cellid)

    def _inactive_total(self) -> int:
        """How many cells are inactive (by ACTNUM)."""
        return self._cell_state().inactive_count

    def _inactive_cells(self) -> NDArray[np.bool_] | None:
        """A new array, True at each inactive cell; None when every cell is active."""
        bits = self._cell_state().inactive
        return None if bits is None else np.unpackbits(bits, count=self._cells).view(np.bool_)

    @property
    def active(self) -> NDArray[np.bool_]:
        """True at each active cell, in cell order (I fastest): ACTNUM of the EGRID, else all True.

        In a dual-porosity case, 2·NZ layers: the matrix cells (ACTNUM bit 1), then the fracture
        cells (ACTNUM bit 2).
        """
        inactive = self._inactive_cells()
        return np.ones(self._cells, dtype=bool) if inactive is None else ~inactive

    @property
    def dates(self) -> NDArray[np.datetime64]:
        """The date of each report step of :attr:`steps` (datetime64[s]), from the restart headers."""
        stamps = []
        for step in self.steps:
            h = self._headers.get(step)
            what = f"report step {step} of {self.files['RESTART'].name}"
            if h is None or h.size <= _YEAR:
                raise ValueError(f"{what} has no INTEHEAD with its date")
            time = [int(h[i]) if h.size > i else 0 for i in (_HOUR, _MINUTE, _MICROSECOND)]
            stamps.append(_date(what, "INTEHEAD", int(h[_YEAR]), int(h[_MONTH]), int(h[_DAY]), *time))
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

    def _cell_arrays(self, step: int | None) -> tuple[dict[str, _Array], str, list[str]]:
        """The arrays of the INIT (step None) or of a report step, what they are (for messages), and
        the names of the numeric arrays with a value per cell, per active cell or per cell of CELLID."""
        arrays, what = self._arrays(step)
        state = self._cell_state()
        active = self._cells - state.inactive_count
        header = self._init_header if step is None else self._headers.get(int(step))
        if state.cellid is None and self._actnum is not None and header is not None and header.size > _NACTIVE \
                and int(header[_NACTIVE]) not in (active, self._cells):
            raise ValueError(f"{what} holds values for {int(header[_NACTIVE])} active cells (its INTEHEAD), where "
                             f"the ACTNUM of {self._actnum.path.name} marks {active} of {self._cells} cells "
                             "active, and it names no cells in CELLID: its values cannot be placed in their cells")
        sizes = {self._cells, active} | (set() if state.cellid is None else {state.cellid.size})
        return arrays, what, [name for name, a in arrays.items() if a.kind in _NUMERIC and a.length in sizes]

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
        return tuple(self._cell_arrays(step)[2])

    def in_place(self, step: int, deck: Any = None, *, threads: int | None = None) -> Any:
        """Oil, gas and water in place per cell at a report step, as the simulator's FIP arrays.

        :func:`kavra.blackoil.in_place` of the deck and the step's PRESSURE, SWAT, SGAS, RS and
        RV (those the restart holds; a missing saturation is 0), with the INIT's PORV and
        PVTNUM: water and gas at their own pressures, PRESSURE less Pcow (plus Pcog) of
        :mod:`kavra.satfunc` at the cell's saturations, SATNUM region and end points, as the
        simulator scales them; with SWATINIT, each cell's largest Pcow is the step's PPCW (else
        the INIT's), where the simulator's initialisation left it.  :func:`kavra.region_totals`
        of a part with the INIT's FIPNUM gives the totals per region.  The SATNUM regions are
        the INIT's where it holds them (as the simulators write it): opm's state of the deck's
        grid and properties, which reading them from the deck builds (about 2 GB of memory and
        20 s for 10^7 cells), is then built only for the end points of a deck with ENDSCALE.

        Without a deck (none given, no ``CASE.DATA`` beside the case), the simulator's own
        arrays of the step, :func:`kavra.blackoil.in_place_from_arrays` of its 1OVERBO,
        1OVERBG, 1OVERBW, SWAT, SGAS, SOIL, RS and RV, with its RPORV (else the INIT's PORV,
        the pore volume at the reference pressure): 1OVERBW is needed where the step has
        SWAT, 1OVERBG where it has SGAS; without RS (RV) the oil holds no gas (the gas no oil).

        In a dual-porosity case (:attr:`dual_porosity`) each part has the 2·NZ layers of the
        arrays: ``part[:part.size // 2]`` is the matrix, ``part[part.size // 2:]`` the fracture.

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
            No deck given, none beside the case, and the step lacks the arrays to do without one
            (the message lists them); no INIT or restart file.
        KeyError
            `step` is not a report step; the restart has no PRESSURE.
        ValueError
            The deck's grid has another number of cells than the case's arrays (a dual-porosity
            case, or the deck of another case), or :func:`kavra.satfunc.from_deck` refuses its
            saturation functions; a deck with SWATINIT and no PPCW in the step or the INIT.

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
                return self._in_place_of_restart(step, f"there is no {deck.name} beside the case")
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
        ppcw = None
        if "SWATINIT" in deck.keywords:  # each cell's Pcow maximum: Flow writes PPCW with the restart's arrays
            ppcw = restart("PPCW") if "PPCW" in names else self.cell_property("PPCW") if "PPCW" in static else None
            if ppcw is None:
                raise ValueError(f"in_place: the deck has SWATINIT, and neither report step {step} of the restart nor "
                                 "the INIT holds PPCW, each cell's largest Pcow after the simulator's initialisation; "
                                 "use kavra.blackoil.in_place with ppcw=kavra.equil.initial_state(deck).ppcw")
        satnum = None
        if "SATNUM" in static and deck.grid.number_of_cells() == self._cells:  # (else in_place says what is wrong)
            # The cells' regions as the run took them, from the INIT: opm's state of the deck's grid
            # and properties (2 GB and 20 s for 10^7 cells) is then built only for ENDSCALE's end points.
            satnum = self.cell_property("SATNUM")
        return blackoil.in_place(deck, init("PVTNUM"), self.cell_property("PORV"), p, sw, sg, restart("RS"),
                                 restart("RV"), ppcw=ppcw, satnum=satnum, threads=threads)

    def _in_place_of_restart(self, step: int, why: str) -> Any:
        """in_place of the step's own 1OVERBO, 1OVERBG, 1OVERBW and RPORV (else the INIT's PORV)."""
        from . import blackoil

        names = self.property_names(step)
        lacking = [name for name, needed in (("1OVERBO", True), ("1OVERBW", "SWAT" in names),
                                             ("1OVERBG", "SGAS" in names)) if needed and name not in names]
        if "RPORV" not in names and ("INIT" not in self.files or "PORV" not in self.property_names()):
            lacking.append("RPORV (or an INIT with PORV)")
        if lacking:
            raise FileNotFoundError(
                f"in_place needs the deck of {self.case.name} ({why}; pass deck=), or the simulator's own 1/B "
                f"in the restart, which lacks {_listing(lacking)} at report step {step} (RPTRST BO BG BW RPORV)")

        def restart(name: str) -> Any:
            return self.cell_property(name, step) if name in names else None

        sw, sg = restart("SWAT"), restart("SGAS")
        porv = restart("RPORV") if "RPORV" in names else self.cell_property("PORV")
        return blackoil.in_place_from_arrays(
            porv, np.float32(0.0) if sw is None else sw, np.float32(0.0) if sg is None else sg, restart("1OVERBO"),
            restart("1OVERBG"), restart("1OVERBW"), restart("RS"), restart("RV"), so=restart("SOIL"))

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
            is 0), or where the file's CELLID names no cell.  Its type is the file's (float32, float64, int32, or bool for logical
            arrays), in the machine's byte order; its numbers are in the file's units
            (:attr:`units`): PRESSURE in barsa (METRIC) or psia (FIELD), PORV in rm3 or
            rb, DEPTH and DX in m or ft, saturations and PORO as fractions.

        Raises
        ------
        KeyError
            No array of that name with a value per cell (the message lists those there
            are), or `step` is not a report step of the file (the message lists them).
        ValueError
            The file holds values for another count of active cells than ACTNUM has, and no
            CELLID; the file has changed since :func:`read` (or is damaged).
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
        arrays, what, cells = self._cell_arrays(step)
        key = name if name in cells else str(name).upper()
        if key not in cells:
            raise KeyError(f"{name} is not an array with a value per cell in {what}; "
                           f"those with one: {_listing(cells)}")
        array = arrays[key]
        out = np.empty(self._cells, dtype=_NATIVE[array.kind])
        cellid = self._cell_state().cellid
        if cellid is not None and array.length == cellid.size and array.length != self._cells:
            values = np.empty(array.length, dtype=out.dtype)  # a value per cell that CELLID names
            _read_into(array, values)
            out[...] = 0
            out[cellid] = values
            unnamed = np.ones(self._cells, dtype=bool)
            unnamed[cellid] = False
            return np.ma.MaskedArray(out, mask=unnamed)
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

    def _readable_summary(self) -> None:
        """Raises the ValueError of a summary that cannot be read (found by read(), said when it is used)."""
        if self._summary_error is not None:
            raise ValueError(f"the summary of {self.case.name} cannot be read: {self._summary_error}")

    @property
    def summary_keys(self) -> tuple[str, ...]:
        """The summary vectors of the SMSPEC: FOPR, WBHP:PROD, GOPR:G1, BPR:1,1,1, RPR:1, COPR:PROD:1,1,1, ...

        A ValueError that says what is wrong when the SMSPEC cannot be read.
        """
        self._readable_summary()
        return tuple(self._vectors)

    @property
    def summary_units(self) -> dict[str, str]:
        """The unit of each summary vector (``"STB/DAY"``, ``"PSIA"``, ``"DAYS"``, ...), from the SMSPEC."""
        self._readable_summary()
        return {key: unit for key, (_, unit) in self._vectors.items()}

    def _summary_records(self) -> list[_Array]:
        """The PARAMS record (the values of every vector) of each time step; the files are scanned when first used."""
        if self._records is None:
            records = [where for path in self._summary_files for name, where, _ in _scan(path) if name == "PARAMS"]
            if records and any(r.length != records[0].length or r.kind not in (b"REAL", b"DOUB") for r in records):
                raise ValueError(f"{records[0].path}: the time steps' records (PARAMS) are not each one "
                                 f"{records[0].length} numbers")
            self._records = records
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
        self._readable_summary()
        if key not in self._vectors:
            raise KeyError(f"{key} is not a summary vector of {self.case.name}.SMSPEC; "
                           f"those it has: {_listing(self._vectors)}")
        if not self._summary_files:
            raise FileNotFoundError(f"{self.case.name}.UNSMRY does not exist (nor .S0001, ...)")
        if "TIME" not in self._vectors:
            raise ValueError(f"{self.case.name}.SMSPEC has no TIME vector to date the time steps")
        start = [int(n) for n in self._smspec["STARTDAT"]] + [0] * 6
        origin = np.datetime64(_date(str(self.files["SMSPEC"]), "STARTDAT", start[2], start[1], start[0], *start[3:6]),
                               "s")
        position, unit = self._vectors["TIME"]
        seconds = _gather(self._summary_records(), position).astype(np.float64) * (
            3600.0 if unit.upper() == "HOURS" else 86400.0)
        with np.errstate(invalid="ignore"):  # a TIME that is NaN has no date (NaT)
            dates = origin + np.trunc(seconds).astype("timedelta64[s]")
        return Summary(dates, _gather(self._summary_records(), self._vectors[key][0]))


def _date(what: str, source: str, year: int, month: int, day: int, hour: int = 0, minute: int = 0,
          microsecond: int = 0) -> datetime.datetime:
    """The date and time of a header's items; a ValueError that names them and where they are from."""
    try:
        return datetime.datetime(year, month, day) + datetime.timedelta(
            hours=hour, minutes=minute, seconds=microsecond // 1_000_000)
    except (ValueError, OverflowError) as error:
        raise ValueError(f"{what}: the date of its {source} is not a date: day {day}, month {month}, year {year}, "
                         f"{hour}:{minute:02}:{microsecond / 1e6:g} ({error})") from None


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
    """The value at `position` of each record (one float each), read from the files through a memory map
    (a formatted file is parsed whole); each file is checked to be as it was scanned."""
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
        status = os.stat(path)
        if (status.st_size, status.st_mtime_ns) != records[chosen[0]].seen:
            raise _changed(path, "its size or modification time differ")
        if records[chosen[0]].formatted:
            params = [(where, v) for name, where, v in _scan(path, ("PARAMS",)) if name == "PARAMS"]
            if [(a.header, a.length) for a, _ in params] != [(records[i].header, records[i].length) for i in chosen]:
                raise _changed(path, "its PARAMS records are not where they were")
            values[chosen] = [v[position] for _, v in params]
            continue
        mapped = np.memmap(path, dtype=np.uint8, mode="r")
        headers = np.array([records[i].header + 4 for i in chosen], dtype=np.int64)
        if headers.size and (headers.max() + 8 > mapped.size
                             or (mapped[headers[:, None] + np.arange(8)] != np.frombuffer(b"PARAMS  ", np.uint8)).any()):
            raise _changed(path, "its PARAMS records are not where they were")
        offsets = np.array([records[i].offset + skip for i in chosen], dtype=np.int64)
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
        (``"run/SPE1CASE1.UNRST"``, ``.EGRID``, ``.FINIT``, ``.DATA``, ...).  A file of
        results named is the one read for its kind (``"CASE.FINIT"``: the formatted INIT,
        and the case's other formatted files before its unformatted ones).

    Returns
    -------
    Results
        The grid, units, report steps and dates at once; the arrays and summary vectors
        read when asked for (:meth:`Results.cell_property`, :meth:`Results.summary`).

    Raises
    ------
    FileNotFoundError
        None of the case's EGRID, INIT, restart or SMSPEC files exists (the message lists the
        cases in that directory); the result file named does not exist.
    ValueError
        A file is not a result file, or is cut short (a summary that cannot be read is said
        by :meth:`Results.summary`, and hides nothing else).

    Examples
    --------
    >>> import kavra.results
    >>> r = kavra.results.read("run/SPE1CASE1.DATA")                 # doctest: +SKIP
    >>> r.grid, r.units, r.steps                                      # doctest: +SKIP
    (ReservoirTopology(10, 10, 3), 'FIELD', (0, 1, 2, 3, 4, 5, 6))
    """
    named = pathlib.Path(os.fspath(path))
    base = _case_base(named)
    return Results(base, named if base != named else None)
