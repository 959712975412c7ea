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

import os
import pathlib
from typing import TYPE_CHECKING, Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

if TYPE_CHECKING:
    from .. import tessel
    from .._grid import Grid

# This file is the face: Deck, read and what users name.  The jobs behind it have a private
# module each: reading through opm (_opm, the module whose private names the others import),
# SI numbers back in the deck's units (_conversion), the deck's files and their INCLUDE walk
# (_includes), the tables (_tables).  The public names of those modules are imported here under
# private names, so that kavra.deck holds no public name but its own.
from .. import _engine
from .._threads import resolve as _threads
from ..tables import DENSITY, PVDG, PVDO, PVTG, PVTO, PVTW, ROCK
from ._conversion import DeckUnits as _DeckUnits
from ._conversion import si_factor as _si_factor
from ._includes import MAX_INCLUDE_DEPTH, MAX_INCLUDES
from ._includes import Includes as _Includes
from ._includes import check_file as _check_file
from ._includes import check_text as _check_text
from ._includes import deck_file as _deck_file
from ._opm import DEFAULTS, REGION_PROPERTIES, DeckError
from ._opm import ParseContext as _ParseContext
from ._opm import Parser as _Parser
from ._opm import action as _action
from ._opm import array_item as _array_item
from ._opm import defaulted as _defaulted
from ._opm import any_defaulted as _any_defaulted, defaulted_slots as _defaulted_slots
from ._opm import grid as _grid
from ._opm import OpmState as _OpmState
from ._opm import pvt_regions as _pvt_regions
from ._opm import record_values as _record_values
from ._opm import units as _units
from ._tables import BUILDERS as _BUILDERS

DeckError.__module__ = __name__  # kavra.deck.DeckError, where callers catch it

__all__ = ["Deck", "DeckError", "Equilibration", "read", "example_path", "EXAMPLES", "MAX_INCLUDE_DEPTH",
           "MAX_INCLUDES", "REGION_PROPERTIES"]

#: The decks shipped with kavra (public SPE test decks, each with its license header), for
#: :func:`example_path`.
EXAMPLES: tuple[str, ...] = ("SPE1CASE1", "SPE3CASE1")

# Keywords that change grid properties after they are given.  opm applies them on a deck with
# a grid; on a deck without one (no COORD and ZCORN, no DX, DY, DZ and TOPS) there is nothing
# for the simulator to apply them on, and a property that one of them names is refused.
_EDIT_KEYWORDS = ("EQUALS", "COPY", "ADD", "MULTIPLY", "MINVALUE", "MAXVALUE", "COPYBOX",
                  "EQUALREG", "ADDREG", "MULTIREG", "COPYREG", "OPERATE", "OPERATER")

# Keywords that the grid reads as written (opm refuses edits of them), and the two ways a deck
# gives its grid's geometry.
_GRID_KEYWORDS = ("DX", "DY", "DZ", "TOPS", "COORD", "ZCORN")
_CORNER_POINT = ("COORD", "ZCORN")
_BLOCK_CENTRED = ("DX", "DY", "DZ", "TOPS")


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
    return pathlib.Path(__file__).parent.with_name("decks") / f"{name}.DATA"


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


class Deck(_OpmState, _DeckUnits):
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
        if kind == _CORNER_POINT and name in ("DX", "DY", "DZ") or (
                name == "DZ" and kind is not None and "geometry" in self._known):  # DZ read once
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

    def words(self, name: str) -> list[tuple[str, ...]]:
        """The text items of every record of a keyword, for keywords of options and names
        (SCALECRS, EQUALS, COPY, ...).

        Parameters
        ----------
        name : str
            The keyword, in any case.

        Returns
        -------
        list of tuple of str
            One tuple per record, of every occurrence of the keyword in deck order: the items
            of the record that hold text, upper case and without quotes, in record order
            (items of numbers, and text left to its default, are left out).  An empty list
            where the deck has no such keyword.

        Raises
        ------
        TypeError
            `name` is not a str.

        Examples
        --------
        >>> deck = read("RUNSPEC\\nDIMENS\\n 2 1 1 /\\nGRID\\nPORO\\n 2*0.2 /\\nEQUALS\\n 'PERMX' 100 /\\n"
        ...             " PERMY 50 1 1 1 1 1 1 /\\n/\\n")
        >>> deck.words("EQUALS")
        [('PERMX',), ('PERMY',)]
        """
        name = _keyword_name(name, "words")
        return [_record_words(record) for keyword in self._parsed if keyword.name == name for record in keyword]

    # --- the numbers as written ------------------------------------------------------

    def _as_written(self, name: str, dz: NDArray[np.float64] | None = None) -> NDArray[Any]:
        """The keyword's numbers as written, one per cell (TOPS continued downwards with
        `dz`, DZ read here when not given)."""
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
            return self._tops_downwards(values.astype(np.float64), dz)
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
        zeros = not np.all(values != 0)
        if name in _GRID_KEYWORDS and not zeros:
            return values  # a grid number left to its default reads 0: none is, without opm's text of it
        text = str(keyword[0])
        if zeros or _any_defaulted(text):
            # opm's text leaves out the values defaulted at the end of the record (they read 0)
            slots = _defaulted_slots(text)
            slots += [True] * (len(values) - len(slots))
            if any(slots):
                raise DeckError(f"{name}: value {slots.index(True) + 1} is left to its default (1*); "
                                f"every cell needs its number")
        return values

    def _refuse_edits(self, name: str) -> None:
        for keyword in self._parsed:
            if keyword.name not in _EDIT_KEYWORDS:
                continue
            for index, record in enumerate(keyword, start=1):
                if name in _record_words(record):
                    raise DeckError(f"{name} is changed by {keyword.name} record {index}, which kavra applies "
                                    f"only on a deck with a grid (COORD and ZCORN, or DX, DY, DZ and TOPS); "
                                    f"give {name} with one value per cell")

    def _tops_downwards(self, tops: NDArray[np.float64], dz: NDArray[np.float64] | None) -> NDArray[np.float64]:
        layer = self.grid.nI * self.grid.nJ
        if dz is None:
            dz = self.cell_property("DZ")
        full = np.empty(self.grid.number_of_cells())
        full[:len(tops)] = tops
        for start in range(len(tops), len(full), layer):
            full[start:start + layer] = full[start - layer:start] + dz[start - layer:start]
        return full

    # --- the simulator's view --------------------------------------------------------
    # (opm's state and the values it holds: _opm.OpmState; those values in the deck's units:
    # _conversion.DeckUnits)

    def _geometry_kind(self) -> tuple[str, ...] | None:
        for keywords in (_CORNER_POINT, _BLOCK_CENTRED):
            if all(name in self._parsed for name in keywords):
                return keywords
        return None

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
            dx, dy, dz = (self.cell_property(name) for name in ("DX", "DY", "DZ"))
            tops = self._as_written("TOPS", dz)
            geometry = {"volumes": dx * dy * dz, "depths": tops + dz / 2.0, "dz": dz}
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


def _record_words(record: Any) -> tuple[str, ...]:
    """The items of an opm record that hold text, upper case and without quotes."""
    return tuple(item.get_str(0).strip("'").upper() for item in record
                 if item.is_string() and len(item.get_data_list()))


def _keyword_name(name: Any, method: str) -> str:
    if not isinstance(name, str):
        raise TypeError(f"{method} needs a keyword name (str), got {type(name).__name__}")
    return name.upper()
