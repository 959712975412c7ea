"""Relative permeability and capillary pressure per cell, as the simulator evaluates them.

The tables of every SATNUM region (SWOF and SGOF, SWOF and SLGOF, or SWFN, SGFN and SOF3)
become two sets of curves, linear between their rows and constant past both ends: water's
against the water saturation (krw, krow, Pcow) and gas's against the gas saturation (krg,
krog, Pcog).  Flow's rules, checked against its restart arrays (WATKR, OILKR, GASKR, PCOW,
PCOG) every report step and cell:

* krw at Sw, krg at Sg, Pcow at Sw, Pcog at Sg.
* The default three-phase oil model (a deck without STONE1 or STONE2): with Swco the cell's
  connate water (SWL) and Sw' = max(Sw, Swco),
  ``kro = (Sg krog + (Sw' - Swco) krow) / (Sg + Sw' - Swco)``, krow and krog both at the
  cell's oil saturation ``So = 1 - Sw' - Sg`` (krow at ``Sw = 1 - So`` of the water-oil
  table, krog at ``Sg = 1 - So - Swco`` of the gas-oil one); krow where Sg + Sw' - Swco is 0.
* ENDSCALE: a cell's saturation is moved onto its table's between the cell's end points
  and the table's, linearly: krw between SWCR and SWU, krg between SGCR and SGU, krow
  between SOWCR and 1 - SWL - SGL, krog between SOGCR and 1 - SWL - SGL, Pcow between
  SWL and SWU, Pcog between SGL and SGU; with SCALECRS (three-point) the displacing
  phase's residual saturation is a third point (1 - SOWCR - SGL for krw, 1 - SOGCR - SWL
  for krg, 1 - SWCR - SGL for krow, 1 - SGCR - SWL for krog).  Vertical scaling: KRW,
  KRG, KRO and PCW, PCG multiply by the cell's value over the table's; KRWR, KRGR, KRORW,
  KRORG (where the deck gives them) scale the value by their ratio while the cell's
  saturation is at most its residual one (those of three-point scaling, from the cell's end
  points), and above it the value runs linearly (in the table's value) from the cell's
  residual value to its maximum.
* STONE2: ``kro = krocw ((krow/krocw + krw)(krog/krocw + krg) - (krw + krg))``, at least 0,
  krow at Sw alone and krog at Sg alone, krocw the cell's KRO (krow at connate water).
* STONE1: ``kro = krow krog / krocw * So* / ((1 - Sw*)(1 - Sg*))`` with the saturations
  normalised by 1 - Swco (``So* = So / (1 - Swco)``, ``Sw* = (Sw' - Swco) / (1 - Swco)``,
  ``Sg* = Sg / (1 - Swco)``): no minimum oil saturation, as Flow evaluates it.
* SWATINIT: the simulator moves each cell's largest Pcow during its initialisation so that the
  cell holds its SWATINIT water (PPCW, which it writes with its restart arrays;
  :func:`kavra.equil.initial_state` computes it as ``ppcw``).  That maximum takes the place of
  the cell's PCW: Pcow (ENDSCALE's horizontal scaling kept) multiplies by PPCW over the table's
  Pcow at its SWL, every step after.

Every pressure is in the deck's (the tables') units.
"""

from __future__ import annotations

import copy
from collections.abc import Mapping, Sequence
from typing import Any, NamedTuple

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _engine
from ._arrays import engine_buffer
from ._threads import resolve as _resolve_threads

__all__ = ["SaturationFunctions", "RelPerm", "CapillaryPressure", "from_deck", "from_tables", "END_POINTS",
           "OIL_MODELS", "TABLE_KEYWORDS"]

END_POINTS: tuple[str, ...] = tuple(_engine.SATFUNC_END_POINTS)
"""The end points a cell may have of its own, in the order of :attr:`SaturationFunctions.end_points`."""

OIL_MODELS = ("default", "STONE1", "STONE2")
"""The three-phase oil models: Flow's default one, Stone's first and second."""

TABLE_KEYWORDS = ("SWOF", "SGOF", "SLGOF", "SWFN", "SGFN", "SOF3")
"""The keywords of the saturation tables that :func:`from_deck` reads."""

_VERTICAL = ("KRW", "KRWR", "KRO", "KRORW", "KRORG", "KRG", "KRGR", "PCW", "PCG")
# Keywords that change the simulator's saturation functions in ways not evaluated here: two-phase
# and other table families, end points against depth, hysteresis, directional and imbibition
# tables, the Stone exponent, and a cap on SWATINIT's Pcow maxima.
_LEFT_OUT = frozenset({"SOF2", "SGWFN", "SOF32D", "SWFN2D", "ENPTVD", "ENKRVD", "ENPCVD", "EHYSTR", "IMBNUM",
                       "KRNUM", "KRNUMX", "KRNUMY", "KRNUMZ", "STONE", "STONE1EX", "SWLX", "SWCRX",
                       "SWLY", "SWCRY", "SWLZ", "SWCRZ", "SCALELIM", "PPCWMAX"})
_EDITS = ("EQUALS", "MULTIPLY", "ADD", "COPY", "MINVALUE", "MAXVALUE", "EQUALREG", "MULTIREG", "ADDREG",
          "COPYREG", "OPERATE", "OPERATER")


class RelPerm(NamedTuple):
    """Relative permeabilities of the cells (float64 arrays of their shape)."""

    water: NDArray[np.float64]
    oil: NDArray[np.float64]
    gas: NDArray[np.float64]


class CapillaryPressure(NamedTuple):
    """Capillary pressures of the cells, in the tables' pressure unit: ``oil_water`` = Po - Pw,
    ``gas_oil`` = Pg - Po."""

    oil_water: NDArray[np.float64]
    gas_oil: NDArray[np.float64]


def _column(rows: NDArray[np.float64], index: int, name: str) -> NDArray[np.float64]:
    """Column `index` of a table, defaulted values (NaN) filled linearly from their neighbours."""
    values = rows[:, index].copy()
    missing = np.isnan(values)
    if missing.all():
        raise ValueError(f"{name}: column {index + 1} holds no number")
    if missing.any():
        values[missing] = np.interp(rows[missing, 0], rows[~missing, 0], values[~missing])
    return values


def _rows(table: ArrayLike, columns: int, name: str) -> NDArray[np.float64]:
    values = np.asarray(table, dtype=np.float64)
    if values.ndim == 1:
        if values.size % columns:
            raise ValueError(f"{name}: {values.size} numbers do not make rows of {columns}")
        values = values.reshape(-1, columns)
    if values.ndim != 2 or values.shape[1] != columns or len(values) == 0:
        raise ValueError(f"{name}: expected rows of {columns} numbers, got shape {values.shape}")
    if np.isnan(values[:, 0]).any():
        raise ValueError(f"{name}: a saturation is left to its default")
    if not (np.diff(values[:, 0]) > 0).all():
        raise ValueError(f"{name}: the saturations of the first column should increase")
    return values


def _curve(x: NDArray[np.float64], y: NDArray[np.float64]) -> tuple[NDArray[np.float64], NDArray[np.float64]]:
    order = np.argsort(x, kind="stable")
    return np.ascontiguousarray(x[order]), np.ascontiguousarray(y[order])


def _region_curves(region: int, swof: Any = None, sgof: Any = None, slgof: Any = None, swfn: Any = None,
                   sgfn: Any = None, sof3: Any = None) -> tuple[Any, ...]:
    """The six curves of one region (krw, krow, pcow against Sw; krg, krog, pcog against Sg)."""
    where = f" of region {region}"
    if swof is not None:
        w = _rows(swof, 4, "SWOF" + where)
        sw = w[:, 0]
        water = [(sw, _column(w, 1, "SWOF")), (sw, _column(w, 2, "SWOF")), (sw, _column(w, 3, "SWOF"))]
        swl = sw[0]
    elif swfn is not None and sof3 is not None:
        w = _rows(swfn, 3, "SWFN" + where)
        sw = w[:, 0]
        swl = sw[0]
        o = _rows(sof3, 3, "SOF3" + where)
        water = [(sw, _column(w, 1, "SWFN")), _curve(1.0 - o[:, 0], _column(o, 1, "SOF3")),
                 (sw, _column(w, 2, "SWFN"))]
    else:
        raise ValueError("give SWOF, or SWFN with SOF3 (and SGFN)")
    if sgof is not None:
        g = _rows(sgof, 4, "SGOF" + where)
        sg = g[:, 0]
        gas = [(sg, _column(g, 1, "SGOF")), (sg, _column(g, 2, "SGOF")), (sg, _column(g, 3, "SGOF"))]
    elif slgof is not None:
        g = _rows(slgof, 4, "SLGOF" + where)
        gas = [_curve(1.0 - g[:, 0], _column(g, c, "SLGOF")) for c in (1, 2, 3)]
    elif sgfn is not None and sof3 is not None:
        g = _rows(sgfn, 3, "SGFN" + where)
        o = _rows(sof3, 3, "SOF3" + where)
        sg = g[:, 0]
        gas = [(sg, _column(g, 1, "SGFN")), _curve(1.0 - o[:, 0] - swl, _column(o, 2, "SOF3")),
               (sg, _column(g, 2, "SGFN"))]
    else:
        raise ValueError("give SGOF, SLGOF, or SGFN with SOF3")
    return tuple((np.ascontiguousarray(x, dtype=np.float64), np.ascontiguousarray(y, dtype=np.float64))
                 for x, y in water + gas)


class SaturationFunctions:
    """The saturation functions of a model: the curves of every SATNUM region, each cell's
    region and (with end-point scaling) each cell's end points.

    Made by :func:`from_deck` or :func:`from_tables`.

    Attributes
    ----------
    satnum : numpy.ndarray or None
        Each cell's SATNUM region (int32, from 1; 0 for a cell the simulator does not hold),
        or None: every cell of region 1.
    model : str
        The three-phase oil model, one of :data:`OIL_MODELS`.
    scaled : bool
        Whether saturations are scaled between end points (ENDSCALE).
    three_point : bool
        Whether that scaling is three-point (SCALECRS).
    """

    def __init__(self, regions: Sequence[tuple[Any, ...]], satnum: ArrayLike | None = None,
                 model: str = "default", cells: Mapping[str, ArrayLike] | None = None,
                 scaled: bool = False, three_point: bool = False) -> None:
        if model not in OIL_MODELS:
            raise ValueError(f"model must be one of {OIL_MODELS}, got {model!r}")
        self._curves = [tuple(region) for region in regions]  # krw, krow, pcow, krg, krog, pcog: (x, y) each
        self._tables = _engine.SatfuncTables(self._curves, OIL_MODELS.index(model))
        self.model = model
        self.scaled = bool(scaled)
        self.three_point = bool(three_point)
        self.satnum: NDArray[np.int32] | None = None
        if satnum is not None:
            numbers = np.asarray(satnum)
            if numbers.dtype.kind not in "iu":
                raise TypeError(f"satnum must hold integers, got {numbers.dtype}")
            self.satnum = np.ascontiguousarray(numbers.ravel(), dtype=np.int32)
            bad = (self.satnum < 0) | (self.satnum > len(self._tables))
            if bad.any():
                cell = int(np.flatnonzero(bad)[0])
                raise ValueError(f"satnum: cell {cell} has region {self.satnum[cell]}; the tables have "
                                 f"{len(self._tables)} region{'s' if len(self._tables) > 1 else ''}")
        self._cells: list[NDArray[np.float64] | None] = [None] * len(END_POINTS)
        for name, values in (cells or {}).items():
            key = name.upper()
            if key not in END_POINTS:
                raise ValueError(f"cells: {name!r} is not an end point; those are {', '.join(END_POINTS)}")
            if self.satnum is None:
                raise ValueError("cells: end points per cell need satnum (one region number per cell)")
            array = np.ascontiguousarray(np.asarray(values, dtype=np.float64).ravel())
            if array.shape != self.satnum.shape:
                raise ValueError(f"cells[{name!r}] holds {array.size} values; satnum has {self.satnum.size} cells")
            self._cells[END_POINTS.index(key)] = array

    def __repr__(self) -> str:
        cells = "" if self.satnum is None else f", {self.satnum.size} cells"
        scaling = ", three-point scaling" if self.three_point else ", scaled" if self.scaled else ""
        return f"<kavra.satfunc.SaturationFunctions {len(self._tables)} regions{cells}, oil model {self.model}{scaling}>"

    def __reduce__(self) -> tuple[Any, ...]:
        # Pickled as what makes it (the engine's tables are built again where it is unpickled).
        cells = {name: values for name, values in zip(END_POINTS, self._cells) if values is not None}
        return type(self), (self._curves, self.satnum, self.model, cells, self.scaled, self.three_point)

    def take(self, cells: ArrayLike) -> SaturationFunctions:
        """The functions of some of the cells: their regions and end points, in the order given.

        Parameters
        ----------
        cells : array_like of int
            Cell numbers (from 0, in the order of :attr:`satnum`; negative ones count from the
            end), in any shape: they are taken flat.

        Returns
        -------
        SaturationFunctions
            Sharing these functions' tables; with one region number (and end point) per cell
            of `cells`.  Functions without cells (``satnum`` None) are returned as they are:
            they evaluate any number of cells.

        Raises
        ------
        TypeError
            `cells` does not hold integers.
        IndexError
            A cell number past the cells.

        Examples
        --------
        >>> sf = from_tables(swof=[[[0.2, 0, 1, 0], [1, 1, 0, 0]], [[0.1, 0, 1, 0], [1, 1, 0, 0]]],
        ...                  sgof=[[[0, 0, 1, 0], [0.8, 1, 0, 0]]] * 2, satnum=[1, 2, 2, 1])
        >>> sf.take([3, 1]).satnum
        array([1, 2], dtype=int32)
        """
        if self.satnum is None:
            return self
        index = np.asarray(cells)
        if index.dtype.kind not in "iu":
            raise TypeError(f"take: cells must hold integer cell numbers, got {index.dtype}")
        index = index.ravel()
        n = self.satnum.size
        if index.size and (int(index.min()) < -n or int(index.max()) >= n):
            wrong = int(index[(index < -n) | (index >= n)][0])
            raise IndexError(f"take: cell {wrong} is past the {n} cells of these functions")
        taken = copy.copy(self)
        taken.satnum = np.ascontiguousarray(self.satnum[index])
        taken._cells = [None if values is None else np.ascontiguousarray(values[index]) for values in self._cells]
        return taken

    @property
    def regions(self) -> int:
        """The number of SATNUM regions."""
        return len(self._tables)

    @property
    def table_end_points(self) -> dict[str, NDArray[np.float64]]:
        """Each region's end points as its tables give them: name -> one value per region."""
        ends = self._tables.ends
        return {name: ends[:, i].copy() for i, name in enumerate(END_POINTS)}

    @property
    def end_points(self) -> dict[str, NDArray[np.float64]]:
        """Each cell's end points as the simulator uses them: name (:data:`END_POINTS`) -> one
        float64 value per cell (the cell's own where it scales, else its region's; NaN for a
        cell of region 0).  PCW and PCG are in the tables' pressure unit."""
        satnum = self._satnum(None)
        out = [np.empty(satnum.size) for _ in END_POINTS]
        _engine.satfunc_end_points(self._tables, satnum, self._cells, out)
        return dict(zip(END_POINTS, out))

    def _satnum(self, shape: tuple[int, ...] | None) -> NDArray[np.int32]:
        if self.satnum is not None:
            if shape is not None and int(np.prod(shape)) != self.satnum.size:
                raise ValueError(f"sw and sg hold {int(np.prod(shape))} cells; satnum has {self.satnum.size}")
            return self.satnum
        if shape is None:
            raise ValueError("these functions have no cells (no satnum)")
        return np.ones(int(np.prod(shape)), dtype=np.int32)

    def _inputs(self, sw: ArrayLike, sg: ArrayLike) -> tuple[Any, ...]:
        """The saturations flat and contiguous (float32 kept where both are), their shape, the cells'
        regions and the mask of the results (None where neither input is masked)."""
        given: tuple[Any, Any] = (np.ma.asarray(sw), np.ma.asarray(sg))
        for name, a in zip(("sw", "sg"), given):
            if a.dtype.kind not in "fiub":
                raise TypeError(f"{name} must hold numbers, got {a.dtype}")
        masked = np.ma.isMaskedArray(sw) or np.ma.isMaskedArray(sg)
        mask = np.ma.getmaskarray(given[0]) | np.ma.getmaskarray(given[1]) if masked else None
        w, g = np.broadcast_arrays(np.ma.getdata(given[0]), np.ma.getdata(given[1]))
        dtype = np.float32 if w.dtype == np.float32 and g.dtype == np.float32 else np.float64
        flat_w = engine_buffer(w.ravel(), dtype)
        flat_g = engine_buffer(g.ravel(), dtype)
        return w.shape, self._satnum(w.shape), flat_w, flat_g, mask

    @staticmethod
    def _shaped(values: NDArray[np.float64], shape: tuple[int, ...], mask: Any) -> Any:
        shaped = values.reshape(shape)
        return shaped if mask is None else np.ma.masked_array(shaped, np.broadcast_to(mask, shape).copy())

    def relperm(self, sw: ArrayLike, sg: ArrayLike, *, threads: int | None = None) -> RelPerm:
        """Relative permeability of water, oil and gas in every cell.

        Parameters
        ----------
        sw, sg : array_like
            Water and gas saturation per cell (they broadcast together; with per-cell
            functions, one value per cell).  float32 (a restart's SWAT, SGAS) is read as it is;
            masked arrays give masked results (the mask of either input).
        threads : int, optional
            Threads for this call (default :func:`kavra.get_num_threads`); the same bits for any.

        Returns
        -------
        RelPerm
            ``water``, ``oil``, ``gas``: float64 arrays of the saturations' shape (NaN for a cell
            of region 0).

        Examples
        --------
        >>> sf = from_tables(swof=[[0.2, 0, 1, 0], [1, 1, 0, 0]], sgof=[[0, 0, 1, 0], [0.8, 1, 0, 0]])
        >>> kr = sf.relperm([0.6], [0.0])
        >>> [round(float(k[0]), 12) for k in kr]  # water, oil, gas
        [0.5, 0.5, 0.0]
        """
        shape, satnum, w, g, mask = self._inputs(sw, sg)
        out = [np.empty(w.size) for _ in range(3)]
        _engine.satfunc_relperm(self._tables, satnum, w, g, self._cells, self.scaled, self.three_point, *out,
                                _resolve_threads(threads))
        return RelPerm(*(self._shaped(a, shape, mask) for a in out))

    def capillary_pressure(self, sw: ArrayLike, sg: ArrayLike, *, threads: int | None = None) -> CapillaryPressure:
        """Oil-water and gas-oil capillary pressure in every cell, in the tables' pressure unit.

        Parameters
        ----------
        sw, sg : array_like
            Water and gas saturation per cell, as for :meth:`relperm`.
        threads : int, optional
            Threads for this call.

        Returns
        -------
        CapillaryPressure
            ``oil_water`` (Pcow at Sw) and ``gas_oil`` (Pcog at Sg), float64.

        Examples
        --------
        >>> sf = from_tables(swof=[[0.2, 0, 1, 2.0], [1, 1, 0, 0]], sgof=[[0, 0, 1, 0], [0.8, 1, 0, 0.5]])
        >>> pc = sf.capillary_pressure([0.6], [0.4])
        >>> float(pc.oil_water[0]), float(pc.gas_oil[0])
        (1.0, 0.25)
        """
        shape, satnum, w, g, mask = self._inputs(sw, sg)
        out = [np.empty(w.size) for _ in range(2)]
        _engine.satfunc_capillary_pressure(self._tables, satnum, w, g, self._cells, self.scaled, self.three_point,
                                           *out, _resolve_threads(threads))
        return CapillaryPressure(*(self._shaped(a, shape, mask) for a in out))


def _per_region(name: str, value: Any, regions: int | None) -> list[Any]:
    """A table or a sequence of tables (one per region) as a list of `regions` tables: one table
    is a 2-D array_like of rows, or its numbers flat; a sequence of 1-D NumPy arrays (as
    :meth:`kavra.deck.Deck.records` gives) or of 2-D tables holds one table per region."""
    if value is None:
        return [None] * (regions or 1)
    tables: list[Any]
    if isinstance(value, np.ndarray) and value.dtype != object:
        tables = [value]
    elif isinstance(value, Sequence) and value and all(np.ndim(v) == 0 for v in value):
        tables = [value]
    elif isinstance(value, Sequence) and value and all(np.ndim(v) == 1 for v in value) and not all(
            isinstance(v, np.ndarray) for v in value):
        tables = [value]
    else:
        tables = list(value)
    if regions is not None and len(tables) != regions:
        raise ValueError(f"{name}: {len(tables)} tables; the others have {regions}")
    return tables


def from_tables(*, swof: Any = None, sgof: Any = None, slgof: Any = None, swfn: Any = None, sgfn: Any = None,
                sof3: Any = None, satnum: ArrayLike | None = None, model: str = "default",
                end_points: Mapping[str, ArrayLike] | None = None, three_point: bool = False,
                ppcw: ArrayLike | None = None) -> SaturationFunctions:
    """Saturation functions from tables given as arrays, without a deck.

    Parameters
    ----------
    swof, sgof, slgof, swfn, sgfn, sof3 : array_like or sequence of array_like, optional
        One table (rows of the keyword's columns, or its numbers flat) or one per SATNUM region.
        Give SWOF or SWFN with SOF3 for water and oil, and SGOF, SLGOF or SGFN (with SOF3) for gas.
    satnum : array_like of int, optional
        Each cell's region, from 1 (0: no cell, NaN results).  Without it every cell is of
        region 1, and any number of cells can be evaluated.
    model : {"default", "STONE1", "STONE2"}
        The three-phase oil model.
    end_points : mapping, optional
        End points of the cells' own (names of :data:`END_POINTS`, one value per cell of
        `satnum`): the saturations scale between them (as with ENDSCALE); KRW... and PCW, PCG
        scale the values.
    three_point : bool
        Three-point scaling of the saturations (SCALECRS).
    ppcw : array_like of float, optional
        Each cell's largest Pcow after SWATINIT (as :func:`from_deck`), in the tables' pressure
        unit, one value per cell of `satnum`; it replaces ``end_points["PCW"]``.

    Returns
    -------
    SaturationFunctions

    Examples
    --------
    >>> sf = from_tables(swof=[[0.2, 0, 1, 0], [0.5, 0.2, 0.3, 0], [1, 1, 0, 0]],
    ...                  sgof=[[0, 0, 1, 0], [0.8, 1, 0, 0]])
    >>> sf.table_end_points["SWL"], sf.table_end_points["SOWCR"]
    (array([0.2]), array([0.]))
    """
    curves = _curves({"swof": swof, "sgof": sgof, "slgof": slgof, "swfn": swfn, "sgfn": sgfn, "sof3": sof3})
    cells = _with_ppcw(end_points or {}, ppcw)
    return SaturationFunctions(curves, satnum, model, cells, scaled=bool(end_points), three_point=three_point)


def _with_ppcw(cells: Mapping[str, Any], ppcw: ArrayLike | None) -> dict[str, Any]:
    """The cells' end points with PCW replaced by `ppcw` (masked values as NaN), where it is given."""
    out = {name: values for name, values in cells.items() if ppcw is None or name.upper() != "PCW"}
    if ppcw is not None:
        given = np.ma.asarray(ppcw)
        if given.dtype.kind not in "fiu":
            raise TypeError(f"ppcw must hold numbers, got {given.dtype}")
        out["PCW"] = np.ma.filled(given.astype(np.float64), np.nan)
    return out


def _curves(given: Mapping[str, Any]) -> list[tuple[Any, ...]]:
    """The curves of every region from the tables of each keyword (one, or one per region)."""
    counts = {len(_per_region(k, v, None)) for k, v in given.items() if v is not None}
    if len(counts) > 1:
        raise ValueError(f"the tables give different numbers of regions: {sorted(counts)}")
    regions = counts.pop() if counts else 1
    lists = {k: _per_region(k, v, regions) for k, v in given.items()}
    return [_region_curves(r + 1, **{k: lists[k][r] for k in lists}) for r in range(regions)]


def _named_in_edits(deck: Any, name: str) -> bool:
    """Whether an edit keyword (EQUALS, MULTIPLY, COPY, ...) of the deck writes array `name`."""
    for edit in _EDITS:
        for texts in deck.words(edit):
            target = texts[1] if edit in ("COPY", "COPYREG") and len(texts) > 1 else texts[0] if texts else None
            if target == name:
                return True
    return False


def from_deck(deck: Any, *, ppcw: ArrayLike | None = None, satnum: ArrayLike | None = None) -> SaturationFunctions:
    """The saturation functions of a deck: its tables, each cell's SATNUM region, and with
    ENDSCALE each cell's end points, as Flow scales them.

    Parameters
    ----------
    deck : kavra.deck.Deck
        A deck read with :func:`kavra.deck.read`: SWOF with SGOF or SLGOF, or SWFN, SGFN and
        SOF3, one table per SATNUM region (NTSFUN of TABDIMS).
    ppcw : array_like of float, optional
        Each cell's largest Pcow as the simulator's initialisation left it (nI * nJ * nK
        values, cell order, deck pressure units; masked or NaN where the cell is inactive):
        the PPCW of a run's restart (``kavra.results.read(case).cell_property("PPCW", 0)``), or
        ``kavra.equil.initial_state(deck).ppcw``.  Needed with SWATINIT, whose initialisation
        moves that maximum; it replaces the cell's PCW (ENDSCALE) and scales Pcow by its ratio
        to the table's largest Pcow.
    satnum : array_like of int, optional
        Each cell's SATNUM region as a run took it (nI * nJ * nK values, cell order; 0, masked
        or inactive where the run holds no cell): the SATNUM of its INIT.  Default: the deck's,
        from opm's state of the deck's grid and properties, which is built for it (on a deck
        of 10^7 cells, about 2 GB of memory and 20 s); given, that state is built only where
        ENDSCALE's end points are read from the deck.

    Returns
    -------
    SaturationFunctions
        With the deck's cells: evaluate it at one saturation per cell (nI * nJ * nK, cell
        order); cells outside ACTNUM give NaN.  STONE1 or STONE2 choose the oil model,
        SCALECRS three-point scaling.  Pressures in the deck's units.

    Raises
    ------
    ValueError
        The deck has none of the table families, or a table is not one; or it has a keyword
        whose effect is not evaluated here (SOF2, SGWFN, ENPTVD, ENKRVD, ENPCVD, EHYSTR, IMBNUM,
        KRNUM*, STONE1EX, the directional end points SWLX ..., SCALELIM, PPCWMAX); SWATINIT
        without `ppcw`; `ppcw` or `satnum` of another number of cells than the grid; a region
        in `satnum` past the tables.
    TypeError
        `satnum` does not hold integers.
    """
    keywords = set(deck.keywords)
    tables: dict[str, Any] = {}
    for name in TABLE_KEYWORDS:
        if name in keywords:
            tables[name.lower()] = [np.asarray(r, dtype=np.float64) for r in deck.records(name)]
    if not tables:
        raise ValueError("the deck has no saturation tables (SWOF, SGOF, SLGOF, SWFN, SGFN, SOF3)")
    left = keywords & _LEFT_OUT
    if left:
        raise ValueError(f"the deck has {', '.join(sorted(left))}, which kavra.satfunc does not evaluate "
                         f"(its functions would not be the simulator's)")
    if "SWATINIT" in keywords and ppcw is None:
        raise ValueError("the deck has SWATINIT, which moves each cell's largest Pcow when the simulator "
                         "initialises it: pass ppcw= (the run's restart array PPCW, or "
                         "kavra.equil.initial_state(deck).ppcw)")
    model = "STONE1" if "STONE1" in keywords else "STONE2" if "STONE2" in keywords else "default"
    satnum = _cell_integers(deck, "SATNUM") if satnum is None else _given_regions(satnum, deck.grid.number_of_cells())
    if ppcw is not None and np.size(ppcw) != satnum.size:
        raise ValueError(f"ppcw holds {np.size(ppcw)} values; the deck's grid has {satnum.size} cells")
    cells: dict[str, NDArray[np.float64]] = {}
    scaled = "ENDSCALE" in keywords
    if scaled:
        for name in END_POINTS:
            if name in keywords or _named_in_edits(deck, name):
                cells[name] = np.asarray(deck.cell_property(name), dtype=np.float64)
    three_point = scaled and "SCALECRS" in keywords and _scalecrs(deck)
    return SaturationFunctions(_curves(tables), satnum, model, _with_ppcw(cells, ppcw), scaled=scaled,
                               three_point=three_point)


def _scalecrs(deck: Any) -> bool:
    """Whether the last SCALECRS of the deck says YES (three-point scaling)."""
    words = [texts for texts in deck.words("SCALECRS") if texts]
    return bool(words) and words[-1][0].startswith("Y")


def _given_regions(satnum: ArrayLike, cells: int) -> NDArray[np.int32]:
    """A run's SATNUM per cell as int32, 0 where it is masked."""
    given: np.ma.MaskedArray[Any, Any] = np.ma.asarray(satnum)
    if given.dtype.kind not in "iu":
        raise TypeError(f"satnum must hold integers, got {given.dtype}")
    if given.size != cells:
        raise ValueError(f"satnum holds {given.size} values; the deck's grid has {cells} cells")
    return np.ascontiguousarray(np.ma.filled(given, 0).ravel(), dtype=np.int32)


def _cell_integers(deck: Any, name: str) -> NDArray[np.int32]:
    """An integer region property per cell (1 where the deck leaves it out, 0 outside ACTNUM)."""
    return np.asarray(deck.cell_property(name), dtype=np.int32)
