"""PVT and rock tables as plain values, named after the deck keywords.

Each class holds one table per PVT region (region 1 first) as read-only NumPy
arrays of float64, built from the records exactly as a deck writes them:

===========  ====================================================  =================================
class        one region is                                         ``regions[r]`` holds
===========  ====================================================  =================================
``PVTO``     records ``[rs, p, bo, mu, p, bo, mu, ...]``           a tuple of 1-D arrays, one per record
``PVTG``     records ``[pg, rv, bg, mu, rv, bg, mu, ...]``         a tuple of 1-D arrays, one per record
``PVDO``     rows ``[p, bo, mu]``                                  an ``(n, 3)`` array
``PVDG``     rows ``[p, bg, mu]``                                  an ``(n, 3)`` array
``PVTW``     one record ``[p_ref, bw, cw, mu, cvw]``               a ``(5,)`` array
``ROCK``     one record ``[p_ref, cr]``                            a ``(2,)`` array
``DENSITY``  one record ``[oil, water, gas]``                      a ``(3,)`` array
===========  ====================================================  =================================

The first triple of a ``PVTO`` (``PVTG``) record is its saturated point; the
triples after it are the undersaturated rows of that Rs (the further Rv rows
of that gas pressure).  Numbers are kept as given: ``units`` is one of
:data:`UNIT_SYSTEMS` and is a label only, never a conversion.  It names the
unit of every scalar of :meth:`to_native` (see :data:`UNIT_LABELS`).

A table checks its numbers when it is made, the same checks for a table read
from a deck (:mod:`kavra.deck` hands its records to these classes) as for one
written by hand: every number finite, the keys rising (Rs of ``PVTO`` and the
pressures of its saturated line and of each record; Pg of ``PVTG``; p of
``PVDO`` and ``PVDG``), every formation volume factor above 0.

Unit labels
-----------
:data:`UNIT_LABELS` ``[units][quantity]`` is the unit of a quantity in a unit
system: the label :meth:`to_native` writes on each scalar (its ``category``
is the quantity) and :meth:`from_native` reads the unit system back from.

================  =========  =========  =========  =========
quantity          METRIC     FIELD      LAB        PVT-M
================  =========  =========  =========  =========
pressure          barsa      psia       atma       atma
rs                sm3/sm3    Mscf/stb   scc/scc    sm3/sm3
rv                sm3/sm3    stb/Mscf   scc/scc    sm3/sm3
oil_fvf           rm3/sm3    rb/stb     rcc/scc    rm3/sm3
gas_fvf           rm3/sm3    rb/Mscf    rcc/scc    rm3/sm3
water_fvf         rm3/sm3    rb/stb     rcc/scc    rm3/sm3
viscosity         cP         cP         cP         cP
compressibility   1/bars     1/psi      1/atm      1/atm
viscosibility     1/bars     1/psi      1/atm      1/atm
density           kg/m3      lb/ft3     gm/cc      kg/m3
================  =========  =========  =========  =========

Tables are values: ``==`` compares units and numbers (NaN equals NaN), they
pickle and deep-copy, and ``repr`` shows the records (evaluable for small
tables).  ``from_frame`` reads a pandas DataFrame (pandas is imported only by
``to_frame``, the one method that needs it).
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Sequence
from typing import TYPE_CHECKING, Any, ClassVar, TypeVar

import numpy as np
from numpy.typing import NDArray

from . import _engine

if TYPE_CHECKING:
    from . import _kavracore as _native
else:  # to_native and from_native need it; a build without Boost.Python has a stand-in
    from ._optional import optional as _optional

    _native = _optional(__package__ + "._kavracore")

__all__ = ["UNIT_SYSTEMS", "UNIT_LABELS", "PVTO", "PVTG", "PVDG", "PVDO", "PVTW", "ROCK", "DENSITY"]

UNIT_SYSTEMS: tuple[str, ...] = ("METRIC", "FIELD", "LAB", "PVT-M")

#: The unit label of each quantity in each unit system.  The quantity names
#: are the ``category`` labels of the native scalars.
UNIT_LABELS: dict[str, dict[str, str]] = {
    "METRIC": {"pressure": "barsa", "rs": "sm3/sm3", "rv": "sm3/sm3", "oil_fvf": "rm3/sm3",
               "gas_fvf": "rm3/sm3", "water_fvf": "rm3/sm3", "viscosity": "cP",
               "compressibility": "1/bars", "viscosibility": "1/bars", "density": "kg/m3"},
    "FIELD": {"pressure": "psia", "rs": "Mscf/stb", "rv": "stb/Mscf", "oil_fvf": "rb/stb",
              "gas_fvf": "rb/Mscf", "water_fvf": "rb/stb", "viscosity": "cP",
              "compressibility": "1/psi", "viscosibility": "1/psi", "density": "lb/ft3"},
    "LAB": {"pressure": "atma", "rs": "scc/scc", "rv": "scc/scc", "oil_fvf": "rcc/scc",
            "gas_fvf": "rcc/scc", "water_fvf": "rcc/scc", "viscosity": "cP",
            "compressibility": "1/atm", "viscosibility": "1/atm", "density": "gm/cc"},
    "PVT-M": {"pressure": "atma", "rs": "sm3/sm3", "rv": "sm3/sm3", "oil_fvf": "rm3/sm3",
              "gas_fvf": "rm3/sm3", "water_fvf": "rm3/sm3", "viscosity": "cP",
              "compressibility": "1/atm", "viscosibility": "1/atm", "density": "kg/m3"},
}

_T = TypeVar("_T", bound="_Table")
FloatArray = NDArray[np.float64]
_REPR_RECORDS = 6  # records (rows) shown per region before the repr abbreviates


def _numbers(values: Any, where: str) -> FloatArray:
    """A read-only float64 copy of `values` (see :func:`_frozen`); TypeError for anything but
    real numbers."""
    try:
        array = np.asarray(values)
    except ValueError as error:  # ragged nesting
        raise ValueError(f"{where}: expected a flat sequence of numbers ({error})") from error
    if array.dtype.kind not in "iuf":
        raise TypeError(f"{where}: expected real numbers, got {array.dtype} values")
    return _frozen(np.array(array, dtype=np.float64))


def _frozen(array: FloatArray) -> FloatArray:
    """The numbers of `array` in memory of their own that no one can write: an immutable bytes
    object holds them, so neither the result nor its base can be made writeable again."""
    owned = np.frombuffer(np.ascontiguousarray(array, dtype=np.float64).tobytes(), dtype=np.float64)
    return owned.reshape(array.shape)


def _flat(values: Any, where: str) -> FloatArray:
    """A record as a flat read-only float64 array; ValueError unless every number is finite."""
    array = _numbers(values, where)
    if array.ndim != 1:
        raise ValueError(f"{where}: expected a flat sequence of numbers, got an array of shape {array.shape}")
    bad = np.flatnonzero(~np.isfinite(array))
    if bad.size:
        raise ValueError(f"{where}: value {bad[0] + 1} is {float(array[bad[0]])!r}; a table needs finite numbers")
    return array


# The checks below are the ones a table value makes of its numbers, whether they come from a deck
# (kavra.deck hands its records to the table classes) or are written by hand.


def _rising(keys: FloatArray, what: str, where: str, counted: str = "") -> None:
    """ValueError unless `keys` rise strictly; `counted` names what the keys are counted in."""
    bad = np.flatnonzero(~(keys[1:] > keys[:-1]))
    if bad.size:
        index = int(bad[0]) + 1
        at = f"{where}, {counted} {index + 1}" if counted else where
        raise ValueError(f"{at}: {what} {keys[index]:g} does not rise above {keys[index - 1]:g} before it")


def _positive(values: FloatArray, what: str, where: str, counted: str = "") -> None:
    """ValueError unless every one of `values` (formation volume factors) is above 0."""
    bad = np.flatnonzero(~(values > 0))
    if bad.size:
        at = f"{where}, {counted} {bad[0] + 1}" if counted else where
        raise ValueError(f"{at}: {what} {values[bad[0]]:g} is not above 0")


def _format(array: FloatArray) -> str:
    return "[" + ", ".join(repr(float(x)) for x in array) + "]"


def _abbreviated(items: Sequence[str], indent: str) -> str:
    if len(items) > _REPR_RECORDS:
        half = _REPR_RECORDS // 2
        items = [*items[:half], "...", *items[-half:]]
    return (",\n" + indent).join(items)


class _Table:
    """What every table value shares; the subclasses say how a region looks."""

    keyword: ClassVar[str]
    #: Columns of from_frame/to_frame after "region", one per number of a row.
    columns: ClassVar[tuple[str, ...]]
    #: Quantity of each column, for the unit labels of the native scalars.
    _quantities: ClassVar[tuple[str, ...]]
    #: The native list class that to_native makes and from_native reads.
    _list_class: ClassVar[Any]
    #: The name of that list, as the engine knows it.
    _list_name: ClassVar[str]

    __slots__ = ("_units", "_regions", "_tables")

    def __init__(self, regions: Iterable[Any], units: str = "METRIC") -> None:
        if units not in UNIT_SYSTEMS:
            raise ValueError(f"{self.keyword}: units must be one of {', '.join(UNIT_SYSTEMS)}, not {units!r}")
        if isinstance(regions, (str, bytes)) or not isinstance(regions, Iterable):
            raise TypeError(f"{self.keyword} needs a sequence of regions, got {type(regions).__name__}")
        parsed = tuple(self._region(number, region) for number, region in enumerate(regions, start=1))
        if not parsed:
            raise ValueError(f"{self.keyword} needs at least one region")
        self._units: str = units
        self._regions: tuple[Any, ...] = parsed
        self._tables: Any = None

    # --- what the subclasses provide ---------------------------------------------

    def _region(self, number: int, region: Any) -> Any:
        raise NotImplementedError

    def _region_rows(self, region: Any) -> FloatArray:
        """One region as rows of the frame (without the region column)."""
        raise NotImplementedError

    def _native_list(self, scalar: Any) -> Any:
        raise NotImplementedError

    # --- the value --------------------------------------------------------------

    @property
    def units(self) -> str:
        """The unit system of the numbers: one of UNIT_SYSTEMS."""
        return self._units

    @property
    def regions(self) -> tuple[Any, ...]:
        """The tables, one per region (region 1 first), as read-only float64 arrays."""
        return self._regions

    def __len__(self) -> int:
        return len(self._regions)

    def __iter__(self) -> Iterator[Any]:
        return iter(self._regions)

    def __eq__(self, other: object) -> bool:
        if type(other) is not type(self):
            return NotImplemented
        assert isinstance(other, _Table)
        return self._units == other._units and len(self) == len(other) and all(
            _same(a, b) for a, b in zip(self._regions, other._regions))

    __hash__ = None  # type: ignore[assignment]  # equal by value, like a list

    def __reduce__(self) -> tuple[Any, ...]:
        return (type(self), (self._regions, self._units))

    def __setstate__(self, state: Any) -> None:
        """A state set directly (``object.__new__`` and then the state, as pickle does for a
        class without ``__reduce__``) is checked as the constructor checks its arguments:
        ``(regions, units)`` or the slots ``{"_regions": ..., "_units": ...}``."""
        if isinstance(state, tuple) and len(state) == 2 and state[0] is None:
            state = state[1]  # the (dict, slots) form of a class with __slots__
        if isinstance(state, dict) and {"_regions", "_units"} <= state.keys():
            state = (state["_regions"], state["_units"])
        if not (isinstance(state, tuple) and len(state) == 2):
            raise TypeError(f"{self.keyword}: a state is (regions, units), got {type(state).__name__}")
        self.__init__(*state)  # type: ignore[misc]

    def __repr__(self) -> str:
        inner = ",\n".join("    " + self._region_repr(region) for region in self._regions)
        return f"{self.keyword}(units={self._units!r}, regions=[\n{inner},\n])"

    def _region_repr(self, region: Any) -> str:
        return _format(region)

    # --- native lists -----------------------------------------------------------

    def to_native(self) -> Any:
        """A new native region list of these numbers, each scalar labelled with its quantity
        (the category) and the unit of that quantity in ``units``."""
        labels = UNIT_LABELS[self._units]

        def scalar(value: float, quantity: str) -> _native.TScalar:
            return _native.TScalar(float(value), quantity, labels[quantity])

        return self._native_list(scalar)

    def _engine_tables(self) -> Any:
        """The engine's region lists of these numbers, that the calculations read; built once,
        never handed out."""
        if self._tables is None:
            self._tables = _engine.Tables(self._list_name, self._regions)
        return self._tables

    @classmethod
    def _engine_tables_of(cls, lst: Any) -> Any:
        """The engine's region lists of a native list's numbers as they stand, not checked as a
        table value's are: a calculation takes any numbers, and fails on a region without rows
        only at a cell that needs it.  ValueError for a scalar that is None."""
        return _engine.Tables(cls._list_name, [cls._region_arrays(r) for r in cls._regions_of_list(lst, [])])

    @classmethod
    def _region_arrays(cls, region: Any) -> Any:
        """A region of `_regions_of_list` in the form of ``regions``, unchecked."""
        raise NotImplementedError

    # --- DataFrames -------------------------------------------------------------

    @classmethod
    def from_frame(cls: type[_T], frame: Any, units: str = "METRIC") -> _T:
        """The table of a DataFrame with the columns ``region`` (optional: region 1 if absent) and
        ``cls.columns``.  Rows keep their order within a region; regions must run from 1 without
        a gap.  ``PVTO``/``PVTG`` take one row per tabulated point: consecutive rows of one region
        with the same ``rs`` (``pg``) form one record, its first row the saturated point."""
        if not hasattr(frame, "columns"):
            raise TypeError(f"{cls.keyword}.from_frame needs a pandas DataFrame, got {type(frame).__name__}"
                            f" (the constructor {cls.keyword}(regions) takes plain sequences)")
        missing = [c for c in cls.columns if c not in frame.columns]
        if missing:
            raise ValueError(f"{cls.keyword}.from_frame: the frame has no column {', '.join(map(repr, missing))}"
                             f" (columns needed: region (optional), {', '.join(cls.columns)})")
        values = np.column_stack([_numbers(frame[c], f"{cls.keyword}.from_frame column {c!r}")
                                  for c in cls.columns]) if len(frame) else np.empty((0, len(cls.columns)))
        if "region" in frame.columns:
            region = np.asarray(frame["region"])
            if region.dtype.kind not in "iu" and not (region.dtype.kind == "f" and np.all(region == np.round(region))):
                raise TypeError(f"{cls.keyword}.from_frame: column 'region' must hold integers")
            region = region.astype(np.int64)
        else:
            region = np.ones(len(values), dtype=np.int64)
        count = int(region.max()) if len(region) else 0
        if len(region) and region.min() < 1:
            raise ValueError(f"{cls.keyword}.from_frame: region numbers count from 1, got {int(region.min())}")
        regions = []
        for number in range(1, count + 1):
            rows = values[region == number]
            if not len(rows):
                raise ValueError(f"{cls.keyword}.from_frame: region {number} has no rows")
            regions.append(cls._records_of_rows(rows))
        return cls(regions, units)

    @classmethod
    def _records_of_rows(cls, rows: FloatArray) -> Any:
        return rows

    def to_frame(self) -> Any:
        """A pandas DataFrame of the table, the form that ``from_frame`` reads."""
        try:
            import pandas as pd  # type: ignore[import-untyped,unused-ignore]
        except ImportError as error:
            raise ImportError(f"{self.keyword}.to_frame needs pandas: pip install pandas") from error
        blocks = [self._region_rows(region) for region in self._regions]
        frame = pd.DataFrame(np.concatenate(blocks), columns=list(self.columns))
        frame.insert(0, "region", np.repeat(np.arange(1, len(blocks) + 1), [len(b) for b in blocks]))
        return frame

    # --- native lists back to values ---------------------------------------------

    @classmethod
    def from_native(cls: type[_T], lst: Any, units: str | None = None) -> _T:
        """The table value of a native list: ``TPVTOList`` for PVTO, ``TPVTGList`` for PVTG,
        ``TPVTList`` for PVDO and PVDG, ``TPVTWList`` for PVTW, ``TRockList`` for ROCK.

        Parameters
        ----------
        lst : native list
            The list; its numbers are taken as they are.
        units : {"METRIC", "FIELD", "LAB", "PVT-M"} or None
            The unit system of the numbers.  None (the default) reads it from the scalars'
            labels (category and unit, as :data:`UNIT_LABELS` gives them and :meth:`to_native`
            writes them), so that ``from_native(t.to_native()) == t``.  A given system is taken
            as it is and the labels are not read.

        Raises
        ------
        TypeError
            `lst` is not the native list of this keyword.
        ValueError
            A slot holds no scalar, a number is one the constructor refuses, or (with
            ``units=None``) a label is not one of UNIT_LABELS or the labels are of more than
            one unit system.
        """
        if not isinstance(lst, cls._list_class):
            raise TypeError(f"{cls.keyword}.from_native needs a {cls._list_class.__name__}, got {type(lst).__name__}")
        labels: list[tuple[str, str, str]] = []
        regions = cls._regions_of_list(lst, labels)
        return cls(regions, _units_of_labels(labels) if units is None else units)

    @classmethod
    def _regions_of_list(cls, lst: Any, labels: list[tuple[str, str, str]]) -> list[Any]:
        """The regions, as the constructor takes them, of a native list of this keyword; the
        labels of every scalar read are added to `labels`."""
        raise NotImplementedError


def _same(a: Any, b: Any) -> bool:
    if isinstance(a, tuple):
        return isinstance(b, tuple) and len(a) == len(b) and all(_same(x, y) for x, y in zip(a, b))
    return bool(np.array_equal(a, b, equal_nan=True))


def _value(scalar: Any, where: str, labels: list[tuple[str, str, str]]) -> float:
    if scalar is None:
        raise ValueError(f"{where} holds no TScalar (None)")
    labels.append((scalar.category, scalar.unit, where))
    return float(scalar.value)


def _units_of_labels(labels: list[tuple[str, str, str]]) -> str:
    """The one unit system whose UNIT_LABELS give every (category, unit) of `labels`."""
    systems = list(UNIT_SYSTEMS)
    for category, unit, where in labels:
        fits = [s for s in systems if UNIT_LABELS[s].get(category) == unit]
        if not fits:
            if not any(UNIT_LABELS[s].get(category) == unit for s in UNIT_SYSTEMS):
                raise ValueError(f"{where}: the labels {category!r}, {unit!r} are not of any unit system of "
                                 f"UNIT_LABELS; pass units=")
            raise ValueError(f"{where}: {category} in {unit} is not of the unit system of the scalars before it "
                             f"({' or '.join(systems)}); a table has one unit system")
        systems = fits
    return systems[0]


# --- two-level tables: PVTO and PVTG ------------------------------------------------


class _RecordTable(_Table):
    """Regions of records ``[key, a, b, mu, a, b, mu, ...]``."""

    __slots__ = ()
    _native_fields: ClassVar[tuple[str, str, str, str]]  # of the native row and its points
    _row_class: ClassVar[Any]
    _nested_class: ClassVar[Any]
    _table_class: ClassVar[Any]
    #: Whether the second column rises along the saturated line and within each record
    #: (PVTO's pressures); PVTG's Rv may run either way.
    _inner_rises: ClassVar[bool]

    def _region(self, number: int, region: Any) -> tuple[FloatArray, ...]:
        where = f"{self.keyword} region {number}"
        if isinstance(region, (str, bytes)) or not isinstance(region, Iterable):
            raise TypeError(f"{where}: expected a sequence of records, got {type(region).__name__}")
        records = []
        for index, record in enumerate(region, start=1):
            numbers = _flat(record, f"{where}, record {index}")
            if len(numbers) < 4 or (len(numbers) - 1) % 3:
                raise ValueError(f"{where}, record {index}: expected 1 + 3*n numbers, got {len(numbers)}")
            records.append(numbers)
        if not records:
            raise ValueError(f"{where}: no records")
        key, inner, fvf = self.columns[:3]
        _rising(np.array([r[0] for r in records]), key, where, "record")
        for index, numbers in enumerate(records, start=1):
            _positive(numbers[2::3], fvf, f"{where}, record {index}")
        if self._inner_rises:
            # Bubble point pressures (a key of the saturated lookups) and the pressures of
            # each record's undersaturated rows rise as well.
            _rising(np.array([r[1] for r in records]), f"saturated {inner}", where, "record")
            for index, numbers in enumerate(records, start=1):
                _rising(numbers[1::3], inner, f"{where}, record {index}")
        return tuple(records)

    def _region_repr(self, region: Any) -> str:
        return "[" + _abbreviated([_format(r) for r in region], "     ") + "]"

    @classmethod
    def _region_arrays(cls, region: Any) -> Any:
        return tuple(np.array(record, dtype=np.float64) for record in region)

    def _region_rows(self, region: Any) -> FloatArray:
        rows = [np.column_stack([np.full(len(r) // 3, r[0]), r[1:].reshape(-1, 3)]) for r in region]
        return np.concatenate(rows)

    @classmethod
    def _records_of_rows(cls, rows: FloatArray) -> Any:
        starts = np.flatnonzero(np.r_[True, rows[1:, 0] != rows[:-1, 0]])
        return [np.r_[block[0, 0], block[:, 1:].ravel()] for block in np.split(rows, starts[1:])]

    def _native_list(self, scalar: Any) -> Any:
        key, a, b, mu = self._quantities
        tables = []
        for region in self._regions:
            rows = []
            for record in region:
                triples = record[1:].reshape(-1, 3)
                row = self._row_class(scalar(record[0], key), scalar(triples[0, 0], a),
                                      scalar(triples[0, 1], b), scalar(triples[0, 2], mu))
                for x, y, z in triples[1:]:
                    row.under_sat.append(self._nested_class(scalar(x, a), scalar(y, b), scalar(z, mu)))
                rows.append(row)
            tables.append(self._table_class(rows))
        return self._list_class(tables)

    @classmethod
    def _regions_of_list(cls, lst: Any, labels: list[tuple[str, str, str]]) -> list[Any]:
        key_name, a_name, b_name, mu_name = cls._native_fields
        regions = []
        for number, table in enumerate(lst, start=1):
            records = []
            for index, row in enumerate(table, start=1):
                where = f"{type(lst).__name__} region {number}, record {index}"
                numbers = [_value(getattr(row, key_name), f"{where}: {key_name}", labels)]
                for point in row.under_sat:
                    numbers += [_value(getattr(point, name), f"{where}: {name}", labels)
                                for name in (a_name, b_name, mu_name)]
                records.append(numbers)
            regions.append(records)
        return regions


class PVTO(_RecordTable):
    """Live oil: per region, records ``[rs, p, bo, mu, p, bo, mu, ...]`` as a deck writes them.

    Parameters
    ----------
    regions : sequence of regions
        One region per PVT region, region 1 first; a region is a sequence of records, a record
        the flat sequence ``[rs, p, bo, mu, p, bo, mu, ...]``: Rs, then the saturated point
        (bubble point pressure, Bo, viscosity), then any undersaturated rows of that Rs.
    units : {"METRIC", "FIELD", "LAB", "PVT-M"}
        The unit system of the numbers (a label; nothing is converted).

    Examples
    --------
    >>> from kavra.tables import PVTO
    >>> oil = PVTO([[[50.0, 120.0, 1.25, 0.9, 200.0, 1.23, 1.0], [80.0, 180.0, 1.35, 0.8]]])
    >>> oil
    PVTO(units='METRIC', regions=[
        [[50.0, 120.0, 1.25, 0.9, 200.0, 1.23, 1.0],
         [80.0, 180.0, 1.35, 0.8]],
    ])
    >>> len(oil), oil.regions[0][1]
    (1, array([ 80.  , 180.  ,   1.35,   0.8 ]))
    >>> print(oil.to_native()[0][0].Rs)
    TScalar(50, rs, sm3/sm3)
    """

    __slots__ = ()
    keyword = "PVTO"
    columns = ("rs", "p", "bo", "mu")
    _quantities = ("rs", "pressure", "oil_fvf", "viscosity")
    _list_name = "TPVTOList"
    _native_fields = _engine.RECORD_FIELDS[_list_name]
    _row_class = _native.TPVTO
    _nested_class = _native.TPVT
    _table_class = _native.TPVTOTable
    _list_class = _native.TPVTOList
    _inner_rises = True


class PVTG(_RecordTable):
    """Wet gas: per region, records ``[pg, rv, bg, mu, rv, bg, mu, ...]`` as a deck writes them.

    Parameters
    ----------
    regions : sequence of regions
        One region per PVT region; a region is a sequence of records, a record the flat
        sequence ``[pg, rv, bg, mu, rv, bg, mu, ...]``: the gas pressure, then the saturated
        point (Rv, Bg, viscosity), then any further Rv rows of that pressure.
    units : {"METRIC", "FIELD", "LAB", "PVT-M"}
        The unit system of the numbers (a label; nothing is converted).

    Examples
    --------
    >>> from kavra.tables import PVTG
    >>> gas = PVTG([[[100.0, 0.03, 0.025, 0.02, 0.01, 0.02, 0.02], [200.0, 0.04, 0.0125, 0.03]]], units="FIELD")
    >>> gas.units, len(gas.regions[0])
    ('FIELD', 2)
    >>> print(gas.to_native()[0][1].under_sat[0].B)
    TScalar(0.0125, gas_fvf, rb/Mscf)
    """

    __slots__ = ()
    keyword = "PVTG"
    columns = ("pg", "rv", "bg", "mu")
    _quantities = ("pressure", "rv", "gas_fvf", "viscosity")
    _list_name = "TPVTGList"
    _native_fields = _engine.RECORD_FIELDS[_list_name]
    _row_class = _native.TPVTG
    _nested_class = _native.TPVTGRecord
    _table_class = _native.TPVTGTable
    _list_class = _native.TPVTGList
    _inner_rises = False


# --- dead fluids: PVDO and PVDG -----------------------------------------------------


class _DeadTable(_Table):
    """Regions of rows ``[p, b, mu]``: one ``(n, 3)`` array per region."""

    __slots__ = ()
    _list_class = _native.TPVTList
    _list_name = "TPVTList"
    _fields = _engine.RECORD_FIELDS[_list_name]

    def _region(self, number: int, region: Any) -> FloatArray:
        where = f"{self.keyword} region {number}"
        if isinstance(region, (str, bytes)) or not isinstance(region, Iterable):
            raise TypeError(f"{where}: expected a sequence of [p, b, mu] rows, got {type(region).__name__}")
        rows = []
        for index, row in enumerate(region, start=1):
            numbers = _flat(row, f"{where}, row {index}")
            if len(numbers) != 3:
                raise ValueError(f"{where}, row {index}: expected 3 numbers, got {len(numbers)}")
            rows.append(numbers)
        if not rows:
            raise ValueError(f"{where}: no rows")
        table = _frozen(np.array(rows))
        _rising(table[:, 0], self.columns[0], where, "row")
        _positive(table[:, 1], self.columns[1], where, "row")
        return table

    def _region_repr(self, region: Any) -> str:
        return "[" + _abbreviated([_format(r) for r in region], "     ") + "]"

    def _region_rows(self, region: Any) -> FloatArray:
        return np.asarray(region)

    @classmethod
    def _region_arrays(cls, region: Any) -> Any:
        return np.array(region, dtype=np.float64).reshape(-1, len(cls._fields))

    def _native_list(self, scalar: Any) -> Any:
        p, b, mu = self._quantities
        return self._list_class([
            _native.TPVTTable([_native.TPVT(scalar(x, p), scalar(y, b), scalar(z, mu)) for x, y, z in region])
            for region in self._regions])

    @classmethod
    def _regions_of_list(cls, lst: Any, labels: list[tuple[str, str, str]]) -> list[Any]:
        regions = []
        for number, table in enumerate(lst, start=1):
            rows = []
            for index, row in enumerate(table, start=1):
                where = f"TPVTList region {number}, row {index}"
                rows.append([_value(getattr(row, name), f"{where}: {name}", labels) for name in cls._fields])
            regions.append(rows)
        return regions


class PVDO(_DeadTable):
    """Dead oil: per region, rows ``[p, bo, mu]``.

    Parameters
    ----------
    regions : sequence of regions
        One region per PVT region; a region is a sequence of ``[p, bo, mu]`` rows (pressure,
        oil formation volume factor, viscosity), pressure ascending.
    units : {"METRIC", "FIELD", "LAB", "PVT-M"}
        The unit system of the numbers (a label; nothing is converted).

    Examples
    --------
    >>> from kavra.tables import PVDO
    >>> PVDO([[[100.0, 1.2, 1.0], [300.0, 1.1, 1.2]]]).regions[0]
    array([[100. ,   1.2,   1. ],
           [300. ,   1.1,   1.2]])
    """

    __slots__ = ()
    keyword = "PVDO"
    columns = ("p", "bo", "mu")
    _quantities = ("pressure", "oil_fvf", "viscosity")


class PVDG(_DeadTable):
    """Dry gas: per region, rows ``[p, bg, mu]``.

    Parameters
    ----------
    regions : sequence of regions
        One region per PVT region; a region is a sequence of ``[p, bg, mu]`` rows (pressure,
        gas formation volume factor, viscosity), pressure ascending.
    units : {"METRIC", "FIELD", "LAB", "PVT-M"}
        The unit system of the numbers (a label; nothing is converted).

    Examples
    --------
    >>> from kavra.tables import PVDG
    >>> gas = PVDG([[[50.0, 0.025, 0.012], [150.0, 0.009, 0.015]]])
    >>> gas == PVDG.from_native(gas.to_native())
    True
    """

    __slots__ = ()
    keyword = "PVDG"
    columns = ("p", "bg", "mu")
    _quantities = ("pressure", "gas_fvf", "viscosity")


# --- one record per region: PVTW and ROCK -------------------------------------------


class _RecordPerRegion(_Table):
    __slots__ = ()
    _fields: ClassVar[tuple[str, ...]]  # of the native record, in column order
    _record_class: ClassVar[Any]
    _fvf: ClassVar[int | None] = None  # the column of the formation volume factor, if any

    def _region(self, number: int, region: Any) -> FloatArray:
        where = f"{self.keyword} region {number}"
        numbers = _flat(region, where)
        if len(numbers) != len(self.columns):
            raise ValueError(f"{where}: expected {len(self.columns)} numbers "
                             f"[{', '.join(self.columns)}], got {len(numbers)}")
        if self._fvf is not None:
            _positive(numbers[self._fvf:self._fvf + 1], self.columns[self._fvf], where)
        return numbers

    def _region_rows(self, region: Any) -> FloatArray:
        return np.asarray(region).reshape(1, -1)

    @classmethod
    def _region_arrays(cls, region: Any) -> Any:
        return np.array(region, dtype=np.float64)

    @classmethod
    def _records_of_rows(cls, rows: FloatArray) -> Any:
        if len(rows) != 1:
            raise ValueError(f"{cls.keyword}.from_frame: a region has one row, got {len(rows)}")
        return rows[0]

    def _native_list(self, scalar: Any) -> Any:
        return self._list_class([self._record_class(*(scalar(v, q) for v, q in zip(region, self._quantities)))
                                 for region in self._regions])

    @classmethod
    def _regions_of_list(cls, lst: Any, labels: list[tuple[str, str, str]]) -> list[Any]:
        where = cls._list_class.__name__ + " region {}: {}"
        return [[_value(getattr(r, name), where.format(number, name), labels) for name in cls._fields]
                for number, r in enumerate(lst, start=1)]


class PVTW(_RecordPerRegion):
    """Water: per region, one record ``[p_ref, bw, cw, mu, cvw]``.

    Parameters
    ----------
    regions : sequence of regions
        One record per PVT region: reference pressure, Bw at that pressure, compressibility,
        viscosity at that pressure, viscosibility.
    units : {"METRIC", "FIELD", "LAB", "PVT-M"}
        The unit system of the numbers (a label; nothing is converted).

    Examples
    --------
    >>> from kavra.tables import PVTW
    >>> water = PVTW([[250.0, 1.02, 4.5e-5, 0.5, 0.0], [260.0, 1.03, 4.5e-5, 0.5, 0.0]])
    >>> len(water), water.regions[1][0]
    (2, np.float64(260.0))
    >>> print(water.to_native()[0].Cw)
    TScalar(4.5e-05, compressibility, 1/bars)
    """

    __slots__ = ()
    keyword = "PVTW"
    columns = ("p_ref", "bw", "cw", "mu", "cvw")
    _quantities = ("pressure", "water_fvf", "compressibility", "viscosity", "viscosibility")
    _list_name = "TPVTWList"
    _fields = _engine.RECORD_FIELDS[_list_name]
    _fvf = 1
    _record_class, _list_class = _native.TPVTW, _native.TPVTWList


class ROCK(_RecordPerRegion):
    """Rock compressibility: per region, one record ``[p_ref, cr]``.

    Parameters
    ----------
    regions : sequence of regions
        One record per PVT region: reference pressure and rock compressibility.
    units : {"METRIC", "FIELD", "LAB", "PVT-M"}
        The unit system of the numbers (a label; nothing is converted).

    Examples
    --------
    >>> from kavra.tables import ROCK
    >>> ROCK([[200.0, 1e-3]], units="FIELD")
    ROCK(units='FIELD', regions=[
        [200.0, 0.001],
    ])
    """

    __slots__ = ()
    keyword = "ROCK"
    columns = ("p_ref", "cr")
    _quantities = ("pressure", "compressibility")
    _list_name = "TRockList"
    _fields = _engine.RECORD_FIELDS[_list_name]
    _record_class, _list_class = _native.TRock, _native.TRockList


class DENSITY(_RecordPerRegion):
    """Surface densities: per region, one record ``[oil, water, gas]``.

    The stock-tank oil, water and gas densities of each PVT region, in the unit of
    ``density`` of ``units`` (kg/m3, lb/ft3, gm/cc).  No calculation takes them, so there is
    no native list: :meth:`to_native` and :meth:`from_native` raise TypeError.

    Parameters
    ----------
    regions : sequence of regions
        One record ``[oil, water, gas]`` per PVT region, each density above 0.
    units : {"METRIC", "FIELD", "LAB", "PVT-M"}
        The unit system of the numbers (a label; nothing is converted).

    Raises
    ------
    ValueError
        A record that is not three finite numbers above 0, or no region.

    Examples
    --------
    >>> from kavra.tables import DENSITY
    >>> density = DENSITY([[53.66, 64.49, 0.0533]], units="FIELD")
    >>> density
    DENSITY(units='FIELD', regions=[
        [53.66, 64.49, 0.0533],
    ])
    >>> density.regions[0][2], DENSITY.columns
    (np.float64(0.0533), ('oil', 'water', 'gas'))
    """

    __slots__ = ()
    keyword = "DENSITY"
    columns = ("oil", "water", "gas")
    _quantities = ("density", "density", "density")

    def _region(self, number: int, region: Any) -> FloatArray:
        numbers = super()._region(number, region)
        for column, value in zip(self.columns, numbers):
            _positive(np.array([value]), column, f"{self.keyword} region {number}")
        return numbers

    def to_native(self) -> Any:
        raise TypeError("DENSITY has no native list: no calculation takes surface densities")

    @classmethod
    def from_native(cls, lst: Any, units: str | None = None) -> Self:
        raise TypeError("DENSITY has no native list: no calculation takes surface densities")
