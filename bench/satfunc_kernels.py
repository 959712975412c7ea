"""kavra.satfunc's per-cell steps as numba kernels, for bench/satfunc.py.

The same steps in the same order and grouping as core/satfunc/SatFunc.cpp (curves searched by
bisection, linear between nodes and constant past the ends; the default oil model; two-point
horizontal scaling between each cell's end points), compiled with ``parallel=True`` and no
fastmath: what a user would write to go parallel without kavra.  The curves come flat
(:func:`flat`): the nodes of the six curves of every region one after the other, with offsets.
A cell of region 0 gets NaN.
"""

import numpy as np
from numba import njit, prange

OPTIONS = dict(cache=True, error_model="numpy", parallel=True)
INLINE = dict(cache=True, error_model="numpy", inline="always")

# The order of the six curves of a region, and of the end points (kavra.satfunc.END_POINTS).
KRW, KROW, PCOW, KRG, KROG, PCOG = range(6)
SWL, SWCR, SWU, SGL, SGCR, SGU, SOWCR, SOGCR = range(8)


def flat(sf):
    """(x, y, offsets (regions, 7), table end points (regions, 17)) of a SaturationFunctions."""
    xs, ys, offsets, at = [], [], [], 0
    for region in sf._curves:
        starts = []
        for x, y in region:
            starts.append(at)
            xs.append(x), ys.append(y)
            at += len(x)
        offsets.append(starts + [at])
    ends = np.array(list(sf.table_end_points.values())).T.copy()
    return np.concatenate(xs), np.concatenate(ys), np.array(offsets, dtype=np.int64), ends


@njit(**INLINE)
def _at(x, y, first, end, s):
    n = end - first
    if n == 1 or s <= x[first]:
        return y[first]
    if s >= x[end - 1]:
        return y[end - 1]
    lo, hi = 0, n - 1
    while hi - lo > 1:
        mid = (lo + hi) // 2
        if s >= x[first + mid]:
            lo = mid
        else:
            hi = mid
    i = first + lo
    return y[i] + (s - x[i]) * ((y[i + 1] - y[i]) / (x[i + 1] - x[i]))


@njit(**INLINE)
def _curve(x, y, offsets, r, c, s):
    return _at(x, y, offsets[r, c], offsets[r, c + 1], s)


@njit(**INLINE)
def _map(s, c0, c1, t0, t1):
    if not (c1 > c0):
        return t0 if s < c0 else t1
    return t0 + (s - c0) * ((t1 - t0) / (c1 - c0))


@njit(**INLINE)
def _oil(krow, krog, swco, sw, sg):
    wd = (swco if sw < swco else sw) - swco
    den = sg + wd
    return (sg * krog + wd * krow) / den if den > 0.0 else krow


@njit(**OPTIONS)
def relperm(satnum, sw, sg, x, y, offsets, ends, cell, scaled, krw, kro, krg):
    """krw at Sw, krg at Sg, the default oil model; with `scaled`, two-point horizontal scaling
    where cell[e, h] is cell h's end point e (SWL ... SOGCR)."""
    for h in prange(satnum.size):
        r = satnum[h] - 1
        if r < 0:
            krw[h] = kro[h] = krg[h] = np.nan
            continue
        w, g = sw[h], sg[h]
        t = ends[r]
        e = cell[:, h] if scaled else t
        sweff = e[SWL] if w < e[SWL] else w
        so = 1.0 - sweff - g
        sw_t, sg_t, sow_t, sog_t = w, g, so, so
        if scaled:
            sw_t = _map(w, e[SWCR], e[SWU], t[SWCR], t[SWU])
            sg_t = _map(g, e[SGCR], e[SGU], t[SGCR], t[SGU])
            sow_t = _map(so, e[SOWCR], 1.0 - e[SWL] - e[SGL], t[SOWCR], 1.0 - t[SWL] - t[SGL])
            sog_t = _map(so, e[SOGCR], 1.0 - e[SWL] - e[SGL], t[SOGCR], 1.0 - t[SWL] - t[SGL])
        krw[h] = _curve(x, y, offsets, r, KRW, sw_t)
        krg[h] = _curve(x, y, offsets, r, KRG, sg_t)
        krow = _curve(x, y, offsets, r, KROW, 1.0 - sow_t)
        krog = _curve(x, y, offsets, r, KROG, 1.0 - sog_t - t[SWL])
        kro[h] = _oil(krow, krog, e[SWL], w, g)


@njit(**OPTIONS)
def capillary_pressure(satnum, sw, sg, x, y, offsets, pcow, pcog):
    for h in prange(satnum.size):
        r = satnum[h] - 1
        if r < 0:
            pcow[h] = pcog[h] = np.nan
            continue
        pcow[h] = _curve(x, y, offsets, r, PCOW, sw[h])
        pcog[h] = _curve(x, y, offsets, r, PCOG, sg[h])


@njit(**OPTIONS)
def capillary_pressure_scaled(satnum, sw, sg, x, y, offsets, ends, cell, pcow, pcog):
    for h in prange(satnum.size):
        r = satnum[h] - 1
        if r < 0:
            pcow[h] = pcog[h] = np.nan
            continue
        t = ends[r]
        pcow[h] = _curve(x, y, offsets, r, PCOW, _map(sw[h], cell[SWL, h], cell[SWU, h], t[SWL], t[SWU]))
        pcog[h] = _curve(x, y, offsets, r, PCOG, _map(sg[h], cell[SGL, h], cell[SGU, h], t[SGL], t[SGU]))
