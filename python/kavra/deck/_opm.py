"""Reading a deck through opm.io: opm's parser and its ``EclipseState``, the numbers of the
records of a parsed deck, and the grid properties as opm's state holds them.

This is the module of :mod:`kavra.deck` whose private names the others import: opm's classes,
:class:`DeckError` and the readers of opm's records serve all of them.
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

import re

import numpy as np
from numpy.typing import NDArray

from .._grid import reservoir_grid
from ..tables import UNIT_SYSTEMS

if TYPE_CHECKING:
    from .. import tessel
    from .._grid import Grid

try:
    from opm.io.ecl_state import EclipseState as _EclipseState  # type: ignore[import-untyped]
    from opm.io.parser import ParseContext
    from opm.io.parser import Parser
    from opm.io.parser import action
except ImportError as _error:  # the optional extra is not installed
    raise ImportError(
        "kavra.deck reads decks with the opm package, which is not installed: "
        "pip install 'kavra[deck]' (or pip install opm)") from _error

# What the other modules of kavra.deck take from here.
__all__ = ["DEFAULTS", "REGION_PROPERTIES", "DeckError", "OpmState", "ParseContext", "Parser", "action", "array_item",
           "any_defaulted", "defaulted", "defaulted_slots", "grid", "pvt_regions", "record_values", "units"]

#: Region numbers that the simulator takes as 1 in every cell when the deck leaves them out.
REGION_PROPERTIES: tuple[str, ...] = (
    "PVTNUM", "SATNUM", "IMBNUM", "EQLNUM", "FIPNUM", "ENDNUM", "ROCKNUM", "MULTNUM", "FLUXNUM", "OPERNUM",
    "MISCNUM", "KRNUMX", "KRNUMY", "KRNUMZ", "IMBNUMX", "IMBNUMY", "IMBNUMZ")

#: Grid properties that a simulator fills in when the deck leaves them out.
DEFAULTS: dict[str, tuple[Any, type]] = {"NTG": (1.0, np.float64), "MULTPV": (1.0, np.float64),
                                         "ACTNUM": (1, np.int32),
                                         **{name: (1, np.int32) for name in REGION_PROPERTIES}}

_SECTIONS = ("EDIT", "PROPS", "REGIONS", "SOLUTION", "SUMMARY", "SCHEDULE")  # the sections after GRID


class DeckError(ValueError):
    """A deck that cannot be read, or a table in it that the calculations cannot take."""


class OpmState:
    """The grid properties of a :class:`kavra.deck.Deck` as opm's ``EclipseState`` holds them: a
    base of ``Deck``, which gives it the parsed deck, the grid and what is worked out once."""

    grid: tessel.ReservoirTopology | Grid
    units: str
    _parsed: Any
    _state: Any
    _marker: str  # the integer property that numbers the cells in opm's state
    _known: dict[str, Any]

    if TYPE_CHECKING:  # Deck's own, and those of kavra.deck._conversion.DeckUnits
        def _as_written(self, name: str) -> NDArray[Any]: ...

        def _deck_units(self, name: str, si: NDArray[np.float64],
                        active: NDArray[np.bool_]) -> NDArray[np.float64]: ...

    def _opm_state(self) -> Any:
        """opm's EclipseState of the deck: the grid and the grid properties with every edit
        applied, in SI units, over the cells it keeps.

        Built from a copy of the deck read (opm's Deck.add copies a keyword): building the
        state converts the numbers of the deck it is given to SI in place, and the deck read
        keeps its numbers as written.  The copy has a marker at the end of the GRID section:
        an integer property no other keyword of the deck reads, holding each cell's number
        from 1, whose values in the state name the cells that opm kept (opm hands out a
        property over those cells only, without saying which they are)."""
        if self._state is None:
            g = self.grid
            marker = self._free_marker()
            numbers = _cell_numbers(g.number_of_cells())
            marked = Parser().parse_string(f"RUNSPEC\nDIMENS\n {g.nI} {g.nJ} {g.nK} /\nGRID\n{marker}\n{numbers} /\n")
            deck, placed, in_grid = Parser().parse_string(""), False, False
            for keyword in self._parsed:
                if keyword.name in _SECTIONS and in_grid and not placed:
                    deck.add(marked[marker])
                    placed = True
                in_grid = in_grid or keyword.name == "GRID"
                deck.add(keyword)
            if not placed:
                deck.add(marked[marker])
            try:
                self._state = _EclipseState(deck)
            except (RuntimeError, ValueError, IndexError) as error:
                raise DeckError(f"opm cannot build the grid and its properties: {error}") from error
            kept = np.asarray(self._state.field_props().get_int_array(marker), dtype=np.int64) - 1
            self._known["input_active"] = np.zeros(g.number_of_cells(), dtype=bool)
            self._known["input_active"][kept] = True
            self._marker = marker
        return self._state

    def _free_marker(self) -> str:
        """An integer property that no keyword of the deck reads: the deck has no such keyword,
        no region operation names its region array, no OPERATER reads OPERNUM."""
        regional = [str(k).replace("'", " ").split() for k in self._parsed
                    if k.name in ("EQUALREG", "ADDREG", "MULTIREG", "COPYREG", "OPERATER")]
        for name, letter in (("OPERNUM", "O"), ("FLUXNUM", "F"), ("MULTNUM", "M")):
            if name not in self._parsed and not any(letter in tokens for tokens in regional) and not (
                    name == "OPERNUM" and "OPERATER" in self._parsed):
                return name
        raise DeckError("the deck uses OPERNUM, FLUXNUM and MULTNUM: kavra cannot tell which cells opm keeps")

    def _input_active(self) -> NDArray[np.bool_]:
        """The cells that opm keeps (ACTNUM, edits applied, with a pore volume above 0): those
        its properties hold values for."""
        self._opm_state()
        mask: NDArray[np.bool_] = self._known["input_active"]
        return mask

    def _simulated(self, name: str) -> NDArray[Any]:
        properties = self._opm_state().field_props()
        values: NDArray[Any] | None = None
        for get, dtype in ((properties.get_double_array, np.float64), (properties.get_int_array, np.int32)):
            if name == self._marker:  # the cell numbers kavra put in; the deck has no such keyword
                break
            try:
                values = np.asarray(get(name), dtype=dtype)
                break
            except (ValueError, RuntimeError, KeyError, IndexError):  # not a property of that type
                continue
        active = self._input_active()
        if values is None and name in DEFAULTS and name not in self._parsed:
            default, kind = DEFAULTS[name]
            values = np.full(int(active.sum()), default, dtype=kind)
        if values is None:
            return self._as_written(name)  # a KeyError or a DeckError in words
        if values.dtype == np.float64:
            values = self._deck_units(name, values, active)
        full = np.full(self.grid.number_of_cells(), np.nan if values.dtype == np.float64 else 0, dtype=values.dtype)
        full[active] = values
        return full


# --- what every table needs ----------------------------------------------------------------


def units(parsed: Any) -> str:
    name = str(parsed.active_unit_system().name).upper()
    if name not in UNIT_SYSTEMS:
        raise DeckError(f"the deck's unit system {name} is not one of {', '.join(UNIT_SYSTEMS)}")
    return name


def grid(parsed: Any) -> tessel.ReservoirTopology | Grid:
    if "DIMENS" not in parsed:
        raise DeckError("the deck has no DIMENS keyword: the grid size is unknown")
    record = parsed["DIMENS"][0]
    left = defaulted(record, 3)
    if left.any():
        raise DeckError(f"DIMENS record 1: value {int(np.argmax(left)) + 1} is left to its default; "
                        f"the grid size needs nI, nJ and nK written out")
    dims = [record[i].get_int(0) for i in range(3)]
    try:
        return reservoir_grid(*dims)
    except (ValueError, OverflowError) as error:
        raise DeckError(f"DIMENS record 1: {error}") from error


def pvt_regions(parsed: Any) -> int:
    if "TABDIMS" not in parsed:
        return 1
    return int(parsed["TABDIMS"][0][1].get_int(0))  # NTPVT


_DEFAULTED = re.compile(r"(?<!\S)\d+\*(?!\S)")  # a token N*: N values left to their default


def any_defaulted(text: str) -> bool:
    """Whether opm's text of a record shows a value left to its default (as
    :func:`defaulted_slots` would, but without a list as long as the record)."""
    return _DEFAULTED.search(text) is not None and any(defaulted_slots(text))


def defaulted_slots(text: str) -> list[bool]:
    """Which values of a record opm's text of it shows as left to their default.

    opm writes a record back as the deck would hold it, with ``N*`` for N values left
    to their default; it is the one place its Python interface tells them apart.
    Values after the last one written are defaulted as well (the caller sees them as
    missing slots)."""
    slots: list[bool] = []
    for token in text.split():
        if token == "/":
            break
        count, star, value = token.partition("*")
        if star and count.isdigit():
            slots += [not value] * int(count)
        else:
            slots.append(False)
    return slots


def record_values(record: Any, where: str) -> NDArray[np.float64]:
    values: list[float] = []
    for item in record:
        if item.is_string():
            raise DeckError(f"{where}: item {item.name()} holds text, not numbers")
        values += item.get_data_list() if item.is_int() else item.get_raw_data_list()
    return np.array(values, dtype=np.float64)


def defaulted(record: Any, count: int) -> NDArray[np.bool_]:
    """Which of a record's first `count` values the deck left to their default (``1*``, or a
    record ended early)."""
    slots = defaulted_slots(str(record))
    return np.array([slots[i] if i < len(slots) else True for i in range(count)], dtype=bool)


def array_item(keyword: Any, name: str) -> Any:
    if len(keyword) != 1 or len(keyword[0]) != 1 or keyword[0][0].is_string():
        raise DeckError(f"{name} is not a grid property: it does not hold one list of numbers")
    return keyword[0][0]


def _cell_numbers(n: int) -> str:
    """'1 2 3 ... n', the thousands at a time: each thousand 'k000 k001 ... k999' joined from
    the same thousand endings (a tenth of the time of writing each number on its own)."""
    endings = [f"{e:03d}" for e in range(1000)]
    parts = [" ".join(map(str, range(1, min(n, 999) + 1)))]
    for k in range(1, n // 1000 + 1):
        prefix = str(k)
        parts.append(prefix + (" " + prefix).join(endings[:n - k * 1000 + 1]))
    return " ".join(parts)
