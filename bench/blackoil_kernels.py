"""kavra.blackoil's per-cell steps as numba kernels, for bench/blackoil.py.

The same steps in the same order and grouping as core/blackoil (lines
searched by bisection, linear between nodes and past the ends, records mixed
by their key's weight), compiled with ``parallel=True`` and no fastmath:
what a user would write to go parallel without kavra.  The tables come flat
(``flat_*``): the nodes of every record of every region one after the other,
with offsets; the records without undersaturated rows extended here as the
simulator extends them.  A cell whose region is past the table gets NaN.
"""

import numpy as np
from numba import njit, prange

OPTIONS = dict(cache=True, error_model="numpy", parallel=True)
INLINE = dict(cache=True, error_model="numpy")


def _offsets(counts):
    return np.concatenate([[0], np.cumsum(counts)]).astype(np.int64)


def _extended(records, sign):
    """Per record (key, x, b, bmu) with the rows of a record without undersaturated ones taken from
    the next record that has them: x shifted, b and bmu scaled; for gas (sign -1) down to x = 0."""
    out = []
    for r, (key, rows) in enumerate(records):
        x, b, bmu = [rows[0][0]], [1.0 / rows[0][1]], [1.0 / (rows[0][1] * rows[0][2])]
        if len(rows) > 1:
            for row in rows[1:]:
                x.append(row[0]), b.append(1.0 / row[1]), bmu.append(1.0 / (row[1] * row[2]))
        else:
            donor = next((rows_j for _, rows_j in records[r + 1:] if len(rows_j) > 1), None)
            if donor is not None:
                shift = x[0] - donor[0][0]
                sb, sbmu = b[0] / (1.0 / donor[0][1]), bmu[0] / (1.0 / (donor[0][1] * donor[0][2]))
                for row in donor[1:]:
                    nx, nb, nbmu = row[0] + shift, (1.0 / row[1]) * sb, (1.0 / (row[1] * row[2])) * sbmu
                    if sign > 0 or nx > 0.0:
                        x.append(nx), b.append(nb), bmu.append(nbmu)
                        continue
                    t = (0.0 - x[-1]) / (nx - x[-1])
                    b.append(b[-1] + t * (nb - b[-1])), bmu.append(bmu[-1] + t * (nbmu - bmu[-1])), x.append(0.0)
                    break
        if sign < 0:
            x, b, bmu = x[::-1], b[::-1], bmu[::-1]
        out.append((key, x, b, bmu))
    return out


def _two_level(table, sign):
    """A PVTO (sign 1) or PVTG (sign -1) value: region offsets into records, keys, saturated
    values, record offsets into nodes, nodes."""
    keys, sat, counts, x, b, bmu, per_region = [], [], [], [], [], [], []
    for region in table.regions:
        records = [(float(r[0]), np.asarray(r[1:]).reshape(-1, 3)) for r in region]
        per_region.append(len(records))
        for (key, rows), (_, rx, rb, rbmu) in zip(records, _extended(records, sign)):
            keys.append(key), sat.append(rows[0][0])
            counts.append(len(rx)), x.extend(rx), b.extend(rb), bmu.extend(rbmu)
    return (_offsets(per_region), np.array(keys), np.array(sat), _offsets(counts), np.array(x), np.array(b),
            np.array(bmu))


def flat_pvto(table):
    return _two_level(table, 1)


def flat_pvtg(table):
    return _two_level(table, -1)


def flat_dead(table):
    rows = [np.asarray(r) for r in table.regions]
    x = np.concatenate([r[:, 0] for r in rows])
    return (_offsets([len(r) for r in rows]), x, np.concatenate([1.0 / r[:, 1] for r in rows]),
            np.concatenate([1.0 / (r[:, 1] * r[:, 2]) for r in rows]))


def flat_records(table):
    return np.array([np.asarray(r, dtype=float) for r in table.regions])


@njit(**INLINE)
def _segment(x, lo, hi, at):
    a, b = lo, hi - 1
    while b - a > 1:
        m = (a + b) // 2
        if at >= x[m]:
            a = m
        else:
            b = m
    return a


@njit(**INLINE)
def _line(x, y, lo, hi, at):
    if hi - lo == 1:
        return y[lo]
    i = _segment(x, lo, hi, at)
    return y[i] + (at - x[i]) * ((y[i + 1] - y[i]) / (x[i + 1] - x[i]))


@njit(**INLINE)
def _live(ro, keys, sat, no, x, y, region, p, r):
    k0, k1 = ro[region], ro[region + 1]
    if k1 - k0 == 1:
        return _line(x, y, no[k0], no[k0 + 1], p)
    i = _segment(keys, k0, k1, r)
    w = (r - keys[i]) / (keys[i + 1] - keys[i])
    bubble = sat[i] + w * (sat[i + 1] - sat[i])
    low = _line(x, y, no[i], no[i + 1], p - bubble + sat[i])
    high = _line(x, y, no[i + 1], no[i + 2], p - bubble + sat[i + 1])
    return low + w * (high - low)


@njit(**INLINE)
def _wet(ro, keys, no, x, y, region, p, rv):
    k0, k1 = ro[region], ro[region + 1]
    if k1 - k0 == 1:
        return _line(x, y, no[k0], no[k0 + 1], rv)
    i = _segment(keys, k0, k1, p)
    w = (p - keys[i]) / (keys[i + 1] - keys[i])
    a0, a1, c0, c1 = no[i], no[i + 1], no[i + 1], no[i + 2]
    low0, span0 = x[a0], x[a1 - 1] - x[a0]
    low1, span1 = x[c0], x[c1 - 1] - x[c0]
    low = low0 + w * (low1 - low0)
    span = span0 + w * (span1 - span0)
    fraction = (rv - low) / span if span > 0.0 else 0.0
    v0 = _line(x, y, a0, a1, low0 + fraction * span0)
    v1 = _line(x, y, c0, c1, low1 + fraction * span1)
    return v0 + w * (v1 - v0)


@njit(**OPTIONS)
def live_oil(pvtnum, p, rs, out, ro, keys, sat, no, x, b, bmu, viscosity):
    n_regions = len(ro) - 1
    for c in prange(len(out)):
        g = pvtnum[c]
        if g < 1:
            out[c] = 0.0
        elif g > n_regions:
            out[c] = np.nan
        else:
            v = _live(ro, keys, sat, no, x, b, g - 1, p[c], rs[c])
            out[c] = v / _live(ro, keys, sat, no, x, bmu, g - 1, p[c], rs[c]) if viscosity else v


@njit(**OPTIONS)
def wet_gas(pvtnum, p, rv, out, ro, keys, sat, no, x, b, bmu, viscosity):
    n_regions = len(ro) - 1
    for c in prange(len(out)):
        g = pvtnum[c]
        if g < 1:
            out[c] = 0.0
        elif g > n_regions:
            out[c] = np.nan
        else:
            v = _wet(ro, keys, no, x, b, g - 1, p[c], rv[c])
            out[c] = v / _wet(ro, keys, no, x, bmu, g - 1, p[c], rv[c]) if viscosity else v


@njit(**OPTIONS)
def saturated_line(pvtnum, at, out, ro, keys, sat, by_key):
    """Along the saturated records: the saturated value at a key (by_key: the bubble point of an
    Rs, Rv of saturated gas at p), else the key at a saturated value (Rs of saturated oil at p)."""
    n_regions = len(ro) - 1
    for c in prange(len(out)):
        g = pvtnum[c]
        if g < 1:
            out[c] = 0.0
        elif g > n_regions:
            out[c] = np.nan
        elif by_key:
            out[c] = _line(keys, sat, ro[g - 1], ro[g], at[c])
        else:
            out[c] = _line(sat, keys, ro[g - 1], ro[g], at[c])


@njit(**OPTIONS)
def dead_fluid(pvtnum, p, out, ro, x, b, bmu, viscosity):
    n_regions = len(ro) - 1
    for c in prange(len(out)):
        g = pvtnum[c]
        if g < 1:
            out[c] = 0.0
        elif g > n_regions:
            out[c] = np.nan
        else:
            v = _line(x, b, ro[g - 1], ro[g], p[c])
            out[c] = v / _line(x, bmu, ro[g - 1], ro[g], p[c]) if viscosity else v


@njit(**INLINE)
def _expansion(x):
    return 1.0 + x + 0.5 * x * x


@njit(**OPTIONS)
def water(pvtnum, p, out, records, viscosity):
    for c in prange(len(out)):
        g = pvtnum[c]
        if g < 1:
            out[c] = 0.0
        elif g > len(records):
            out[c] = np.nan
        else:
            p_ref, b_ref, cw, mu_ref, cv = records[g - 1]
            v = _expansion(cw * (p[c] - p_ref)) / b_ref
            out[c] = v / (_expansion((cw - cv) * (p[c] - p_ref)) / (b_ref * mu_ref)) if viscosity else v


@njit(**OPTIONS)
def pore_volume_multiplier(pvtnum, p, out, records):
    for c in prange(len(out)):
        g = pvtnum[c]
        if g < 1:
            out[c] = 0.0
        elif g > len(records):
            out[c] = np.nan
        else:
            out[c] = _expansion(records[g - 1, 1] * (p[c] - records[g - 1, 0]))


@njit(**OPTIONS)
def density_from_b(b, r, own, other, out):
    for c in prange(len(out)):
        out[c] = b[c] * (own[c] + r[c] * other[c])


@njit(**INLINE)
def _dew(keys, sat, k0, k1, rv):
    if k1 - k0 == 1:
        return keys[k0]
    for i in range(k0, k1 - 1):
        r0, r1 = sat[i], sat[i + 1]
        if r0 != r1 and min(r0, r1) <= rv and rv <= max(r0, r1):
            return keys[i] + (rv - r0) * ((keys[i + 1] - keys[i]) / (r1 - r0))
    i = k0 if rv < sat[k0:k1].min() else k1 - 2
    while i + 2 < k1 and sat[i] == sat[i + 1]:
        i += 1
    while i > k0 and sat[i] == sat[i + 1]:
        i -= 1
    if sat[i] == sat[i + 1]:
        return keys[i]
    return keys[i] + (rv - sat[i]) * ((keys[i + 1] - keys[i]) / (sat[i + 1] - sat[i]))


@njit(**OPTIONS)
def dew_point(pvtnum, rv, out, ro, keys, sat):
    n_regions = len(ro) - 1
    for c in prange(len(out)):
        g = pvtnum[c]
        if g < 1:
            out[c] = 0.0
        elif g > n_regions:
            out[c] = np.nan
        else:
            out[c] = _dew(keys, sat, ro[g - 1], ro[g], rv[c])
