"""The calculations written the way a script would write them in vectorised
NumPy, with the same expression grouping so that results agree bit for bit
on the benchmark data (sorted tables, no NaN inputs)."""

import numpy as np

TOLERANCE = 0.0001


def bracket(keys, search):
    """Upper row of the bracket for each search value (first key not below it)."""
    n = len(keys)
    found = np.searchsorted(keys, search, side="left")
    return np.where(found == n, n - 1, np.where(found == 0, 1, found))


def line(keys, xs, ys, search, x):
    if len(ys) == 1:
        return np.full(np.shape(x), ys[0])
    upper = bracket(keys, search)
    x0, x1, y0, y1 = xs[upper - 1], xs[upper], ys[upper - 1], ys[upper]
    return (x - x0) * ((y1 - y0) / (x1 - x0)) + y0


def line_fraction(keys, ys, x):
    if len(ys) == 1:
        return np.full(np.shape(x), ys[0])
    upper = bracket(keys, x)
    x0, x1, y0, y1 = keys[upper - 1], keys[upper], ys[upper - 1], ys[upper]
    t = (x0 - x) / (x0 - x1)
    return y0 - ((y0 - y1) * t)


def per_region(pvtnum, n_regions, out, compute):
    """out[c] = compute(region index, mask) where the region is valid, 0.0 elsewhere."""
    out[...] = 0.0
    for r in range(n_regions):
        mask = pvtnum == r + 1
        out[mask] = compute(r, mask)
    return out


def one_over_b(tables, pvtnum, p, out):
    # tables[r] = (P, B) arrays
    return per_region(pvtnum, len(tables), out,
                      lambda r, m: 1.0 / line(tables[r][0], tables[r][0], tables[r][1], p[m], p[m]))


def bubble_point(tables, pvtnum, rs, out):
    # tables[r] = (Rs, Psat, Bsat, [(P, B) undersaturated arrays per row])
    return per_region(pvtnum, len(tables), out,
                      lambda r, m: line(tables[r][0], tables[r][0], tables[r][1], rs[m], rs[m]))


def one_over_bo(tables, pvtnum, po, pbub, out):
    def region(r, m):
        rs_keys, psat, bsat, rows = tables[r]
        x, pb = po[m], pbub[m]
        bo = line(psat, psat, bsat, x, x)
        under = ~(TOLERANCE > np.abs(x - pb))
        if under.any():
            xu = x[under]
            row = bracket(psat, pb[under]) if len(psat) > 1 else np.zeros(len(xu), dtype=np.intp)
            bu = np.empty(len(xu))
            for k, (p_rows, b_rows) in enumerate(rows):
                sel = row == k
                bu[sel] = line(p_rows, p_rows, b_rows, xu[sel], xu[sel])
            bo[under] = bu
        return 1.0 / bo
    return per_region(pvtnum, len(tables), out, region)


def one_over_bw(records, pvtnum, pw, out):
    # records[r] = (P_ref, Bw_ref, Cw)
    def region(r, m):
        p_ref, bw_ref, cw = records[r]
        x = (pw[m] - p_ref) * cw
        return (((x * 0.5) * x) + (x + 1.0)) / bw_ref
    return per_region(pvtnum, len(records), out, region)


def one_over_bg(tables, pvtnum, pg, pdew, rv, out):
    # tables[r] = (Pg, Rv_sat, 1/Bg_sat, [(Rv, 1/B) record arrays per row])
    def region(r, m):
        pgk, rv_sat, inv_sat, rows = tables[r]
        g, d, v = pg[m], pdew[m], rv[m]
        result = line(pgk, rv_sat, inv_sat, g, v)
        found = np.searchsorted(pgk, g, side="left")
        two_level = ~(TOLERANCE > np.abs(g - d)) & (found > 0) & (found < len(pgk))
        if two_level.any():
            f = found[two_level]
            gv, vv = g[two_level], v[two_level]
            f1 = np.empty(len(f))
            f0 = np.empty(len(f))
            for k, (rv_rows, inv_rows) in enumerate(rows):
                upper, lower = f == k, f - 1 == k
                f1[upper] = line_fraction(rv_rows, inv_rows, vv[upper])
                f0[lower] = line_fraction(rv_rows, inv_rows, vv[lower])
            p1, p0 = pgk[f], pgk[f - 1]
            t = (p1 - gv) / (p1 - p0)
            result[two_level] = f1 - ((f1 - f0) * t)
        return result
    return per_region(pvtnum, len(tables), out, region)


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
