"""The cell calculations and K reductions as numba kernels, for bench/threads.py.

Each kernel runs the documented per-cell steps of its calculation in the same
order and grouping, compiled with ``parallel=True`` and without fastmath, so
that it gives the same bits as kavra; bench/threads.py checks that before it
times one.  This is what a user would write to go parallel without kavra.

Tables come flat, as NumPy arrays (``flat_*`` below turn the table values of
kavra.tables into them): the rows of all regions one after the other, and an
offset array that says where each region (or each row's records) begins.
The reciprocals 1/Bg are taken once when flattening; 1.0 / B there gives the
bits each cell would get.

Where kavra stops at a region past the table list, a kernel counts such
cells, writes nothing there and returns the count (the wrapper raises); the
cells around it are written, as no kernel can stop its parallel loop.
"""

import numpy as np
from numba import njit, prange

# IEEE division throughout (a zero divisor gives inf or NaN, as in kavra), never fastmath.
SERIAL = dict(cache=True, error_model="numpy")
PARALLEL = dict(SERIAL, parallel=True)

TOLERANCE = 0.0001
DOUBLE_MAX = np.finfo(np.float64).max


# --- flat tables from the table values --------------------------------------------

def _offsets(counts):
    return np.concatenate([[0], np.cumsum(counts)]).astype(np.int64)


def flat_dead(table):
    """PVDO/PVDG: (P, B, region offsets)."""
    regions = table.regions
    return (np.concatenate([r[:, 0] for r in regions]), np.concatenate([r[:, 1] for r in regions]),
            _offsets([len(r) for r in regions]))


def _records(table):
    """Per row: its key, and its (x, y) points, the saturated one first."""
    rows = [record for region in table.regions for record in region]
    points = [record[1:].reshape(-1, 3) for record in rows]
    return rows, points, _offsets([len(region) for region in table.regions])


def flat_pvto(table):
    """PVTO: (Rs, saturated P, saturated B per row, region offsets; P, B of every point, row offsets)."""
    rows, points, region_offsets = _records(table)
    return (np.array([r[0] for r in rows]), np.array([p[0, 0] for p in points]),
            np.array([p[0, 1] for p in points]), region_offsets,
            np.concatenate([p[:, 0] for p in points]), np.concatenate([p[:, 1] for p in points]),
            _offsets([len(p) for p in points]))


def flat_pvtg(table):
    """PVTG: (Pg, saturated Rv, saturated 1/Bg per row, region offsets; Rv, 1/Bg of every record,
    row offsets)."""
    rows, points, region_offsets = _records(table)
    return (np.array([r[0] for r in rows]), np.array([p[0, 0] for p in points]),
            np.array([1.0 / p[0, 1] for p in points]), region_offsets,
            np.concatenate([p[:, 0] for p in points]), np.concatenate([1.0 / p[:, 1] for p in points]),
            _offsets([len(p) for p in points]))


def flat_columns(table, columns):
    """PVTW, ROCK: the given columns of the one record per region."""
    records = np.array([np.asarray(r) for r in table.regions])
    return tuple(np.ascontiguousarray(records[:, c]) for c in columns)


# --- the row search and the two line forms --------------------------------------------

@njit(**SERIAL)
def row_search(keys, lo, n, x):
    """The first of the n rows from lo whose key is not below x (n when none is)."""
    first = 0
    count = n
    while count > 0:
        half = count // 2
        mid = first + half
        if x > keys[lo + mid]:
            first = mid + 1
            count -= half + 1
        else:
            count = half
    return first


@njit(**SERIAL)
def upper_row(found, n):
    """The upper row of the bracket, for a table of at least two rows."""
    if found == n:
        return n - 1
    if found == 0:
        return 1
    return found


@njit(**SERIAL)
def slope_line(keys, xs, ys, lo, n, search, x):
    """The slope form between the rows that `search` brackets in `keys`, evaluated at x."""
    if n == 1:
        return ys[lo]
    upper = lo + upper_row(row_search(keys, lo, n, search), n)
    x0 = xs[upper - 1]
    x1 = xs[upper]
    y0 = ys[upper - 1]
    y1 = ys[upper]
    return (x - x0) * ((y1 - y0) / (x1 - x0)) + y0


@njit(**SERIAL)
def fraction_line(xs, ys, lo, n, x):
    """The fraction form between the rows that x brackets in xs."""
    if n == 1:
        return ys[lo]
    upper = lo + upper_row(row_search(xs, lo, n, x), n)
    x0 = xs[upper - 1]
    x1 = xs[upper]
    y0 = ys[upper - 1]
    y1 = ys[upper]
    t = (x0 - x) / (x0 - x1)
    return y0 - ((y0 - y1) * t)


# --- PVT --------------------------------------------------------------------------

@njit(**PARALLEL)
def bubble_point_pressure(regions, rs, out, t_rs, t_psat, t_bsat, region_offsets, p, b, row_offsets):
    n_tables = len(region_offsets) - 1
    bad = 0
    for c in prange(len(out)):
        region = regions[c]
        if region < 1:
            out[c] = 0.0
            continue
        k = region - 1
        if k >= n_tables:
            bad += 1
            continue
        lo = region_offsets[k]
        x = rs[c]
        out[c] = slope_line(t_rs, t_rs, t_psat, lo, region_offsets[k + 1] - lo, x, x)
    return bad


@njit(**PARALLEL)
def one_over_b(regions, pressure, out, t_p, t_b, region_offsets):
    n_tables = len(region_offsets) - 1
    bad = 0
    for c in prange(len(out)):
        region = regions[c]
        if region < 1:
            out[c] = 0.0
            continue
        k = region - 1
        if k >= n_tables:
            bad += 1
            continue
        lo = region_offsets[k]
        x = pressure[c]
        out[c] = 1.0 / slope_line(t_p, t_p, t_b, lo, region_offsets[k + 1] - lo, x, x)
    return bad


@njit(**PARALLEL)
def one_over_bo(regions, po, pbub, out, t_rs, t_psat, t_bsat, region_offsets, p, b, row_offsets):
    n_tables = len(region_offsets) - 1
    bad = 0
    for c in prange(len(out)):
        region = regions[c]
        if region < 1:
            out[c] = 0.0
            continue
        k = region - 1
        if k >= n_tables:
            bad += 1
            continue
        lo = region_offsets[k]
        n = region_offsets[k + 1] - lo
        x = po[c]
        bubble = pbub[c]
        if TOLERANCE > abs(x - bubble):  # saturated: along the saturated line, at Po
            bo = slope_line(t_psat, t_psat, t_bsat, lo, n, x, x)
        else:  # undersaturated: one row, the upper row of the bracket of Pbub
            row = lo if n == 1 else lo + upper_row(row_search(t_psat, lo, n, bubble), n)
            first = row_offsets[row]
            bo = slope_line(p, p, b, first, row_offsets[row + 1] - first, x, x)
        out[c] = 1.0 / bo
    return bad


@njit(**PARALLEL)
def one_over_bw(regions, pw, out, p_ref, bw_ref, cw):
    n_tables = len(p_ref)
    bad = 0
    for c in prange(len(out)):
        region = regions[c]
        if region < 1:
            out[c] = 0.0
            continue
        k = region - 1
        if k >= n_tables:
            bad += 1
            continue
        x = (pw[c] - p_ref[k]) * cw[k]
        out[c] = (((x * 0.5) * x) + (x + 1.0)) / bw_ref[k]
    return bad


@njit(**PARALLEL)
def one_over_bg(regions, pg, pdew, rv, out, t_pg, t_rv, t_inv, region_offsets, r_rv, r_inv, row_offsets):
    n_tables = len(region_offsets) - 1
    bad = 0
    for c in prange(len(out)):
        region = regions[c]
        if region < 1:
            out[c] = 0.0
            continue
        k = region - 1
        if k >= n_tables:
            bad += 1
            continue
        lo = region_offsets[k]
        n = region_offsets[k + 1] - lo
        g = pg[c]
        dew = pdew[c]
        v = rv[c]
        if not (TOLERANCE > abs(g - dew)):
            found = row_search(t_pg, lo, n, g)
            if found != n and found != 0:  # between two rows: in Rv within each, then in Pg
                upper = lo + found
                first = row_offsets[upper]
                f1 = fraction_line(r_rv, r_inv, first, row_offsets[upper + 1] - first, v)
                first = row_offsets[upper - 1]
                f0 = fraction_line(r_rv, r_inv, first, row_offsets[upper] - first, v)
                p1 = t_pg[upper]
                p0 = t_pg[upper - 1]
                t = (p1 - g) / (p1 - p0)
                out[c] = f1 - ((f1 - f0) * t)
                continue
        out[c] = slope_line(t_pg, t_rv, t_inv, lo, n, g, v)  # the saturated line
    return bad


@njit(**PARALLEL)
def rs_from_components(denominator, numerator, out):
    for c in prange(len(out)):
        a = numerator[c]
        b = denominator[c]
        out[c] = a / b if b > 0.0 else 0.0
    return 0


# --- rock -------------------------------------------------------------------------

@njit(**PARALLEL)
def porosity(regions, po, poro, out, p_ref, cr):
    n_tables = len(p_ref)
    bad = 0
    for c in prange(len(out)):
        region = regions[c]
        if region <= 0:  # the cell keeps what it held
            continue
        k = region - 1
        if k >= n_tables:
            bad += 1
            continue
        x = (po[c] - p_ref[k]) * cr[k]
        a = (x * 0.5) * x
        b = x + 1.0
        f = a + b
        r = poro[c] * f
        if r > 1.0:
            r = 1.0
        out[c] = r
    return bad


@njit(**PARALLEL)
def porosity_from_porv(bulk_volume, porv, out):
    for c in prange(len(out)):
        b = bulk_volume[c]
        out[c] = porv[c] / b if b > 0.0 else 0.0
    return 0


@njit(**PARALLEL)
def bulk_volume(porv, poro, out):
    for c in prange(len(out)):
        p = poro[c]
        out[c] = porv[c] / p if p > 0.0 else 0.0
    return 0


@njit(**PARALLEL)
def bulk_volume_ntg(porv, poro, ntg, out):
    """The bulk volume from pore volume and porosity, then times the net-to-gross ratio, in one pass."""
    for c in prange(len(out)):
        p = poro[c]
        volume = porv[c] / p if p > 0.0 else 0.0
        out[c] = volume * ntg[c]
    return 0


# --- K reductions -------------------------------------------------------------------
# Values in cell order (I fastest, K slowest), flat.  The rows of J are split
# over the threads; each keeps the accumulators of its row's columns and adds
# the layers in ascending K, as the documented kernel does per column.

@njit(**PARALLEL)
def kmax(values, ni, nj, nk):
    out = np.empty_like(values)
    for j in prange(nj):
        acc = np.zeros(ni, dtype=values.dtype)
        for k in range(nk):
            base = (k * nj + j) * ni
            for i in range(ni):
                v = values[base + i]
                if acc[i] < v:
                    acc[i] = v
        for k in range(nk):
            base = (k * nj + j) * ni
            for i in range(ni):
                out[base + i] = acc[i]
    return out


@njit(**PARALLEL)
def kmin(values, ni, nj, nk):
    out = np.empty_like(values)
    for j in prange(nj):
        acc = np.full(ni, DOUBLE_MAX)
        for k in range(nk):
            base = (k * nj + j) * ni
            for i in range(ni):
                v = values[base + i]
                if v < acc[i]:
                    acc[i] = v
        for k in range(nk):
            base = (k * nj + j) * ni
            for i in range(ni):
                out[base + i] = acc[i]
    return out


@njit(**PARALLEL)
def ksum(values, ni, nj, nk):
    out = np.empty_like(values)
    for j in prange(nj):
        acc = np.zeros(ni, dtype=values.dtype)
        for k in range(nk):
            base = (k * nj + j) * ni
            for i in range(ni):
                acc[i] = acc[i] + values[base + i]
        for k in range(nk):
            base = (k * nj + j) * ni
            for i in range(ni):
                out[base + i] = acc[i]
    return out


@njit(**PARALLEL)
def kaverage(values, ni, nj, nk):
    out = np.empty_like(values)
    for j in prange(nj):
        acc = np.zeros(ni, dtype=values.dtype)
        count = np.zeros(ni, dtype=np.int32)
        for k in range(nk):
            base = (k * nj + j) * ni
            for i in range(ni):
                acc[i] = acc[i] + values[base + i]
                count[i] = count[i] + 1
        for k in range(nk):
            base = (k * nj + j) * ni
            for i in range(ni):
                out[base + i] = acc[i] / np.float64(count[i])
    return out


@njit(**PARALLEL)
def copy_into(values, out):
    """A parallel copy; with a new `out`, the floor of a reduction."""
    for c in prange(len(values)):
        out[c] = values[c]
    return out
