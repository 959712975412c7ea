"""A straightforward Python rendering of the documented PVT arithmetic, used
to check the native calculations value for value (IEEE doubles throughout)."""

import numpy as np

TOLERANCE = 0.0001


class CellFailure(Exception):
    """The reference stops at a cell where the native code must fail."""

    def __init__(self, cell, text):
        super().__init__(text)
        self.cell = cell


def div(a, b):
    with np.errstate(all="ignore"):
        return float(np.float64(a) / np.float64(b))


def row_search(keys, x):
    first, count = 0, len(keys)
    while count > 0:
        half = count // 2
        mid = first + half
        if x > keys[mid]:
            first = mid + 1
            count -= half + 1
        else:
            count = half
    return first


def bracket_upper(found, n):
    return n - 1 if found == n else (1 if found == 0 else found)


def interpolate(keys, xs, ys, search, x, form="slope"):
    if len(ys) == 1:
        return ys[0]
    upper = bracket_upper(row_search(keys, search), len(keys))
    x0, x1, y0, y1 = xs[upper - 1], xs[upper], ys[upper - 1], ys[upper]
    if form == "slope":
        return (x - x0) * div(y1 - y0, x1 - x0) + y0
    t = div(x0 - x, x0 - x1)
    return y0 - ((y0 - y1) * t)


# Tables as plain data:
#   dead fluid table: [(P, B), ...]
#   live oil table:   [(Rs, [(P, B), ...]), ...]   the list's first element is the saturated point
#   wet gas table:    [(Pg, [(Rv, B), ...]), ...]
#   water record:     (P_ref, Bw_ref, Cw)


def interpolate_b(rows, p):
    return interpolate([r[0] for r in rows], [r[0] for r in rows], [r[1] for r in rows], p, p)


def interpolate_pbub(table, rs):
    keys = [row[0] for row in table]
    return interpolate(keys, keys, [row[1][0][0] for row in table], rs, rs)


def interpolate_bo_sat(table, p):
    keys = [row[1][0][0] for row in table]
    return interpolate(keys, keys, [row[1][0][1] for row in table], p, p)


def interpolate_one_over_bg_sat(table, rv, pg):
    return interpolate(
        [row[0] for row in table], [row[1][0][0] for row in table], [div(1.0, row[1][0][1]) for row in table], pg, rv
    )


def interpolate_one_over_bg_records(records, rv):
    keys = [r[0] for r in records]
    return interpolate(keys, keys, [div(1.0, r[1]) for r in records], rv, rv, form="fraction")


def one_over_bo(table, po, pbub):
    if TOLERANCE > abs(po - pbub):
        return div(1.0, interpolate_bo_sat(table, po))
    row = 0
    if len(table) > 1:
        row = bracket_upper(row_search([r[1][0][0] for r in table], pbub), len(table))
    return div(1.0, interpolate_b(table[row][1], po))


def one_over_bg(table, pg, pdew, rv):
    if TOLERANCE > abs(pg - pdew):
        return interpolate_one_over_bg_sat(table, rv, pg)
    found = row_search([r[0] for r in table], pg)
    if found in (0, len(table)):
        return interpolate_one_over_bg_sat(table, rv, pg)
    f1 = interpolate_one_over_bg_records(table[found][1], rv)
    f0 = interpolate_one_over_bg_records(table[found - 1][1], rv)
    p1, p0 = table[found][0], table[found - 1][0]
    t = div(p1 - pg, p1 - p0)
    return f1 - ((f1 - f0) * t)


def one_over_bw(record, pw):
    p_ref, bw_ref, cw = record
    x = (pw - p_ref) * cw
    return div(((x * 0.5) * x) + (x + 1.0), bw_ref)


def cells(regions, tables, per_cell, inputs, empty_text="Empty PVT table!!", check_empty=True):
    """Walks the cells like the native loop; raises CellFailure where it must fail."""
    out = []
    for c, region in enumerate(regions):
        if region < 1:
            out.append(0.0)
            continue
        pvt_id = region - 1
        if pvt_id >= len(tables):
            raise CellFailure(c, f"Wrong PVT region number: {pvt_id}, valid interval [0, {(len(tables) - 1) % 2**64}].")
        if check_empty and not tables[pvt_id]:
            raise CellFailure(c, empty_text)
        out.append(per_cell(tables[pvt_id], *(values[c] for values in inputs)))
    return out
