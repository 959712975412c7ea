"""The calculations as a script would write them in vectorised NumPy,
following the documented steps in their documented grouping, so that the
results agree with the native ones bit for bit.  The tests take them as the
reference; the benchmarks time them against the native calculations.

PVT tables are plain data, one table per region:
    dead fluid     [(P, B), ...]
    live oil       [(Rs, [(P, B), ...]), ...]   the first point of a row is its saturated point
    wet gas        [(Pg, [(Rv, B), ...]), ...]  the first record of a row is its saturated one
    water          (P_ref, Bw_ref, Cw)
"""

import numpy as np

TOLERANCE = 0.0001


def row_search(keys, x):
    """The first row whose key is not below x: a halving search with the test
    x > key, so that a key equal to x is found and a NaN x ends at row 0.  On
    keys that ascend this is the number of keys below x."""
    keys, x = np.asarray(keys, dtype=float), np.asarray(x, dtype=float)
    if np.all(keys[:-1] <= keys[1:]):
        return np.where(np.isnan(x), 0, np.searchsorted(keys, x))
    first, count = np.zeros(x.shape, dtype=np.intp), np.full(x.shape, len(keys))
    while count.any():
        half = count // 2
        right = (count > 0) & (x > keys[np.minimum(first + half, len(keys) - 1)])
        first, count = np.where(right, first + half + 1, first), np.where(right, count - half - 1, half)
    return first


def bracket_upper(found, n):
    """The upper row of the bracket (n >= 2): the first bracket also serves
    every x at or below the first key, the last one every x above the last."""
    return np.clip(found, 1, n - 1)


def line(keys, xs, ys, search, x, form="slope"):
    """Linear interpolation at x between the rows that the row search on
    `search` and the bracket rule pick; a table of one row gives its ordinate."""
    xs, ys, x = np.asarray(xs, dtype=float), np.asarray(ys, dtype=float), np.asarray(x, dtype=float)
    if len(ys) == 1:
        return np.full(x.shape, ys[0])
    upper = bracket_upper(row_search(keys, search), len(ys))
    x0, x1, y0, y1 = xs[upper - 1], xs[upper], ys[upper - 1], ys[upper]
    if form == "slope":
        return (x - x0) * ((y1 - y0) / (x1 - x0)) + y0
    return y0 - ((y0 - y1) * ((x0 - x) / (x0 - x1)))


def columns(rows):
    """The two columns of [(x, y), ...] as arrays."""
    return np.array([r[0] for r in rows], dtype=float), np.array([r[1] for r in rows], dtype=float)


def saturated(table):
    """Keys, and the saturated point's two values, of every row of a two-level table."""
    return (np.array([r[0] for r in table], dtype=float),) + columns([r[1][0] for r in table])


# --- one table, the values of its cells --------------------------------------------

def one_over_b(table, p):
    keys, b = columns(table)
    return 1.0 / line(keys, keys, b, p, p)


def bubble_point(table, rs):
    keys, psat, _ = saturated(table)
    return line(keys, keys, psat, rs, rs)


def one_over_bo(table, po, pbub):
    """Saturated Bo within the tolerance of Pbub; elsewhere the undersaturated
    points of one row (the bracket's upper row around Pbub), never a blend."""
    _, psat, bsat = saturated(table)
    bo = line(psat, psat, bsat, po, po)
    under = np.flatnonzero(~(TOLERANCE > np.abs(po - pbub)))
    row = bracket_upper(row_search(psat, pbub[under]), len(table)) if len(table) > 1 else np.zeros(len(under), int)
    for r in np.unique(row):
        cells = under[row == r]
        p, b = columns(table[r][1])
        bo[cells] = line(p, p, b, po[cells], po[cells])
    return 1.0 / bo


def one_over_bg_records(records, rv):
    keys, b = columns(records)
    return line(keys, keys, 1.0 / b, rv, rv, form="fraction")


def one_over_bg(table, pg, pdew, rv):
    """The saturated line (rows by Pg, 1/Bg in Rv) within the tolerance of
    Pdew and for Pg at or beyond either end; else a blend in Pg of the two
    rows' records."""
    keys, rv_sat, b_sat = saturated(table)
    result = line(keys, rv_sat, 1.0 / b_sat, pg, rv)
    found = row_search(keys, pg)
    blend = ~(TOLERANCE > np.abs(pg - pdew)) & (found > 0) & (found < len(table))
    for r in np.unique(found[blend]):
        cells = blend & (found == r)
        f1 = one_over_bg_records(table[r][1], rv[cells])
        f0 = one_over_bg_records(table[r - 1][1], rv[cells])
        t = (keys[r] - pg[cells]) / (keys[r] - keys[r - 1])
        result[cells] = f1 - ((f1 - f0) * t)
    return result


def one_over_bw(record, pw):
    p_ref, bw_ref, cw = record
    x = (pw - p_ref) * cw
    return (((x * 0.5) * x) + (x + 1.0)) / bw_ref


class CellFailure(Exception):
    """The walk stops at `cell`, whose region number `region` has no table
    ("region") or an empty one ("empty"); `values` are those of the cells before."""

    def __init__(self, cell, kind, region, values):
        super().__init__(kind)
        self.cell, self.kind, self.region, self.values = cell, kind, region, values


def over_regions(per_table, tables, regions, *inputs, check_empty=True, out=None):
    """Every cell's value from the table of its region, 0.0 where the region
    number is below 1.  Cells are walked in order: the first cell whose region
    has no table, or an empty one, stops the walk (CellFailure, with the
    values of the cells before it)."""
    regions = np.asarray(regions)
    inputs = [np.asarray(v, dtype=float) for v in inputs]
    out = np.zeros(len(regions)) if out is None else out
    out[...] = 0.0
    missing = np.array([check_empty and len(t) == 0 for t in tables] + [True])
    bad = np.flatnonzero((regions >= 1) & missing[np.clip(regions.astype(np.int64) - 1, 0, len(tables))])
    stop = bad[0] if len(bad) else len(regions)
    with np.errstate(all="ignore"):
        for r, table in enumerate(tables):
            cells = regions[:stop] == r + 1
            if cells.any():
                out[:stop][cells] = per_table(table, *(v[:stop][cells] for v in inputs))
    if stop < len(regions):
        kind = "region" if regions[stop] > len(tables) else "empty"
        raise CellFailure(stop, kind, int(regions[stop]), out[:stop])
    return out


# --- K reductions ----------------------------------------------------------------
# Grid: reshape to (nK, columns), reduce over K, broadcast back into a new array.
# NumPy reduces axis 0 of a C-order array row by row, so float sums add in
# ascending K as the native code does; integer sums stay in the input's type
# (and wrap), as in the native code.

def _start(dtype, name):
    if name == "max":
        return dtype.type(0)
    return np.finfo(dtype).max if dtype.kind == "f" else np.iinfo(dtype).max


def _spread(a, column_values, nk):
    out = np.empty_like(a)
    out.reshape(nk, -1)[...] = column_values
    return out


def _mean(sums, counts, dtype):
    if dtype.kind == "f":
        return sums / counts.astype(dtype)
    return (sums / counts).astype(dtype)  # truncates toward zero, exact for 32-bit sums


def k_grid(name, a, nk):
    layers = a.reshape(nk, -1)
    if name == "max":
        col = layers.max(axis=0, initial=_start(a.dtype, name))
    elif name == "min":
        col = layers.min(axis=0, initial=_start(a.dtype, name))
    else:
        col = layers.sum(axis=0, dtype=a.dtype)
        if name == "average":
            col = _mean(col, np.full(col.shape, nk), a.dtype)
    return _spread(a, col, nk)


# Selection: the column number of every selected cell is computed once (a
# script would keep it with the selection); per call, one scatter and one gather.
def k_selection(name, a, column, n_columns):
    if name in ("max", "min"):
        col = np.full(n_columns, _start(a.dtype, name), dtype=a.dtype)
        (np.maximum if name == "max" else np.minimum).at(col, column, a)
    else:
        # bincount adds in element order in double: exact for these sums, then
        # wrapped to the input's width for integers
        sums = np.bincount(column, weights=a, minlength=n_columns)
        col = sums.astype(a.dtype) if a.dtype.kind == "f" else sums.astype(np.int64).astype(a.dtype)
        if name == "average":
            counts = np.bincount(column, minlength=n_columns)
            col = _mean(col, np.maximum(counts, 1), a.dtype)
    return col[column]


# --- rock ------------------------------------------------------------------------

def porosity(records, pvtnum, po, poro, out):
    # records[r] = (P_ref, Cr); cells outside every region keep what `out` held
    for r, (p_ref, cr) in enumerate(records):
        mask = pvtnum == r + 1
        x = (po[mask] - p_ref) * cr
        out[mask] = np.minimum(poro[mask] * (((x * 0.5) * x) + (x + 1.0)), 1.0)
    return out


def ratio_where_positive(numerator, denominator, out):
    """numerator / denominator where the denominator is above 0, else 0.0."""
    out[...] = 0.0
    np.divide(numerator, denominator, out=out, where=denominator > 0.0)
    return out
