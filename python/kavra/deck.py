"""PVT and rock tables, grid properties and cell geometry read from ECLIPSE-style input decks.

The deck is parsed by ``opm.io`` (the ``opm`` package, installed with
``pip install 'kavra[deck]'``); this module turns what it parsed into the
table values of :mod:`kavra.tables` and NumPy arrays.  Every number of a table
is the one written in the deck, in the deck's own unit system: nothing is
converted to SI and nothing is filled in where a table leaves a value out.
Grid properties are the simulator's: opm's ``EclipseState`` applies the edits
(EQUALS, MULTIPLY, BOX, ...), and its SI numbers come back in the deck's units.
Cell volumes, centre depths and pore volumes are computed natively from the
grid's corner points (:meth:`Deck.cell_volumes`).

Examples
--------
>>> import kavra.deck
>>> deck = kavra.deck.read('''
... RUNSPEC
... DIMENS
...  2 1 1 /
... METRIC
... TABDIMS
... /
... GRID
... PORO
...  0.2 0.3 /
... PROPS
... ROCK
...  250 4.5e-5 /
... ''')
>>> deck.units, deck.grid.number_of_cells(), deck.rock.regions[0]
('METRIC', 2, array([2.5e+02, 4.5e-05]))
>>> deck.cell_property("PORO"), deck.cell_property("NTG")
(array([0.2, 0.3]), array([1., 1.]))
"""

from __future__ import annotations

import functools
import os
import pathlib
import re
from collections.abc import Callable, Iterator
from typing import TYPE_CHECKING, Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from ._grid import reservoir_grid

if TYPE_CHECKING:
    from . import tessel
    from ._grid import Grid

from . import _engine
from ._threads import resolve as _threads
from .tables import DENSITY, PVDG, PVDO, PVTG, PVTO, PVTW, ROCK, UNIT_SYSTEMS

try:
    from opm.io.ecl_state import EclipseState as _EclipseState  # type: ignore[import-untyped]
    from opm.io.parser import ParseContext as _ParseContext
    from opm.io.parser import Parser as _Parser
    from opm.io.parser import action as _action
except ImportError as _error:  # the optional extra is not installed
    raise ImportError(
        "kavra.deck reads decks with the opm package, which is not installed: "
        "pip install 'kavra[deck]' (or pip install opm)") from _error

__all__ = ["Deck", "DeckError", "Equilibration", "read", "example_path", "EXAMPLES", "MAX_INCLUDE_DEPTH",
           "MAX_INCLUDES", "REGION_PROPERTIES"]

#: The decks shipped with kavra (public SPE test decks, each with its license header), for
#: :func:`example_path`.
EXAMPLES: tuple[str, ...] = ("SPE1CASE1", "SPE3CASE1")

#: How deep INCLUDE files may nest, and how many INCLUDE keywords one deck may follow in all.
#: Far beyond any real deck; they bound the work of a deck that includes itself over and over.
MAX_INCLUDE_DEPTH = 32
MAX_INCLUDES = 10_000

#: Region numbers that the simulator takes as 1 in every cell when the deck leaves them out.
REGION_PROPERTIES: tuple[str, ...] = (
    "PVTNUM", "SATNUM", "IMBNUM", "EQLNUM", "FIPNUM", "ENDNUM", "ROCKNUM", "MULTNUM", "FLUXNUM", "OPERNUM",
    "MISCNUM", "KRNUMX", "KRNUMY", "KRNUMZ", "IMBNUMX", "IMBNUMY", "IMBNUMZ")

#: Grid properties that a simulator fills in when the deck leaves them out.
DEFAULTS: dict[str, tuple[Any, type]] = {"NTG": (1.0, np.float64), "MULTPV": (1.0, np.float64),
                                         "ACTNUM": (1, np.int32),
                                         **{name: (1, np.int32) for name in REGION_PROPERTIES}}

# Keywords that change grid properties after they are given.  opm applies them on a deck with
# a grid; on a deck without one (no COORD and ZCORN, no DX, DY, DZ and TOPS) there is nothing
# for the simulator to apply them on, and a property that one of them names is refused.
_EDIT_KEYWORDS = ("EQUALS", "COPY", "ADD", "MULTIPLY", "MINVALUE", "MAXVALUE", "COPYBOX",
                  "EQUALREG", "ADDREG", "MULTIREG", "COPYREG", "OPERATE", "OPERATER")

# Keywords that the grid reads as written (opm refuses edits of them), and the two ways a deck
# gives its grid's geometry.
_GRID_KEYWORDS = ("DX", "DY", "DZ", "TOPS", "COORD", "ZCORN")
_CORNER_POINT = ("COORD", "ZCORN")
_SECTIONS = ("EDIT", "PROPS", "REGIONS", "SOLUTION", "SUMMARY", "SCHEDULE")  # the sections after GRID
_BLOCK_CENTRED = ("DX", "DY", "DZ", "TOPS")

# Table values that may be left to their default, because the default is zero
# in every unit system: PVTW viscosibility, ROCK compressibility (index of the
# value in the record).  Any other default would be a number the deck does not
# hold (opm fills in metric defaults whatever the deck's unit system).
_ZERO_DEFAULTS = {"PVTW": {4}, "ROCK": {1}}


class DeckError(ValueError):
    """A deck that cannot be read, or a table in it that the calculations cannot take."""


def example_path(name: str) -> pathlib.Path:
    """The path of a deck that ships with kavra, to try :func:`read` on.

    Parameters
    ----------
    name : str
        One of :data:`EXAMPLES`: ``"SPE1CASE1"`` (Odeh's first SPE comparative solution
        project: live oil and dry gas, 10 x 10 x 3 cells, FIELD units) or ``"SPE3CASE1"``
        (Kenyon and Behie's third: wet gas, 9 x 9 x 4 cells, FIELD units).  Both keep their
        Open Database License header.

    Returns
    -------
    pathlib.Path
        The ``.DATA`` file inside the installed package.

    Raises
    ------
    ValueError
        `name` is not one of EXAMPLES.

    Examples
    --------
    >>> read(example_path("SPE1CASE1")).units
    'FIELD'
    """
    if name not in EXAMPLES:
        raise ValueError(f"example_path: no deck {name!r} ships with kavra; there are {', '.join(EXAMPLES)}")
    return pathlib.Path(__file__).with_name("decks") / f"{name}.DATA"


class Equilibration(NamedTuple):
    """The items of one EQUIL record (one equilibration region), in the deck's units.

    NaN where the deck leaves an item to its default.  Depths in the deck's length unit (m,
    ft, cm), pressures in its pressure unit (barsa, psia, atma).
    """

    datum_depth: float
    datum_pressure: float
    owc_depth: float  #: the oil-water contact (the gas-water contact of a gas-water deck)
    owc_pc: float  #: the oil-water capillary pressure at that contact
    goc_depth: float
    goc_pc: float
    rsvd_table: float  #: item 7: how Rs (or Pb) varies with depth
    rvvd_table: float  #: item 8: how Rv (or Pd) varies with depth
    accuracy: float  #: item 9: the accuracy of the initial fluid in place


class Deck:
    """What :func:`read` found in a deck.

    Attributes
    ----------
    grid : kavra.tessel.ReservoirTopology
        The grid of DIMENS (nI, nJ, nK); in a build without kavra.tessel, a named tuple
        ``(nI, nJ, nK)`` with ``number_of_cells()``, which kavra's functions take as well.
    units : str
        The deck's unit system: ``"METRIC"``, ``"FIELD"``, ``"LAB"`` or ``"PVT-M"``.  Every
        number of the tables is in it, and its labels are on every scalar they hand out.
    pvto, pvtg, pvdg, pvdo, pvtw, rock, density : kavra.tables.PVTO, ... or None
        The tables of the keywords PVTO, PVTG, PVDG, PVDO, PVTW, ROCK and DENSITY, one per PVT
        region (the NTPVT of TABDIMS), or None where the deck has no such keyword.
    """

    grid: tessel.ReservoirTopology | Grid
    units: str
    pvto: PVTO | None
    pvtg: PVTG | None
    pvdg: PVDG | None
    pvdo: PVDO | None
    pvtw: PVTW | None
    rock: ROCK | None
    density: DENSITY | None

    def __init__(self, parsed: Any, grid: tessel.ReservoirTopology | Grid, units: str,
                 tables: dict[str, Any]) -> None:
        self._parsed = parsed
        self.grid = grid
        self.units = units
        self.pvto, self.pvtg = tables["PVTO"], tables["PVTG"]
        self.pvdg, self.pvdo = tables["PVDG"], tables["PVDO"]
        self.pvtw, self.rock = tables["PVTW"], tables["ROCK"]
        self.density = tables["DENSITY"]
        self._state: Any = None
        self._marker = ""  # the integer property that numbers the cells in opm's state
        self._known: dict[str, Any] = {}  # what is worked out once: the geometry, the active cells

    def __repr__(self) -> str:
        tables = ", ".join(name for name in ("pvto", "pvtg", "pvdg", "pvdo", "pvtw", "rock", "density")
                           if getattr(self, name) is not None)
        g = self.grid
        return f"<kavra.deck.Deck {g.nI}x{g.nJ}x{g.nK} {self.units}, tables: {tables or 'none'}>"

    @property
    def keywords(self) -> tuple[str, ...]:
        """The names of the deck's keywords, in deck order (repeats included)."""
        return tuple(keyword.name for keyword in self._parsed)

    @property
    def active(self) -> NDArray[np.bool_]:
        """The cells the simulator keeps: True for an active cell, in cell order.

        On a deck with a grid: the cells that opm keeps (those of ACTNUM, edits applied, with
        a pore volume above 0), less those without a volume and those whose pore volume
        (:meth:`pore_volume` before the inactive cells are zeroed) is below MINPV (or
        MINPORV), as Flow drops them.  A cell thinner than PINCH's threshold stays active,
        as in Flow.  On a deck without a grid: ACTNUM alone.
        """
        if self._geometry_kind() is None:
            return np.not_equal(self.cell_property("ACTNUM"), 0)
        if "active" not in self._known:
            self._known["active"] = (self._input_active() & (self._geometry()["volumes"] > 0)
                                     & ~(self._pore_volumes() < self._minimum_pore_volume()))
        mask: NDArray[np.bool_] = self._known["active"].copy()
        return mask

    @property
    def equil(self) -> tuple[Equilibration, ...]:
        """The records of EQUIL, one :class:`Equilibration` per equilibration region.

        Raises
        ------
        KeyError
            The deck has no EQUIL keyword.

        Examples
        --------
        >>> deck = read(example_path("SPE1CASE1"))
        >>> deck.equil[0].datum_depth, deck.equil[0].datum_pressure, deck.equil[0].goc_depth
        (8400.0, 4800.0, 8300.0)
        """
        fields = len(Equilibration._fields)
        return tuple(Equilibration(*(float(x) for x in np.resize(np.append(record[:fields], [np.nan] * fields),
                                                                 fields)))
                     for record in self.records("EQUIL"))

    def cell_property(self, name: str) -> NDArray[Any]:
        """One value per cell of a grid property (PORO, NTG, PERMX, PVTNUM, ...) as the
        simulator sees it.

        Parameters
        ----------
        name : str
            The keyword, in any case.

        Returns
        -------
        numpy.ndarray
            A new 1-D array of nI * nJ * nK values in cell order (I fastest, then J, then K):
            float64, or int32 for integer keywords (regions, ACTNUM), in the deck's units.

            On a deck with a grid (COORD and ZCORN, or DX, DY, DZ and TOPS) the values are
            opm's: the keyword and what EQUALS, MULTIPLY, ADD, COPY, MINVALUE, MAXVALUE (in
            BOX ... ENDBOX or a box of their own) and the region operations do to it, from
            opm's SI numbers back to the deck's units (the deck's own number where it is
            the same number in SI).  Cells outside ACTNUM are NaN (0 for integers): the
            simulator holds nothing there.  DX, DY, DZ, TOPS, COORD and ZCORN are the grid's,
            as written (opm refuses edits of them); of corner-point cells, DX (DY) is the
            horizontal distance between the centres of the cell's I (J) faces and DZ the
            vertical one between its top and bottom, as Flow writes them.  COORD and ZCORN
            are their pillars and corner depths, in the deck's order.  End points of
            ENDSCALE (SWL, SWCR, SGU, KRW, PCW, ..., and their X, Y, Z forms) are those the
            deck gives, edits applied.  On a deck without a grid: the numbers as written.
            ACTNUM, NTG, MULTPV and the region numbers of :data:`REGION_PROPERTIES` (FIPNUM,
            SATNUM, EQLNUM, ...) that the deck leaves out are 1, in every cell the simulator
            keeps (in every cell on a deck without a grid), as Flow writes them.  TOPS given
            for the upper layers only is continued downwards with DZ, layer by layer, as a
            simulator does.

        Raises
        ------
        TypeError
            `name` is not a str.
        KeyError
            The deck has no such keyword (and it has no default).
        DeckError
            The keyword does not hold one value per cell or leaves values to their default;
            on a deck without a grid, it is changed by an edit keyword; opm cannot build the
            grid and its properties.

        Examples
        --------
        >>> deck = read("RUNSPEC\\nDIMENS\\n 3 1 1 /\\nGRID\\nPVTNUM\\n 1 2 2 /\\n")
        >>> deck.cell_property("pvtnum"), deck.cell_property("ACTNUM")
        (array([1, 2, 2], dtype=int32), array([1, 1, 1], dtype=int32))
        >>> deck = read('''
        ... RUNSPEC
        ... DIMENS
        ...  3 1 1 /
        ... FIELD
        ... GRID
        ... DX
        ...  3*100 /
        ... DY
        ...  3*100 /
        ... DZ
        ...  3*10 /
        ... TOPS
        ...  3*5000 /
        ... PERMX
        ...  3*100 /
        ... BOX
        ...  2 3 1 1 1 1 /
        ... MULTIPLY
        ...  PERMX 1.5 /
        ... /
        ... ENDBOX
        ... ''')
        >>> deck.cell_property("PERMX")
        array([100., 150., 150.])
        """
        name = _keyword_name(name, "cell_property")
        kind = self._geometry_kind()
        if kind == _CORNER_POINT and name in ("DX", "DY", "DZ"):
            return self._geometry()[name.lower()].copy()
        if name in _GRID_KEYWORDS or kind is None:
            return self._as_written(name)
        if name == "ACTNUM":
            return self._input_active().astype(np.int32)
        return self._simulated(name)

    def cell_volumes(self) -> NDArray[np.float64]:
        """The bulk volume of every cell, in the deck's length unit cubed (m3, ft3, cc).

        Corner-point cells (COORD and ZCORN) are the trilinear hexahedra through their eight
        corners, faces that are not planar included, as the simulator takes them; the
        volumes are computed natively, on kavra's threads.  As the simulator does, the
        corner depths of each pillar are first made to run downwards, each at least the one
        above it: a top corner below its cell's bottom corner takes that bottom down with it,
        and a layer that overlaps the one above starts at that layer's bottom (ZCORN itself,
        from :meth:`cell_property`, stays as written).  Block-centred cells are DX * DY * DZ.

        Returns
        -------
        numpy.ndarray
            A new float64 array of nI * nJ * nK volumes in cell order, inactive cells included.

        Raises
        ------
        DeckError
            The deck has no grid geometry, or its COORD or ZCORN has the wrong length.

        Examples
        --------
        >>> read(example_path("SPE1CASE1")).cell_volumes()[[0, 100, 200]]  # ft3
        array([20000000., 30000000., 50000000.])
        """
        volumes: NDArray[np.float64] = self._geometry()["volumes"].copy()
        return volumes

    def cell_depths(self) -> NDArray[np.float64]:
        """The depth of every cell's centre (the mean depth of its eight corners, taken
        downwards along each pillar as in :meth:`cell_volumes`, as the simulator takes it), in
        the deck's length unit.

        Returns
        -------
        numpy.ndarray
            A new float64 array of nI * nJ * nK depths in cell order, inactive cells included.

        Raises
        ------
        DeckError
            As :meth:`cell_volumes`.

        Examples
        --------
        >>> read(example_path("SPE1CASE1")).cell_depths()[[0, 100, 200]]  # ft
        array([8335., 8360., 8400.])
        """
        depths: NDArray[np.float64] = self._geometry()["depths"].copy()
        return depths

    def pore_volume(self) -> NDArray[np.float64]:
        """The pore volume of every cell as the simulator computes it: bulk volume x PORO x
        NTG x MULTPV (opm's PORV where the deck gives or edits PORV), in the deck's reservoir
        volume unit (rm3, rb, rcc), and 0 in the cells that are not :attr:`active` (outside
        ACTNUM, without pore volume, below MINPV), as Flow writes them.

        Returns
        -------
        numpy.ndarray
            A new float64 array of nI * nJ * nK pore volumes in cell order.

        Raises
        ------
        DeckError
            As :meth:`cell_volumes`, or the deck has no PORO.

        Examples
        --------
        >>> read(example_path("SPE1CASE1")).pore_volume()[[0, 100, 200]]  # rb
        array([1068645.64007421, 1602968.46011132, 2671614.10018553])
        """
        return np.where(self.active, self._pore_volumes(), 0.0)

    def records(self, name: str) -> list[NDArray[np.float64]]:
        """The records of any keyword as float64 arrays, every item's values in record order.

        Values that the deck leaves to their default (``1*``, or a record ended early) are NaN:
        they are not numbers of the deck.  Useful for the keywords that have no table class
        here (RSVD, ...).

        Examples
        --------
        >>> deck = read("RUNSPEC\\nDIMENS\\n 1 1 1 /\\nFIELD\\nTABDIMS\\n/\\nPROPS\\nROCK\\n 3000 1* /\\n")
        >>> deck.records("ROCK")
        [array([3000.,   nan])]
        """
        name = _keyword_name(name, "records")
        if name not in self._parsed:
            raise KeyError(f"the deck has no {name} keyword")
        keyword = self._parsed[name]
        result = []
        for index, record in enumerate(keyword, start=1):
            values = _record_values(record, f"{name} record {index}")
            values[_defaulted(record, len(values))] = np.nan
            result.append(values)
        return result

    # --- the numbers as written ------------------------------------------------------

    def _as_written(self, name: str) -> NDArray[Any]:
        n = self.grid.number_of_cells()
        if name not in self._parsed:
            if name in DEFAULTS:
                value, dtype = DEFAULTS[name]
                return np.full(n, value, dtype=dtype)
            raise KeyError(f"the deck has no {name} keyword")
        if name not in _GRID_KEYWORDS:
            self._refuse_edits(name)
        values = self._numbers(name)
        layer = self.grid.nI * self.grid.nJ
        if name == "TOPS" and len(values) < n and layer and len(values) % layer == 0:
            return self._tops_downwards(values.astype(np.float64))
        if len(values) != n and name not in _CORNER_POINT:  # COORD and ZCORN hold corners, not cells
            raise DeckError(f"{name} holds {len(values)} value{'' if len(values) == 1 else 's'}; "
                            f"the grid of DIMENS has {n} cells")
        return values

    def _numbers(self, name: str) -> NDArray[Any]:
        """Every number of an array keyword as written (the last one counts); DeckError where
        one is left to its default."""
        keyword = self._parsed[name]
        item = _array_item(keyword, name)
        values = np.array(item.get_data_list(), dtype=np.int32) if item.is_int() \
            else np.array(item.get_raw_data_list(), dtype=np.float64)
        slots = _defaulted_slots(str(keyword[0]))
        if any(slots):
            raise DeckError(f"{name}: value {slots.index(True) + 1} is left to its default (1*); "
                            f"every cell needs its number")
        return values

    def _refuse_edits(self, name: str) -> None:
        for keyword in self._parsed:
            if keyword.name not in _EDIT_KEYWORDS:
                continue
            for index, record in enumerate(keyword, start=1):
                texts = [item.get_str(0).strip("'").upper() for item in record
                         if item.is_string() and len(item.get_data_list())]
                if name in texts:
                    raise DeckError(f"{name} is changed by {keyword.name} record {index}, which kavra applies "
                                    f"only on a deck with a grid (COORD and ZCORN, or DX, DY, DZ and TOPS); "
                                    f"give {name} with one value per cell")

    def _tops_downwards(self, tops: NDArray[np.float64]) -> NDArray[np.float64]:
        layer = self.grid.nI * self.grid.nJ
        dz = self.cell_property("DZ")
        full = np.empty(self.grid.number_of_cells())
        full[:len(tops)] = tops
        for start in range(len(tops), len(full), layer):
            full[start:start + layer] = full[start - layer:start] + dz[start - layer:start]
        return full

    # --- the simulator's view --------------------------------------------------------

    def _geometry_kind(self) -> tuple[str, ...] | None:
        for keywords in (_CORNER_POINT, _BLOCK_CENTRED):
            if all(name in self._parsed for name in keywords):
                return keywords
        return None

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
            numbers = " ".join(map(str, range(1, g.number_of_cells() + 1)))
            marked = _Parser().parse_string(f"RUNSPEC\nDIMENS\n {g.nI} {g.nJ} {g.nK} /\nGRID\n{marker}\n{numbers} /\n")
            deck, placed, in_grid = _Parser().parse_string(""), False, False
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

    def _deck_units(self, name: str, si: NDArray[np.float64], active: NDArray[np.bool_]) -> NDArray[np.float64]:
        """opm's SI numbers of property `name` in the active cells, in the deck's units: the deck's own
        number where opm's SI number converted back is that number but for the rounding of the
        conversion, else the SI number converted back."""
        factor = _si_factor(self.units, name)
        if factor == 1.0:
            return si
        values = si / factor
        rest = np.ones(len(values), dtype=bool)
        if name in self._parsed:
            raw = np.array(_array_item(self._parsed[name], name).get_raw_data_list(), dtype=np.float64)
            if len(raw) == len(active):
                raw = raw[active]
                written = np.abs(values - raw) <= 4 * np.spacing(np.abs(raw))
                values[written] = raw[written]
                rest = ~written
        # An edited number: its shortest decimal form, where only the conversion's rounding
        # (a few units in the last place) stands between the two.
        distinct, where = np.unique(values[rest], return_inverse=True)
        short = np.array([float(f"{value:.15g}") for value in distinct])
        distinct = np.where(np.abs(short - distinct) <= 4 * np.spacing(np.abs(distinct)), short, distinct)
        values[rest] = distinct[where]
        return values

    def _geometry(self) -> dict[str, NDArray[np.float64]]:
        """The volumes and centre depths of the cells (and DX, DY, DZ of corner-point cells), in
        the deck's length unit."""
        if "geometry" in self._known:
            geometry: dict[str, NDArray[np.float64]] = self._known["geometry"]
            return geometry
        kind = self._geometry_kind()
        g = self.grid
        n = g.number_of_cells()
        if kind is None:
            raise DeckError("the deck has no grid geometry: it needs COORD and ZCORN, or DX, DY, DZ and TOPS")
        if kind == _CORNER_POINT:
            coord, zcorn = self._numbers("COORD").astype(np.float64), self._numbers("ZCORN").astype(np.float64)
            for name, numbers, expected in (("COORD", coord, 6 * (g.nI + 1) * (g.nJ + 1)), ("ZCORN", zcorn, 8 * n)):
                if len(numbers) != expected:
                    raise DeckError(f"{name} holds {len(numbers)} numbers; the grid of DIMENS needs {expected}")
            # The simulator takes the corners of each pillar downwards: each corner depth at least
            # the one above it (the cell's top, or the bottom of the cell above).  A cell whose top
            # corner lies below its bottom corner keeps its top there, and its bottom moves down
            # to it; a layer that overlaps the one above it starts at that layer's bottom.
            columns = zcorn.reshape(2 * g.nK, -1)
            np.maximum.accumulate(columns, axis=0, out=columns)
            geometry = {name: np.empty(n) for name in ("volumes", "depths", "dx", "dy", "dz")}
            _engine.cell_geometry(g.nI, g.nJ, g.nK, coord, zcorn, tuple(geometry.values()), _threads(None))
        else:
            dx, dy, dz, tops = (self.cell_property(name) for name in _BLOCK_CENTRED)
            geometry = {"volumes": dx * dy * dz, "depths": tops + dz / 2.0}
        self._known["geometry"] = geometry
        return geometry

    def _minimum_pore_volume(self) -> float:
        for name in ("MINPV", "MINPORV"):
            if name in self._parsed:
                return float(self._parsed[name][0][0].get_raw_data_list()[0])
        return -np.inf

    def _pore_volumes(self) -> NDArray[np.float64]:
        """Pore volumes of every cell in the deck's reservoir volume unit, inactive cells not zeroed."""
        if "pore volumes" not in self._known:
            named = "PORV" in self._parsed or any(
                keyword.name in _EDIT_KEYWORDS and "PORV" in str(keyword) for keyword in self._parsed)
            if named:
                self._known["pore volumes"] = self._simulated("PORV")
            else:
                scale = _si_factor(self.units, "DX") ** 3 / _si_factor(self.units, "PORV")
                multiplier = self.cell_property("MULTPV") if self._has("MULTPV") else 1.0
                self._known["pore volumes"] = (self._geometry()["volumes"] * self.cell_property("PORO")
                                               * self.cell_property("NTG") * multiplier * scale)
        pore_volumes: NDArray[np.float64] = self._known["pore volumes"]
        return pore_volumes

    def _has(self, name: str) -> bool:
        try:
            self.cell_property(name)
        except KeyError:
            return False
        return True


@functools.lru_cache(maxsize=None)
def _si_factor(units: str, name: str) -> float:
    """What opm multiplies a number of keyword `name` in unit system `units` by to have it in SI
    (1 for a number without a unit), from a deck of that keyword alone."""
    # With the three phases and ENDSCALE: the parser refuses an end point without them.
    try:
        probe = _Parser().parse_string(f"RUNSPEC\nDIMENS\n 1 1 1 /\n{units}\nOIL\nWATER\nGAS\nENDSCALE\n/\n"
                                       f"GRID\n{name}\n 1 /\n")
    except (RuntimeError, ValueError) as error:
        raise DeckError(f"kavra cannot tell the unit of {name}: {error}") from error
    item = _array_item(probe[name], name)
    if item.is_int():
        return 1.0
    return float(item.get_SI_data_list()[0]) / float(item.get_raw_data_list()[0])


def read(source: str | os.PathLike[str]) -> Deck:
    """Read the grid, the PVT and rock tables and the grid properties of a deck.

    Parameters
    ----------
    source : str or path-like
        A path to the deck, or the deck text itself.  A ``str`` with a line break in it is
        deck text (every keyword of a deck is on a line of its own, so a deck of any use has
        one); a ``str`` without one, and any path-like, is a path.  INCLUDE files are found
        from the deck's directory, or from the working directory for deck text, as opm
        finds them.

    Returns
    -------
    Deck
        The grid of DIMENS, the unit system, the tables of PVTO, PVTG, PVDG, PVDO, PVTW and
        ROCK (None for those the deck does not have) with one table per PVT region, and the
        grid properties through :meth:`Deck.cell_property`, the geometry through
        :meth:`Deck.cell_volumes`, :meth:`Deck.cell_depths` and :meth:`Deck.pore_volume`.

    Raises
    ------
    DeckError
        The deck or a file it includes is not deck text (control characters), has braces
        with a colon between them outside quotes and comments (opm's messages would take them
        for a field of a format), INCLUDE files include each other in a cycle or nest deeper than
        MAX_INCLUDE_DEPTH (more than MAX_INCLUDES in all), an INCLUDE names a directory or a
        missing file, opm cannot parse the deck (its message names the keyword and the
        record), DIMENS leaves a size to its default, or a table cannot be taken as written:
        a value left to its default, a region without records, a record of the wrong length,
        a number that is not finite, keys that do not rise, a formation volume factor not
        above 0 (the checks of :mod:`kavra.tables`, which any table value makes), fewer or
        more regions than TABDIMS gives.  The message names the file, or the keyword, the
        region and the record (from 1).  Nothing is returned then.
    FileNotFoundError
        `source` is a path and there is no such file (or no file can have that name).
    TypeError
        `source` is neither a str nor path-like.

    Notes
    -----
    Numbers of tables and records are the deck's own, never converted (opm's
    ``DeckItem.get_raw_data_list``).  opm's state of the grid and its properties is built
    when a property is first asked for, from a copy of the deck read: nothing is parsed
    twice.
    Records of PVTO and PVTG are kept in deck order: the saturated point first, then the
    undersaturated rows.  A value left to its default is refused in a table, except PVTW
    viscosibility and ROCK compressibility, whose default is zero.

    Examples
    --------
    >>> deck = read('''
    ... RUNSPEC
    ... DIMENS
    ...  1 1 1 /
    ... FIELD
    ... TABDIMS
    ... /
    ... PROPS
    ... PVTO
    ...  0.5 2000 1.3 0.8
    ...      3000 1.28 0.9 /
    ...  0.8 3000 1.45 0.6 /
    ... /
    ... ''')
    >>> deck.pvto.units, deck.pvto.regions[0][0]
    ('FIELD', array([5.00e-01, 2.00e+03, 1.30e+00, 8.00e-01, 3.00e+03, 1.28e+00, 9.00e-01]))
    """
    if isinstance(source, (bytes, bytearray)):
        raise TypeError("read needs a path or the deck text as str, not bytes")
    if not isinstance(source, (str, os.PathLike)):
        raise TypeError(f"read needs a path or the deck text, got {type(source).__name__}")
    text = isinstance(source, str) and ("\n" in source or "\r" in source)
    if text:
        where, root = "the deck text", pathlib.Path.cwd()
        includes = _Includes(root)
        _check_text(str(source), where, (), includes)
    else:
        path = _deck_file(source)
        where, root = str(path), path.parent
        includes = _Includes(root)
        _check_file(path, "", (), includes)
    # opm's default for a missing INCLUDE file is to end the process: ask it to raise.
    context = _ParseContext([("PARSE_MISSING_INCLUDE", _action.throw)])

    try:
        parsed = _Parser().parse_string(source, context) if text else _Parser().parse(where, context)
    except UnicodeDecodeError as error:  # opm's message quoting bytes that are not UTF-8
        raise DeckError(f"opm cannot parse {where}: it holds bytes that are not UTF-8 text") from error
    except (RuntimeError, ValueError, IndexError) as error:
        note = (" (the deck has braces outside quotes, which opm's messages take for fields of their own: "
                "filled in, or refused as a format)") if includes.braces else ""
        raise DeckError(f"opm cannot parse {where}: {error}{note}") from error

    units = _units(parsed)
    grid = _grid(parsed)
    regions = _pvt_regions(parsed)
    tables: dict[str, Any] = {}
    for name, build in _BUILDERS.items():
        tables[name] = None
        if name in parsed:
            keyword = parsed[name]  # the last one counts
            try:
                tables[name] = build(keyword, regions, units)
            except DeckError:
                raise
            except ValueError as error:  # a record the table class refuses: it names it
                raise DeckError(str(error)) from error
    return Deck(parsed, grid, units, tables)


# --- what is handed to opm ----------------------------------------------------------------


def _shown(source: Any) -> str:
    text = repr(os.fspath(source))
    return text if len(text) <= 80 else text[:60] + "..." + text[-15:]


def _deck_file(source: str | os.PathLike[str]) -> pathlib.Path:
    """The path of a deck file; FileNotFoundError, in words, where there is none."""
    try:
        found = pathlib.Path(source).is_file()
    except (OSError, ValueError) as error:  # a name too long for the system, a NUL in it
        reason = getattr(error, "strerror", None) or str(error)
        raise FileNotFoundError(f"no deck at {_shown(source)}: no file can have that name ({reason})") from None
    if not found:
        hint = ("; deck text is read as such only with a line break in it (each keyword on a line of "
                "its own)") if isinstance(source, str) else ""
        raise FileNotFoundError(f"no deck at {_shown(source)}{hint}")
    return pathlib.Path(source)


class _Includes:
    """What the checks of the INCLUDE files share over one deck: the directory opm finds them
    from, the PATHS aliases seen so far and the count of INCLUDE keywords followed."""

    def __init__(self, root: pathlib.Path) -> None:
        self.root = root
        self.aliases: dict[str, str] = {}
        self.count = 0
        self.braces = False  # whether a { or } stands outside quotes


# Characters that no deck holds: control characters (tab, line and page breaks aside).
_NOT_TEXT = re.compile(r"[\x00-\x08\x0b\x0e-\x1f\x7f]")
_QUOTED = re.compile(r"'[^']*'|\"[^\"]*\"")
# Braces are deck text (in a title, a well name), but opm's parser puts a line it cannot read as
# a keyword into the format of its message, where a pair of braces with a colon in it is a field
# whose width ('{:>2000000000}') has opm write that many characters.
_FORMAT_FIELD = re.compile(r"\{[^{}]*:[^{}]*\}")
_TOKEN = re.compile(r"'([^']*)'|\"([^\"]*)\"|([^\s'\"]+)")


def _lines(text: str) -> Iterator[tuple[int, str]]:
    """The lines of a deck (from 1, counted as opm counts them: at line feeds), each without
    its comment."""
    for number, line in enumerate(text.split("\n"), start=1):
        yield number, line.split("--", 1)[0]


def _items(line: str) -> list[str]:
    """The items of a record's line, up to the slash that ends the record."""
    items = []
    for single, double, bare in _TOKEN.findall(line):
        if not bare:
            items.append(single or double)
            continue
        head, slash, _ = bare.partition("/")
        if head:
            items.append(head)
        if slash:
            break
    return items


def _check_file(path: pathlib.Path, at: str, chain: tuple[pathlib.Path, ...], includes: _Includes) -> None:
    """The checks of :func:`_check_text` on a deck file; `at` says where it is included, if it is."""
    resolved = path.resolve()
    if resolved in chain:
        cycle = " includes ".join(str(p) for p in (*chain[chain.index(resolved):], resolved))
        raise DeckError(f"INCLUDE files include each other in a cycle: {cycle}")
    if len(chain) > MAX_INCLUDE_DEPTH:
        raise DeckError(f"{path}{at}: INCLUDE files nest deeper than {MAX_INCLUDE_DEPTH} levels")
    if path.is_dir():
        raise DeckError(f"{path}{at} is a directory, not a deck file")
    if not path.is_file():
        return  # opm names the missing file
    text = path.read_bytes().decode("utf-8", errors="replace")
    _check_text(text, str(path), (*chain, resolved), includes)


def _check_text(text: str, where: str, chain: tuple[pathlib.Path, ...], includes: _Includes) -> None:
    """DeckError for what opm would choke on, hang on or end the process for, in `text` or in
    the files it includes: characters that are not deck text (opm's parser formats them into
    its own messages), braces outside quotes that its messages would take for a field with a
    width, INCLUDE cycles and directories.  Only what is certain is refused; the rest is left
    to opm."""
    lines = _lines(text)
    for number, line in lines:
        bad = _NOT_TEXT.search(line)
        if bad:
            raise DeckError(f"{where}, line {number}: {bad.group()!r} is not deck text; is this a deck file?")
        unquoted = _QUOTED.sub("", line)
        field = _FORMAT_FIELD.search(unquoted)
        if field:
            raise DeckError(f"{where}, line {number}: opm's messages would take {field.group()!r} for a field of "
                            f"their own; put it in quotes")
        includes.braces = includes.braces or "{" in unquoted or "}" in unquoted
        keyword = line.split()[0] if line.split() else ""
        if keyword not in ("INCLUDE", "PATHS"):
            continue
        for number, line in lines:  # the keyword's records
            if keyword == "PATHS" and line.strip().startswith("/"):
                break
            items = _items(line)
            if keyword == "PATHS" and len(items) >= 2:
                includes.aliases[items[0]] = items[1]
            elif keyword == "INCLUDE" and items:
                includes.count += 1
                if includes.count > MAX_INCLUDES:
                    raise DeckError(f"{where}, line {number}: more than {MAX_INCLUDES} INCLUDE keywords in one deck")
                _check_file(_include_path(items[0], includes), f" (INCLUDE in {where}, line {number})", chain,
                            includes)
                break
            elif keyword == "INCLUDE" and line.strip():
                break


def _include_path(name: str, includes: _Includes) -> pathlib.Path:
    for alias, directory in includes.aliases.items():
        name = name.replace(f"${alias}", directory)
    path = pathlib.Path(name)
    return path if path.is_absolute() else includes.root / path


# --- what every table needs ----------------------------------------------------------------


def _units(parsed: Any) -> str:
    name = str(parsed.active_unit_system().name).upper()
    if name not in UNIT_SYSTEMS:
        raise DeckError(f"the deck's unit system {name} is not one of {', '.join(UNIT_SYSTEMS)}")
    return name


def _grid(parsed: Any) -> tessel.ReservoirTopology | Grid:
    if "DIMENS" not in parsed:
        raise DeckError("the deck has no DIMENS keyword: the grid size is unknown")
    record = parsed["DIMENS"][0]
    defaulted = _defaulted(record, 3)
    if defaulted.any():
        raise DeckError(f"DIMENS record 1: value {int(np.argmax(defaulted)) + 1} is left to its default; "
                        f"the grid size needs nI, nJ and nK written out")
    dims = [record[i].get_int(0) for i in range(3)]
    try:
        return reservoir_grid(*dims)
    except (ValueError, OverflowError) as error:
        raise DeckError(f"DIMENS record 1: {error}") from error


def _keyword_name(name: Any, method: str) -> str:
    if not isinstance(name, str):
        raise TypeError(f"{method} needs a keyword name (str), got {type(name).__name__}")
    return name.upper()


def _pvt_regions(parsed: Any) -> int:
    if "TABDIMS" not in parsed:
        return 1
    return int(parsed["TABDIMS"][0][1].get_int(0))  # NTPVT


def _defaulted_slots(text: str) -> list[bool]:
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


def _record_values(record: Any, where: str) -> NDArray[np.float64]:
    values: list[float] = []
    for item in record:
        if item.is_string():
            raise DeckError(f"{where}: item {item.name()} holds text, not numbers")
        values += item.get_data_list() if item.is_int() else item.get_raw_data_list()
    return np.array(values, dtype=np.float64)


def _defaulted(record: Any, count: int) -> NDArray[np.bool_]:
    """Which of a record's first `count` values the deck left to their default (``1*``, or a
    record ended early)."""
    slots = _defaulted_slots(str(record))
    return np.array([slots[i] if i < len(slots) else True for i in range(count)], dtype=bool)


def _checked_numbers(record: Any, keyword: str, where: str) -> NDArray[np.float64]:
    """A table record's numbers as written; DeckError where the deck left one out."""
    values = _record_values(record, where)
    allowed = _ZERO_DEFAULTS.get(keyword, set())
    for index, defaulted in enumerate(_defaulted(record, len(values))):
        if defaulted and not (index in allowed and values[index] == 0.0):
            raise DeckError(f"{where}: value {index + 1} is left to its default; a table needs "
                            f"every number written out")
    return values


def _count(keyword: str, found: int, regions: int) -> None:
    if found != regions:
        raise DeckError(f"{keyword} has {found} tables, TABDIMS gives {regions} PVT regions")


# --- the tables ----------------------------------------------------------------------------
# The numbers of each region go to the table class as they are: its constructor makes the
# checks of the numbers (lengths of records, finite numbers, rising keys, formation volume
# factors above 0), the same for a deck as for a table written by hand, and read() turns its
# ValueError into a DeckError.


def _record_table(cls: type[PVTO] | type[PVTG]) -> Callable[..., Any]:
    """PVTO and PVTG: records of a key and triples, regions ended by an empty record."""
    keyword = cls.keyword

    def build(parsed_keyword: Any, regions: int, units: str) -> Any:
        tables: list[list[NDArray[np.float64]]] = [[]]
        for record in parsed_keyword:
            if not record[1].get_raw_data_list():  # the empty record that ends a region
                tables.append([])
                continue
            number, index = len(tables), len(tables[-1]) + 1
            tables[-1].append(_checked_numbers(record, keyword, f"{keyword} region {number}, record {index}"))
        _count(keyword, len(tables), regions)
        return cls(tables, units=units)

    return build


def _dead_table(cls: type[PVDG] | type[PVDO]) -> Callable[..., Any]:
    keyword = cls.keyword

    def build(parsed_keyword: Any, regions: int, units: str) -> Any:
        _count(keyword, len(parsed_keyword), regions)
        tables = []
        for number, record in enumerate(parsed_keyword, start=1):
            numbers = _checked_numbers(record, keyword, f"{keyword} region {number}")
            if not len(numbers) or len(numbers) % 3:
                raise DeckError(f"{keyword} region {number}: expected rows of three numbers [p, b, mu], "
                                f"got {len(numbers)} numbers")
            tables.append(numbers.reshape(-1, 3))
        return cls(tables, units=units)

    return build


def _one_record(cls: type[PVTW] | type[ROCK] | type[DENSITY]) -> Callable[..., Any]:
    keyword = cls.keyword

    def build(parsed_keyword: Any, regions: int, units: str) -> Any:
        _count(keyword, len(parsed_keyword), regions)
        return cls([_checked_numbers(record, keyword, f"{keyword} region {number}")
                    for number, record in enumerate(parsed_keyword, start=1)], units=units)

    return build


_BUILDERS: dict[str, Callable[..., Any]] = {
    "PVTO": _record_table(PVTO),
    "PVTG": _record_table(PVTG),
    "PVDG": _dead_table(PVDG),
    "PVDO": _dead_table(PVDO),
    "PVTW": _one_record(PVTW),
    "ROCK": _one_record(ROCK),
    "DENSITY": _one_record(DENSITY),
}


def _array_item(keyword: Any, name: str) -> Any:
    if len(keyword) != 1 or len(keyword[0]) != 1 or keyword[0][0].is_string():
        raise DeckError(f"{name} is not a grid property: it does not hold one list of numbers")
    return keyword[0][0]
